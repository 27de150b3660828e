// Socket destruction against the real kernel, inside a private network
// namespace so that no socket of the host is ever touched.
#include "netctl/SockDiag.h"

#include <android-base/unique_fd.h>
#include <errno.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"

using namespace probemond;

using android::base::unique_fd;
using probemond::test::LogCapture;

namespace {

// A socket's owner is the fsuid of the thread that creates it.
unique_fd socketAs(uid_t uid, int family, int type) {
    setfsuid(uid);
    unique_fd fd(socket(family, type | SOCK_CLOEXEC, 0));
    setfsuid(0);
    return fd;
}

// Loopback of `family`, or the wildcard address when `any`.
sockaddr_in6 addr(int family, uint16_t port, bool any = false) {
    sockaddr_in6 a{};
    a.sin6_family = static_cast<sa_family_t>(family);
    a.sin6_port = htons(port);
    if (family == AF_INET6 && !any) a.sin6_addr = in6addr_loopback;
    if (family == AF_INET && !any) reinterpret_cast<sockaddr_in*>(&a)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

int tcpState(int fd) {
    tcp_info info{};
    socklen_t len = sizeof(info);
    return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) == 0 ? info.tcpi_state : -1;
}

int pendingError(int fd) {
    int err = 0;
    socklen_t len = sizeof(err);
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 ? err : -1;
}

// One UID's sockets in one family: TCP established, UDP connected, UDP bound only.
struct UidSockets {
    UidSockets(uid_t uid, int family, int listener)
        : tcp(socketAs(uid, family, SOCK_STREAM)),
          udp(socketAs(uid, family, SOCK_DGRAM)),
          udpBound(socketAs(uid, family, SOCK_DGRAM)) {
        sockaddr_in6 a{};
        socklen_t len = sizeof(a);
        getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len);
        a = addr(family, ntohs(a.sin6_port));
        EXPECT_EQ(connect(tcp.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
        accepted.reset(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        a = addr(family, 9);
        EXPECT_EQ(connect(udp.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
        a = addr(family, 0, true);
        EXPECT_EQ(bind(udpBound.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
    }
    bool destroyed() const {
        return tcpState(tcp.get()) == TCP_CLOSE && pendingError(tcp.get()) == ECONNABORTED &&
               pendingError(udp.get()) == ECONNABORTED && pendingError(udpBound.get()) == ECONNABORTED;
    }
    bool intact() const {
        return tcpState(tcp.get()) == TCP_ESTABLISHED && pendingError(udp.get()) == 0 &&
               pendingError(udpBound.get()) == 0 && tcpState(accepted.get()) == TCP_ESTABLISHED;
    }
    unique_fd tcp, udp, udpBound, accepted;
};

class SockDiagKernelTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        const char* emulator = getenv("PROBEMOND_EMULATOR");
        if (emulator != nullptr && *emulator != '\0' &&
            unique_fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)).get() < 0 &&
            errno == EPROTONOSUPPORT)
            GTEST_SKIP() << "qemu-user does not translate NETLINK_SOCK_DIAG sockets";
        ifreq ifr{};
        strcpy(ifr.ifr_name, "lo");
        ifr.ifr_flags = IFF_UP;
        if (geteuid() != 0 || unshare(CLONE_NEWNET) != 0) return;
        unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ready_ = ioctl(fd.get(), SIOCSIFFLAGS, &ifr) == 0;
    }
    void SetUp() override {
        if (!ready_) GTEST_SKIP() << "needs root and a private network namespace";
    }
    static inline bool ready_ = false;
};

TEST_F(SockDiagKernelTest, DestroysEveryTcpAndUdpSocketOfTheUidAndNoOther) {
    unique_fd l4 = socketAs(0, AF_INET, SOCK_STREAM), l6 = socketAs(0, AF_INET6, SOCK_STREAM);
    for (auto [fd, family] : {std::pair<int, int>{l4.get(), AF_INET}, {l6.get(), AF_INET6}}) {
        sockaddr_in6 a = addr(family, 0);
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
        ASSERT_EQ(listen(fd, 8), 0);
    }
    UidSockets t4(10123, AF_INET, l4.get()), t6(10123, AF_INET6, l6.get());
    UidSockets b4(10124, AF_INET, l4.get()), b6(10124, AF_INET6, l6.get());
    ASSERT_TRUE(t4.intact() && t6.intact() && b4.intact() && b6.intact());

    LogCapture log;
    EXPECT_EQ(killUidSockets("10123"), 0);
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"Destroyed 2 sockets (proto: 6) for UID 10123",
                                                     "Destroyed 4 sockets (proto: 17) for UID 10123"}));
    EXPECT_TRUE(t4.destroyed() && t6.destroyed());
    EXPECT_TRUE(b4.intact() && b6.intact());
    EXPECT_EQ(tcpState(l4.get()), TCP_LISTEN);  // root's listeners stay
    EXPECT_EQ(tcpState(l6.get()), TCP_LISTEN);
}

}  // namespace
