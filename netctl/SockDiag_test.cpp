#include "netctl/SockDiag.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>

#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

using android::net::DiagWalk;
using android::net::isLoopbackSocket;
using android::net::makeDestroyRequest;
using android::net::makeDumpRequest;
using android::net::SockDiagRequest;
using android::net::walkDiagMessages;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes bytesOf(const SockDiagRequest& r) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&r);
    return Bytes(p, p + sizeof(r));
}

void put16(Bytes& b, size_t at, uint16_t v) { memcpy(&b[at], &v, 2); }
void put32(Bytes& b, size_t at, uint32_t v) { memcpy(&b[at], &v, 4); }

TEST(SockDiagWire, DumpRequestBytes) {
    for (auto [family, proto] : {std::pair<uint8_t, uint8_t>{AF_INET, IPPROTO_TCP}, {AF_INET6, IPPROTO_UDP}}) {
        Bytes want(72, 0);
        put32(want, 0, 72);
        put16(want, 4, 20);
        put16(want, 6, 0x0301);
        want[16] = family;
        want[17] = proto;
        put32(want, 20, 0x8E);
        EXPECT_EQ(bytesOf(makeDumpRequest(proto, family, 0, android::net::kDumpStates)), want);
    }
}

inet_diag_msg sampleRecord(uint8_t family, uint8_t state) {
    inet_diag_msg m;
    memset(&m, 0, sizeof(m));
    m.idiag_family = family;
    m.idiag_state = state;
    m.idiag_uid = 10123;
    m.idiag_inode = 77;
    // Distinct bytes everywhere in the id, to catch a partial copy.
    uint8_t* id = reinterpret_cast<uint8_t*>(&m.id);
    for (size_t i = 0; i < sizeof(m.id); ++i) id[i] = static_cast<uint8_t>(0x10 + i);
    return m;
}

TEST(SockDiagWire, DestroyRequestCopiesTheRecordsIdentity) {
    inet_diag_msg m = sampleRecord(AF_INET6, 2 /* SYN_SENT */);
    Bytes want(72, 0);
    put32(want, 0, 72);
    put16(want, 4, 21);
    put16(want, 6, 0x0001);
    want[16] = AF_INET6;
    want[17] = IPPROTO_TCP;
    put32(want, 20, 1u << 2);
    memcpy(&want[24], &m.id, 48);
    EXPECT_EQ(bytesOf(makeDestroyRequest(IPPROTO_TCP, m)), want);

    inet_diag_msg udp = sampleRecord(AF_INET, 7 /* CLOSE */);
    SockDiagRequest r = makeDestroyRequest(IPPROTO_UDP, udp);
    EXPECT_EQ(r.req.idiag_states, 0x80u);
    EXPECT_EQ(r.req.sdiag_protocol, IPPROTO_UDP);
}

// Builds a dump reply buffer message by message.
class Reply {
public:
    Reply& record(const inet_diag_msg& m, size_t extra = 0) {
        return message(SOCK_DIAG_BY_FAMILY, reinterpret_cast<const uint8_t*>(&m), sizeof(m), extra);
    }
    Reply& done() { return message(NLMSG_DONE, nullptr, 4, 0); }
    Reply& error(int32_t code) {
        Bytes payload(20, 0);
        memcpy(payload.data(), &code, 4);
        return message(NLMSG_ERROR, payload.data(), payload.size(), 0);
    }
    Reply& message(uint16_t type, const uint8_t* payload, size_t len, size_t extra) {
        size_t at = b.size();
        uint32_t total = static_cast<uint32_t>(16 + len + extra);
        b.resize(at + NLMSG_ALIGN(total), 0);
        put32(b, at, total);
        put16(b, at + 4, type);
        if (payload) memcpy(&b[at + 16], payload, len);
        return *this;
    }
    Bytes b;
};

struct Seen {
    std::vector<uint32_t> inodes;
    int nulls = 0;
};

DiagWalk walk(const Bytes& b, Seen& seen) {
    return walkDiagMessages(b.data(), b.size(), [&](const inet_diag_msg* m) {
        if (m == nullptr) {
            ++seen.nulls;
        } else {
            seen.inodes.push_back(m->idiag_inode);
        }
    });
}

