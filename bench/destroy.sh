#!/usr/bin/env bash
# Socket destruction benchmark: killUidSockets against `ss -K`.
. "$(dirname "${BASH_SOURCE[0]}")/../lab/driver.sh"
BIN="$PROBEMOND_BUILD_DIR/bin/probemond-bench-destroy"
[ -x "$BIN" ] || { echo "bench destroy: $BIN not built (./run build)" >&2; exit 2; }
command -v ss >/dev/null || { echo "skipped: ss (iproute2) is not installed"; exit 77; }
[ -z "${PROBEMOND_EMULATOR:-}" ] || { echo "skipped: destroy times socket destruction: qemu-user does not translate NETLINK_SOCK_DIAG"; exit 77; }
echo "== destroy: killUidSockets vs ss -K =="
exec ${PROBEMOND_EMULATOR:-} "$BIN"
