#!/usr/bin/env bash
# End-to-end: build/bin/probemond as a process in the lab's device namespace,
# driven by probemonctl. One case per run: e2e_test.sh CASE (run through
# lab.sh exec). Exit 0 pass, 1 fail, 77 skipped.
set -u  # no pipefail: "| grep -q" may close its pipe early
. "$(dirname "${BASH_SOURCE[0]}")/daemon_lab.sh"

. "$(dirname "${BASH_SOURCE[0]}")/test_assert.sh"
finish() {
    show_failure_context 60
    pd_cleanup
    [ "${PD_SANITIZER_REPORTS:-0}" -eq 0 ] || { echo "FAIL: sanitizer report in the daemon's log"; exit 1; }
}

[ "$(id -u)" -eq 0 ] || { echo "skipped: needs root"; exit 77; }
[ -n "${PROBEMOND_LAB_INSIDE:-}${PROBEMOND_SYSTEM_BIN:-}" ] || { echo "skipped: run through lab.sh exec"; exit 77; }

pd_init
trap finish EXIT
pd_clean_kernel
for i in wlan0 wlan1 rmnet_data0 rmnet_data1; do "$PD_LAB" delay "$i" 0; "$PD_LAB" fault "$i" off; "$PD_LAB" loss "$i" 0; done

readonly UID_APP=10123


expected_startup_commands() {
    local p="iptables-wrapper-1.0 -w"
    cat <<C
$p -t mangle -N kest_probemon_uid
$p -t mangle -F kest_probemon_uid
$p -t mangle -I OUTPUT -j kest_probemon_uid
$p -t mangle -N kest_probemon_iface
$p -t mangle -F kest_probemon_iface
$p -t mangle -N kest_probemon_iface_rmnet
$p -t mangle -F kest_probemon_iface_rmnet
$p -t mangle -I kest_probemon_iface -j kest_probemon_iface_rmnet
$p -t mangle -N kest_probemon_iface_auto
$p -t mangle -F kest_probemon_iface_auto
$p -t mangle -A kest_probemon_iface -j kest_probemon_iface_auto
$p -t mangle -N kest_probemon_iface_wlan
$p -t mangle -F kest_probemon_iface_wlan
$p -t mangle -A kest_probemon_iface -j kest_probemon_iface_wlan
$p -t nat -N kest_probemon_snat
$p -t nat -F kest_probemon_snat
$p -t nat -A POSTROUTING -j kest_probemon_snat
$p -t nat -N kest_masquerade
$p -t nat -F kest_masquerade
C
    local i mark end
    for i in rmnet_data0 rmnet_data1 rmnet_data2 rmnet_data3 rmnet_data4 rmnet_data5 rmnet_data6 rmnet_data7 wlan0 wlan1; do
        case "$i" in
            wlan0) mark=0xa0 ;; wlan1) mark=0xa1 ;; *) mark="0xd${i#rmnet_data}" ;;
        esac
        case "$i" in wlan*) end=RETURN ;; *) end=ACCEPT ;; esac
        cat <<C
$p -t mangle -N kest_probemon_$i
$p -t mangle -F kest_probemon_$i
$p -t mangle -A kest_probemon_$i -j MARK --set-mark $mark
$p -t mangle -A kest_probemon_$i -j CONNMARK --save-mark
$p -t mangle -A kest_probemon_$i -j $end
$p -t nat -D kest_masquerade -o $i -j MASQUERADE
$p -t nat -A kest_masquerade -o $i -j MASQUERADE
C
    done
}

