#!/usr/bin/env bash
# End-to-end: build/bin/probemond as a process in the lab's device namespace,
# driven by probemonctl. One case per run: e2e_test.sh CASE (through lab.sh exec).
. "$(dirname "${BASH_SOURCE[0]}")/../support/lab_case.sh"

# MAP_ORDER: the interfaces in the order of the daemon's interface map (by name).
readonly UID_APP=10123 MAP_ORDER="$(lab_ifaces_sorted | paste -sd ' ')"

# check_jumps N: the daemon's jump from mangle OUTPUT and from nat POSTROUTING, N times each.
check_jumps() {
    expect_eq "OUTPUT jumps" "$1" "$(iptables-legacy-save -t mangle | grep -c '^-A OUTPUT -j kest_probemon_uid$')"
    expect_eq "POSTROUTING jumps" "$1" "$(iptables-legacy-save -t nat | grep -c '^-A POSTROUTING -j kest_probemon_snat$')"
}

# The kernel state a start leaves: the chain tree, one marking chain per
# interface and one MASQUERADE per interface; OUTPUT_JUMPS counts the starts.
check_chains() {
    local m n i end
    m="$(iptables-legacy-save -t mangle)" n="$(iptables-legacy-save -t nat)"
    check_jumps "$1"
    expect_eq "branches in order" "kest_probemon_iface_rmnet kest_probemon_iface_auto kest_probemon_iface_wlan" \
        "$(sed -n 's/^-A kest_probemon_iface -j //p' <<<"$m" | paste -sd ' ')"
    expect_eq "rules in the uid, branch and snat chains" 0 \
        "$(grep -cE '^-A (kest_probemon_uid|kest_probemon_iface_[a-z]*|kest_probemon_snat) ' <<<"$m$n")"
    for i in $MAP_ORDER; do
        case "$i" in wlan*) end=RETURN ;; *) end=ACCEPT ;; esac
        expect_eq "chain of $i" "MARK --set-xmark ${LAB_FWMARK[$i]}/0xffffffff|CONNMARK --save-mark --nfmask 0xffffffff --ctmask 0xffffffff|$end" \
            "$(sed -n "s/^-A kest_probemon_$i -j //p" <<<"$m" | paste -sd '|')"
    done
    expect_eq "masquerade rules, in the interface map's order" "$MAP_ORDER" \
        "$(sed -n 's/^-A kest_masquerade -o \([a-z_0-9]*\) -j MASQUERADE$/\1/p' <<<"$n" | paste -sd ' ')"
}

