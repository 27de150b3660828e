#!/usr/bin/env bash
# Reliability: build/bin/probemond as a process in the lab's device namespace
# under load, under faults of what surrounds it, and against hostile clients.
# One case per run: reliability_test.sh CASE (run through lab.sh exec).
# Exit 0 pass, 1 fail, 77 skipped. Lines starting "FIGURE:" are the numbers
# the README quotes.
set -u  # no pipefail: "| grep -q" may close its pipe early
. "$(dirname "${BASH_SOURCE[0]}")/../e2e/daemon_lab.sh"

. "$(dirname "${BASH_SOURCE[0]}")/../e2e/test_assert.sh"
figure() { echo "FIGURE: $*"; }

finish() {
    [ -n "${REL_TOGGLER:-}" ] && kill "$REL_TOGGLER" 2>/dev/null && wait "$REL_TOGGLER" 2>/dev/null
    show_failure_context 40
    # A case that deleted an interface puts it back even when it failed.
    ip link show wlan1 >/dev/null 2>&1 || "$PD_LAB" relink wlan1
    lab_defaults
    pd_cleanup
}

[ "$(id -u)" -eq 0 ] || { echo "skipped: needs root"; exit 77; }
[ -n "${PROBEMOND_LAB_INSIDE:-}${PROBEMOND_SYSTEM_BIN:-}" ] || { echo "skipped: run through lab.sh exec"; exit 77; }

lab_defaults() {
    local i
    for i in wlan0 wlan1 rmnet_data0 rmnet_data1 rmnet_data2 rmnet_data3 rmnet_data4 rmnet_data5 rmnet_data6 rmnet_data7; do
        "$PD_LAB" delay "$i" 0; "$PD_LAB" fault "$i" off; "$PD_LAB" loss "$i" 0
    done
}

pd_init
trap finish EXIT
pd_clean_kernel
lab_defaults
REL_CLIENT="$PD_BIN/probemond-rel-client"
readonly UID_APP=10123

# rel_start [PREFIX...]: like pd_start_daemon, but the daemon starts with only
# 0, 1 and 2 open, so every other descriptor it holds is its own, and it can
# run under a prefix command (setpriv).
rel_start() {
    (
        for fd in /proc/$BASHPID/fd/*; do
            fd="${fd##*/}"
            [ "$fd" -gt 2 ] && eval "exec $fd>&-" 2>/dev/null
        done
        exec "$@" "$PD_BIN/probemond"
    ) 2>>"$PD_LOG" </dev/null &
    PD_DAEMON_PID=$!
    pd_wait_for_service
}


# A wrapper folder whose two tools run BODY (sh) instead of the real tool.
make_fake_bin() {
    local dir="$PD_TMP/sysbin" w
    mkdir -p "$dir"
    for w in iptables-wrapper-1.0 ip-wrapper-1.0; do
        printf '#!/bin/sh\n%s\n' "$1" >"$dir/$w"
        chmod +x "$dir/$w"
    done
    echo "$dir"
}

sanitizer_reports() {
    grep -cE 'ERROR: (AddressSanitizer|LeakSanitizer)|WARNING: ThreadSanitizer|runtime error:' "$PD_LOG"
}

# The daemon is alive, answers a call and the dump, and its stderr holds no
# sanitizer report.
expect_healthy() {
    local when="$1" rtt out
    kill -0 "$PD_DAEMON_PID" 2>/dev/null || { fail "$when: daemon is gone"; return; }
    rtt="$(timeout 5 "$PD_BIN/probemonctl" rtt wlan0)" || fail "$when: rtt did not answer"
    [[ "$rtt" =~ ^-?[0-9]+$ ]] || fail "$when: rtt answered '$rtt'"
    out="$(timeout 5 "$PD_BIN/probemonctl" dump)" || fail "$when: dump did not answer"
    grep -q "^interfaces (10):" <<<"$out" || fail "$when: dump without its interface table"
    expect_eq "$when: sanitizer reports" 0 "$(sanitizer_reports)"
}

