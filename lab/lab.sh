#!/usr/bin/env bash
# The network lab: a "device" namespace with the interfaces the daemon knows
# (lab/interfaces), wired by veth pairs to an "internet" namespace that owns every
# resolver address and runs the ICMP responder.
#
#   lab.sh up | down [--force] | status | list
#   lab.sh exec CMD...            run CMD in the device namespace
#   lab.sh netexec CMD...         run CMD in the internet namespace
#   lab.sh delay IFACE MS         echo replies on IFACE come MS ms late
#   lab.sh loss IFACE PERCENT     drop PERCENT % of echo requests on IFACE
#   lab.sh fault IFACE MODE|off   misbehave on IFACE (see usage)
#   lab.sh counters [IFACE]       packets the device sent over IFACE
#   lab.sh relink IFACE           re-create IFACE after a test deleted it
#   lab.sh reset                  every interface present, up, and without delay, loss or fault
#   lab.sh netd-restart [--no-zygote] [--names-after SECONDS] [PROPERTY_FILE]
#                                 netd's start as it meets the daemon, then zygote-restart
#   lab.sh zygote-restart [PROPERTY_FILE]
#                                 init.svc.zygote through "restarting" to "running" in the
#                                 daemon's property file ($PROBEMOND_PROPERTY_FILE by default)
#
# PROBEMOND_LAB (default "probemond") names the lab; labs with different
# names are independent. PROBEMOND_LAB_OWNER is the pid of the process a lab
# brought up now belongs to (a test run, the demo, a benchmark): `down` then
# refuses while that process lives, unless it is the owner asking or --force.
# A lab without an owner (interactive use) goes down on any request.
# PROBEMOND_BUILD_DIR (default <repo>/build) is where the responder is found;
# PROBEMOND_EMULATOR (qemu-aarch64 ...) starts it when it is built for another
# architecture.
# Exit 77 means "cannot run here" (no root or no network namespaces).
set -uo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
SELF="$ROOT/lab/lab.sh"
NAME="${PROBEMOND_LAB:-probemond}"
# The name becomes namespace and file names: keep it short and plain.
[[ "$NAME" =~ ^[A-Za-z0-9][A-Za-z0-9_.-]{0,39}$ ]] ||
    { echo "lab: PROBEMOND_LAB '$NAME' is not a valid lab name (letters, digits, _ . -; 40 at most)" >&2; exit 2; }
DEV="$NAME-dev"
NET="$NAME-net"
STATE="/run/probemond-lab-$NAME"
BUILD_DIR="${PROBEMOND_BUILD_DIR:-$ROOT/build}"
RESPONDER="$BUILD_DIR/bin/probemond-responder"

. "$ROOT/lab/interfaces.sh"
. "$ROOT/lab/identity.sh"
IFACES=("${LAB_IFACES[@]}")
FAULTS=(off silent wrong-seq bad-checksum foreign-source unreachable duplicate
        wrong-seq+reply bad-checksum+reply foreign-source+reply unreachable+reply)

die() { echo "lab: $*" >&2; exit 1; }
skip() { echo "skipped: $*"; exit 77; }

# Per interface: subnet octet (from lab/interfaces), routing table id,
# main-table metric. The device is .2, the internet side .1; the lowest
# metric carries unmarked traffic.
octet() { echo "${LAB_OCTET[$1]}"; }
table_id() { echo $((1000 + $(octet "$1"))); }
metric() { echo $((100 + $(octet "$1"))); }
mac() { printf '02:77:00:%02x:00:%02x' "$(octet "$1")" "$2"; }
peer() { echo "n-$1"; }

# Every server the daemon may probe: the addresses in its two tables, read
# where they are kept, so that a server added there is in the lab too.
ping_servers() {
    grep -oE '"([0-9]{1,3}\.){3}[0-9]{1,3}"' "$ROOT/interfaces/PingServers.cpp" | tr -d '"'
}

known_iface() {
    local i
    for i in "${IFACES[@]}"; do [ "$i" = "$1" ] && return 0; done
    return 1
}