# The running daemon has init's identity for the service, as the .rc names it:
# its user, its other groups, and its capabilities, none more even in reserve.
check_identity() {
    local st c u="$LAB_DAEMON_UID" g="$LAB_DAEMON_GID" caps
    st="$(tr -s '\t ' '  ' <"/proc/$PD_DAEMON_PID/status")"
    field() { sed -n "s/^$1: \(.*[^ ]\) *$/\1/p" <<<"$st"; }
    expect_eq "uids" "$u $u $u $u" "$(field Uid)"
    expect_eq "gids" "$g $g $g $g" "$(field Gid)"
    expect_eq "groups" "$(printf '%s\n' "${LAB_DAEMON_GROUPS[@]}" | sort -n | paste -sd ' ')" "$(field Groups)"
    caps="$(printf '%s\n' "${LAB_DAEMON_CAPS[@]/#/cap_}" | sort | paste -sd ,)"
    for c in Inh Prm Eff Bnd Amb; do
        expect_eq "Cap$c" "$caps" "$(capsh --decode="$(field Cap$c)" | sed 's/^0x[0-9a-f]*=//' | tr , '\n' | sort | paste -sd ,)"
    done
}

case_startup() {
    pd_start_daemon || { fail "daemon did not register its service"; return; }
    check_identity
    check_chains 1
    local texts; texts="$(pd_log_texts)"
    expect_eq "first lines" "probemond is starting...|IptablesRuleManager called|IpRuleManager called|InterfaceManager called" \
        "$(head -n 4 <<<"$texts" | paste -sd '|')"
    # The records are built in table order, the workers started in map order,
    # and the three trace lines follow before the service is registered.
    expect_eq "start-up order" "${LAB_IFACES[*]} $MAP_ORDER gotIt gotIt gotIt" \
        "$(sed -n 's/^initInterfaceInfoAndMap interface=\([a-z_0-9]*\),.*/\1/p; s/^initAllPingThread Init ping thread on //p; s/^\(gotIt\) called$/\1/p' <<<"$texts" | paste -sd ' ')"

    # A restart flushes what the last run steered and adds the jumps again.
    expect_eq "add-uid" 0 "$(pd_ctl add-uid $UID_APP)"
    iptables-legacy -w -t mangle -S kest_probemon_uid | grep -q -- "--uid-owner $UID_APP" || fail "no uid rule after add-uid"
    pd_stop_daemon
    pd_start_daemon || { fail "second start"; return; }
    check_chains 2
}


case_calls() {
    "$PD_LAB" delay wlan0 20
    pd_start_daemon || { fail "start"; return; }
    expect_eq "rtt before probing (start value)" 30 "$(pd_ctl rtt wlan0)"
    local c
    for c in "start-ping wlan0" "start-ping wlan0" "stop-ping wlan9" "suspend-all-ping" "resume-all-ping" \
        "add-uid $UID_APP" "del-uid $UID_APP" "add-ip-rule wlan1" "add-ip-rule wlan1" "select wlan1" \
        "auto-select wlan0,rmnet_data0," "disable-auto-select"; do
        expect_eq "$c" 0 "$(pd_ctl $c)"
    done
    local prio="${LAB_PRIORITY[wlan1]}"
    expect_eq "rules at wlan1's priority" "fwmark ${LAB_FWMARK[wlan1]}/0xffff lookup wlan1" "$(ip -4 rule show prio "$prio" | sed "s/^$prio:\tfrom all //")"
    expect_eq "del-ip-rule" 0 "$(pd_ctl del-ip-rule wlan1)"
    expect_eq "rules after del-ip-rule" 0 "$(ip -4 rule show prio "$prio" | grep -c .)"
    # The second probe line proves the first probe's result is stored.
    pd_wait_true 10 pd_log_at_least "^wlan0,rtt=" 2 || fail "wlan0 did not probe twice"
    pd_rtt_in wlan0 20 100 || fail "rtt wlan0 with a 20 ms responder: $(pd_ctl rtt wlan0)"
    expect_eq "stop-ping" 0 "$(pd_ctl stop-ping wlan0)"
    expect_eq "stop-all-ping" 0 "$(pd_ctl stop-all-ping)"

    # Down, without carrier, absent or unknown to the kernel: -1, and only a
    # name the kernel runs but the registry does not know is logged.
    ip link set wlan1 down
    expect_eq "rtt of a down interface" -1 "$(pd_ctl rtt wlan1)"
    ip link set wlan1 up
    # Up, its peer down: IFF_UP without IFF_RUNNING.
    "$PD_LAB" netexec ip link set n-wlan1 down
    pd_wait_true 5 link_flags_are wlan1 NO-CARRIER UP || fail "wlan1 never showed NO-CARRIER while UP"
    expect_eq "rtt of an interface up without carrier" -1 "$(pd_ctl rtt wlan1)"
    "$PD_LAB" netexec ip link set n-wlan1 up
    pd_wait_true 5 link_flags_are wlan1 LOWER_UP || fail "wlan1's carrier did not come back"
    expect_eq "rtt of an unknown interface" -1 "$(pd_ctl rtt eth0)"
    expect_eq "rtt of lo" -1 "$(pd_ctl rtt lo)"
    local texts; texts="$(pd_log_texts)"
    expect_eq "getInterfaceRtt lines" "getInterfaceRtt ifaceInfo of lo is NULL" "$(grep '^getInterfaceRtt' <<<"$texts")"
    grep -qxF "startPingThread Failed to start ping on wlan0" <<<"$texts" || fail "a second start-ping started a worker"
}

# link_flags_are IFACE FLAG...: the kernel shows each FLAG on IFACE.
link_flags_are() {
    local flags f
    flags=",$(ip link show "$1" | sed -n 's/^[0-9]*: [^<]*<\([^>]*\)>.*/\1/p'),"
    for f in "${@:2}"; do [[ "$flags" == *",$f,"* ]] || return 1; done
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
    expect_eq "carrier on rmnet_data0" rmnet_data0 "$(pd_udp_carrier $UID_APP 200)"
    pd_hold conn2 $UID_APP 7001 || { fail "reconnect failed"; return; }
    pd_wait_file "$PD_TMP/listener" "accepted 10.77.10.2:" 5 || fail "new connection not from rmnet_data0"
    expect_eq "carrier of an unsteered uid" wlan0 "$(pd_udp_carrier 10999 200)"
}

case_auto() {
    "$PD_LAB" delay wlan0 20
    "$PD_LAB" delay rmnet_data0 40
    pd_start_daemon || { fail "start"; return; }
    pd_listen listener 7002 || { fail "listener"; return; }
    pd_bg watch pd_bin probemonctl watch
    pd_wait_file "$PD_TMP/watch" "serving" 5 || fail "watch did not start"
    pd_ctl add-uid $UID_APP >/dev/null
    pd_ctl add-ip-rule wlan0 >/dev/null
    pd_ctl add-ip-rule rmnet_data0 >/dev/null
    pd_ctl select wlan0 >/dev/null
    pd_hold conn1 $UID_APP 7002 || { fail "connect"; return; }

    expect_eq "auto-select" 0 "$(pd_ctl auto-select "wlan0,rmnet_data0,")"
    pd_wait_file "$PD_TMP/watch" "onAutoSelect(wlan0)" 5 || fail "no start callback with the user's interface"
    # wlan0 gathers a history; no switch while it is fast.
    pd_wait_true 15 pd_log_at_least "^wlan0,rtt=" 6 || fail "wlan0 was not probed as a candidate"
    grep -q "onAutoSelect(rmnet_data0)" "$PD_TMP/watch" && fail "switched while wlan0 was fast"
    grep -q "closed:" "$PD_TMP/conn1" && fail "connection destroyed without a switch"

    "$PD_LAB" delay wlan0 150
    pd_wait_file "$PD_TMP/watch" "onAutoSelect(rmnet_data0)" 30 || { fail "no switch to rmnet_data0"; return; }
    # The client hears of the switch before the firewall follows.
    pd_wait_true 5 pd_auto_branch_is kest_probemon_rmnet_data0 || fail "auto branch: '$(pd_auto_branch)'"
    pd_wait_file "$PD_TMP/conn1" "closed:" 5 || unless_sock_diag_refused fail "open TCP connection survived the switch"
    expect_eq "carrier after the switch" rmnet_data0 "$(pd_udp_carrier $UID_APP 200)"
    # The dump and top keep the decision, with both medians, and the user's first selection.
    local out; out="$(pd_ctl dump)"
    grep -qE "^autoSelect switches: count=1 lastMsAgo=[0-9]+$" <<<"$out" || fail "no switch count in dump"
    grep -qE "^  [0-9-]+ [0-9:.]+ wlan0 \([0-9]{3}ms\) -> rmnet_data0 \([1-9][0-9]?ms\)$" <<<"$out" ||
        fail "no switch record in dump: $(grep -A2 '^autoSelect switches' <<<"$out")"
    grep -qE "^  [0-9-]+ [0-9:.]+ \(none\) \(0ms\) -> wlan0 \([0-9]+ms\)$" <<<"$out" || fail "no selection record"
    grep -qE "^  wlan0 made=[1-9][0-9]* failed=[0-9]+ historyFailed=[0-9]+% lastProbeMsAgo=[0-9]+ " <<<"$out" ||
        fail "no probe counters for wlan0"
    out="$(pd_ctl top --once)"
    grep -qx "user: wlan0   auto-select: on   auto: rmnet_data0" <<<"$out" || fail "top: selection line missing"

    expect_eq "disable-auto-select" 0 "$(pd_ctl disable-auto-select)"
    pd_wait_file "$PD_TMP/watch" "onAutoSelect() -> 0" 5 || fail "no empty callback on disable"
    expect_eq "auto branch after disable" "" "$(pd_auto_branch)"
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
    pd_ctl_within 2 select wlan1 >/dev/null
    expect_eq "a later select waits for the held mutex" 124 "$?"
    pd_ctl_within 2 auto-select "wlan1," >/dev/null
    expect_eq "auto-select waits for it too" 124 "$?"
    local out
    out="$(pd_ctl_within 5 dump)" || fail "dump did not answer (rc $?)"
    expect_eq "interfaces in dump" ${#LAB_IFACES[@]} "$(grep -c ' fwmark=' <<<"$out")"
    grep -q "^  wlan0 fwmark=0xa0 prio=29500 server=8.8.8.8 running=1 .* history=\[[0-9]" <<<"$out" ||
        fail "wlan0 line without its probe history: $(grep wlan0 <<<"$out")"
    grep -qx "userSelectIface: wlan0" <<<"$out" || fail "user selection missing from dump"
    grep -qx "steered uids (1): $UID_APP" <<<"$out" || fail "steered uid missing from dump"
}

# A netd restart, then zygote's: the steered UID leaves by the default
# interface once netd's start took the jumps and rules, and by IFACE again
# within 10 s of zygote's "running", with each jump and each rule at PRIO...
# once, after one restoration.
check_netd_restart() {  # IFACE PRIO...
    "$PD_LAB" netd-restart --no-zygote || { fail "netd-restart"; return; }
    expect_eq "carrier after netd's start" wlan0 "$(pd_udp_carrier $UID_APP 200)"
    expect_eq "daemon's rules after netd's start" 0 "$(ip -4 rule show | grep -c fwmark)"
    "$PD_LAB" zygote-restart || { fail "zygote-restart"; return; }
    check_restored 10 "$1" 1 "${@:2}"
}

# check_restored SECONDS IFACE RESTORATIONS PRIO...: the UID's traffic is on
# IFACE within SECONDS, each jump and each rule at PRIO... once, and the dump
# counts RESTORATIONS.
check_restored() {
    local prio
    pd_wait_true "$1" carrier_is "$2" || fail "carrier after $1 s: $(pd_udp_carrier $UID_APP 200)"
    for prio in "${@:4}"; do expect_eq "rules at $prio" 1 "$(ip -4 rule show prio "$prio" | grep -c .)"; done
    check_jumps 1
    pd_ctl dump | grep -qE "^restored after platform restarts: count=$3 lastMsAgo=[0-9]+$" ||
        fail "dump: $(pd_ctl dump | grep -A2 '^restored')"
}
carrier_is() { [ "$(pd_udp_carrier $UID_APP 200)" = "$1" ]; }
names_back() { ip route show table rmnet_data0 >/dev/null; }

# The manual branch steers only to cellular (selecting Wi-Fi marks nothing),
# so the UID goes to rmnet_data0. zygote's state is "running" from the start,
# as on a phone; a quiet minute of other property changes runs no command.
# A second netd start also takes the routing table names for a few seconds.
case_restore_manual() {
    local f="$PROBEMOND_PROPERTY_FILE" n c
    echo "init.svc.zygote=running" >>"$f"
    export PROBEMOND_WRAPPER_RUNS="$PD_TMP/runs"
    pd_daemon_file "$PROBEMOND_WRAPPER_RUNS"
    pd_start_daemon || { fail "start"; return; }
    for c in "add-uid $UID_APP" "add-ip-rule wlan1" "add-ip-rule rmnet_data0" "select rmnet_data0"; do
        pd_ctl $c >/dev/null
    done
    expect_eq "carrier before" rmnet_data0 "$(pd_udp_carrier $UID_APP 200)"
    # Held for good from here; restoring never needs it.
    pd_ctl select eth0 >/dev/null

    : >"$PROBEMOND_WRAPPER_RUNS"
    for ((n = 0; n < 30; n++)); do  # a minute
        { grep -v '^vendor.kest.test.renamed=' "$f"; echo "vendor.kest.test.renamed=$n"; } >"$f.new" && mv "$f.new" "$f"
        echo "vendor.kest.test.appended=$n" >>"$f"
        sleep 2
    done
    expect_eq "wrapper lines in a quiet minute" "" "$(cat "$PROBEMOND_WRAPPER_RUNS")"

    local prios=("${LAB_PRIORITY[wlan1]}" "${LAB_PRIORITY[rmnet_data0]}")
    check_netd_restart rmnet_data0 "${prios[@]}"
    grep -q -- " -C OUTPUT -j kest_probemon_uid$" "$PROBEMOND_WRAPPER_RUNS" || fail "the wrappers saw no check"

    # netd's start also takes the table names, which come back seconds later:
    # the rules refused meanwhile are added then, and the traffic follows.
    "$PD_LAB" netd-restart --names-after 6 || { fail "netd-restart --names-after"; return; }
    expect_eq "daemon's rules without table names" 0 "$(ip -4 rule show | grep -c fwmark)"
    pd_wait_true 10 names_back || { fail "the table names did not come back"; return; }
    check_restored 6 rmnet_data0 3 "${prios[@]}"
}

# The auto branch, steering to rmnet_data0 after a switch from a slow wlan0.
case_restore_auto() {
    local c
    echo "init.svc.zygote=running" >>"$PROBEMOND_PROPERTY_FILE"
    "$PD_LAB" delay wlan0 150
    "$PD_LAB" delay rmnet_data0 40
    pd_start_daemon || { fail "start"; return; }
    for c in "add-uid $UID_APP" "add-ip-rule rmnet_data0" "select wlan0" "auto-select wlan0,rmnet_data0,"; do
        pd_ctl $c >/dev/null
    done
    pd_wait_true 30 pd_auto_branch_is kest_probemon_rmnet_data0 || { fail "no switch: '$(pd_auto_branch)'"; return; }
    expect_eq "carrier before" rmnet_data0 "$(pd_udp_carrier $UID_APP 200)"
    check_netd_restart rmnet_data0 "${LAB_PRIORITY[rmnet_data0]}"
    expect_eq "auto branch" kest_probemon_rmnet_data0 "$(pd_auto_branch)"
}

pd_run_case "${1:-}"