# Descriptors and threads of the daemon at rest: probing suspended and the
# last probe over (one probe lasts at most the 200 ms timeout), so no probe
# socket, rtt socket or wrapper pipe is open. The smallest of several samples
# drops the property file, which the auto-select thread opens briefly every
# 100 ms. Prints "FDS THREADS".
at_rest() {
    local fds=999999 tasks=999999 n i
    for i in $(seq 8); do
        n="$(ls "/proc/$PD_DAEMON_PID/fd" 2>/dev/null | wc -l)"
        [ "$n" -lt "$fds" ] && fds="$n"
        n="$(ls "/proc/$PD_DAEMON_PID/task" 2>/dev/null | wc -l)"
        [ "$n" -lt "$tasks" ] && tasks="$n"
        sleep 0.1
    done
    echo "$fds $tasks"
}
quiesce() {
    pd_ctl suspend-all-ping >/dev/null
    sleep 0.6
}

# ---------------------------------------------------------------- stress

case_stress() {
    local seconds=60 clients=8 max_calls=20000
    "$PD_LAB" delay wlan0 20
    "$PD_LAB" delay rmnet_data0 40
    rel_start || { fail "start"; return; }
    pd_bg watch "$PD_BIN/probemonctl" watch
    pd_wait_file "$PD_TMP/watch" "serving" 5 || fail "watch did not start"
    pd_ctl add-ip-rule wlan0 >/dev/null
    pd_ctl add-ip-rule rmnet_data0 >/dev/null
    pd_ctl add-uid $UID_APP >/dev/null
    pd_ctl select wlan0 >/dev/null
    pd_ctl auto-select "wlan0,rmnet_data0," >/dev/null
    pd_wait_log "Auto select thread" 5 || fail "auto-select did not start"

    quiesce
    local fds0 tasks0
    read -r fds0 tasks0 < <(at_rest)
    pd_ctl resume-all-ping >/dev/null

    # wlan0 turns slow and fast again, so auto-select keeps switching.
    (
        while :; do
            "$PD_LAB" delay wlan0 150; sleep 7
            "$PD_LAB" delay wlan0 20; sleep 7
        done
    ) &
    REL_TOGGLER=$!

    local i pids=()
    for i in $(seq 0 $((clients - 1))); do
        local extra=()
        # Client 0 alone turns auto-select off and on and selects in between.
        [ "$i" -eq 0 ] && extra=(--auto-cycle 25)
        # The outer timeout turns a wedged call into a failure, not a hung test.
        timeout $((seconds + 30)) "$REL_CLIENT" stress "$seconds" "$max_calls" "$((1000 + i))" "${extra[@]}" \
            >"$PD_TMP/client$i" 2>&1 &
        pids+=($!)
    done
    local total=0 rc line
    for i in "${!pids[@]}"; do
        wait "${pids[$i]}"; rc=$?
        line="$(grep '^calls=' "$PD_TMP/client$i")"
        [ "$rc" -eq 0 ] || fail "client $i exited $rc: $(head -c 600 "$PD_TMP/client$i")"
        total=$((total + $(sed -n 's/^calls=\([0-9]*\).*/\1/p' <<<"$line")))
    done
    kill "$REL_TOGGLER" 2>/dev/null; wait "$REL_TOGGLER" 2>/dev/null; REL_TOGGLER=""
    "$PD_LAB" delay wlan0 20

    local to_cell to_wifi
    to_cell="$(pd_log_texts | grep -c '^Switch to rmnet_data0$')"
    to_wifi="$(pd_log_texts | grep -c '^Switch to wlan0$')"
    [ "$to_cell" -ge 1 ] && [ "$to_wifi" -ge 1 ] ||
        fail "auto-select did not switch both ways under load (to rmnet_data0 $to_cell, to wlan0 $to_wifi)"

    # Client processes are gone; their connections close as the pool sees them hang up.
    sleep 0.5
    quiesce
    local fds1 tasks1
    read -r fds1 tasks1 < <(at_rest)
    pd_ctl resume-all-ping >/dev/null
    # At rest nothing transient is open, so any growth is a leak: no tolerance.
    [ "$fds1" -le "$fds0" ] || fail "descriptors grew from $fds0 to $fds1: $(ls -l /proc/$PD_DAEMON_PID/fd | tail -n +2 | awk '{print $NF}' | sort | uniq -c | sort -rn | head -5 | tr '\n' ';')"
    # Pool, main, ten workers and one auto-select thread, before and after.
    expect_eq "threads after the stress" "$tasks0" "$tasks1"
    expect_healthy "after the stress"
    figure "stress clients=$clients seconds=$seconds calls=$total switches_to_rmnet=$to_cell switches_to_wlan=$to_wifi fds=$fds0->$fds1 threads=$tasks0->$tasks1"
    for i in "${!pids[@]}"; do echo "client $i: $(grep '^calls=' "$PD_TMP/client$i")"; done
}

