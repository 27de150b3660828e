// Socket destruction against the real kernel, inside a private network
// namespace so that no socket of the host is ever touched.
#include "netctl/SockDiag.h"

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <arpa/inet.h>
#include <errno.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"

using probemond::test::LogCapture;

namespace {

constexpr uid_t kTarget = 10123;
constexpr uid_t kBystander = 10124;

using Fd = android::base::unique_fd;

std::string gSkipReason;

// A socket's owner is the fsuid of the thread that creates it.
Fd socketAs(uid_t uid, int family, int type) {
    setfsuid(uid);
    int fd = socket(family, type | SOCK_CLOEXEC, 0);
    setfsuid(0);
    return Fd(fd);
}

sockaddr_storage loopback(int family, uint16_t port) {
    sockaddr_storage ss{};
    if (family == AF_INET) {
        auto* a = reinterpret_cast<sockaddr_in*>(&ss);
        a->sin_family = AF_INET;
        a->sin_port = htons(port);
        a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
        auto* a = reinterpret_cast<sockaddr_in6*>(&ss);
        a->sin6_family = AF_INET6;
        a->sin6_port = htons(port);
        a->sin6_addr = in6addr_loopback;
    }
    return ss;
}

socklen_t lenOf(int family) { return family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6); }

uint16_t portOf(int fd) {
    sockaddr_storage ss{};
    socklen_t len = sizeof(ss);
    getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len);
    return ntohs(ss.ss_family == AF_INET ? reinterpret_cast<sockaddr_in*>(&ss)->sin_port
                                         : reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port);
}

int tcpState(int fd) {
    tcp_info info{};
    socklen_t len = sizeof(info);
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) != 0) return -1;
    return info.tcpi_state;
}

int pendingError(int fd) {
    int err = 0;
    socklen_t len = sizeof(err);
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
    return err;
}

// One family's listeners, owned by root: one that accepts, one whose accept
// queue is full so that new connections stay in SYN_SENT.
struct Listeners {
    Fd open, full, filler;
};

Listeners makeListeners(int family) {
    Listeners l;
    l.open = socketAs(0, family, SOCK_STREAM);
    sockaddr_storage a = loopback(family, 0);
    EXPECT_EQ(bind(l.open.get(), reinterpret_cast<sockaddr*>(&a), lenOf(family)), 0);
    EXPECT_EQ(listen(l.open.get(), 64), 0);
    l.full = socketAs(0, family, SOCK_STREAM);
    EXPECT_EQ(bind(l.full.get(), reinterpret_cast<sockaddr*>(&a), lenOf(family)), 0);
    EXPECT_EQ(listen(l.full.get(), 0), 0);
    l.filler = socketAs(0, family, SOCK_STREAM);
    sockaddr_storage to = loopback(family, portOf(l.full.get()));
    EXPECT_EQ(connect(l.filler.get(), reinterpret_cast<sockaddr*>(&to), lenOf(family)), 0);
    return l;
}

// A UID's TCP (established, connecting) and UDP (connected, unconnected)
// sockets in one family.
struct UidSockets {
    Fd established, accepted, connecting, udpConnected, udpUnconnected;
};

UidSockets makeUidSockets(uid_t uid, int family, const Listeners& l) {
    UidSockets s;
    s.established = socketAs(uid, family, SOCK_STREAM);
    sockaddr_storage to = loopback(family, portOf(l.open.get()));
    EXPECT_EQ(connect(s.established.get(), reinterpret_cast<sockaddr*>(&to), lenOf(family)), 0);
    s.accepted = Fd(accept4(l.open.get(), nullptr, nullptr, SOCK_CLOEXEC));

    s.connecting = socketAs(uid, family, SOCK_STREAM | SOCK_NONBLOCK);
    to = loopback(family, portOf(l.full.get()));
    EXPECT_EQ(connect(s.connecting.get(), reinterpret_cast<sockaddr*>(&to), lenOf(family)), -1);
    EXPECT_EQ(errno, EINPROGRESS);

    s.udpConnected = socketAs(uid, family, SOCK_DGRAM);
    to = loopback(family, 9);
    EXPECT_EQ(connect(s.udpConnected.get(), reinterpret_cast<sockaddr*>(&to), lenOf(family)), 0);

    // Bound to the wildcard address, not connected.
    s.udpUnconnected = socketAs(uid, family, SOCK_DGRAM);
    sockaddr_storage any{};
    any.ss_family = static_cast<sa_family_t>(family);
    EXPECT_EQ(bind(s.udpUnconnected.get(), reinterpret_cast<sockaddr*>(&any), lenOf(family)), 0);
    return s;
}