case_startup() {
    local sysbin; sysbin="$(pd_recording_bin)"
    pd_start_daemon "$sysbin" || { fail "daemon did not register its service"; return; }
    pd_wait_log "Ping thread" 5

    # Every command, in order, before the service could be reached.
    diff <(expected_startup_commands) "$PD_TMP/commands" >"$PD_TMP/commands.diff" ||
        fail "start-up commands differ: $(head -n 20 "$PD_TMP/commands.diff")"

    pd_log_texts >"$PD_TMP/texts"
    local first; first="$(head -n 4 "$PD_TMP/texts" | paste -sd '|')"
    expect_eq "first log lines" "probemond is starting...|IptablesRuleManager called|IpRuleManager called|InterfaceManager called" "$first"
    expect_eq "gotIt lines" 3 "$(grep -cx 'gotIt called' "$PD_TMP/texts")"
    local last_init got
    last_init="$(grep -nx 'initAllPingThread Init ping thread on wlan1' "$PD_TMP/texts" | cut -d: -f1)"
    got="$(grep -nx 'gotIt called' "$PD_TMP/texts" | head -n 1 | cut -d: -f1)"
    [ -n "$last_init" ] && [ -n "$got" ] && [ "$got" -gt "$last_init" ] ||
        fail "the gotIt lines must follow the interface manager's start-up"
    expect_eq "registered service answers" 0 "$(pd_ctl stop-all-ping)"
}

case_restart() {
    pd_start_daemon || { fail "first start"; return; }
    expect_eq "add-uid" 0 "$(pd_ctl add-uid $UID_APP)"
    iptables-legacy -t mangle -S kest_probemon_uid | grep -q -- "--uid-owner $UID_APP" || fail "uid rule missing after add-uid"
    pd_stop_daemon
    pd_start_daemon || { fail "second start"; return; }
    iptables-legacy -t mangle -S kest_probemon_uid | grep -q -- "--uid-owner" && fail "second start kept an old uid rule"
    iptables-legacy -t nat -S kest_probemon_snat | grep -q -- "--uid-owner" && fail "second start kept an old snat rule"
    expect_eq "masquerade rules after restart" 10 "$(iptables-legacy -t nat -S kest_masquerade | grep -c MASQUERADE)"
    expect_eq "wlan0 chain after restart" 3 "$(iptables-legacy -t mangle -S kest_probemon_wlan0 | grep -c '^-A')"
    # The jumps from the built-in chains are added again at every start.
    expect_eq "OUTPUT jumps after two starts" 2 "$(iptables-legacy -t mangle -S OUTPUT | grep -c 'kest_probemon_uid')"
}

