#!/usr/bin/env bash
# Probe accuracy: Ping::ping beside iputils `ping -I` on the same lab link,
# mean absolute error against the delay the responder adds.
. "$(dirname "${BASH_SOURCE[0]}")/../lab/driver.sh"
BIN="$PROBEMOND_BUILD_DIR/bin/probemond-bench-probe"
COUNT="${PROBEMOND_BENCH_COUNT:-20}"
IFACE=wlan0
SERVER=8.8.8.8

command -v ping >/dev/null || { echo "skipped: iputils ping is not installed"; exit 77; }
# Run from outside: each probe goes into the lab through lab.sh exec.
own_lab "bench probe" probemond-bench-probe probemond-responder
props="$OWN_TMP/properties"
echo "vendor.kest.probemond.ping_timeout=1000" >"$props"

# stats DELAY: reads RTTs (ms) on stdin, prints "samples mean mae max-error".
stats() {
    awk -v d="$1" '{ n++; s += $1; e = $1 - d; if (e < 0) e = -e; a += e; if (e > m) m = e }
        END { if (n == 0) print "0 - - -"; else printf "%d %.3f %.3f %.3f\n", n, s / n, a / n, m }'
}

echo "== probe: RTT accuracy on lab link $IFACE -> $SERVER, $COUNT probes per row =="
echo "machine: $(nproc) CPUs, kernel $(uname -r); responder delay from kernel arrival time"
printf '%-9s %-14s %8s %10s %10s %10s\n' DELAY TOOL SAMPLES MEAN-ms MAE-ms MAX-ERR-ms
for delay in 5 30 150; do
    "$LAB" delay "$IFACE" "$delay" || exit 1
    read -r n mean mae max < <("$LAB" exec env PROBEMOND_PROPERTY_FILE="$props" \
        ${PROBEMOND_EMULATOR:-} "$BIN" "$IFACE" "$SERVER" "$COUNT" 100 | stats "$delay")
    printf '%-9s %-14s %8s %10s %10s %10s\n' "$delay ms" "Ping::ping" "$n" "$mean" "$mae" "$max"
    read -r n mean mae max < <("$LAB" exec ping -n -c "$COUNT" -i 0.1 -I "$IFACE" "$SERVER" 2>/dev/null \
        | sed -n 's/.*time=\([0-9.]*\) ms.*/\1/p' | stats "$delay")
    printf '%-9s %-14s %8s %10s %10s %10s\n' "" "ping -I" "$n" "$mean" "$mae" "$max"
done
echo "Ping::ping reports whole milliseconds (truncated); iputils ping prints tenths below 100 ms, whole ms above."