# ---------------------------------------------------------------- wrappers

startup_commands=89  # 19 for the chain tree, 7 per interface

case_wrapper_missing() {
    # popen starts the shell whatever it is asked to run; the shell reports
    # 127 on its stderr, which is the daemon's, and the daemon hears nothing.
    mkdir -p "$PD_TMP/empty"
    PROBEMOND_SYSTEM_BIN="$PD_TMP/empty" rel_start || { fail "daemon did not register its service"; return; }
    pd_wait_log "initAllPingThread Init ping thread on wlan1" 5 || fail "start-up did not finish"
    expect_eq "add-uid" 0 "$(pd_ctl add-uid $UID_APP)"
    expect_eq "add-ip-rule" 0 "$(pd_ctl add-ip-rule wlan0)"
    expect_eq "select" 0 "$(pd_ctl select wlan0)"
    local missing
    missing="$(grep -c 'wrapper-1.0: not found' "$PD_LOG")"
    [ "$missing" -ge $((startup_commands + 4 + 3 + 2)) ] || fail "only $missing 'not found' lines"
    expect_eq "runner failures (the shell did start)" 0 "$(grep -c 'SEND PROBEMOND NDC COMMAND - FAIL' "$PD_LOG")"
    expect_eq "tool output lines" 0 "$(grep -c 'PROBEMOND EXECNETD RESP' "$PD_LOG")"
    expect_eq "chains made" 0 "$(iptables-legacy -t mangle -S | grep -c kest_)"
    expect_eq "uid listed all the same" "steered uids (1): $UID_APP" "$(pd_ctl dump | grep '^steered uids')"
    expect_healthy "with the wrappers missing"
    figure "wrapper_missing not_found_lines=$missing sample='$(grep -m1 'not found' "$PD_LOG")'"
}

case_wrapper_failing() {
    local sysbin
    sysbin="$(make_fake_bin 'echo "refused: $*"; echo "wrapper error on stderr" >&2; exit 1')"
    PROBEMOND_SYSTEM_BIN="$sysbin" rel_start || { fail "daemon did not register its service"; return; }
    pd_wait_log "initAllPingThread Init ping thread on wlan1" 5 || fail "start-up did not finish"
    expect_eq "add-uid" 0 "$(pd_ctl add-uid $UID_APP)"
    expect_eq "del-uid" 0 "$(pd_ctl del-uid $UID_APP)"
    expect_eq "add-ip-rule" 0 "$(pd_ctl add-ip-rule wlan1)"
    expect_eq "select" 0 "$(pd_ctl select rmnet_data1)"
    local texts="$PD_TMP/texts"
    pd_log_texts >"$texts"
    # Every command's stdout is logged; the exit status is never looked at.
    local refused
    refused="$(grep -c '^PROBEMOND EXECNETD RESP refused: ' "$texts")"
    # add-uid 4, del-uid 2, add-ip-rule 3 (a delete before the manager's own), select 3.
    expect_eq "logged tool output lines" $((startup_commands + 4 + 2 + 3 + 3)) "$refused"
    grep -qxF "PROBEMOND EXECNETD RESP refused: -w -t mangle -I kest_probemon_iface_rmnet -j kest_probemon_rmnet_data1" "$texts" ||
        fail "the select's insert did not run after earlier failures"
    [ "$(grep -c '^wrapper error on stderr$' "$PD_LOG")" -eq "$refused" ] || fail "tool stderr lines missing"
    expect_eq "runner failures" 0 "$(grep -c 'SEND PROBEMOND NDC COMMAND - FAIL' "$PD_LOG")"
    expect_healthy "with failing wrappers"
    figure "wrapper_failing commands=$refused all_replies=0"
}