case_calls() {
    "$PD_LAB" delay wlan0 20
    pd_start_daemon || { fail "start"; return; }
    expect_eq "rtt before probing (start value)" 30 "$(pd_ctl rtt wlan0)"
    expect_eq "start-ping" 0 "$(pd_ctl start-ping wlan0)"
    expect_eq "start-ping again (reply stays 0)" 0 "$(pd_ctl start-ping wlan0)"
    pd_wait_log "wlan0,rtt=" 5 || fail "wlan0 never probed"
    sleep 1.2
    local rtt; rtt="$(pd_ctl rtt wlan0)"
    [ "$rtt" -ge 20 ] 2>/dev/null && [ "$rtt" -lt 100 ] || fail "rtt wlan0 with a 20 ms responder: $rtt"
    ip link set wlan1 down
    expect_eq "rtt of a down interface" -1 "$(pd_ctl rtt wlan1)"
    ip link set wlan1 up
    expect_eq "rtt of an unknown interface" -1 "$(pd_ctl rtt eth0)"
    expect_eq "stop-ping" 0 "$(pd_ctl stop-ping wlan0)"
    expect_eq "stop-ping unknown (reply stays 0)" 0 "$(pd_ctl stop-ping wlan9)"
    expect_eq "stop-all-ping" 0 "$(pd_ctl stop-all-ping)"
    expect_eq "suspend-all-ping" 0 "$(pd_ctl suspend-all-ping)"
    expect_eq "resume-all-ping" 0 "$(pd_ctl resume-all-ping)"
    expect_eq "add-uid" 0 "$(pd_ctl add-uid $UID_APP)"
    expect_eq "del-uid" 0 "$(pd_ctl del-uid $UID_APP)"
    expect_eq "add-ip-rule" 0 "$(pd_ctl add-ip-rule wlan1)"
    expect_eq "add-ip-rule twice" 0 "$(pd_ctl add-ip-rule wlan1)"
    expect_eq "rules at wlan1's priority" 1 "$(ip -4 rule show prio 29600 | grep -c 'fwmark 0xa1/0xffff lookup wlan1')"
    expect_eq "del-ip-rule" 0 "$(pd_ctl del-ip-rule wlan1)"
    expect_eq "rules after del-ip-rule" 0 "$(ip -4 rule show prio 29600 | grep -c .)"
    expect_eq "select" 0 "$(pd_ctl select wlan1)"
    expect_eq "auto-select" 0 "$(pd_ctl auto-select "wlan0,rmnet_data0,")"
    expect_eq "disable-auto-select" 0 "$(pd_ctl disable-auto-select)"

    local line texts="$PD_TMP/texts"
    pd_log_texts >"$texts"
    for line in "startPingInternal, iface=wlan0" "getRttInternal, iface=wlan1" "stopPingInternal, iface=wlan9" \
        "stopAllPingInternal" "suspendAllPingInternal" "resumeAllPingInternal" "addUidInternal, uid=$UID_APP" \
        "delUidInternal" "addIpRuleInternal, iface=wlan1" "delIpRuleInternal, iface=wlan1" \
        "selectInterfaceInternal, iface=wlan1" "enableAutoSelectInternal, ifaces=wlan0,rmnet_data0," \
        "disableAutoSelectInternal"; do
        grep -qxF -- "$line" "$texts" || fail "no log line '$line'"
    done
    grep -x "delUidInternal.*" "$texts" | grep -q "$UID_APP" && fail "delUidInternal logged the uid"
    grep -qxF "startPingThread Failed to start ping on wlan0" "$texts" || fail "second start-ping did not reach the manager"
}

case_manual() {
    pd_start_daemon || { fail "start"; return; }
    pd_listen listener 7001 || { fail "listener"; return; }
    pd_ctl add-uid $UID_APP >/dev/null
    pd_ctl add-ip-rule wlan0 >/dev/null
    pd_ctl add-ip-rule rmnet_data0 >/dev/null
    expect_eq "select wlan0" 0 "$(pd_ctl select wlan0)"
    pd_hold conn1 $UID_APP 7001 || { fail "uid $UID_APP could not connect"; return; }
    # The internet side sees the source address of the interface that carried it.
    pd_wait_file "$PD_TMP/listener" "accepted 10.77.0.2:" 5 || fail "connection not from wlan0"
    expect_eq "carrier on wlan0" wlan0 "$(pd_udp_carrier $UID_APP 200)"

    expect_eq "select rmnet_data0" 0 "$(pd_ctl select rmnet_data0)"
    pd_wait_file "$PD_TMP/conn1" "closed:" 5 || unless_sock_diag_refused fail "open TCP connection survived the switch"
    pd_log_texts >"$PD_TMP/texts"
    grep -qxF "selectInterface prev=wlan0, curr=rmnet_data0, kill=1" "$PD_TMP/texts" || fail "no prev/curr line"
    ip -4 rule show prio 29700 | grep -q "fwmark 0xd0/0xffff lookup rmnet_data0" || fail "policy rule for rmnet_data0 missing"
    expect_eq "carrier on rmnet_data0" rmnet_data0 "$(pd_udp_carrier $UID_APP 200)"
    pd_hold conn2 $UID_APP 7001 || { fail "reconnect failed"; return; }
    pd_wait_file "$PD_TMP/listener" "accepted 10.77.10.2:" 5 || fail "new connection not from rmnet_data0"
    # Another application stays on the default path.
    expect_eq "carrier of an unsteered uid" wlan0 "$(pd_udp_carrier 10999 200)"
}