require_root() {
    [ "$(id -u)" -eq 0 ] || skip "the lab needs root (network namespaces, raw sockets)"
    command -v ip >/dev/null || skip "iproute2 (ip) is not installed"
}

ns_exists() { [ -e "/run/netns/$1" ]; }

responder_pid() {
    local pid
    pid="$(cat "$STATE/responder.pid" 2>/dev/null)" || return 1
    [ -n "$pid" ] && [ -d "/proc/$pid" ] || return 1
    # Not comm: under an emulator the process is named after it.
    tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null | grep -q "/probemond-responder " || return 1
    echo "$pid"
}

is_up() { ns_exists "$DEV" && ns_exists "$NET" && responder_pid >/dev/null; }

# A pid alone can be reused: the owner is recorded as "PID START-TIME".
start_time() {  # PID -> clock ticks after boot at which it started
    local s
    s="$(cat "/proc/$1/stat" 2>/dev/null)" || return 1
    s="${s##*) }"  # the command name may hold spaces and parentheses
    set -- $s
    echo "${20}"
}

# live_owner STATE_DIR -> "PID START" when the lab has an owner that still runs.
live_owner() {
    local pid start
    read -r pid start 2>/dev/null <"$1/owner" || return 1
    [[ "$pid" =~ ^[0-9]+$ ]] && [ "$(start_time "$pid")" = "$start" ] || return 1
    echo "$pid $start"
}

owner_text() {  # STATE_DIR -> one line for status and list
    local pid start
    if ! read -r pid start 2>/dev/null <"$1/owner"; then
        echo "none (interactive)"
    elif live_owner "$1" >/dev/null; then
        echo "pid $pid ($(cat "/proc/$pid/comm" 2>/dev/null)), running"
    else
        echo "pid $pid, gone (stale: down takes it away)"
    fi
}

record_owner() {
    local owner="${PROBEMOND_LAB_OWNER:-}" start
    [ -n "$owner" ] || return 0
    # A live owner keeps the lab; a stale one is replaced.
    live_owner "$STATE" >/dev/null && return 0
    start="$(start_time "$owner")" || die "PROBEMOND_LAB_OWNER $owner is not a running process"
    printf '%s %s\n' "$owner" "$start" >"$STATE/owner"
}

# Serialises up/down of every lab on this machine; the lock is on this script.
lock() {
    exec 9<"$SELF"
    flock 9
}

write_setting() {  # IFACE KEY VALUE, replaced whole so the responder never sees half
    local dir="$STATE/ctl/$1"
    mkdir -p "$dir"
    printf '%s\n' "$3" >"$dir/.$2.tmp" && mv -f "$dir/.$2.tmp" "$dir/$2"
}

write_etc() {
    # `ip netns exec` mounts /etc/netns/<ns>/iproute2 over /etc/iproute2, so
    # the copy carries the stock files (Debian keeps rt_tables in /etc/iproute2)
    # plus one table per interface, named after it. A phone has those names
    # only in netd's /data/misc/net (0750 root shell): here too only root and
    # group shell may read them.
    local etc="/etc/netns/$DEV"
    rm -rf "$etc.tmp"
    mkdir -p "$etc.tmp"
    if [ -d /etc/iproute2 ]; then
        cp -a /etc/iproute2 "$etc.tmp/iproute2"
    else
        mkdir -p "$etc.tmp/iproute2"
        printf '255\tlocal\n254\tmain\n253\tdefault\n0\tunspec\n' >"$etc.tmp/iproute2/rt_tables"
    fi
    [ -f "$etc.tmp/iproute2/rt_tables" ] || printf '255\tlocal\n254\tmain\n253\tdefault\n0\tunspec\n' >"$etc.tmp/iproute2/rt_tables"
    local names="$etc.tmp/iproute2/rt_tables.d"
    mkdir -p "$names"
    table_names >"$names/probemond.conf"
    chown -R "root:${LAB_ANDROID_ID[shell]}" "$names" && chmod -R u=rwX,g=rX,o= "$names" || return 1
    # No DNS in the lab: names fail at once instead of waiting for a server.
    printf 'nameserver 127.0.0.1\noptions timeout:1 attempts:1\n' >"$etc.tmp/resolv.conf"
    rm -rf "$etc"
    mv "$etc.tmp" "$etc"
}

