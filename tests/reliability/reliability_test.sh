#!/usr/bin/env bash
# Reliability: build/bin/probemond as a process in the lab's device namespace
# under load, under faults of what surrounds it, and against hostile clients.
# One case per run: reliability_test.sh CASE (through lab.sh exec). Lines
# starting "FIGURE:" are the numbers doc/testing.md quotes.
. "$(dirname "${BASH_SOURCE[0]}")/../support/lab_case.sh"

readonly UID_APP=10123
figure() { echo "FIGURE: $*"; }
rel() { pd_bin probemond-rel-client "$@"; }
rel_within() { local PD_LAUNCH=(timeout "$1"); rel "${@:2}"; }  # SECONDS ARGS...
pd_ctl_as() { local PD_LAUNCH=(setpriv --reuid="$1" --regid="$1" "$2"); pd_bin probemonctl "${@:3}"; }  # UID GROUPS ARGS...

# A wrapper folder whose two tools run the shell text BODY; "$real" in it is the lab's tool.
fake_bin() {
    local dir="$PD_TMP/sysbin" w
    mkdir -p "$dir"
    for w in iptables-wrapper-1.0 ip-wrapper-1.0; do
        printf '#!/bin/sh\nreal=%s\n%s\n' "$PD_ROOT/lab/wrappers/$w" "$1" >"$dir/$w"
        chmod +x "$dir/$w"
    done
    echo "$dir"
}

# Alive, answers a call and the dump, and no sanitizer report.
expect_healthy() {
    kill -0 "$PD_DAEMON_PID" 2>/dev/null || { fail "$1: daemon is gone"; return; }
    [[ "$(pd_ctl_within 5 rtt wlan0)" =~ ^-?[0-9]+$ ]] || fail "$1: rtt did not answer"
    pd_ctl_within 5 dump | grep -q "^interfaces (${#LAB_IFACES[@]}):" || fail "$1: dump did not answer"
    expect_eq "$1: sanitizer reports" 0 "$(pd_sanitizer_reports)"
}

# The daemon's "FDS THREADS": the smallest of eight samples over 0.8 s, as the
# engine opens the property file briefly every 100 ms.
fds_threads() {
    local fds=999999 tasks=999999 n i
    for i in $(seq 8); do
        n="$(ls "/proc/$PD_DAEMON_PID/fd" | wc -l)"; [ "$n" -lt "$fds" ] && fds="$n"
        n="$(ls "/proc/$PD_DAEMON_PID/task" | wc -l)"; [ "$n" -lt "$tasks" ] && tasks="$n"
        sleep 0.1
    done
    echo "$fds $tasks"
}

# at_rest [BEFORE]: "FDS THREADS" with probing suspended, read until a reading
# is BEFORE or, without it, the reading before (the last probe over, every
# hung-up client's thread gone), 20 s at most. What a finished load leaves for
# a moment goes away; a leaked descriptor or thread stays.
at_rest() {
    pd_ctl suspend-all-ping >/dev/null
    local last="" now deadline=$((SECONDS + 20))
    now="$(fds_threads)"
    until [ "$now" = "${1:-$last}" ] || [ $SECONDS -gt $deadline ]; do last="$now" now="$(fds_threads)"; done
    pd_ctl resume-all-ping >/dev/null
    echo "$now"
}
expect_no_growth() { expect_eq "descriptors and threads" "$1" "$(at_rest "$1")"; }  # BEFORE, no tolerance

steer_wlan0_with_auto() {
    pd_ctl add-ip-rule wlan0 >/dev/null
    pd_ctl add-ip-rule rmnet_data0 >/dev/null
    pd_ctl add-uid $UID_APP >/dev/null
    pd_ctl select wlan0 >/dev/null
    pd_ctl auto-select "wlan0,rmnet_data0," >/dev/null
    pd_wait_log "Auto select thread" 5 || fail "auto-select did not start"
}

