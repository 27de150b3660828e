#include "netctl/SockDiag.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "common/Log.h"

namespace android {
namespace net {
namespace {

constexpr size_t kReadSize = 8192;
constexpr size_t kHeaderSize = sizeof(nlmsghdr);

// strerror_r comes as GNU (returns the text) or XSI (fills the buffer).
[[maybe_unused]] const char* errorText(const char* text, const char*) { return text; }
[[maybe_unused]] const char* errorText(int, const char* buf) { return buf; }

// strerror's text, without its shared buffer.
std::string errnoText(int err) {
    char buf[128] = {};
    return errorText(strerror_r(err, buf, sizeof(buf)), buf);
}

// Peeks at what the kernel queued on `fd`; consumes it only when it is an
// error record. Nothing queued is success: destroy requests ask for no ack.
int checkError(int fd) {
    uint8_t buf[36];
    ssize_t n = recvfrom(fd, buf, sizeof(buf), MSG_PEEK | MSG_DONTWAIT, nullptr, nullptr);
    if (n == -1) return errno == EAGAIN ? 0 : -errno;
    nlmsghdr nlh;
    memcpy(&nlh, buf, sizeof(nlh));
    if (n == static_cast<ssize_t>(sizeof(buf)) && nlh.nlmsg_type == NLMSG_ERROR) {
        n = recv(fd, buf, sizeof(buf), 0);
        if (n == -1) return -errno;
        int32_t error;
        memcpy(&error, buf + kHeaderSize, sizeof(error));
        return error;
    }
    return 0;
}

}  // namespace

SockDiagRequest makeDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states) {
    SockDiagRequest r;
    memset(&r, 0, sizeof(r));
    r.nlh.nlmsg_len = sizeof(r);
    r.nlh.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    r.nlh.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    r.req.sdiag_family = family;
    r.req.sdiag_protocol = proto;
    r.req.idiag_ext = extensions;
    r.req.idiag_states = states;
    return r;
}

SockDiagRequest makeDestroyRequest(uint8_t proto, const inet_diag_msg& msg) {
    SockDiagRequest r;
    memset(&r, 0, sizeof(r));
    r.nlh.nlmsg_len = sizeof(r);
    r.nlh.nlmsg_type = SOCK_DESTROY;
    r.nlh.nlmsg_flags = NLM_F_REQUEST;
    r.req.sdiag_family = msg.idiag_family;
    r.req.sdiag_protocol = proto;
    // Kernel states are below 32; anything else would be a shift out of range.
    r.req.idiag_states = msg.idiag_state < 32 ? 1u << msg.idiag_state : 0;
    r.req.id = msg.id;
    return r;
}

DiagWalk walkDiagMessages(const uint8_t* buf, size_t len, const std::function<void(const inet_diag_msg*)>& onRecord) {
    size_t off = 0;
    while (len - off >= kHeaderSize) {
        nlmsghdr nlh;
        memcpy(&nlh, buf + off, sizeof(nlh));
        const size_t remaining = len - off;
        if (nlh.nlmsg_len < kHeaderSize || nlh.nlmsg_len > remaining) break;
        if (nlh.nlmsg_type == NLMSG_DONE) return {true, 0};
        if (nlh.nlmsg_type == NLMSG_ERROR) {
            // Bytes the sender left out read as zero, as in a zeroed receive buffer.
            int32_t error = 0;
            memcpy(&error, buf + off + kHeaderSize, std::min(sizeof(error), remaining - kHeaderSize));
            return {true, error};
        }
        if (nlh.nlmsg_len >= kHeaderSize + sizeof(inet_diag_msg)) {
            inet_diag_msg msg;
            memcpy(&msg, buf + off + kHeaderSize, sizeof(msg));
            onRecord(&msg);
        } else {
            onRecord(nullptr);
        }
        const size_t step = NLMSG_ALIGN(static_cast<size_t>(nlh.nlmsg_len));
        if (step >= remaining) break;
        off += step;
    }
    return {false, 0};
}

bool isLoopbackSocket(const inet_diag_msg& msg) {
    const inet_diag_sockid& id = msg.id;
    if (msg.idiag_family == AF_INET) {
        const uint8_t* src = reinterpret_cast<const uint8_t*>(&id.idiag_src[0]);
        const uint8_t* dst = reinterpret_cast<const uint8_t*>(&id.idiag_dst[0]);
        return src[0] == 127 || dst[0] == 127 || id.idiag_src[0] == id.idiag_dst[0];
    }
    if (msg.idiag_family == AF_INET6) {
        in6_addr src, dst;
        memcpy(&src, id.idiag_src, sizeof(src));
        memcpy(&dst, id.idiag_dst, sizeof(dst));
        // The mapped address is tested on its last octet; kept as designed.
        if (IN6_IS_ADDR_V4MAPPED(&src) && src.s6_addr[15] == 127) return true;
        if (IN6_IS_ADDR_V4MAPPED(&dst) && dst.s6_addr[15] == 127) return true;
        if (IN6_IS_ADDR_LOOPBACK(&src) || IN6_IS_ADDR_LOOPBACK(&dst)) return true;
        return IN6_ARE_ADDR_EQUAL(&src, &dst);
    }
    return false;
}

SockDiag::SockDiag(android::base::unique_fd sock, android::base::unique_fd writeSock)
    : mSock(std::move(sock)), mWriteSock(std::move(writeSock)) {}

bool SockDiag::open() {
    mSock.reset(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    mWriteSock.reset(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    sockaddr_nl kernel;
    memset(&kernel, 0, sizeof(kernel));
    kernel.nl_family = AF_NETLINK;
    const sockaddr* addr = reinterpret_cast<const sockaddr*>(&kernel);
    if (mSock.get() == -1 || mWriteSock.get() == -1 || connect(mSock.get(), addr, sizeof(kernel)) == -1 ||
        connect(mWriteSock.get(), addr, sizeof(kernel)) == -1) {
        const int saved = errno;
        mSock.reset();
        mWriteSock.reset();
        LOGE("Failed to open NETLINK_SOCK_DIAG socket: %s", errnoText(saved).c_str());
        return false;
    }
    return true;
}

int SockDiag::sendDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states, iovec* iov,
                              int iovcnt) {
    SockDiagRequest request = makeDumpRequest(proto, family, extensions, states);
    iovec single;
    if (iov == nullptr || iovcnt < 1) {
        iov = &single;
        iovcnt = 1;
    }
    size_t total = sizeof(request);
    for (int i = 1; i < iovcnt; ++i) total += iov[i].iov_len;
    request.nlh.nlmsg_len = static_cast<uint32_t>(total);
    iov[0].iov_base = &request;
    iov[0].iov_len = sizeof(request);
    ssize_t sent = writev(mSock.get(), iov, iovcnt);
    if (sent != static_cast<ssize_t>(total)) return -errno;
    return checkError(mSock.get());
}

void SockDiag::sockDestroy(uint8_t proto, const inet_diag_msg* msg) {
    SockDiagRequest request = makeDestroyRequest(proto, *msg);
    ssize_t n = write(mWriteSock.get(), &request, sizeof(request));
    if (n < static_cast<ssize_t>(sizeof(request))) {
        LOGE("FAILED sockDestroy in write");
        return;
    }
    if (checkError(mWriteSock.get()) == 0) ++mSocketsDestroyed;
}

int SockDiag::readDiagMsg(uint8_t proto, const DestroyFilter& callback) {
    auto handler = [&](const inet_diag_msg* msg) {
        if (!callback(proto, msg)) return;
        sockDestroy(proto, msg);
    };
    alignas(nlmsghdr) uint8_t buf[kReadSize];
    for (;;) {
        memset(buf, 0, sizeof(buf));
        ssize_t n = read(mSock.get(), buf, sizeof(buf));
        if (n < 0) return -errno;
        if (n == 0) return 0;
        DiagWalk walk = walkDiagMessages(buf, static_cast<size_t>(n), handler);
        if (walk.finished) return walk.result;
    }
}

int SockDiag::destroySockets(uint8_t proto, uint32_t uid, bool excludeLoopback) {
    mSocketsDestroyed = 0;
    auto filter = [uid, excludeLoopback](uint8_t, const inet_diag_msg* msg) {
        if (msg == nullptr || msg->idiag_uid != uid) return false;
        if (!excludeLoopback) return true;
        return !isLoopbackSocket(*msg);
    };
    struct Pass {
        uint8_t family;
        const char* name;
    };
    for (const Pass& pass : {Pass{AF_INET, "IPv4"}, Pass{AF_INET6, "IPv6"}}) {
        iovec iov[1];
        int r = sendDumpRequest(proto, pass.family, 0, kDumpStates, iov, 1);
        if (r != 0) {
            LOGE("Failed to dump %s sockets for UID: %s", pass.name, errnoText(-r).c_str());
            return r;
        }
        r = readDiagMsg(proto, filter);
        if (r != 0) {
            LOGE("Failed to destroy %s sockets for UID: %s", pass.name, errnoText(-r).c_str());
            return r;
        }
    }
    if (mSocketsDestroyed > 0) {
        LOGI("Destroyed %d sockets (proto: %u) for UID %d", mSocketsDestroyed, static_cast<unsigned>(proto),
             static_cast<int>(uid));
    }
    return 0;
}

int32_t SockDiag::killUid(const char* uid) {
    // Text that is not a number becomes UID 0; callers validate UIDs first.
    int r = destroySockets(IPPROTO_TCP, static_cast<uint32_t>(atoi(uid)), false);
    if (r < 0) {
        // The text of the negative code on purpose: the log has always shown it this way.
        LOGE("Failed to destroy TCP sockets: %s", errnoText(r).c_str());
    }
    r = destroySockets(IPPROTO_UDP, static_cast<uint32_t>(atoi(uid)), false);
    if (r < 0) {
        LOGE("Failed to destroy UDP sockets: %s", errnoText(r).c_str());
    }
    return r;
}

}  // namespace net
}  // namespace android

namespace probemond {

int32_t killUidSockets(const char* uid) {
    android::net::SockDiag sd;
    if (!sd.open()) return -1;
    return sd.killUid(uid);
}

}  // namespace probemond