case_wrapper_garbage() {
    # Binary noise, a NUL, a 3000-character line and no final line end.
    local sysbin
    sysbin="$(make_fake_bin 'head -c 2048 /dev/urandom; printf "\000\001\377\n"; printf "%03000d\n" 0; printf "tail-without-newline"')"
    PROBEMOND_SYSTEM_BIN="$sysbin" rel_start || { fail "daemon did not register its service"; return; }
    pd_wait_log "initAllPingThread Init ping thread on wlan1" 5 || fail "start-up did not finish"
    expect_eq "add-uid" 0 "$(pd_ctl add-uid $UID_APP)"
    expect_eq "select" 0 "$(pd_ctl select wlan0)"
    local texts="$PD_TMP/texts" commands=$((startup_commands + 4 + 2))
    pd_log_texts >"$texts"
    # The long line is read in pieces of 1023, 1023 and 954 characters. The
    # log call formats into 1024 bytes (as the platform's liblog does), so a
    # full piece keeps 999 characters after the 24 of its prefix.
    expect_eq "full pieces of the long line" $((2 * commands)) "$(grep -cE '^PROBEMOND EXECNETD RESP 0{999}$' "$texts")"
    expect_eq "last pieces of the long line" "$commands" "$(grep -cE '^PROBEMOND EXECNETD RESP 0{954}$' "$texts")"
    expect_eq "unterminated last lines" "$commands" "$(grep -c 'PROBEMOND EXECNETD RESP tail-without-newline' "$texts")"
    expect_healthy "with wrappers printing garbage"
    figure "wrapper_garbage commands=$commands log_bytes=$(stat -c %s "$PD_LOG")"
}

# ---------------------------------------------------------------- interface

case_iface_recreated() {
    "$PD_LAB" delay wlan1 20
    rel_start || { fail "start"; return; }
    pd_ctl start-ping wlan1 >/dev/null
    pd_wait_true 5 rtt_in_range wlan1 20 100 || fail "wlan1 never measured: $(pd_ctl rtt wlan1)"
    ip link del wlan1 || { fail "cannot delete wlan1"; return; }
    local deleted_at=$SECONDS
    expect_eq "rtt of a deleted interface" -1 "$(pd_ctl rtt wlan1)"
    pd_wait_log "Failed to bind socket on wlan1" 5 || fail "the worker did not report the missing device"
    pd_wait_log "wlan1,rtt=200," 5 || fail "the worker did not report the timeout"
    sleep 2  # a few more probes while it is gone
    expect_eq "rtt while it is gone" -1 "$(pd_ctl rtt wlan1)"
    "$PD_LAB" relink wlan1 || { fail "cannot re-create wlan1"; return; }
    pd_wait_true 10 rtt_in_range wlan1 20 100 || fail "wlan1 did not recover: rtt $(pd_ctl rtt wlan1)"
    local down_probes
    down_probes="$(pd_log_texts | grep -c '^wlan1,rtt=200,')"
    expect_healthy "after the interface came back"
    figure "iface_recreated probes_at_timeout=$down_probes recovered_after=$((SECONDS - deleted_at))s"
}

answers_rtt() { timeout 5 "$PD_BIN/probemonctl" rtt wlan0 >/dev/null; }

rtt_in_range() {  # IFACE LO HI: LO <= rtt < HI
    local r; r="$(pd_ctl rtt "$1")"
    [ "$r" -ge "$2" ] 2>/dev/null && [ "$r" -lt "$3" ]
}

# ---------------------------------------------------------------- resolvers