case_auto() {
    "$PD_LAB" delay wlan0 20
    "$PD_LAB" delay rmnet_data0 40
    pd_start_daemon || { fail "start"; return; }
    pd_listen listener 7002 || { fail "listener"; return; }
    pd_bg watch "$PD_BIN/probemonctl" watch
    pd_wait_file "$PD_TMP/watch" "serving" 5 || fail "watch did not start"
    pd_ctl add-uid $UID_APP >/dev/null
    pd_ctl add-ip-rule wlan0 >/dev/null
    pd_ctl add-ip-rule rmnet_data0 >/dev/null
    pd_ctl select wlan0 >/dev/null
    pd_hold conn1 $UID_APP 7002 || { fail "connect"; return; }

    expect_eq "auto-select" 0 "$(pd_ctl auto-select "wlan0,rmnet_data0,")"
    pd_wait_file "$PD_TMP/watch" "onAutoSelect(wlan0)" 5 || fail "no start callback with the user's interface"
    sleep 6  # both candidates gather a history
    grep -q "onAutoSelect(rmnet_data0)" "$PD_TMP/watch" && fail "switched while wlan0 was fast"
    grep -q "closed:" "$PD_TMP/conn1" && fail "connection destroyed without a switch"

    "$PD_LAB" delay wlan0 150
    pd_wait_file "$PD_TMP/watch" "onAutoSelect(rmnet_data0)" 30 || { fail "no switch to rmnet_data0"; return; }
    # The client hears of the switch before the firewall follows.
    pd_wait_true 5 pd_auto_branch_is kest_probemon_rmnet_data0 ||
        fail "auto branch does not jump to rmnet_data0: '$(pd_auto_branch)'"
    pd_wait_file "$PD_TMP/conn1" "closed:" 5 || unless_sock_diag_refused fail "open TCP connection survived the switch"
    expect_eq "carrier after the switch" rmnet_data0 "$(pd_udp_carrier $UID_APP 200)"

    expect_eq "disable-auto-select" 0 "$(pd_ctl disable-auto-select)"
    pd_wait_file "$PD_TMP/watch" "onAutoSelect() -> 0" 5 || fail "no empty callback on disable"
    expect_eq "auto branch after disable" 0 "$(iptables-legacy -t mangle -S kest_probemon_iface_auto | grep -c '^-A')"
}

case_dump_held() {
    "$PD_LAB" delay wlan0 20
    pd_start_daemon || { fail "start"; return; }
    pd_ctl add-uid $UID_APP >/dev/null
    pd_ctl start-ping wlan0 >/dev/null
    pd_ctl select wlan0 >/dev/null
    pd_wait_log "wlan0,rtt=" 5
    # An unknown name leaves ifaceMutex held for good; the reply is still 0.
    expect_eq "select eth0" 0 "$(pd_ctl select eth0)"
    timeout 2 "$PD_BIN/probemonctl" select wlan1 >/dev/null
    expect_eq "a later select waits for the held mutex" 124 "$?"
    local out
    out="$(timeout 5 "$PD_BIN/probemonctl" dump)" || fail "dump did not answer (rc $?)"
    expect_eq "interfaces in dump" 10 "$(grep -c ' fwmark=' <<<"$out")"
    grep -q "^  wlan0 fwmark=0xa0 prio=29500 server=8.8.8.8 running=1 .* history=\[[0-9]" <<<"$out" ||
        fail "wlan0 line without its probe history: $(grep wlan0 <<<"$out")"
    grep -qx "userSelectIface: wlan0" <<<"$out" || fail "user selection missing from dump"
    grep -qx "steered uids (1): $UID_APP" <<<"$out" || fail "steered uid missing from dump"
}

case_name="${1:-}"
if ! declare -F "case_$case_name" >/dev/null; then
    echo "usage: e2e_test.sh startup|restart|calls|manual|auto|dump_held"
    exit 2
fi
"case_$case_name"
[ $FAILED -eq 0 ] && [ -n "$SKIPPED" ] && { echo "skipped: $SKIPPED"; exit 77; }
[ $FAILED -eq 0 ] && echo "PASS: $case_name"
exit $FAILED