# The routing table names, one per interface; with "none" the file names no
# interface, as netd's rt_tables right after its start.
table_names() {
    echo "# probemond lab: one table per interface"
    [ "${1:-}" = none ] && return 0
    local i
    for i in "${IFACES[@]}"; do printf '%s\t%s\n' "$(table_id "$i")" "$i"; done
}
NAMES_FILE="/etc/netns/$DEV/iproute2/rt_tables.d/probemond.conf"

# [none]: the names replaced by a rename (ip never reads half a file), the
# file's owner and mode kept.
write_table_names() {
    local tmp="$NAMES_FILE.lab.$$"
    table_names "${1:-}" >"$tmp" && chmod --reference="$NAMES_FILE" "$tmp" &&
        chown --reference="$NAMES_FILE" "$tmp" && mv -f "$tmp" "$NAMES_FILE" && return 0
    rm -f "$tmp"
    return 1
}

sysctls() {  # NS then key=value pairs
    local ns="$1"; shift
    local kv script=""
    for kv in "$@"; do
        script+="echo ${kv#*=} > /proc/sys/${kv%%=*}; "
    done
    ip netns exec "$ns" sh -c "$script" || return 1
}

setup_iface() {
    local i="$1" o p gw dev_ip
    o="$(octet "$i")"; p="$(peer "$i")"
    gw="10.77.$o.1"; dev_ip="10.77.$o.2"
    if ! ip -n "$DEV" link show "$i" >/dev/null 2>&1; then
        ip -n "$NET" link del "$p" >/dev/null 2>&1
        ip link add name "$i" netns "$DEV" address "$(mac "$i" 2)" type veth \
            peer name "$p" netns "$NET" address "$(mac "$i" 1)" || return 1
    fi
    sysctls "$DEV" "net/ipv6/conf/$i/disable_ipv6=1" "net/ipv4/conf/$i/rp_filter=0" || return 1
    sysctls "$NET" "net/ipv6/conf/$p/disable_ipv6=1" "net/ipv4/conf/$p/rp_filter=0" || return 1
    ip -n "$DEV" addr replace "$dev_ip/24" dev "$i" || return 1
    ip -n "$NET" addr replace "$gw/24" dev "$p" || return 1
    # Fixed neighbours: no ARP chatter, so the counters count only real traffic.
    ip -n "$DEV" neigh replace "$gw" lladdr "$(mac "$i" 1)" dev "$i" nud permanent || return 1
    ip -n "$NET" neigh replace "$dev_ip" lladdr "$(mac "$i" 2)" dev "$p" nud permanent || return 1
    ip -n "$DEV" link set "$i" up || return 1
    ip -n "$NET" link set "$p" up || return 1
    put_routes "$i" || return 1
    [ -f "$STATE/ctl/$i/delay" ] || write_setting "$i" delay 0
    [ -f "$STATE/ctl/$i/loss" ] || write_setting "$i" loss 0
    [ -f "$STATE/ctl/$i/fault" ] || write_setting "$i" fault off
}

# IFACE's default routes: by its metric in main, alone in its own table.
put_routes() {
    local gw="10.77.$(octet "$1").1"
    ip -n "$DEV" route replace default via "$gw" dev "$1" metric "$(metric "$1")" &&
        ip -n "$DEV" route replace default via "$gw" dev "$1" table "$(table_id "$1")"
}

# The daemon's iptables runs without root, for which the kernel loads no
# missing table, match or target: root uses each of them here once.
load_netfilter() {
    ip netns exec "$DEV" env XTABLES_LOCKFILE="$STATE/xtables.lock" sh -c '
        c=probemond_lab_load rc=0
        { iptables-legacy -w -t mangle -N $c &&
          iptables-legacy -w -t mangle -A $c -m owner --uid-owner 0 -j MARK --set-mark 1 &&
          iptables-legacy -w -t mangle -A $c -j CONNMARK --save-mark &&
          iptables-legacy -w -t nat -N $c &&
          iptables-legacy -w -t nat -A $c -o lo -j MASQUERADE; } || rc=1
        for t in mangle nat; do iptables-legacy -w -t $t -F $c; iptables-legacy -w -t $t -X $c; done 2>/dev/null
        exit $rc' >/dev/null
}

