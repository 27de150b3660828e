# Shared by the end-to-end tests and the demo: runs build/bin/probemond in
# the lab's device namespace with a private binder directory and property
# file, and drives it with probemonctl. Source it, then call pd_init.
# Every function expects to run inside the device namespace (lab.sh exec).

pd_init() {
    PD_ROOT="${PROBEMOND_SOURCE_DIR:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)}"
    PD_BIN="${PROBEMOND_BUILD_DIR:-$PD_ROOT/build}/bin"
    PD_LAB="$PD_ROOT/lab/lab.sh"
    PD_TMP="$(mktemp -d /tmp/probemond-e2e.XXXXXX)"
    export PROBEMOND_BINDER_DIR="$PD_TMP/binder"
    export PROBEMOND_PROPERTY_FILE="$PD_TMP/properties"
    : >"$PROBEMOND_PROPERTY_FILE"
    PD_LOG="$PD_TMP/probemond.log"
    PD_DAEMON_PID=""
    PD_SANITIZER_REPORTS=0
    # A race report must not scroll by in a log that is deleted afterwards.
    export TSAN_OPTIONS="halt_on_error=1 ${TSAN_OPTIONS:-}"
    PD_CHILDREN=()
    # Target programs under an emulator: PD_BIN becomes launchers that start
    # each through PROBEMOND_EMULATOR, for every caller (setpriv, timeout,
    # netexec, programs that spawn probemonctl). The launcher execs, so a
    # program's pid is the launcher's.
    if [ -n "${PROBEMOND_EMULATOR:-}" ]; then
        local b
        mkdir -p "$PD_TMP/bin"
        chmod 711 "$PD_TMP"  # programs run as application UIDs too
        for b in "$PD_BIN"/*; do
            printf '#!/bin/sh\nexec %s "%s" "$@"\n' "$PROBEMOND_EMULATOR" "$b" >"$PD_TMP/bin/${b##*/}"
            chmod +x "$PD_TMP/bin/${b##*/}"
        done
        PD_BIN="$PD_TMP/bin"
    fi
}

# Stops everything started here and leaves the lab's kernel state as found.
pd_cleanup() {
    pd_stop_daemon
    local pid
    for pid in "${PD_CHILDREN[@]}"; do kill "$pid" 2>/dev/null; done
    for pid in "${PD_CHILDREN[@]}"; do wait "$pid" 2>/dev/null; done
    PD_CHILDREN=()
    pd_clean_kernel
    [ -n "${PD_TMP:-}" ] && rm -rf "$PD_TMP"
    PD_TMP=""
}

pd_clean_kernel() {
    local t c prio
    for t in mangle nat; do
        while iptables-legacy -t "$t" -D OUTPUT -j kest_probemon_uid 2>/dev/null; do :; done
        while iptables-legacy -t "$t" -D POSTROUTING -j kest_probemon_snat 2>/dev/null; do :; done
        for c in $(iptables-legacy -t "$t" -S 2>/dev/null | sed -n 's/^-N \(kest_[a-z0-9_]*\)$/\1/p'); do
            iptables-legacy -t "$t" -F "$c"
        done
        for c in $(iptables-legacy -t "$t" -S 2>/dev/null | sed -n 's/^-N \(kest_[a-z0-9_]*\)$/\1/p'); do
            iptables-legacy -t "$t" -X "$c"
        done
    done
    for prio in $(seq 29500 100 30400); do
        while ip -4 rule del prio "$prio" 2>/dev/null; do :; done
    done
}

# pd_start_daemon [SYSTEM_BIN]: starts probemond and waits for its service.
pd_start_daemon() {
    local sysbin="${1:-${PROBEMOND_SYSTEM_BIN:-$PD_ROOT/lab/wrappers}}"
    PROBEMOND_SYSTEM_BIN="$sysbin" "$PD_BIN/probemond" 2>>"$PD_LOG" &
    PD_DAEMON_PID=$!
    pd_wait_for_service
}

# pd_wait_for_service: waits (5 s at most; 60 s under an emulator, where each
# of the start-up's wrapper commands forks the emulator) until the daemon
# started as PD_DAEMON_PID has registered its service; fails at once if it died.
pd_wait_for_service() {
    local n
    for n in $(seq "$([ -n "${PROBEMOND_EMULATOR:-}" ] && echo 1200 || echo 100)"); do
        [ -S "$PROBEMOND_BINDER_DIR/vndbinder/probemond_Binder" ] && return 0
        kill -0 "$PD_DAEMON_PID" 2>/dev/null || return 1
        sleep 0.05
    done
    return 1
}

