#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (build-fuzz/) and runs each for
# SECONDS (default 60) on a scratch copy of its committed corpus, then prints
# the executions per target. Exits 1 when any target finds a failing input;
# the input is kept under build-fuzz/artifacts/<target>/.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
SECONDS_EACH="${1:-60}"
[[ "$SECONDS_EACH" =~ ^[0-9]+$ ]] && [ "$SECONDS_EACH" -gt 0 ] || { echo "usage: fuzz.sh [SECONDS]" >&2; exit 2; }
BUILD="${PROBEMOND_FUZZ_BUILD_DIR:-$ROOT/build-fuzz}"
TARGETS=(fuzz_transact fuzz_icmp_reply fuzz_sockdiag fuzz_client_text)

if [ ! -f "$BUILD/CMakeCache.txt" ]; then
    gen=(); command -v ninja >/dev/null && gen=(-G Ninja)
    CXX=clang++ CC=clang cmake -S "$ROOT" -B "$BUILD" "${gen[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DPROBEMOND_FUZZ=ON >/dev/null
fi
cmake --build "$BUILD" -j "$(nproc)" --target fuzzers >/dev/null

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
rows=()
failed=0
for t in "${TARGETS[@]}"; do
    corpus="$work/$t"
    mkdir -p "$corpus" "$BUILD/artifacts/$t"
    cp "$ROOT/fuzz/corpus/$t/"* "$corpus/"
    log="$BUILD/artifacts/$t.log"
    rc=0
    # Seeds are read from the copy, so new finds never touch the repository.
    "$BUILD/bin/$t" -max_total_time="$SECONDS_EACH" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$BUILD/artifacts/$t/" "$corpus" >"$log" 2>&1 || rc=$?
    execs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)"
    rate="$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)"
    units="$(ls "$corpus" | wc -l)"
    if [ "$rc" -eq 0 ]; then
        result=ok
    else
        result="FAILED (rc $rc, see $log)"
        failed=1
        grep -E "^(==[0-9]+==ERROR|SUMMARY|fuzz invariant|.*runtime error)" "$log" | head -5 >&2 || true
        ls "$BUILD/artifacts/$t/" >&2 || true
    fi
    rows+=("$(printf '%-18s %8s %12s %10s %8s  %s' "$t" "${SECONDS_EACH}s" "${execs:-?}" "${rate:-?}" "$units" "$result")")
done

printf '%-18s %8s %12s %10s %8s  %s\n' target time executions exec/s corpus result
for r in "${rows[@]}"; do echo "$r"; done
exit "$failed"
