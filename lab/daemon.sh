# shellcheck shell=bash
# Drives the daemon in the lab, for the end-to-end and reliability tests, the
# demo and the benches: runs build/bin/probemond in the lab's device namespace
# as init runs it on a phone (lab/identity.sh), with a private binder
# directory and property file, drives it with probemonctl, sends traffic and
# reads the lab's counters. Source it, then call pd_init. Every function
# expects to run inside the device namespace.

PD_ROOT="${PROBEMOND_SOURCE_DIR:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)}"
. "$PD_ROOT/lab/interfaces.sh"
. "$PD_ROOT/lab/identity.sh"

pd_init() {
    PD_BIN="${PROBEMOND_BUILD_DIR:-$PD_ROOT/build}/bin"
    PD_LAB="$PD_ROOT/lab/lab.sh"
    lab_read_identity || exit 2
    PD_TMP="$(mktemp -d /tmp/probemond-lab.XXXXXX)"
    # What the daemon's user may use here, as on a phone: this folder to pass
    # through, its binder directory, the property file to read and its
    # folder to watch (the host's property wait needs to read the folder).
    chmod 0711 "$PD_TMP"
    export PROBEMOND_BINDER_DIR="$PD_TMP/binder" PROBEMOND_PROPERTY_FILE="$PD_TMP/props/properties"
    mkdir -p "$PROBEMOND_BINDER_DIR/vndbinder" "$PD_TMP/props"
    chown "$LAB_DAEMON_UID:$LAB_DAEMON_GID" "$PROBEMOND_BINDER_DIR/vndbinder"
    : >"$PROBEMOND_PROPERTY_FILE"
    # The clients here run as root; the daemon reaches their callback sockets
    # through its group, as sepolicy lets it reach its client on a phone.
    export PROBEMOND_BINDER_GROUP="$LAB_DAEMON_GID"
    # The lab's wrappers add every line they refuse here.
    export PROBEMOND_WRAPPER_REFUSALS="$PD_TMP/refused"
    pd_daemon_file "$PROBEMOND_WRAPPER_REFUSALS"
    PD_LOG="$PD_TMP/probemond.log"
    PD_DAEMON_PID="" PD_SANITIZER_REPORTS=0 PD_REFUSED=0 PD_CHILDREN=() PD_LAUNCH=()
    # A race report must not scroll by in a log that is deleted afterwards.
    export TSAN_OPTIONS="halt_on_error=1 ${TSAN_OPTIONS:-}"
}

# pd_bin NAME ARGS...: every project binary starts here, behind PD_LAUNCH
# (setpriv, lab.sh netexec) when a caller sets it, and behind the emulator in
# a cross build; with PD_EXEC set it replaces the shell, so a background job's
# pid is the binary's (qemu-user runs the program in its own process).
pd_bin() { ${PD_EXEC:+exec} "${PD_LAUNCH[@]}" ${PROBEMOND_EMULATOR:-} "$PD_BIN/$1" "${@:2}"; }
pd_ctl() { pd_bin probemonctl "$@"; }
pd_ctl_within() { local PD_LAUNCH=(timeout "$1"); pd_bin probemonctl "${@:2}"; }  # SECONDS ARGS...

# pd_daemon_file PATH: an empty file that the daemon, and what it starts, may write.
pd_daemon_file() { : >"$1" && chown "$LAB_DAEMON_UID:$LAB_DAEMON_GID" "$1"; }

# Stops everything started here and leaves the lab's kernel state as found;
# false when the wrappers refused a line during the run.
pd_cleanup() {
    pd_stop_daemon
    local pid
    for pid in "${PD_CHILDREN[@]}"; do kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
    PD_CHILDREN=()
    pd_clean_kernel
    pd_take_refusals
    [ -n "${PD_TMP:-}" ] && rm -rf "$PD_TMP"
    PD_TMP=""
    [ "$PD_REFUSED" -eq 0 ]
}

# Names on stderr each line the wrappers refused since the last call, and
# remembers that the run had one.
pd_take_refusals() {
    [ -s "${PROBEMOND_WRAPPER_REFUSALS:-}" ] || return 0
    PD_REFUSED=1
    sed 's/^/FAIL: the wrappers refused: /' "$PROBEMOND_WRAPPER_REFUSALS" >&2
    : >"$PROBEMOND_WRAPPER_REFUSALS"
}

pd_clean_kernel() {
    local t prio
    for t in mangle nat; do iptables-legacy-save -t $t | grep -v kest_ | iptables-legacy-restore -w -T $t; done
    for prio in "${LAB_PRIORITY[@]}"; do
        while ip -4 rule del prio "$prio" 2>/dev/null; do :; done
    done
}

# pd_start_daemon [SYSTEM_BIN]: starts probemond as the .rc's service
# (LAB_DAEMON_LAUNCH) with only 0, 1 and 2 open (so every other descriptor it
# holds is its own) and waits for its service: 30 s on a loaded machine, 60 s
# under an emulator, where every one of the start's wrapper commands forks the
# emulator.
pd_start_daemon() {
    local sysbin="${1:-${PROBEMOND_SYSTEM_BIN:-$PD_ROOT/lab/wrappers}}"
    (
        for fd in /proc/$BASHPID/fd/*; do
            fd="${fd##*/}"
            [ "$fd" -gt 2 ] && eval "exec $fd>&-" 2>/dev/null
        done
        export PROBEMOND_SYSTEM_BIN="$sysbin" PD_EXEC=1
        PD_LAUNCH=("${LAB_DAEMON_LAUNCH[@]}")
        pd_bin probemond
    ) 2>>"$PD_LOG" </dev/null &
    PD_DAEMON_PID=$!
    local deadline=$((SECONDS + ${PROBEMOND_EMULATOR:+30} + 30))
    until [ -S "$PROBEMOND_BINDER_DIR/vndbinder/probemond_Binder" ]; do
        kill -0 "$PD_DAEMON_PID" 2>/dev/null && [ $SECONDS -le $deadline ] || return 1
        sleep 0.05
    done
}

