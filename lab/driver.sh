# shellcheck shell=bash
# The start of every lab driver: the demo and the benchmarks, scripts that
# bring up a lab of their own and drive the daemon in it. Source it first:
#   . "$(dirname "${BASH_SOURCE[0]}")/../lab/driver.sh"
# It sets ROOT (the checkout), LAB (lab.sh), PROBEMOND_SOURCE_DIR and
# PROBEMOND_BUILD_DIR (default <checkout>/build), and reads lab/interfaces.
#
# A driver's strict mode: an unset variable is an error, and a pipeline fails
# when any part of it does, so no `| grep -q` (it may leave the writer a
# broken pipe: grep without -q reads to the end). No errexit: a driver checks
# each step where it makes it and says which one failed (die, miss, skip).
set -uo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
export PROBEMOND_SOURCE_DIR="$ROOT"
export PROBEMOND_BUILD_DIR="${PROBEMOND_BUILD_DIR:-$ROOT/build}"
LAB="$ROOT/lab/lab.sh"
. "$ROOT/lab/interfaces.sh"
OWN_SCRIPT="$(cd "$(dirname "${BASH_SOURCE[-1]}")" && pwd)/$(basename "${BASH_SOURCE[-1]}")"

# own_lab LABEL BINARY...: brings up a lab named after this process and owned
# by it, so a lab someone else uses keeps its settings; it goes down when this
# process ends, however it ends, with OWN_TMP, a scratch folder. Exits 77
# (skipped) without root or namespaces, 2 when a binary is not built.
own_lab() {
    local label="$1" b rc
    shift
    [ "$(id -u)" -eq 0 ] || { echo "skipped: $label needs root (network lab)"; exit 77; }
    for b in "$@"; do
        [ -x "$PROBEMOND_BUILD_DIR/bin/$b" ] || { echo "$label: $b is not built (./run build)" >&2; exit 2; }
    done
    export PROBEMOND_LAB="${PROBEMOND_LAB:-probemond}-$$" PROBEMOND_LAB_OWNER=$$
    OWN_TMP="$(mktemp -d /tmp/probemond-own.XXXXXX)"
    trap '"$LAB" down >/dev/null 2>&1; rm -rf "$OWN_TMP"' EXIT
    trap 'exit 130' INT TERM HUP
    "$LAB" up >/dev/null && return 0
    rc=$?
    [ $rc -eq 77 ] || echo "$label: the lab did not come up" >&2
    exit $rc
}

# run_inside: this script again, as SCRIPT --inside, in the device namespace
# of the lab own_lab brought up.
run_inside() { "$LAB" exec bash "$OWN_SCRIPT" --inside; }

# lab_session: inside the lab, loads lab/daemon.sh with a clean kernel state
# and clean-up when the script ends; the script fails when the wrappers
# refused a line.
lab_session() {
    . "$ROOT/lab/daemon.sh"
    pd_init
    trap 'pd_cleanup || exit 1' EXIT
    trap 'exit 130' INT TERM
    pd_clean_kernel
}

# start_in_own_lab LABEL FIRST_ARG BINARY...: the whole opening of a benchmark.
# Called with FIRST_ARG other than --inside: own_lab, run_inside, exit with its
# status. With --inside: lab_session, and the script goes on.
start_in_own_lab() {
    local label="$1" first="$2"
    shift 2
    if [ "$first" != "--inside" ]; then
        own_lab "$label" "$@"
        run_inside
        exit $?
    fi
    lab_session
}
