// Destroys a UID's TCP and UDP sockets through NETLINK_SOCK_DIAG, so that
// apps reconnect over a new path after the steering changes.
#pragma once

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <functional>

#include <android-base/unique_fd.h>

// uid as decimal text (not validated here: text that is not a number means
// UID 0). -1 when the netlink sockets cannot be set up, otherwise the result
// of the UDP pass (0 or a negative errno).
namespace probemond {
int32_t killUidSockets(const char* uid);
}  // namespace probemond

namespace android {
namespace net {

// One SOCK_DIAG_BY_FAMILY dump or SOCK_DESTROY request as it goes on the wire.
struct SockDiagRequest {
    nlmsghdr nlh;
    inet_diag_req_v2 req;
};
static_assert(sizeof(SockDiagRequest) == 72, "netlink request layout");

// Sockets in these states are dumped: ESTABLISHED, SYN_SENT, SYN_RECV and
// CLOSE (the state of unconnected UDP sockets).
inline constexpr uint32_t kDumpStates = 0x8E;

SockDiagRequest makeDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states);
SockDiagRequest makeDestroyRequest(uint8_t proto, const inet_diag_msg& msg);

// How the walk of one received buffer ended.
struct DiagWalk {
    bool finished;  // NLMSG_DONE or NLMSG_ERROR seen: stop reading
    int result;     // 0, or the error code of an NLMSG_ERROR
};

// Walks the netlink messages of one buffer as read from a dump socket. Every
// message other than DONE and ERROR goes to onRecord, with its socket record,
// or nullptr when the message is too short to hold one. Safe on any bytes.
DiagWalk walkDiagMessages(const uint8_t* buf, size_t len, const std::function<void(const inet_diag_msg*)>& onRecord);

// True for sockets whose traffic stays on the host.
bool isLoopbackSocket(const inet_diag_msg& msg);

class SockDiag {
public:
    // Returns true when the socket is to be destroyed.
    using DestroyFilter = std::function<bool(uint8_t proto, const inet_diag_msg* msg)>;

    // No sockets yet: open() connects to the kernel.
    SockDiag() = default;
    // Sockets already open: `sock` carries dumps and their replies,
    // `writeSock` destroy requests.
    SockDiag(android::base::unique_fd sock, android::base::unique_fd writeSock);
    SockDiag(const SockDiag&) = delete;
    SockDiag& operator=(const SockDiag&) = delete;

    // Opens and connects both NETLINK_SOCK_DIAG sockets; logs and closes both on failure.
    bool open();
    // The TCP then the UDP pass of killUidSockets() on these sockets.
    int32_t killUid(const char* uid);
    int destroySockets(uint8_t proto, uint32_t uid, bool excludeLoopback);
    // iov[0] is filled with the request itself; further elements (none in
    // this daemon) would follow it. iov may be null when iovcnt is 0.
    int sendDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states, iovec* iov, int iovcnt);
    int readDiagMsg(uint8_t proto, const DestroyFilter& callback);
    int socketsDestroyed() const { return mSocketsDestroyed; }

private:
    void sockDestroy(uint8_t proto, const inet_diag_msg* msg);

    android::base::unique_fd mSock;
    android::base::unique_fd mWriteSock;
    int32_t mSocketsDestroyed = 0;
};

}  // namespace net
}  // namespace android