# pd_recording_bin: a wrapper folder whose tools append their name and argv
# to $PD_TMP/commands, then run the lab's tool. Prints the folder.
pd_recording_bin() {
    local dir="$PD_TMP/sysbin" w
    mkdir -p "$dir"
    for w in iptables-wrapper-1.0 ip-wrapper-1.0; do
        cat >"$dir/$w" <<W
#!/bin/sh
echo "$w \$*" >>"$PD_TMP/commands"
exec "$PD_ROOT/lab/wrappers/$w" "\$@"
W
        chmod +x "$dir/$w"
    done
    echo "$dir"
}

pd_stop_daemon() {
    [ -n "${PD_DAEMON_PID:-}" ] || return 0
    kill "$PD_DAEMON_PID" 2>/dev/null
    wait "$PD_DAEMON_PID" 2>/dev/null
    PD_DAEMON_PID=""
    if grep -qE "^(==[0-9]+==ERROR: |WARNING: ThreadSanitizer|SUMMARY: [A-Za-z]+Sanitizer)|runtime error: " "$PD_LOG" 2>/dev/null; then
        PD_SANITIZER_REPORTS=1
        echo "--- sanitizer report from probemond ---" >&2
        grep -A 30 -E "^(==[0-9]+==ERROR: |WARNING: ThreadSanitizer)|runtime error: " "$PD_LOG" | head -n 80 >&2
    fi
    rm -f "$PROBEMOND_BINDER_DIR/vndbinder/probemond_Binder"
}

pd_ctl() { "$PD_BIN/probemonctl" "$@"; }

# The daemon's log texts, without liblog's prefix; tool output is dropped.
pd_log_texts() {
    sed -n 's/^probemond [VDIWEF] [0-9-]* [0-9:.]* *[0-9]* *[0-9]* //p' "$PD_LOG"
}

# pd_wait_file FILE TEXT SECONDS: waits for a line of FILE containing TEXT.
pd_wait_file() {
    local file="$1" text="$2" deadline=$((SECONDS + $3))
    while [ $SECONDS -le $deadline ]; do
        grep -qF -- "$text" "$file" 2>/dev/null && return 0
        sleep 0.1
    done
    return 1
}

pd_wait_log() { pd_wait_file "$PD_LOG" "$1" "$2"; }

# pd_bg NAME CMD...: runs CMD in the background, output to $PD_TMP/NAME.
pd_bg() {
    local name="$1"; shift
    # No stdbuf: its preload clashes with sanitizer runtimes; the programs
    # started here flush their own lines.
    "$@" >"$PD_TMP/$name" 2>&1 &
    PD_CHILDREN+=($!)
}

# Traffic as an application UID (setpriv drops to it for one command).
pd_as_uid() {
    local uid="$1"; shift
    setpriv --reuid="$uid" --regid="$uid" --clear-groups "$@"
}

pd_listen() {  # NAME PORT: a TCP listener on 8.8.8.8 in the internet namespace
    pd_bg "$1" "$PD_LAB" netexec "$PD_BIN/probemond-lab-peer" listen 8.8.8.8 "$2"
    pd_wait_file "$PD_TMP/$1" "listening" 10
}

pd_hold() {  # NAME UID PORT: a TCP connection held open by UID
    pd_bg "$1" setpriv --reuid="$2" --regid="$2" --clear-groups "$PD_BIN/probemond-lab-peer" hold 8.8.8.8 "$3"
    pd_wait_file "$PD_TMP/$1" "connected from" 10
}

# pd_udp_carrier UID COUNT: sends COUNT datagrams as UID; prints the interface
# whose counter rose by at least COUNT ("none" when no interface did).
pd_udp_carrier() {
    local uid="$1" count="$2" i before=() after=() ifaces=(wlan0 wlan1 rmnet_data0 rmnet_data1)
    for i in "${!ifaces[@]}"; do before[$i]="$("$PD_LAB" counters "${ifaces[$i]}")"; done
    pd_as_uid "$uid" "$PD_BIN/probemond-lab-peer" udp 8.8.8.8 9 "$count" >/dev/null || { echo "send-failed"; return; }
    sleep 0.2
    for i in "${!ifaces[@]}"; do
        after[$i]="$("$PD_LAB" counters "${ifaces[$i]}")"
        if [ $((after[i] - before[i])) -ge "$count" ]; then echo "${ifaces[$i]}"; return; fi
    done
    echo "none"
}

# pd_wait_true SECONDS CMD...: polls CMD until it succeeds.
pd_wait_true() {
    local deadline=$((SECONDS + $1)); shift
    while [ $SECONDS -le $deadline ]; do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}

# The auto branch's jump target, or nothing.
pd_auto_branch() {
    iptables-legacy -t mangle -S kest_probemon_iface_auto 2>/dev/null | sed -n 's/^-A kest_probemon_iface_auto -j //p'
}
pd_auto_branch_is() { [ "$(pd_auto_branch)" = "$1" ]; }