TEST(SockDiagWalk, RecordsUntilDoneOrError) {
    inet_diag_msg a = sampleRecord(AF_INET, 1), c = sampleRecord(AF_INET, 1);
    a.idiag_inode = 1;
    c.idiag_inode = 3;
    {
        // An unaligned record length is padded to 4 before the next message.
        Reply r;
        r.record(a, 2).record(c).done().record(a);
        Seen s;
        DiagWalk w = walk(r.b, s);
        EXPECT_TRUE(w.finished);
        EXPECT_EQ(w.result, 0);
        EXPECT_EQ(s.inodes, (std::vector<uint32_t>{1, 3}));
    }
    {
        Reply r;
        r.record(a).error(-EPERM).record(c);
        Seen s;
        DiagWalk w = walk(r.b, s);
        EXPECT_TRUE(w.finished);
        EXPECT_EQ(w.result, -EPERM);
        EXPECT_EQ(s.inodes, std::vector<uint32_t>{1});
    }
    {
        // No DONE yet: the caller reads on.
        Reply r;
        r.record(a).record(c);
        Seen s;
        DiagWalk w = walk(r.b, s);
        EXPECT_FALSE(w.finished);
        EXPECT_EQ(s.inodes.size(), 2u);
    }
}

TEST(SockDiagWalk, MalformedLengthsEndTheBufferSafely) {
    inet_diag_msg a = sampleRecord(AF_INET, 1);
    Seen s;
    Reply tooLong;
    tooLong.record(a);
    put32(tooLong.b, 0, static_cast<uint32_t>(tooLong.b.size() + 1));
    EXPECT_FALSE(walk(tooLong.b, s).finished);
    Reply tooShort;
    tooShort.record(a);
    put32(tooShort.b, 0, 15);
    EXPECT_FALSE(walk(tooShort.b, s).finished);
    EXPECT_TRUE(s.inodes.empty());

    // A message too short to hold a record reaches the handler as "no record".
    Reply stub;
    uint8_t four[4] = {};
    stub.message(SOCK_DIAG_BY_FAMILY, four, 4, 0).done();
    EXPECT_TRUE(walk(stub.b, s).finished);
    EXPECT_EQ(s.nulls, 1);

    // An error message cut after its header reads as error 0.
    Bytes cut(16, 0);
    put32(cut, 0, 16);
    put16(cut, 4, NLMSG_ERROR);
    DiagWalk w = walk(cut, s);
    EXPECT_TRUE(w.finished);
    EXPECT_EQ(w.result, 0);
}

TEST(SockDiagWalk, ArbitraryBytesNeverReadOutOfBounds) {
    std::mt19937 rng(1234);
    for (int i = 0; i < 3000; ++i) {
        Bytes b(rng() % 400);
        for (auto& x : b) x = static_cast<uint8_t>(rng());
        // Plausible lengths and types more often than chance would give.
        for (size_t at = 0; at + 8 <= b.size(); at += 4 + (rng() % 96)) {
            if (rng() % 2) put32(b, at, 16 + rng() % 120);
            if (rng() % 2) put16(b, at + 4, static_cast<uint16_t>(rng() % 4 == 0 ? NLMSG_DONE : rng() % 25));
        }
        Seen s;
        walk(b, s);
    }
}

inet_diag_msg addrRecord(int family, const char* src, const char* dst) {
    inet_diag_msg m;
    memset(&m, 0, sizeof(m));
    m.idiag_family = static_cast<uint8_t>(family);
    inet_pton(family, src, m.id.idiag_src);
    inet_pton(family, dst, m.id.idiag_dst);
    return m;
}

TEST(SockDiagLoopback, WhichSocketsCountAsLoopback) {
    struct Case {
        int family;
        const char* src;
        const char* dst;
        bool loopback;
    } cases[] = {
        {AF_INET, "127.0.0.1", "10.0.0.2", true},
        {AF_INET, "10.0.0.1", "127.0.0.9", true},
        {AF_INET, "10.0.0.1", "10.0.0.1", true},
        {AF_INET, "10.0.0.1", "10.0.0.2", false},
        {AF_INET, "0.0.0.0", "0.0.0.0", true},  // unconnected: source equals destination
        {AF_INET6, "::1", "2001:db8::2", true},
        {AF_INET6, "2001:db8::1", "::1", true},
        {AF_INET6, "2001:db8::1", "2001:db8::1", true},
        {AF_INET6, "2001:db8::1", "2001:db8::2", false},
        // Mapped addresses are judged by their final octet.
        {AF_INET6, "::ffff:10.0.0.127", "2001:db8::2", true},
        {AF_INET6, "::ffff:127.0.0.1", "2001:db8::2", false},
        {AF_INET6, "2001:db8::2", "::ffff:1.2.3.127", true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(isLoopbackSocket(addrRecord(c.family, c.src, c.dst)), c.loopback) << c.src << " -> " << c.dst;
    }
}

}  // namespace