# wlan0 turns slow until auto-select leaves it and fast until the auto branch
# leaves rmnet_data0 (a switch back, or the flush of a restart, which begins on
# wlan0), so the engine keeps switching both ways however loaded the machine is.
toggle_wlan0() {
    while :; do
        "$PD_LAB" delay wlan0 150
        until pd_auto_branch_is kest_probemon_rmnet_data0; do sleep 0.5; done
        "$PD_LAB" delay wlan0 20
        while pd_auto_branch_is kest_probemon_rmnet_data0; do sleep 0.5; done
    done
}

case_stress() {
    "$PD_LAB" delay wlan0 20
    "$PD_LAB" delay rmnet_data0 40
    pd_start_daemon || { fail "start"; return; }
    pd_bg watch pd_bin probemonctl watch
    steer_wlan0_with_auto
    local before i total=0; before="$(at_rest)"
    pd_bg toggler toggle_wlan0
    for i in $(seq 0 7); do
        # Client 0 alone cycles auto-select; the timeout turns a wedged call into a failure.
        pd_bg "client$i" rel_within 90 stress 60 $((1000 + i)) $([ $i -eq 0 ] && echo 25)
    done
    for i in $(seq 0 7); do
        wait "${PD_CHILDREN[$((i + 2))]}" || fail "client $i: $(head -c 600 "$PD_TMP/client$i")"
        total=$((total + $(sed -n 's/^calls=\([0-9]*\).*/\1/p' "$PD_TMP/client$i")))
    done
    kill "${PD_CHILDREN[1]}"
    "$PD_LAB" delay wlan0 20
    local to_cell to_wifi
    to_cell="$(pd_log_count '^Switch to rmnet_data0$')" to_wifi="$(pd_log_count '^Switch to wlan0$')"
    [ "$to_cell" -ge 1 ] && [ "$to_wifi" -ge 1 ] || fail "no switches both ways (to rmnet_data0 $to_cell, to wlan0 $to_wifi)"
    expect_no_growth "$before"
    expect_healthy "after the stress"
    figure "stress clients=8 seconds=60 calls=$total switches_to_rmnet=$to_cell switches_to_wlan=$to_wifi fds_threads=$before"
}

# Failing (listing its descriptors: none may be inherited) and
# garbage-printing wrappers: every reply stays 0, each command runs once.
case_wrappers() {
    local body texts n
    for body in \
        'find /proc/$$/fd -mindepth 1 -printf "FDLIST $$ %f %l\n"; echo "refused: $*"; echo "tool error" >&2; exit 1' \
        'head -c 2048 /dev/urandom; printf "\000\001\377\n"; printf "%03000d\n" 0; printf "tail-without-newline"'; do
        : >"$PD_LOG"
        pd_start_daemon "$(fake_bin "$body")" || { fail "start"; return; }
        pd_bg watch pd_bin probemonctl watch
        for n in "${LAB_IFACES[@]:0:3}"; do pd_ctl start-ping $n >/dev/null; done
        pd_wait_true 5 pd_log_count "rtt=" || true
        for n in "add-uid $UID_APP" "add-ip-rule wlan1" "select rmnet_data1" "del-uid $UID_APP"; do
            expect_eq "$n" 0 "$(pd_ctl $n)"
        done
        texts="$(pd_log_texts)"
        expect_eq "runner failures (the shell did start)" 0 "$(grep -c 'SEND PROBEMOND NDC COMMAND - FAIL' <<<"$texts")"
        case "$body" in
        find*)
            n="$(grep -c '^PROBEMOND EXECNETD RESP refused: ' <<<"$texts")"
            expect_eq "tool stderr lines" "$n" "$(grep -cx 'tool error' "$PD_LOG")"
            local fdlist; fdlist="$(sed -n 's/^PROBEMOND EXECNETD RESP FDLIST //p' <<<"$texts")"
            expect_eq "wrapper runs that listed their descriptors" "$n" "$(cut -d' ' -f1 <<<"$fdlist" | sort -u | wc -l)"
            expect_eq "inherited descriptors" "" "$(cut -d' ' -f2- <<<"$fdlist" | grep -vE "^[012] |$PD_TMP/sysbin/" | head -n 5)"
            figure "wrappers failing_commands=$n" ;;
        *)
            # A line is read in pieces of 1023 characters and logged within 1024 bytes.
            n="$(grep -c 'PROBEMOND EXECNETD RESP tail-without-newline' <<<"$texts")"
            [ "$n" -gt 80 ] || fail "only $n unterminated last lines"
            expect_eq "full pieces of the long line" $((2 * n)) "$(grep -cE '^PROBEMOND EXECNETD RESP 0{999}$' <<<"$texts")"
            expect_eq "last pieces of the long line" "$n" "$(grep -cE '^PROBEMOND EXECNETD RESP 0{954}$' <<<"$texts")" ;;
        esac
        expect_healthy "wrapper '${body:0:20}'"
        pd_stop_daemon
        pd_clean_kernel
    done
}

