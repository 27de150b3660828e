# Assertions shared by the lab test scripts (end-to-end, reliability).
# Source after daemon_lab.sh.

FAILED=0
fail() {
    echo "FAIL: $*"
    FAILED=1
}
expect_eq() {  # WHAT EXPECTED ACTUAL
    [ "$2" = "$3" ] || fail "$1: expected '$2', got '$3'"
}

# show_failure_context LINES: after a failure, the end of the daemon's log and
# of every other file the case left in PD_TMP, lines cut to 300 characters.
show_failure_context() {
    local lines="$1" f
    [ $FAILED -ne 0 ] && [ -n "${PD_TMP:-}" ] || return 0
    echo "--- daemon log (last $lines lines) ---"
    tail -n "$lines" "$PD_LOG" 2>/dev/null | cut -c1-300
    for f in "$PD_TMP"/*; do
        case "$f" in *probemond.log|*properties|*binder|*sysbin) continue ;; esac
        [ -f "$f" ] && { echo "--- $(basename "$f") ---"; tail -n 20 "$f" | cut -c1-300; }
    done
}