case_resolvers_silent() {
    local i
    for i in wlan0 wlan1 rmnet_data0 rmnet_data1 rmnet_data2 rmnet_data3 rmnet_data4 rmnet_data5 rmnet_data6 rmnet_data7; do
        "$PD_LAB" fault "$i" silent
    done
    # A short timeout walks the table sooner; a failed probe reports the
    # timeout, so the threshold comes down with it to keep failures slow. One
    # worker only: two workers switching at the same moment move the shared
    # index twice, by design, which would make the walk skip a server.
    printf 'vendor.kest.probemond.ping_timeout=50\nvendor.kest.probemond.rtt_timeout_threshold=50\n' \
        >>"$PROBEMOND_PROPERTY_FILE"
    rel_start || { fail "start"; return; }
    pd_ctl start-ping wlan0 >/dev/null
    local deadline=$((SECONDS + 45))
    while [ $SECONDS -le $deadline ] && [ "$(pd_log_texts | grep -c 'switch DNS to')" -lt 4 ]; do sleep 0.5; done
    local walk
    walk="$(pd_log_texts | sed -n 's/^Ping thread [0-9]* on wlan0 switch DNS to //p' | head -n 4 | paste -sd ' ')"
    expect_eq "servers walked" "1.1.1.1 8.8.4.4 1.0.0.1 8.8.8.8" "$walk"
    expect_eq "rtt of a silent interface" 50 "$(pd_ctl rtt wlan0)"
    expect_eq "every record follows the switch" 10 "$(pd_ctl dump | grep -c ' server=8.8.8.8 ')"
    "$PD_LAB" fault wlan0 off
    "$PD_LAB" delay wlan0 20
    pd_wait_true 10 rtt_in_range wlan0 20 50 || fail "wlan0 did not recover: rtt $(pd_ctl rtt wlan0)"
    expect_healthy "after every resolver was silent"
    figure "resolvers_silent walk='$walk'"
}

# ---------------------------------------------------------------- callback

case_callback_killed() {
    "$PD_LAB" delay wlan0 20
    "$PD_LAB" delay rmnet_data0 40
    rel_start || { fail "start"; return; }
    pd_ctl add-ip-rule wlan0 >/dev/null
    pd_ctl add-ip-rule rmnet_data0 >/dev/null
    pd_ctl select wlan0 >/dev/null

    # 1. The client takes the call that enabling makes (the empty name) and
    #    never answers: that binder thread waits, the others serve.
    pd_bg hang1 "$REL_CLIENT" hang-watcher
    local hang1=${PD_CHILDREN[-1]}
    pd_wait_file "$PD_TMP/hang1" "serving" 5 || { fail "hang-watcher did not start"; return; }
    pd_bg enable "$PD_BIN/probemonctl" auto-select "wlan0,rmnet_data0,"
    pd_wait_file "$PD_TMP/hang1" "onAutoSelect() taken" 5 || fail "the callback was not called"
    answers_rtt || fail "the daemon did not answer while a callback hung"
    kill "$hang1"
    pd_wait_log "onAutoSelect : Couldn't contact remote: -32" 5 || fail "no 'Couldn't contact remote' line"
    pd_wait_file "$PD_TMP/enable" "0" 5 || fail "enabling did not finish after the client died"
    pd_wait_log "Auto select thread" 5 || fail "the auto-select thread did not start"

    # 2. The auto-select thread itself is the caller, on a switch.
    pd_bg hang2 "$REL_CLIENT" hang-watcher
    local hang2=${PD_CHILDREN[-1]}
    pd_wait_file "$PD_TMP/hang2" "serving" 5 || { fail "second hang-watcher did not start"; return; }
    "$PD_LAB" delay wlan0 150
    pd_wait_file "$PD_TMP/hang2" "onAutoSelect(rmnet_data0) taken" 40 || { fail "no switch callback"; return; }
    pd_log_texts | grep -q "^rmnet_data0 ([0-9]*ms) is better than wlan0" || fail "no decision line"
    pd_log_texts | grep -q "^Switch to rmnet_data0$" && fail "the switch went on before the callback returned"
    answers_rtt || fail "the daemon did not answer while the engine waited"
    kill "$hang2"
    pd_wait_log "Switch to rmnet_data0" 5 || fail "the engine did not go on after the client died"
    pd_wait_true 5 pd_auto_branch_is kest_probemon_rmnet_data0 || fail "auto branch: '$(pd_auto_branch)'"
    # Two at least: the engine's own first call may still reach the dying
    # first client's socket and count a third.
    local failures
    failures="$(grep -c "Couldn't contact remote" "$PD_LOG")"
    [ "$failures" -ge 2 ] || fail "only $failures 'Couldn't contact remote' lines"
    expect_eq "disable with no client" 0 "$(timeout 5 "$PD_BIN/probemonctl" disable-auto-select)"
    expect_healthy "after the callback client was killed twice"
    figure "callback_killed contact_failures=$failures engine_went_on=yes"
}

