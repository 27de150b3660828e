#!/usr/bin/env bash
# Steering: how long a manual selection change takes with 1, 10 and 100
# steered UIDs, each holding 4 open sockets (2 TCP, 2 UDP), and how that
# splits into socket destruction and firewall commands.
#   SELECT    `probemonctl select` end to end (rmnet_data0 and wlan0 in turn)
#   FIREWALL  the change's 2 or 3 iptables wrapper commands, made again right
#             after it by a rule manager of the benchmark's own, each line
#             timed by its command runner
#   KILL      that manager destroying the same UIDs' sockets (as many of
#             them), in a process of its own right after the change
#   IPRULE    rmnet_data7's policy rule, which the daemon here never adds,
#             added (delete, then add) and deleted by an ip rule manager: the
#             3 ip wrapper commands of an add-ip-rule and a del-ip-rule
#   CALL      a call that changes nothing (`probemonctl rtt wlan0`): client
#             start-up and the binder round trip
# SELECT is about FIREWALL + KILL + CALL.
#   PROBEMOND_BENCH_CHANGES  changes per row (default 6, made even)
. "$(dirname "${BASH_SOURCE[0]}")/../lab/driver.sh"
CHANGES="${PROBEMOND_BENCH_CHANGES:-6}"
CHANGES=$(( (CHANGES + 1) / 2 * 2 ))  # even: every row starts and ends on wlan0

[ -z "${PROBEMOND_EMULATOR:-}" ] || { echo "skipped: steer times socket destruction: qemu-user does not translate NETLINK_SOCK_DIAG"; exit 77; }
start_in_own_lab "bench steer" "${1:-}" probemond probemonctl probemond-responder probemond-bench-steer
readonly BASE=10200 PER=4

die() { echo "bench steer: $*" >&2; exit 1; }

pd_start_daemon || die "the daemon did not start"
for c in "add-ip-rule wlan0" "add-ip-rule rmnet_data0" "select wlan0"; do
    pd_ctl $c >/dev/null || die "probemonctl $c failed"
done

echo "== steer: manual selection change with N steered UIDs, $PER sockets each, median of $CHANGES changes =="
printf '%5s %8s %10s %12s %10s %10s %10s %s\n' UIDS SOCKETS SELECT-ms FIREWALL-ms KILL-ms IPRULE-ms CALL-ms ALL-DESTROYED
added=0
for n in 1 10 100; do
    while [ $added -lt $n ]; do
        pd_ctl add-uid $((BASE + added)) >/dev/null || die "add-uid failed"
        added=$((added + 1))
    done
    "$PD_BIN/probemond-bench-steer" "$PD_BIN/probemonctl" $BASE $n $PER "$CHANGES" || die "the $n-UID row failed"
done
echo "SELECT: probemonctl select end to end; FIREWALL: the change's iptables wrapper commands; KILL:"
echo "killUidSockets for every steered UID (4 dumps each: TCP, UDP, IPv4, IPv6); IPRULE: an ip rule's"
echo "add and delete (3 commands); CALL: a probemonctl call that changes nothing. SELECT is about"
echo "FIREWALL + KILL + CALL. Against ss -K: see destroy."