pd_stop_daemon() {
    [ -n "${PD_DAEMON_PID:-}" ] || return 0
    kill "$PD_DAEMON_PID" 2>/dev/null
    wait "$PD_DAEMON_PID" 2>/dev/null
    PD_DAEMON_PID=""
    if [ "$(pd_sanitizer_reports)" != 0 ]; then
        PD_SANITIZER_REPORTS=1
        echo "--- sanitizer report from probemond ---" >&2
        grep -A 30 -E "^(==[0-9]+==ERROR: |WARNING: ThreadSanitizer)|runtime error: " "$PD_LOG" | head -n 80 >&2
    fi
    pd_take_refusals
    rm -f "$PROBEMOND_BINDER_DIR/vndbinder/probemond_Binder"
}

pd_sanitizer_reports() {
    [ -f "$PD_LOG" ] || { echo 0; return; }
    grep -cE "^(==[0-9]+==ERROR: |WARNING: ThreadSanitizer|SUMMARY: [A-Za-z]+Sanitizer)|runtime error: " "$PD_LOG" 2>/dev/null
}

# The daemon's log texts, without liblog's prefix.
pd_log_texts() { sed -n 's/^probemond [VDIWEF] [0-9-]* [0-9:.]* *[0-9]* *[0-9]* //p' "$PD_LOG"; }
pd_log_count() { pd_log_texts | grep -c -- "$1"; }
pd_log_at_least() { [ "$(pd_log_count "$1")" -ge "$2" ]; }  # PATTERN N
pd_rtt_in() { local r; r="$(pd_ctl rtt "$1")"; [ "$r" -ge "$2" ] && [ "$r" -lt "$3" ]; }  # IFACE LO HI

# pd_wait_file FILE TEXT SECONDS: waits for a line of FILE containing TEXT.
pd_wait_file() { pd_wait_true "$3" grep -qF -- "$2" "$1"; }
pd_wait_log() { pd_wait_file "$PD_LOG" "$1" "$2"; }

# pd_wait_true SECONDS CMD...: polls CMD until it succeeds.
pd_wait_true() {
    local deadline=$((SECONDS + $1)); shift
    until "$@" 2>/dev/null; do
        [ $SECONDS -le $deadline ] || return 1
        sleep 0.1
    done
}

# pd_bg NAME CMD...: runs CMD in the background, output to $PD_TMP/NAME.
pd_bg() {
    local name="$1"; shift
    (
        PD_EXEC=1
        if declare -F "$1" >/dev/null; then "$@"; else exec "$@"; fi
    ) >"$PD_TMP/$name" 2>&1 &
    PD_CHILDREN+=($!)
}

pd_in_net() {  # BINARY ARGS...: a project binary run in the internet namespace
    local PD_LAUNCH=("$PD_LAB" netexec)
    pd_bin "$@"
}

pd_listen() {  # NAME PORT: a TCP listener on 8.8.8.8 in the internet namespace
    pd_bg "$1" pd_in_net probemond-lab-peer listen 8.8.8.8 "$2"
    pd_wait_file "$PD_TMP/$1" "listening" 10
}

pd_as_uid() {  # UID BINARY ARGS...: a project binary run as an application UID
    local PD_LAUNCH=(setpriv --reuid="$1" --regid="$1" --clear-groups)
    pd_bin "${@:2}"
}

pd_hold() {  # NAME UID PORT: a TCP connection held open by UID
    pd_bg "$1" pd_as_uid "$2" probemond-lab-peer hold 8.8.8.8 "$3"
    pd_wait_file "$PD_TMP/$1" "connected from" 10
}

# pd_udp_carrier UID COUNT: sends COUNT datagrams as UID; prints the interface
# whose counter rose by at least COUNT, once one has (they are counted when the
# internet side receives them), or "none" when none did within 10 seconds.
pd_udp_carrier() {
    local before carrier deadline=$((SECONDS + 10))
    before="$("$PD_LAB" counters)"
    pd_as_uid "$1" probemond-lab-peer udp 8.8.8.8 9 "$2" >/dev/null || { echo "send-failed"; return; }
    while :; do
        carrier="$(awk -v n="$2" 'NR == FNR { b[$1] = $2; next } $2 - b[$1] >= n { print $1; exit }' \
            <(echo "$before") <("$PD_LAB" counters))"
        [ -n "$carrier" ] && { echo "$carrier"; return; }
        [ $SECONDS -le $deadline ] || break
        sleep 0.05
    done
    echo "none"
}

# The auto branch's jump target, or nothing.
pd_auto_branch() {
    iptables-legacy -w -t mangle -S kest_probemon_iface_auto 2>/dev/null | sed -n 's/^-A kest_probemon_iface_auto -j //p'
}
pd_auto_branch_is() { [ "$(pd_auto_branch)" = "$1" ]; }
