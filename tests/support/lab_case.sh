# shellcheck shell=bash
# The frame and assertions of the test scripts that run the daemon in the lab
# (tests/e2e, tests/reliability). Source it; it loads lab/daemon.sh. A script
# defines case_NAME functions and ends with pd_run_case "$1".
#
# A test case's strict mode: an unset variable is an error. No pipefail: a
# check may pipe into `grep -q`, which can close its pipe before the writer
# is done. No errexit: a failed check records the failure (fail) and the case
# goes on to its other checks.
set -u

. "$(dirname "${BASH_SOURCE[0]}")/../../lab/daemon.sh"

fail() { echo "FAIL: $*"; FAILED=1; }
expect_eq() { [ "$2" = "$3" ] || fail "$1: expected '$2', got '$3'"; }  # WHAT EXPECTED ACTUAL
# unless_sock_diag_refused CMD...: runs CMD (a failure) unless the daemon could
# not open NETLINK_SOCK_DIAG because qemu-user does not translate that family;
# then the case runs its other checks and ends skipped unless one fails.
unless_sock_diag_refused() {
    if [ -n "${PROBEMOND_EMULATOR:-}" ] &&
        grep -qF "Failed to open NETLINK_SOCK_DIAG socket: Protocol not supported" "$PD_LOG"; then
        PD_SKIPPED="socket destruction: qemu-user does not translate NETLINK_SOCK_DIAG"
    else
        "$@"
    fi
}

# After a failure, shows the end of the daemon's log and of every file the
# case left in PD_TMP.
pd_finish() {
    if [ $FAILED -ne 0 ] && [ -n "${PD_TMP:-}" ]; then
        local f
        for f in "$PD_LOG" "$PD_TMP"/*; do
            case "$f" in *properties|*binder|*sysbin) continue ;; esac
            [ -f "$f" ] && { echo "--- $(basename "$f") ---"; tail -n 40 "$f" | cut -c1-300; }
        done
    fi
    pd_cleanup || { [ $FAILED -ne 0 ] || echo "FAIL: the wrappers refused a command line"; exit 1; }
    [ "$PD_SANITIZER_REPORTS" -eq 0 ] || { echo "FAIL: sanitizer report in the daemon's log"; exit 1; }
}

# pd_run_case CASE: runs case_CASE on a lab and kernel as "up" made them, and
# puts the lab back afterwards; exit 0 pass, 1 fail, 77 skipped.
pd_run_case() {
    [ "$(id -u)" -eq 0 ] || { echo "skipped: needs root"; exit 77; }
    [ -n "${PROBEMOND_SYSTEM_BIN:-}" ] || { echo "skipped: run through lab.sh exec"; exit 77; }
    declare -F "case_$1" >/dev/null || { echo "unknown case '$1'"; exit 2; }
    FAILED=0 PD_SKIPPED=""
    pd_init
    trap '"$PD_LAB" reset; pd_finish' EXIT
    pd_clean_kernel
    "$PD_LAB" reset
    "case_$1"
    # A line the phone's wrappers would refuse is a failure of any case.
    pd_stop_daemon
    [ "$PD_REFUSED" -eq 0 ] || fail "the wrappers refused a command line (named above)"
    [ $FAILED -eq 0 ] && [ -n "$PD_SKIPPED" ] && { echo "skipped: $PD_SKIPPED"; exit 77; }
    [ $FAILED -eq 0 ] && echo "PASS: $1"
    exit $FAILED
}
