// The netlink client against a test playing the kernel on socket pairs, and
// the message walk on malformed replies. Request bytes are written out by
// hand from the kernel's uapi layout, not rebuilt with the code's helpers.
#include "netctl/SockDiag.h"

#include <android/log.h>
#include <errno.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"

using android::base::unique_fd;
using android::net::DiagWalk;
using android::net::walkDiagMessages;
using probemond::test::LogCapture;
using Bytes = std::vector<uint8_t>;

namespace {

void put16(Bytes& b, size_t at, uint16_t v) { memcpy(&b[at], &v, 2); }
void put32(Bytes& b, size_t at, uint32_t v) { memcpy(&b[at], &v, 4); }

// 72 bytes: nlmsghdr, then family, protocol, ext, pad, states, 48-byte id.
Bytes request(uint16_t type, uint16_t flags, uint8_t family, uint8_t proto, uint32_t states) {
    Bytes b(72, 0);
    put32(b, 0, 72);
    put16(b, 4, type);
    put16(b, 6, flags);
    b[16] = family;
    b[17] = proto;
    put32(b, 20, states);
    return b;
}

// Netlink messages as the kernel would queue them.
struct Reply {
    Reply& message(uint16_t type, const void* payload, size_t len) {
        const size_t at = b.size();
        b.resize(at + NLMSG_ALIGN(16 + len), 0);
        put32(b, at, static_cast<uint32_t>(16 + len));
        put16(b, at + 4, type);
        if (len > 0) memcpy(&b[at + 16], payload, len);
        return *this;
    }
    Reply& record(const inet_diag_msg& m) { return message(SOCK_DIAG_BY_FAMILY, &m, sizeof(m)); }
    Reply& done() { return message(NLMSG_DONE, "\0\0\0", 4); }
    Reply& error(int32_t code) {
        Bytes e(20, 0);  // error code, then the failed request's header
        put32(e, 0, static_cast<uint32_t>(code));
        return message(NLMSG_ERROR, e.data(), e.size());
    }
    Bytes b;
};

inet_diag_msg socketRecord(uint8_t family, uint8_t state, uint32_t uid) {
    inet_diag_msg m;
    memset(&m, 0, sizeof(m));
    m.idiag_family = family;
    m.idiag_state = state;
    m.idiag_uid = uid;
    uint8_t* id = reinterpret_cast<uint8_t*>(&m.id);
    for (size_t i = 0; i < sizeof(m.id); ++i) id[i] = static_cast<uint8_t>(0x10 + i);  // catches a partial copy
    return m;
}

// One end for SockDiag, one for the test playing the kernel.
struct Pair {
    Pair() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds), 0);
        daemon.reset(fds[0]);
        kernel.reset(fds[1]);
    }
    void queue(const Reply& r) { ASSERT_EQ(send(kernel.get(), r.b.data(), r.b.size(), 0), ssize_t(r.b.size())); }
    std::vector<Bytes> received() {
        std::vector<Bytes> out;
        Bytes buf(1024);
        for (ssize_t n; (n = recv(kernel.get(), buf.data(), buf.size(), MSG_DONTWAIT)) > 0;)
            out.emplace_back(buf.begin(), buf.begin() + n);
        return out;
    }
    unique_fd daemon, kernel;
};

TEST(SockDiagAgainstAPlayedKernel, RefusedTcpIpv4DumpSkipsTcpIpv6AndUdpStillRuns) {
    Pair dump, destroy;
    const inet_diag_msg mine = socketRecord(AF_INET, 7 /* CLOSE */, 10123);
    dump.queue(Reply().error(-EPERM));                                            // TCP over IPv4: refused
    dump.queue(Reply().record(mine));                                             // UDP over IPv4, first read
    dump.queue(Reply().record(socketRecord(AF_INET, 1, 10124)).record(mine).done());  // second read
    dump.queue(Reply().done());                                                   // UDP over IPv6
    android::net::SockDiag sd(std::move(dump.daemon), std::move(destroy.daemon));
    LogCapture log;
    EXPECT_EQ(sd.killUid("10123"), 0);

    EXPECT_EQ(dump.received(), (std::vector<Bytes>{request(20, 0x0301, AF_INET, IPPROTO_TCP, 0x8E),
                                                   request(20, 0x0301, AF_INET, IPPROTO_UDP, 0x8E),
                                                   request(20, 0x0301, AF_INET6, IPPROTO_UDP, 0x8E)}));
    Bytes destroyMine = request(21, 0x0001, AF_INET, IPPROTO_UDP, 1u << 7);
    memcpy(&destroyMine[24], &mine.id, 48);
    EXPECT_EQ(destroy.received(), (std::vector<Bytes>{destroyMine, destroyMine}));
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"Failed to dump IPv4 sockets for UID: Operation not permitted",
                                                     "Failed to destroy TCP sockets: Unknown error -1",
                                                     "Destroyed 2 sockets (proto: 17) for UID 10123"}));
    EXPECT_EQ(log.lines()[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(log.lines()[2].priority, ANDROID_LOG_INFO);
}

// Walks one buffer; returns the uids seen (0 for "no record") and how it ended.
std::vector<uint32_t> walk(const Bytes& b, DiagWalk* how) {
    std::vector<uint32_t> uids;
    *how = walkDiagMessages(b.data(), b.size(), [&](const inet_diag_msg* m) { uids.push_back(m ? m->idiag_uid : 0); });
    return uids;
}

TEST(SockDiagWalk, RecordsUntilDoneOrErrorAndMalformedLengthsEndTheBuffer) {
    const inet_diag_msg a = socketRecord(AF_INET, 1, 1), c = socketRecord(AF_INET, 1, 3);
    DiagWalk w;
    Reply padded;  // a 2-byte tail is padded to 4 before the next message
    padded.message(SOCK_DIAG_BY_FAMILY, Bytes(sizeof(a) + 2).data(), sizeof(a) + 2).record(c).done().record(a);
    memcpy(&padded.b[16], &a, sizeof(a));
    EXPECT_EQ(walk(padded.b, &w), (std::vector<uint32_t>{1, 3}));
    EXPECT_TRUE(w.finished && w.result == 0);
    EXPECT_EQ(walk(Reply().record(a).error(-EPERM).record(c).b, &w), std::vector<uint32_t>{1});
    EXPECT_TRUE(w.finished && w.result == -EPERM);
    for (uint32_t len : {88u + 1, 15u}) {
        Reply bad = Reply().record(a);
        put32(bad.b, 0, len);
        EXPECT_TRUE(walk(bad.b, &w).empty() && !w.finished) << len;
    }
    // Too short for a record: the handler hears "none"; an error cut after its header reads as 0.
    EXPECT_EQ(walk(Reply().message(SOCK_DIAG_BY_FAMILY, "abcd", 4).done().b, &w), std::vector<uint32_t>{0});
    walk(Reply().message(NLMSG_ERROR, nullptr, 0).b, &w);
    EXPECT_TRUE(w.finished && w.result == 0);
}

}  // namespace
