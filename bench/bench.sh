#!/usr/bin/env bash
# Runs the benchmarks: every bench/<name>.sh, or the one named.
#   bench.sh            all of them, one table each
#   bench.sh NAME       bench/NAME.sh only
# A benchmark that exits 77 could not run here (no root, no lab); it is
# reported as skipped and does not fail the run.
set -uo pipefail
DIR="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"

names=()
if [ $# -gt 0 ]; then
    names=("$@")
else
    for f in "$DIR"/*.sh; do
        n="$(basename "$f" .sh)"
        [ "$n" = bench ] || names+=("$n")
    done
fi

cpu="$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)"
echo "machine: $(nproc) CPUs${cpu:+ ($cpu)}, kernel $(uname -r) $(uname -m)"
# Figures move with whatever else runs; the load at the start says how busy it was.
echo "started $(date '+%Y-%m-%d %H:%M'), load average $(cut -d' ' -f1-3 /proc/loadavg)"
rc=0
for n in "${names[@]}"; do
    script="$DIR/$n.sh"
    if [ ! -f "$script" ]; then
        echo "bench: no benchmark '$n' (have: $(cd "$DIR" && ls *.sh | sed 's/\.sh$//' | grep -vx bench | tr '\n' ' '))" >&2
        rc=2
        continue
    fi
    echo
    bash "$script"
    r=$?
    if [ $r -eq 77 ]; then
        echo "($n skipped)"
    elif [ $r -ne 0 ]; then
        echo "bench: $n failed (exit $r)" >&2
        rc=1
    fi
done
exit $rc