case_iface_recreated() {
    "$PD_LAB" delay wlan1 20
    pd_start_daemon || { fail "start"; return; }
    pd_ctl start-ping wlan1 >/dev/null
    pd_wait_true 5 pd_rtt_in wlan1 20 100 || fail "wlan1 never measured"
    ip link del wlan1 || { fail "cannot delete wlan1"; return; }
    expect_eq "rtt of a deleted interface" -1 "$(pd_ctl rtt wlan1)"
    "$PD_LAB" relink wlan1 || { fail "cannot re-create wlan1"; return; }
    pd_wait_true 10 pd_rtt_in wlan1 20 100 || fail "wlan1 did not recover: rtt $(pd_ctl rtt wlan1)"
    expect_healthy "after the interface came back"
}

case_callback_killed() {
    "$PD_LAB" delay wlan0 20
    "$PD_LAB" delay rmnet_data0 40
    pd_start_daemon || { fail "start"; return; }
    steer_wlan0_with_auto
    # The engine calls a client that takes the call and never answers: the
    # daemon still serves, and the switch goes on only once the client dies.
    pd_bg hang rel hang-watcher
    pd_wait_file "$PD_TMP/hang" "serving" 5 || { fail "hang-watcher did not start"; return; }
    "$PD_LAB" delay wlan0 150
    pd_wait_file "$PD_TMP/hang" "onAutoSelect(rmnet_data0) taken" 40 || { fail "no switch callback"; return; }
    pd_auto_branch_is kest_probemon_rmnet_data0 && fail "the switch went on before the callback returned"
    [[ "$(pd_ctl_within 5 rtt wlan0)" =~ ^[0-9]+$ ]] || fail "no answer while the engine waited"
    kill "${PD_CHILDREN[-1]}"
    pd_wait_true 10 pd_auto_branch_is kest_probemon_rmnet_data0 ||
        fail "the engine did not go on after the client died: auto branch '$(pd_auto_branch)'"
    expect_eq "disable with no client" 0 "$(pd_ctl_within 5 disable-auto-select)"
    expect_healthy "after the callback client was killed"
}

