#!/usr/bin/env bash
# probemond's main job in the network lab, narrated as a timeline:
# RTT probes on Wi-Fi and cellular, one app UID steered onto wlan0, then
# auto-select moving it to rmnet_data0 when Wi-Fi degrades, with the client
# callback, the traffic moving and the app's open TCP connection destroyed.
# Exit 0 only when every step was seen. Leaves nothing behind.
. "$(dirname "${BASH_SOURCE[0]}")/../lab/driver.sh"
# The run's log and its timeline picture stay here for the user to open.
DEMO_OUT="$PROBEMOND_BUILD_DIR/demo"

if [ "${1:-}" != "--inside" ]; then
    own_lab demo probemond probemonctl probemond-responder probemond-lab-peer
    rm -f "$DEMO_OUT/probemond.log" "$DEMO_OUT/timeline.png"
    run_inside
    rc=$?
    if [ -s "$DEMO_OUT/probemond.log" ]; then
        /usr/bin/python3 "$ROOT/tools/plot/plot_timeline.py" "$DEMO_OUT/probemond.log" \
            "$DEMO_OUT/timeline.png" >/dev/null || rc=1
        echo "demo: daemon log $DEMO_OUT/probemond.log"
        echo "demo: timeline of this run $DEMO_OUT/timeline.png"
    fi
    exit $rc
fi

lab_session
MISSED=()
say() { printf '%6.1fs  %s\n' "$(awk -v s="$(date +%s.%N)" -v t="$T0" 'BEGIN{print s-t}')" "$*"; }
ok() { say "$1"; }
miss() { say "MISSING: $1"; MISSED+=("$1"); }
step() {  # DESCRIPTION COMMAND... : succeeds -> ok, else miss
    local what="$1"; shift
    if "$@"; then ok "$what"; else miss "$what"; fi
}
cleanup() {
    pd_stop_daemon
    mkdir -p "$DEMO_OUT" && cp "$PD_LOG" "$DEMO_OUT/probemond.log" 2>/dev/null
    pd_cleanup || { echo "demo: the wrappers refused a command line"; exit 1; }
}
trap cleanup EXIT
T0="$(date +%s.%N)"
readonly APP=10123
# The cellular interface's rule and both links' device addresses, from the lab's list.
readonly MARK="${LAB_FWMARK[rmnet_data0]}" PRIO="${LAB_PRIORITY[rmnet_data0]}"
readonly WIFI_IP="10.77.${LAB_OCTET[wlan0]}.2" CELL_IP="10.77.${LAB_OCTET[rmnet_data0]}.2"

echo "probemond demo (lab ${PROBEMOND_LAB:-probemond}; daemon log and timeline kept in $DEMO_OUT)"
"$PD_LAB" delay wlan0 20
"$PD_LAB" delay rmnet_data0 40
say "lab up: responder answers wlan0 after 20 ms, rmnet_data0 after 40 ms"

step "probemond started, service probemond_Binder registered" pd_start_daemon
[ -n "$PD_DAEMON_PID" ] || exit 1

pd_ctl start-ping wlan0 >/dev/null
pd_ctl start-ping rmnet_data0 >/dev/null
say "probemonctl start-ping wlan0, start-ping rmnet_data0"
sleep 3
say "rtt wlan0 = $(pd_ctl rtt wlan0) ms, rtt rmnet_data0 = $(pd_ctl rtt rmnet_data0) ms"

pd_ctl add-uid $APP >/dev/null
pd_ctl add-ip-rule wlan0 >/dev/null
pd_ctl add-ip-rule rmnet_data0 >/dev/null
pd_ctl select wlan0 >/dev/null
say "uid $APP steered (add-uid), policy rules for wlan0 and rmnet_data0, select wlan0"
step "policy rule: fwmark $MARK/0xffff -> table rmnet_data0 at priority $PRIO" \
    eval 'ip -4 rule show prio "$PRIO" | grep -F "fwmark $MARK/0xffff lookup rmnet_data0" >/dev/null'

step "TCP listener on 8.8.8.8:7000 in the internet namespace" pd_listen listener 7000
step "uid $APP holds a TCP connection to it" pd_hold app_tcp $APP 7000
step "the connection arrived over wlan0 (source $WIFI_IP)" pd_wait_file "$PD_TMP/listener" "accepted $WIFI_IP:" 5
carrier="$(pd_udp_carrier $APP 200)"
step "200 datagrams of uid $APP counted on wlan0 (lab counters)" test "$carrier" = wlan0

pd_bg watch pd_bin probemonctl watch
step "probemonctl watch serves NetworkProbeMon_Binder" pd_wait_file "$PD_TMP/watch" "serving" 5

pd_ctl auto-select "wlan0,rmnet_data0," >/dev/null
say "probemonctl auto-select \"wlan0,rmnet_data0,\""
step "callback onAutoSelect(wlan0): auto-select starts on the user's choice" \
    pd_wait_file "$PD_TMP/watch" "onAutoSelect(wlan0)" 5
sleep 6
say "medians: $(pd_ctl dump | sed -n 's/^  \(wlan0\|rmnet_data0\) .* mrtt=\([0-9-]*\) .*/\1 \2 ms/p' | paste -sd ',' | sed 's/,/, /')"

"$PD_LAB" delay wlan0 150
say "wlan0 degrades: responder now answers it after 150 ms"
step "callback onAutoSelect(rmnet_data0): auto-select switched" \
    pd_wait_file "$PD_TMP/watch" "onAutoSelect(rmnet_data0)" 40
step "auto branch jumps to kest_probemon_rmnet_data0" \
    pd_wait_true 5 pd_auto_branch_is kest_probemon_rmnet_data0
step "dump: one auto-select switch recorded, wlan0 -> rmnet_data0 with both medians" \
    eval 'pd_ctl dump | grep -E "^  [0-9-]+ [0-9:.]+ wlan0 \([0-9]+ms\) -> rmnet_data0 \([0-9]+ms\)$" >/dev/null'
say "  $(pd_ctl dump | grep -A1 '^autoSelect switches:' | paste -sd ' ' | tr -s ' ')"
step "the app's open TCP connection was destroyed" pd_wait_file "$PD_TMP/app_tcp" "closed:" 5
say "  the app saw: $(sed -n 's/^closed: //p' "$PD_TMP/app_tcp" | head -n 1)"
carrier="$(pd_udp_carrier $APP 200)"
step "200 datagrams of uid $APP now counted on rmnet_data0" test "$carrier" = rmnet_data0
pd_hold app_tcp2 $APP 7000 >/dev/null
step "the app reconnects over rmnet_data0 (source $CELL_IP)" \
    pd_wait_file "$PD_TMP/listener" "accepted $CELL_IP:" 5

pd_ctl disable-auto-select >/dev/null
say "probemonctl disable-auto-select"
step "callback onAutoSelect(): the empty name says auto-select is off" \
    pd_wait_file "$PD_TMP/watch" "onAutoSelect() ->" 5

say "tear-down: daemon, listener, watcher stopped; chains and rules removed; lab goes down"
if [ ${#MISSED[@]} -eq 0 ]; then
    echo "demo: every step seen"
    exit 0
fi
echo "demo: ${#MISSED[@]} step(s) missing:"
printf '  %s\n' "${MISSED[@]}"
echo "--- daemon log (last 40 lines) ---"
tail -n 40 "$PD_LOG"
exit 1