start_responder() {
    responder_pid >/dev/null && return 0
    [ -x "$RESPONDER" ] || die "responder not built: $RESPONDER (run ./run build, or set PROBEMOND_BUILD_DIR)"
    rm -f "$STATE/responder.pid"
    setsid ${PROBEMOND_EMULATOR:-} "$RESPONDER" --state-dir "$STATE" --netns "/run/netns/$NET" \
        </dev/null >>"$STATE/responder.log" 2>&1 9<&- &
    local n
    for n in $(seq 100); do
        responder_pid >/dev/null && return 0
        sleep 0.05
    done
    die "responder did not start (see $STATE/responder.log)"
}

cmd_up() {
    case "${1:-}" in
        "") ;;
        # CTest's fixture: the run is its parent when no owner was passed down.
        --parent-owns) export PROBEMOND_LAB_OWNER="${PROBEMOND_LAB_OWNER:-$PPID}" ;;
        *) die "up: unknown option '$1'" ;;
    esac
    require_root
    lock
    if ! ns_exists "$DEV"; then
        ip netns add "$DEV" 2>/dev/null || skip "cannot create network namespaces here"
    fi
    if ! ns_exists "$NET"; then
        ip netns add "$NET" 2>/dev/null || skip "cannot create network namespaces here"
    fi
    mkdir -p "$STATE/ctl" || die "cannot create $STATE"
    # The xtables lock of everything run through `exec`, root's and the
    # daemon's alike (tables are per namespace): the daemon may open it.
    : >>"$STATE/xtables.lock" && chmod 0755 "$STATE" && chmod 0644 "$STATE/xtables.lock" ||
        die "cannot create $STATE/xtables.lock"
    record_owner
    write_etc || die "cannot write /etc/netns/$DEV"
    load_netfilter || die "the kernel lacks a table, match or target the daemon uses (mangle, nat, owner, MARK, CONNMARK, MASQUERADE)"
    local common=(net/ipv6/conf/all/disable_ipv6=1 net/ipv6/conf/default/disable_ipv6=1
                  net/ipv4/conf/all/rp_filter=0 net/ipv4/conf/default/rp_filter=0)
    # Replies to steered traffic may come back on another interface than the
    # one the route lookup picks: reverse-path filtering stays off.
    sysctls "$DEV" "${common[@]}" || die "cannot configure $DEV"
    sysctls "$NET" "${common[@]}" net/ipv4/icmp_echo_ignore_all=1 || die "cannot configure $NET"
    ip -n "$DEV" link set lo up || die "cannot configure $DEV"
    ip -n "$NET" link set lo up || die "cannot configure $NET"
    local r i servers
    servers="$(ping_servers)" && [ -n "$servers" ] || die "no server address in $ROOT/interfaces/PingServers.cpp"
    for r in $servers; do
        ip -n "$NET" addr replace "$r/32" dev lo || die "cannot add $r"
    done
    for i in "${IFACES[@]}"; do
        setup_iface "$i" || die "cannot set up $i"
    done
    start_responder
    echo "lab $NAME is up"
}

kill_pids() {
    local pid
    for pid in "$@"; do kill "$pid" 2>/dev/null; done
    for _ in $(seq 50); do
        local alive=0
        for pid in "$@"; do [ -d "/proc/$pid" ] && alive=1; done
        [ $alive -eq 0 ] && return 0
        sleep 0.05
    done
    for pid in "$@"; do kill -9 "$pid" 2>/dev/null; done
}