case_no_net_admin() {
    # The kernel refuses SOCK_DESTROY (an error record per request, not
    # counted) and the wrappers lose the right too; probing needs no CAP_NET_ADMIN.
    # The .rc's identity less that capability: a phone whose kernel or policy
    # withholds it.
    "$PD_LAB" delay wlan0 20
    lab_read_identity -net_admin || { fail "identity"; return; }
    pd_start_daemon || { fail "start"; return; }
    [ $((0x$(sed -n 's/^CapEff:\t*//p' "/proc/$PD_DAEMON_PID/status") & (1 << 12))) -eq 0 ] || fail "CAP_NET_ADMIN kept"
    pd_listen listener 7010 || { fail "listener"; return; }
    pd_ctl add-uid $UID_APP >/dev/null
    pd_ctl select wlan0 >/dev/null
    pd_hold conn1 $UID_APP 7010 || { fail "uid $UID_APP could not connect"; return; }
    expect_eq "select with socket destruction" 0 "$(pd_ctl select rmnet_data0)"
    pd_wait_log "selectInterface prev=wlan0, curr=rmnet_data0, kill=1" 5 || fail "no kill=1 selection"
    pd_ctl start-ping wlan0 >/dev/null
    pd_wait_true 5 pd_rtt_in wlan0 20 100 || fail "no probe without CAP_NET_ADMIN: rtt $(pd_ctl rtt wlan0)"
    grep -q "closed:" "$PD_TMP/conn1" && fail "a socket was destroyed without CAP_NET_ADMIN"
    unless_sock_diag_refused expect_eq "Destroyed or failure lines" 0 "$(pd_log_count 'Destroyed [0-9]* sockets\|Failed to kill sockets of uid')"
    grep -q "Permission denied" "$PD_LOG" || fail "the wrappers were not refused"
    expect_healthy "without CAP_NET_ADMIN"
}

case_property_garbage() {
    "$PD_LAB" delay wlan0 20
    pd_start_daemon || { fail "start"; return; }
    # A timeout that is no number: zero-length waits, 0 as the result, below the threshold.
    echo "vendor.kest.probemond.ping_timeout=abc" >"$PROBEMOND_PROPERTY_FILE"
    pd_ctl start-ping wlan0 >/dev/null
    pd_wait_true 6 pd_log_at_least '^wlan0,rtt=0,' 3 || fail "no probe returned 0 with a garbage timeout"
    expect_eq "switches with a garbage timeout" 0 "$(pd_log_count 'switch DNS to')"
    # A threshold that is no number: 0, so every probe is slow and the servers move.
    echo "vendor.kest.probemond.rtt_timeout_threshold=xyz" >"$PROBEMOND_PROPERTY_FILE"
    pd_wait_true 20 pd_log_at_least 'switch DNS to' 1 || fail "servers did not rotate"
    # Binary junk around a real setting: the setting still takes effect.
    { head -c 3000 /dev/urandom; printf '\n\000=\000\nno equals\n=no key\n%05000d=%05000d\n' 0 0
      echo "vendor.kest.probemond.rtt_debug=1"; } >"$PROBEMOND_PROPERTY_FILE"
    pd_wait_log "isPingThreadRunning=1" 5 || fail "a setting after junk lines was not read"
    expect_healthy "with junk in the property file"
}

