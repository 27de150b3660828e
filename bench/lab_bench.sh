# Shared by the benchmarks that run the daemon in a lab of their own.
# Source it after setting ROOT, LAB and PROBEMOND_BUILD_DIR.

# bench_in_lab LABEL SCRIPT FIRST_ARG BINARY...
# Outside the lab: checks root and the binaries, brings up a lab of its own
# (named after this process, owned by it and taken down when it ends), re-runs
# SCRIPT --inside in its device namespace and exits with its status.
# Inside: loads the daemon helpers and returns with a clean kernel state and
# the clean-up trap set.
bench_in_lab() {
    local label="$1" script="$2" first="$3"
    shift 3
    if [ "$first" != "--inside" ]; then
        [ "$(id -u)" -eq 0 ] || { echo "skipped: the $label benchmark needs root (network lab)"; exit 77; }
        local b
        for b in "$@"; do
            [ -x "$PROBEMOND_BUILD_DIR/bin/$b" ] || { echo "bench $label: $b not built (./run build)" >&2; exit 2; }
        done
        export PROBEMOND_LAB="${PROBEMOND_LAB:-probemond}-b$$" PROBEMOND_LAB_OWNER=$$
        trap '"$LAB" down >/dev/null 2>&1' EXIT
        trap 'exit 130' INT TERM HUP
        "$LAB" up >/dev/null || exit $?
        "$LAB" exec bash "$script" --inside
        exit $?
    fi
}