cmd_down() {
    local force=0
    case "${1:-}" in
        "") ;;
        --force) force=1 ;;
        *) die "down: unknown option '$1' (--force takes down a lab whose owner still runs)" ;;
    esac
    [ "$(id -u)" -eq 0 ] || skip "the lab needs root"
    lock
    local pids=() pid ns owner
    # The asker is the owner named in its environment, else whoever called.
    if owner="$(live_owner "$STATE")" && [ $force -eq 0 ] &&
        [ "${owner%% *}" != "${PROBEMOND_LAB_OWNER:-$PPID}" ]; then
        pid="${owner%% *}"
        echo "lab: lab $NAME belongs to pid $pid ($(cat "/proc/$pid/comm" 2>/dev/null)), which still runs;" \
            "not taking it down (lab.sh down --force does)" >&2
        return 1
    fi
    pid="$(responder_pid)" && pids+=("$pid")
    for ns in "$DEV" "$NET"; do
        ns_exists "$ns" || continue
        # Whatever still runs inside the lab (listeners, probes) goes with it.
        for pid in $(ip netns pids "$ns" 2>/dev/null); do
            [ "$pid" != "$$" ] && pids+=("$pid")
        done
    done
    [ ${#pids[@]} -gt 0 ] && kill_pids "${pids[@]}"
    for ns in "$DEV" "$NET"; do
        ns_exists "$ns" && ip netns del "$ns"
    done
    rm -rf "/etc/netns/$DEV" "/etc/netns/$DEV.tmp" "/etc/netns/$NET" "$STATE"
    rmdir /etc/netns 2>/dev/null
    echo "lab $NAME is down"
    return 0
}

counter() {  # IFACE -> rx packets on its internet-side peer
    ip netns exec "$NET" cat "/sys/class/net/$(peer "$1")/statistics/rx_packets" 2>/dev/null
}

cmd_status() {
    require_root
    if ! ns_exists "$DEV" || ! ns_exists "$NET"; then
        echo "lab $NAME is down"
        return 3
    fi
    local pid
    pid="$(responder_pid)" || pid="not running"
    echo "lab $NAME: namespaces $DEV, $NET; responder $pid; state $STATE"
    echo "owner: $(owner_text "$STATE")"
    printf '%-12s %-15s %-8s %-6s %-22s %s\n' IFACE ADDRESS DELAY LOSS FAULT RX-PACKETS
    local i o
    for i in "${IFACES[@]}"; do
        o="$(octet "$i")"
        printf '%-12s %-15s %-8s %-6s %-22s %s\n' "$i" "10.77.$o.2/24" \
            "$(cat "$STATE/ctl/$i/delay" 2>/dev/null)ms" "$(cat "$STATE/ctl/$i/loss" 2>/dev/null)%" \
            "$(cat "$STATE/ctl/$i/fault" 2>/dev/null)" "$(counter "$i")"
    done
    [ "$pid" != "not running" ]
}

need_iface() {
    [ -n "${1:-}" ] || die "missing interface"
    known_iface "$1" || die "unknown interface '$1' (one of ${IFACES[*]})"
    [ -d "$STATE/ctl" ] || die "lab $NAME is not up"
}

cmd_delay() {
    need_iface "${1:-}"
    [[ "${2:-}" =~ ^[0-9]+$ ]] || die "delay: milliseconds expected, got '${2:-}'"
    write_setting "$1" delay "$((10#$2))"
}

cmd_loss() {
    need_iface "${1:-}"
    [[ "${2:-}" =~ ^[0-9]+$ ]] && [ "$((10#$2))" -le 100 ] || die "loss: percent 0-100 expected, got '${2:-}'"
    write_setting "$1" loss "$((10#$2))"
}

cmd_fault() {
    need_iface "${1:-}"
    local f
    for f in "${FAULTS[@]}"; do
        if [ "$f" = "${2:-}" ]; then
            write_setting "$1" fault "$2"
            return 0
        fi
    done
    die "fault: one of ${FAULTS[*]} expected, got '${2:-}'"
}

cmd_counters() {
    require_root
    ns_exists "$NET" || die "lab $NAME is not up"
    if [ -n "${1:-}" ]; then
        known_iface "$1" || die "unknown interface '$1'"
        counter "$1"
        return
    fi
    # One entry into the namespace for all (tests poll this); peers are n-IFACE.
    ip netns exec "$NET" sh -c 'for i; do
        printf "%s %s\n" "$i" "$(cat "/sys/class/net/n-$i/statistics/rx_packets" 2>/dev/null)"; done' sh "${IFACES[@]}"
}

cmd_list() {  # every lab on this machine, with its owner
    require_root
    local d found=0
    for d in /run/probemond-lab-*/; do
        [ -d "$d" ] || continue
        found=1
        d="${d%/}"
        printf '%-24s owner %s\n' "${d#/run/probemond-lab-}" "$(owner_text "$d")"
    done
    [ $found -eq 1 ] || echo "no lab is up"
}

cmd_relink() {
    require_root
    need_iface "${1:-}"
    lock
    setup_iface "$1" || die "cannot set up $1"
}

cmd_reset() {
    require_root
    [ -d "$STATE/ctl" ] || die "lab $NAME is not up"
    local i
    for i in "${IFACES[@]}"; do
        write_setting "$i" delay 0
        write_setting "$i" loss 0
        write_setting "$i" fault off
        if ! ip -n "$DEV" link show "$i" >/dev/null 2>&1; then
            lock
            setup_iface "$i" || die "cannot set up $i"
        fi
        ip -n "$DEV" link set "$i" up || die "cannot set $i up"
    done
}

cmd_exec() {
    [ $# -gt 0 ] || die "exec: command expected"
    require_root
    if ! is_up; then
        "$SELF" up >/dev/null
        local rc=$?
        [ $rc -eq 77 ] && skip "cannot create network namespaces here"
        [ $rc -eq 0 ] || die "lab did not come up"
    fi
    exec ip netns exec "$DEV" env PROBEMOND_SYSTEM_BIN="$ROOT/lab/wrappers" PROBEMOND_LAB="$NAME" \
        XTABLES_LOCKFILE="$STATE/xtables.lock" "$@"
}

cmd_netexec() {
    [ $# -gt 0 ] || die "netexec: command expected"
    require_root
    ns_exists "$NET" || die "lab $NAME is not up"
    exec ip netns exec "$NET" env PROBEMOND_LAB="$NAME" "$@"
}

# PROPERTY_FILE, else $PROBEMOND_PROPERTY_FILE (a running daemon's), if it exists.
property_file() {
    local f="${1:-${PROBEMOND_PROPERTY_FILE:-}}"
    [ -n "$f" ] || { echo "lab: which property file? Name it, or set PROBEMOND_PROPERTY_FILE as the daemon's" >&2; return 1; }
    [ -f "$f" ] || { echo "lab: no property file $f" >&2; return 1; }
    echo "$f"
}

# FILE KEY VALUE: the key's line replaced by a rename, as the host's
# property_set does; the file keeps its owner and mode.
set_property() {
    local tmp="$(dirname "$1")/.$(basename "$1").lab.$$"
    { grep -v "^[[:space:]]*${2//./\\.}[[:space:]]*=" "$1"; printf '%s=%s\n' "$2" "$3"; } >"$tmp" &&
        chmod --reference="$1" "$tmp" && chown --reference="$1" "$tmp" && mv -f "$tmp" "$1" && return 0
    rm -f "$tmp"
    return 1
}

# zygote's state as a framework restart moves it: "restarting", then, a
# second later (init starts it again after a pause), "running".
cmd_zygote_restart() {
    local file
    file="$(property_file "${1:-}")" || exit 1
    set_property "$file" init.svc.zygote restarting || die "cannot write $file"
    sleep 1
    set_property "$file" init.svc.zygote running || die "cannot write $file"
}

# What netd does each time it starts: it flushes mangle OUTPUT and nat
# POSTROUTING (the daemon's two jumps with them) and deletes every ip rule
# but priority 0's, then puts back its own rules and routes; here the lab's:
# the main and default lookups and each interface's routes. netd starts
# again whenever zygote does, so zygote's state moves after it
# (zygote-restart), unless --no-zygote: a netd restart nothing tells of.
# --names-after SECONDS: netd's start also rewrites its table names with
# none, and the framework names each interface again as it puts it back in
# a network, seconds later: the names go and come back after SECONDS, in the
# background.
cmd_netd_restart() {
    local zygote=1 names_after="" file="" prio i
    while [ $# -gt 0 ]; do
        case "$1" in
            --no-zygote) zygote=0; shift ;;
            --names-after)
                [[ "${2:-}" =~ ^[0-9]+$ ]] || die "netd-restart: --names-after takes whole seconds"
                names_after="$2"; shift 2 ;;
            -*) die "netd-restart: unknown option '$1'" ;;
            *) break ;;
        esac
    done
    require_root
    [ -d "$STATE/ctl" ] || die "lab $NAME is not up"
    if [ $zygote -eq 1 ]; then file="$(property_file "${1:-}")" || exit 1; fi
    if [ -n "$names_after" ]; then
        write_table_names none || die "cannot take the table names away"
        # A lab taken down meanwhile has no names to put back.
        (sleep "$names_after"; [ -f "$NAMES_FILE" ] && write_table_names) </dev/null >/dev/null 2>&1 &
    fi
    ip netns exec "$DEV" env XTABLES_LOCKFILE="$STATE/xtables.lock" sh -c \
        'iptables-legacy -w -t mangle -F OUTPUT && iptables-legacy -w -t nat -F POSTROUTING' ||
        die "cannot flush OUTPUT and POSTROUTING"
    for prio in $(ip -n "$DEV" -4 rule show | sed -n 's/^\([0-9]*\):.*/\1/p' | sort -un); do
        [ "$prio" -eq 0 ] && continue
        while ip -n "$DEV" -4 rule del prio "$prio" 2>/dev/null; do :; done
    done
    { ip -n "$DEV" -4 rule add prio 32766 lookup main && ip -n "$DEV" -4 rule add prio 32767 lookup default; } ||
        die "cannot put back the main and default lookups"
    for i in "${IFACES[@]}"; do put_routes "$i" || die "cannot put back the routes of $i"; done
    [ $zygote -eq 0 ] || cmd_zygote_restart "$file"
}