bool isDestroyed(const UidSockets& s) {
    return tcpState(s.established.get()) == TCP_CLOSE && pendingError(s.established.get()) == ECONNABORTED &&
           tcpState(s.connecting.get()) == TCP_CLOSE && pendingError(s.udpConnected.get()) == ECONNABORTED &&
           pendingError(s.udpUnconnected.get()) == ECONNABORTED;
}

bool isIntact(const UidSockets& s) {
    return tcpState(s.established.get()) == TCP_ESTABLISHED && tcpState(s.connecting.get()) == TCP_SYN_SENT &&
           pendingError(s.udpConnected.get()) == 0 && pendingError(s.udpUnconnected.get()) == 0;
}

class SockDiagKernelTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (geteuid() != 0) {
            gSkipReason = "needs root (a private network namespace and SOCK_DESTROY)";
            return;
        }
        if (unshare(CLONE_NEWNET) != 0) {
            gSkipReason = std::string("cannot create a network namespace: ") + strerror(errno);
            return;
        }
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq ifr{};
        strcpy(ifr.ifr_name, "lo");
        ifr.ifr_flags = IFF_UP;
        if (ioctl(fd, SIOCSIFFLAGS, &ifr) != 0) gSkipReason = "cannot bring lo up";
        close(fd);
        // qemu-user refuses netlink protocols it does not translate; a kernel
        // without sock_diag is a failure, not a skip.
        const char* emulator = getenv("PROBEMOND_EMULATOR");
        fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
        if (fd < 0 && errno == EPROTONOSUPPORT && emulator != nullptr && *emulator != '\0') {
            gSkipReason = std::string("the emulator (") + emulator + ") does not translate NETLINK_SOCK_DIAG";
        }
        if (fd >= 0) close(fd);
    }
    void SetUp() override {
        if (!gSkipReason.empty()) GTEST_SKIP() << gSkipReason;
    }
};