case_uid_injection() {
    # The mark an injected command would leave, where the daemon's user may write.
    local marker="$PD_TMP/writable/injected" u
    mkdir "$PD_TMP/writable" && chown "$LAB_DAEMON_UID" "$PD_TMP/writable"
    pd_daemon_file "$PD_TMP/commands"
    pd_start_daemon "$(fake_bin "echo \"\${0##*/} \$*\" >>$PD_TMP/commands; exec \"\$real\" \"\$@\"")" || { fail "start"; return; }
    : >"$PD_TMP/commands"
    local evil=("1000;touch $marker" "\$(touch $marker)" "\`touch $marker\`" $'1000\ntouch '"$marker"
                "1000|touch $marker" "1000 -j ACCEPT" "-1" "+5" "0x3e8" "010" "1 " "4294967295" "12345678901")
    for u in "${evil[@]}"; do
        expect_eq "add-uid reply" 0 "$(pd_ctl add-uid "$u")"
        expect_eq "del-uid reply" 0 "$(pd_ctl del-uid "$u")"
    done
    # Interface names reach no command unless the registry knows them.
    for u in "wlan0;touch $marker" "\$(touch $marker)"; do
        for c in start-ping add-ip-rule del-ip-rule auto-select; do pd_ctl $c "$u" >/dev/null; done
        pd_ctl disable-auto-select >/dev/null
    done
    # Only the auto branch's flush, which enabling and disabling run whatever the list.
    expect_eq "commands for hostile text" "" "$(grep -vxF "iptables-wrapper-1.0 -w -t mangle -F kest_probemon_iface_auto" "$PD_TMP/commands")"
    [ -e "$marker" ] && fail "a shell ran the injected command"
    expect_eq "refusals logged" $((2 * ${#evil[@]})) "$(grep -c 'Invalid uid' "$PD_LOG")"
    for u in $UID_APP 4294967294; do
        pd_ctl add-uid $u >/dev/null
        grep -q -- "--uid-owner $u " "$PD_TMP/commands" || fail "uid $u reached no wrapper"
    done
    expect_healthy "after hostile text"
}

case_malformed_parcels() {
    pd_start_daemon || { fail "start"; return; }
    # Every kind of call once first, so nothing opened lazily counts as a leak.
    pd_ctl rtt wlan0 >/dev/null; pd_ctl dump >/dev/null; pd_ctl disable-auto-select >/dev/null
    local before; before="$(at_rest)"
    rel_within 90 malformed >"$PD_TMP/malformed" 2>&1 || fail "malformed run: $(tail -n 5 "$PD_TMP/malformed")"
    # No malformed request reached select with a bad name: the mutex is free.
    expect_eq "select afterwards" 0 "$(pd_ctl_within 5 select wlan0)"
    expect_eq "long names, each in one printable line" 2 \
        "$(pd_log_texts | grep -c '^getInterfaceRtt interface name too long: [ -~]*$')"
    local tries; tries="$(pd_log_count 'Auto select tries to start ping thread')"
    [ "$tries" -ge 1 ] && [ "$tries" -le 64 ] || fail "a list of 20,000 names logged $tries lines"
    expect_no_growth "$before"
    expect_healthy "after malformed requests"
    figure "$(grep '^malformed ' "$PD_TMP/malformed") fds_threads=$before"
}

# The daemon runs as uid 1000, as init runs it, and admits group 3003: a
# stranger is refused and changes nothing; its owner, root and a member of
# 3003 are served; root's callback, open to group 1000, reaches it.
case_binder_access() {
    : >"$PD_TMP/commands" && chmod 666 "$PD_TMP/commands"
    # The daemon admits inet (3003), one of its own groups, beside its uid and root.
    PROBEMOND_BINDER_GROUP=3003 pd_start_daemon "$(fake_bin "echo \"\$*\" >>$PD_TMP/commands")" ||
        { fail "start"; return; }
    local out rc
    out="$(pd_ctl_as 2001 --clear-groups add-uid $UID_APP 2>&1)"; rc=$?
    expect_eq "stranger's exit status" 1 "$rc"
    [[ "$out" == "probemonctl: permission denied: "* ]] || fail "stranger was told '$out'"
    expect_eq "commands for the stranger" "" "$(grep -e "--uid-owner" "$PD_TMP/commands")"
    expect_eq "owner" 0 "$(pd_ctl_as 1000 --clear-groups add-uid $UID_APP)"
    grep -q -e "--uid-owner $UID_APP " "$PD_TMP/commands" || fail "the owner's add-uid ran no command"
    expect_eq "member of 3003" 0 "$(pd_ctl_as 2002 --groups=3003 select wlan0)"
    [[ "$(pd_ctl rtt wlan0)" =~ ^-?[0-9]+$ ]] || fail "root was not served"
    # As the lab starts its clients: their sockets open to the daemon's group.
    pd_bg watch pd_bin probemonctl watch
    pd_wait_file "$PD_TMP/watch" "serving" 5 || { fail "watch did not start"; return; }
    pd_ctl auto-select "wlan0," >/dev/null
    pd_wait_file "$PD_TMP/watch" "onAutoSelect(wlan0)" 5 || fail "the daemon did not reach root's callback"
    pd_ctl disable-auto-select >/dev/null
    expect_healthy "after callers were sorted"
}

pd_run_case "${1:-}"