# ---------------------------------------------------------------- capabilities

case_no_net_admin() {
    # Without CAP_NET_ADMIN the kernel refuses every SOCK_DESTROY with EPERM,
    # answered like any destroy the kernel cannot do (EOPNOTSUPP where it was
    # built without socket destruction): an error record per request, which
    # the daemon consumes and does not count. The wrappers lose the right too,
    # so the chains fail as well; dumping sockets needs no capability.
    "$PD_LAB" delay wlan0 20
    rel_start setpriv --bounding-set -net_admin --inh-caps -net_admin || { fail "start"; return; }
    local capeff
    capeff="$(sed -n 's/^CapEff:\t*//p' "/proc/$PD_DAEMON_PID/status")"
    [ $(( 0x$capeff & (1 << 12) )) -eq 0 ] || { fail "daemon still has CAP_NET_ADMIN ($capeff)"; return; }
    pd_listen listener 7010 || { fail "listener"; return; }
    pd_ctl add-uid $UID_APP >/dev/null
    pd_ctl select wlan0 >/dev/null
    pd_hold conn1 $UID_APP 7010 || { fail "uid $UID_APP could not connect"; return; }
    expect_eq "select with socket destruction" 0 "$(pd_ctl select rmnet_data0)"
    pd_log_texts >"$PD_TMP/texts"
    grep -qxF "selectInterface prev=wlan0, curr=rmnet_data0, kill=1" "$PD_TMP/texts" || fail "no kill=1 selection"
    sleep 1
    grep -q "closed:" "$PD_TMP/conn1" && fail "a socket was destroyed without CAP_NET_ADMIN"
    expect_eq "Destroyed lines" 0 "$(grep -c 'Destroyed [0-9]* sockets' "$PD_TMP/texts")"
    unless_sock_diag_refused expect_eq "kill failures (the result stays 0)" 0 "$(grep -c 'Failed to kill sockets of uid' "$PD_TMP/texts")"
    local refused
    refused="$(grep -c 'Permission denied' "$PD_LOG")"
    [ "$refused" -gt 0 ] || fail "the wrappers were not refused"
    pd_ctl start-ping wlan0 >/dev/null
    pd_wait_true 5 rtt_in_range wlan0 20 100 || fail "probing needs no CAP_NET_ADMIN: rtt $(pd_ctl rtt wlan0)"
    expect_healthy "without CAP_NET_ADMIN"
    figure "no_net_admin destroyed=0 connection_kept=yes wrapper_refusals=$refused"
}

# ---------------------------------------------------------------- properties

case_property_garbage() {
    "$PD_LAB" delay wlan0 20
    rel_start || { fail "start"; return; }

    # A timeout that is no number: every wait is a zero-length poll and the
    # failure value, 0, is the result; 0 is below the threshold, so no switch.
    echo "vendor.kest.probemond.ping_timeout=abc" >"$PROBEMOND_PROPERTY_FILE"
    pd_ctl start-ping wlan0 >/dev/null
    pd_wait_true 6 log_count_at_least '^wlan0,rtt=0,' 3 || fail "no probe returned 0 with a garbage timeout"
    expect_eq "rtt with a garbage timeout" 0 "$(pd_ctl rtt wlan0)"
    expect_eq "switches with a garbage timeout" 0 "$(pd_log_texts | grep -c 'switch DNS to')"

    # A threshold that is no number: 0, so every probe is slow and the
    # servers move every six probes.
    echo "vendor.kest.probemond.rtt_timeout_threshold=xyz" >"$PROBEMOND_PROPERTY_FILE"
    pd_wait_true 20 log_count_at_least 'switch DNS to' 2 || fail "servers did not rotate"
    local between
    between="$(pd_log_texts | awk '/switch DNS to/ {n++; next} n == 1 && /^wlan0,rtt=/ {c++} END {print c + 0}')"
    expect_eq "probes between two switches" 6 "$between"

    # Binary junk around a real setting: the setting still takes effect.
    {
        echo "vendor.kest.probemond.rtt_timeout_threshold=200"
        head -c 3000 /dev/urandom
        printf '\n\000\000=\000\nno equals sign\n=value without key\n'
        printf '%05000d=%05000d\n' 0 0
        echo "vendor.kest.probemond.rtt_debug=1"
    } >"$PROBEMOND_PROPERTY_FILE"
    pd_wait_log "isPingThreadRunning=1" 5 || fail "a setting after junk lines was not read"
    expect_healthy "with junk in the property file"
    figure "property_garbage rtt_with_bad_timeout=0 probes_per_switch=$between"
}