TEST_F(SockDiagKernelTest, DestroysEveryTcpAndUdpSocketOfTheUidAndNoOther) {
    Listeners l4 = makeListeners(AF_INET), l6 = makeListeners(AF_INET6);
    UidSockets t4 = makeUidSockets(kTarget, AF_INET, l4), t6 = makeUidSockets(kTarget, AF_INET6, l6);
    UidSockets b4 = makeUidSockets(kBystander, AF_INET, l4), b6 = makeUidSockets(kBystander, AF_INET6, l6);
    struct stat st;
    ASSERT_EQ(fstat(t4.established.get(), &st), 0);
    ASSERT_EQ(st.st_uid, kTarget);
    ASSERT_TRUE(isIntact(t4) && isIntact(t6) && isIntact(b4) && isIntact(b6));

    LogCapture log;
    EXPECT_EQ(killUidSockets(std::to_string(kTarget).c_str()), 0);
    EXPECT_EQ(log.count("Destroyed 4 sockets (proto: 6) for UID 10123", ANDROID_LOG_INFO), 1u) << log.dump();
    EXPECT_EQ(log.count("Destroyed 4 sockets (proto: 17) for UID 10123", ANDROID_LOG_INFO), 1u) << log.dump();
    EXPECT_EQ(log.lines().size(), 2u) << log.dump();
    EXPECT_TRUE(isDestroyed(t4));
    EXPECT_TRUE(isDestroyed(t6));
    EXPECT_TRUE(isIntact(b4));
    EXPECT_TRUE(isIntact(b6));
    // Root's listeners survive; a destroyed connection's far end is reset, a bystander's is not.
    EXPECT_EQ(tcpState(l4.open.get()), TCP_LISTEN);
    EXPECT_EQ(tcpState(l6.open.get()), TCP_LISTEN);
    EXPECT_EQ(tcpState(t4.accepted.get()), TCP_CLOSE);
    EXPECT_EQ(tcpState(b4.accepted.get()), TCP_ESTABLISHED);
    EXPECT_EQ(tcpState(b6.accepted.get()), TCP_ESTABLISHED);

    // Nothing left: both passes end at DONE with nothing to report.
    log.clear();
    EXPECT_EQ(killUidSockets(std::to_string(kTarget).c_str()), 0);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(SockDiagKernelTest, TextThatIsNotANumberMeansUidZero) {
    Fd root = socketAs(0, AF_INET, SOCK_DGRAM);
    sockaddr_storage to = loopback(AF_INET, 9);
    ASSERT_EQ(connect(root.get(), reinterpret_cast<sockaddr*>(&to), lenOf(AF_INET)), 0);
    Fd other = socketAs(kBystander, AF_INET, SOCK_DGRAM);
    ASSERT_EQ(connect(other.get(), reinterpret_cast<sockaddr*>(&to), lenOf(AF_INET)), 0);
    LogCapture log;
    EXPECT_EQ(killUidSockets("abc"), 0);
    EXPECT_EQ(pendingError(root.get()), ECONNABORTED);
    EXPECT_EQ(pendingError(other.get()), 0);
    EXPECT_TRUE(log.has("Destroyed 1 sockets (proto: 17) for UID 0")) << log.dump();
}

TEST_F(SockDiagKernelTest, ManySocketsSpanSeveralReadsAndAllGo) {
    // Enough records that the dump needs several 8192-byte reads.
    std::vector<Fd> target, other;
    sockaddr_storage to = loopback(AF_INET, 9);
    for (int i = 0; i < 300; ++i) {
        target.push_back(socketAs(kTarget, AF_INET, SOCK_DGRAM));
        other.push_back(socketAs(kBystander, AF_INET, SOCK_DGRAM));
        ASSERT_EQ(connect(target.back().get(), reinterpret_cast<sockaddr*>(&to), lenOf(AF_INET)), 0);
        ASSERT_EQ(connect(other.back().get(), reinterpret_cast<sockaddr*>(&to), lenOf(AF_INET)), 0);
    }
    LogCapture log;
    EXPECT_EQ(killUidSockets("10123"), 0);
    EXPECT_TRUE(log.has("Destroyed 300 sockets (proto: 17) for UID 10123")) << log.dump();
    int destroyed = 0, intact = 0;
    for (auto& fd : target) destroyed += pendingError(fd.get()) == ECONNABORTED;
    for (auto& fd : other) intact += pendingError(fd.get()) == 0;
    EXPECT_EQ(destroyed, 300);
    EXPECT_EQ(intact, 300);
}

TEST_F(SockDiagKernelTest, NoDescriptorLeaksWhenTheSecondSocketCannotOpen) {
    // Lowest free descriptor: with the limit just above it, only one socket fits.
    int lowest = dup(0);
    ASSERT_GE(lowest, 0);
    close(lowest);
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowest + 1);
    LogCapture log;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    int32_t result = killUidSockets("10123");
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(log.has("Failed to open NETLINK_SOCK_DIAG socket: Too many open files", ANDROID_LOG_ERROR))
        << log.dump();
    int again = dup(0);
    EXPECT_EQ(again, lowest);
    close(again);
}

}  // namespace