usage() {
    cat <<U
usage: lab.sh COMMAND [ARGS]   (lab "$NAME"; set PROBEMOND_LAB for another)
  up | status
  down [--force]           refuses while the lab's owner runs, unless --force
  list                     every lab on this machine and its owner
  exec CMD...              run CMD in the device namespace ($DEV)
  netexec CMD...           run CMD in the internet namespace ($NET)
  delay IFACE MS           echo replies on IFACE come MS milliseconds late
  loss IFACE PERCENT       drop PERCENT % of echo requests arriving on IFACE
  fault IFACE MODE|off     MODE: silent, wrong-seq, bad-checksum, foreign-source,
                           unreachable, duplicate; wrong-seq, bad-checksum,
                           foreign-source and unreachable take "+reply" (the bad
                           packet after the delay, the real reply one delay later)
  counters [IFACE]         packets received from IFACE on the internet side
  relink IFACE             re-create IFACE (and its peer) as "up" made it
  reset                    every interface present and up, no delay, loss or fault
  netd-restart [--no-zygote] [--names-after SECONDS] [PROPERTY_FILE]
                           what netd's start does here: mangle OUTPUT, nat POSTROUTING
                           and every ip rule but priority 0's flushed, the lab's own
                           rules and routes put back; then zygote-restart. With
                           --names-after, the routing table names are gone too and
                           come back SECONDS later, in the background
  zygote-restart [PROPERTY_FILE]
                           init.svc.zygote to "restarting", a second later "running",
                           in PROPERTY_FILE (default: \$PROBEMOND_PROPERTY_FILE, the
                           running daemon's)
U
}

sub="${1:-}"; [ $# -gt 0 ] && shift
case "$sub" in
    up) cmd_up "$@" ;;
    down) cmd_down "$@" ;;
    status) cmd_status ;;
    list) cmd_list ;;
    exec) cmd_exec "$@" ;;
    netexec) cmd_netexec "$@" ;;
    delay) cmd_delay "$@" ;;
    loss) cmd_loss "$@" ;;
    fault) cmd_fault "$@" ;;
    counters) cmd_counters "$@" ;;
    relink) cmd_relink "$@" ;;
    reset) cmd_reset ;;
    netd-restart) cmd_netd_restart "$@" ;;
    zygote-restart) cmd_zygote_restart "$@" ;;
    -h|--help|help|"") usage ;;
    *) usage >&2; exit 2 ;;
esac
