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

# A check that cannot hold here: the case runs its other checks and ends
# skipped (exit 77, naming REASON) unless one of them fails.
SKIPPED=""
skip_check() {  # REASON
    echo "skipped check: $*"
    SKIPPED="$*"
}
# unless_sock_diag_refused CMD...: runs CMD (a failure) unless the daemon
# could not open NETLINK_SOCK_DIAG because qemu-user does not translate it.
unless_sock_diag_refused() {
    if [ -n "${PROBEMOND_EMULATOR:-}" ] &&
        grep -qF "Failed to open NETLINK_SOCK_DIAG socket: Protocol not supported" "$PD_LOG"; then
        skip_check "socket destruction: qemu-user does not translate NETLINK_SOCK_DIAG"
    else
        "$@"
    fi
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
