// Any bytes as one read from a SOCK_DIAG dump socket: the walk must stay in
// the buffer, hand out only records that lie in it, and the loopback filter
// must not care which end of a socket is which.
#include <netinet/in.h>

#include <cstring>
#include <vector>

#include "fuzz/FuzzCommon.h"
#include "netctl/SockDiag.h"

using android::net::isLoopbackSocket;
using android::net::walkDiagMessages;

namespace {

void checkLoopbackFilter(const inet_diag_msg& msg) {
    const bool loopback = isLoopbackSocket(msg);
    inet_diag_msg swapped = msg;
    memcpy(swapped.id.idiag_src, msg.id.idiag_dst, sizeof(msg.id.idiag_src));
    memcpy(swapped.id.idiag_dst, msg.id.idiag_src, sizeof(msg.id.idiag_dst));
    FUZZ_CHECK(isLoopbackSocket(swapped) == loopback);
    if (msg.idiag_family != AF_INET && msg.idiag_family != AF_INET6) FUZZ_CHECK(!loopback);
    // A socket to itself never leaves the host.
    inet_diag_msg self = msg;
    memcpy(self.id.idiag_dst, self.id.idiag_src, sizeof(self.id.idiag_dst));
    if (msg.idiag_family == AF_INET || msg.idiag_family == AF_INET6) FUZZ_CHECK(isLoopbackSocket(self));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    probemond::fuzz::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Exactly the bytes read, so any read past them is caught.
    std::vector<uint8_t> buf(data, data + size);
    size_t records = 0;
    const android::net::DiagWalk walk =
            walkDiagMessages(buf.data(), buf.size(), [&](const inet_diag_msg* msg) {
                records++;
                if (msg != nullptr) checkLoopbackFilter(*msg);
            });
    // Every message handed out took at least a header of the buffer.
    FUZZ_CHECK(records <= size / sizeof(nlmsghdr));
    if (!walk.finished) FUZZ_CHECK(walk.result == 0);

    // The filter on its own, over records no walk would produce.
    if (size >= sizeof(inet_diag_msg)) {
        inet_diag_msg msg;
        memcpy(&msg, data, sizeof(msg));
        checkLoopbackFilter(msg);
    }
    return 0;
}