log_count_at_least() { [ "$(pd_log_texts | grep -c -- "$1")" -ge "$2" ]; }

# ---------------------------------------------------------------- security

case_uid_injection() {
    local sysbin marker="$PD_TMP/injected"
    sysbin="$(pd_recording_bin)"
    PROBEMOND_SYSTEM_BIN="$sysbin" rel_start || { fail "start"; return; }
    pd_wait_log "initAllPingThread Init ping thread on wlan1" 5
    : >"$PD_TMP/commands"
    local evil=("1000;touch $marker" "\$(touch $marker)" "\`touch $marker\`" $'1000\ntouch '"$marker"
                "1000 && touch $marker" "1000|touch $marker" "'1000'" "1000 #" "1000 -j ACCEPT" "-1" "0x3e8")
    local u n=0
    for u in "${evil[@]}"; do
        expect_eq "add-uid reply" 0 "$(pd_ctl add-uid "$u")"
        expect_eq "del-uid reply" 0 "$(pd_ctl del-uid "$u")"
        n=$((n + 2))
    done
    # Interface names never reach a command unless the registry knows them.
    for u in "wlan0;touch $marker" "\$(touch $marker)"; do
        pd_ctl start-ping "$u" >/dev/null
        pd_ctl add-ip-rule "$u" >/dev/null
        pd_ctl del-ip-rule "$u" >/dev/null
        pd_ctl auto-select "$u," >/dev/null
        pd_ctl disable-auto-select >/dev/null
        n=$((n + 5))
    done
    # Only the auto branch's flush, which enabling and disabling run whatever the list.
    expect_eq "other commands run for hostile text" 0 \
        "$(grep -cvxF "iptables-wrapper-1.0 -w -t mangle -F kest_probemon_iface_auto" "$PD_TMP/commands")"
    expect_eq "hostile text in a command" 0 "$(grep -c touch "$PD_TMP/commands")"
    [ -e "$marker" ] && fail "a shell ran the injected command"
    expect_eq "refusals logged" $((2 * ${#evil[@]})) "$(grep -c 'Invalid uid' "$PD_LOG")"
    # The same path with a proper UID does reach the wrapper.
    pd_ctl add-uid $UID_APP >/dev/null
    expect_eq "commands for a proper uid" 4 "$(grep -c -- "--uid-owner $UID_APP " "$PD_TMP/commands")"
    expect_healthy "after hostile text"
    figure "uid_injection hostile_calls=$n commands_run=0 marker_created=no"
}

case_malformed_parcels() {
    rel_start || { fail "start"; return; }
    # Every kind of call once first, so nothing opened lazily counts as a leak.
    pd_ctl rtt wlan0 >/dev/null
    pd_ctl dump >/dev/null
    pd_ctl disable-auto-select >/dev/null
    sleep 1
    local fds0 tasks0 fds1 tasks1 summary
    read -r fds0 tasks0 < <(at_rest)
    "$REL_CLIENT" malformed >"$PD_TMP/malformed" 2>&1 || fail "malformed run: $(tail -n 5 "$PD_TMP/malformed")"
    summary="$(grep '^malformed ' "$PD_TMP/malformed")"
    kill -0 "$PD_DAEMON_PID" 2>/dev/null || { fail "the daemon died"; return; }
    # No malformed request reached select with a bad name: the mutex is free.
    expect_eq "disable" 0 "$(timeout 5 "$PD_BIN/probemonctl" disable-auto-select)"
    expect_eq "select after the malformed run" 0 "$(timeout 5 "$PD_BIN/probemonctl" select wlan0)"
    sleep 0.5
    read -r fds1 tasks1 < <(at_rest)
    [ "$fds1" -le "$fds0" ] || fail "descriptors grew from $fds0 to $fds1 (passed fds or connections kept)"
    expect_eq "threads" "$tasks0" "$tasks1"
    expect_healthy "after malformed requests"
    figure "malformed_parcels $summary fds=$fds0->$fds1"
}

# Kept on purpose, not a crash-free path: rtt copies the name into a 16-byte
# field and a longer name ends the process, so any client can end it.
case_rtt_long_name() {
    rel_start || { fail "start"; return; }
    timeout 5 "$PD_BIN/probemonctl" rtt rmnet_data0_xyzw >/dev/null 2>&1
    pd_wait_true 5 daemon_gone || fail "a 16-character name to rtt did not end the daemon"
    pd_wait_log "getInterfaceRtt interface name too long: rmnet_data0_xyzw" 2 || fail "no fatal line"
    PD_DAEMON_PID=""
    figure "rtt_long_name daemon_ended=yes"
}

daemon_gone() { ! kill -0 "$PD_DAEMON_PID" 2>/dev/null; }

case_cloexec() {
    # Each wrapper lists its open descriptors before running the real tool.
    local dir="$PD_TMP/sysbin" w
    mkdir -p "$dir"
    for w in iptables-wrapper-1.0 ip-wrapper-1.0; do
        cat >"$dir/$w" <<W
#!/bin/sh
# Printed to the daemon, which logs it: a redirection here would make the
# shell keep copies of its own descriptors while find lists them.
find /proc/\$\$/fd -mindepth 1 -printf "FDLIST \$\$ %f %l\\n"
exec "$PD_ROOT/lab/wrappers/$w" "\$@"
W
        chmod +x "$dir/$w"
    done
    "$PD_LAB" delay wlan0 20
    PROBEMOND_SYSTEM_BIN="$dir" rel_start || { fail "start"; return; }
    pd_bg watch "$PD_BIN/probemonctl" watch
    pd_wait_file "$PD_TMP/watch" "serving" 5
    # Commands run while workers hold probe sockets and clients are connected.
    local i
    for i in wlan0 wlan1 rmnet_data0 rmnet_data1; do pd_ctl start-ping $i >/dev/null; done
    sleep 1.5
    pd_ctl add-uid $UID_APP >/dev/null
    pd_ctl add-ip-rule wlan0 >/dev/null
    pd_ctl select wlan0 >/dev/null
    pd_ctl auto-select "wlan0,rmnet_data0," >/dev/null
    pd_ctl disable-auto-select >/dev/null
    local seen leaks=0 pid fd target
    pd_log_texts | sed -n 's/^PROBEMOND EXECNETD RESP FDLIST //p' >"$PD_TMP/fdlists"
    seen="$(cut -d' ' -f1 "$PD_TMP/fdlists" | sort -u | wc -l)"
    while read -r pid fd target; do
        case "$fd" in 0|1|2) continue ;; esac
        # The shell's own: the script it reads.
        case "$target" in "$dir"/*) continue ;; esac
        leaks=$((leaks + 1))
        [ $leaks -le 5 ] && fail "wrapper $pid inherited fd $fd -> $target"
    done <"$PD_TMP/fdlists"
    [ "$seen" -ge $((startup_commands + 8)) ] || fail "only $seen wrapper runs were inspected"
    expect_eq "inherited descriptors" 0 "$leaks"
    expect_healthy "after the descriptor check"
    figure "cloexec wrapper_runs=$seen leaked=$leaks"
}

case_name="${1:-}"
if ! declare -F "case_$case_name" >/dev/null; then
    echo "usage: reliability_test.sh stress|wrapper_missing|wrapper_failing|wrapper_garbage|iface_recreated|"
    echo "       resolvers_silent|callback_killed|no_net_admin|property_garbage|uid_injection|malformed_parcels|"
    echo "       cloexec|rtt_long_name"
    exit 2
fi
"case_$case_name"
[ $FAILED -eq 0 ] && [ -n "$SKIPPED" ] && { echo "skipped: $SKIPPED"; exit 77; }
[ $FAILED -eq 0 ] && echo "PASS: $case_name"
exit $FAILED
