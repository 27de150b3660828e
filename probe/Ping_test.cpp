#include "probe/Ping.h"

#include <android/log.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <vector>

#include "LogCapture.h"
#include "TempPropertyFile.h"
#include "probe/IcmpPacket.h"

using probemond::test::LogCapture;
using probemond::test::TempPropertyFile;

namespace {

// Ones' complement sum of network-order words, as a receiver on the wire
// checks it: a valid message sums to 0xFFFF.
uint16_t wireSum(const uint8_t* p, size_t n) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < n; i += 2) sum += static_cast<uint32_t>(p[i] << 8 | p[i + 1]);
    while (sum > 0xFFFF) sum = (sum >> 16) + (sum & 0xFFFF);
    return static_cast<uint16_t>(sum);
}

TEST(IcmpChecksum, RequestIsByteExact) {
    uint8_t req[icmp::kRequestSize];
    memset(req, 0xAA, sizeof(req));  // must be fully overwritten
    timeval sent{0x11223344, 0x55667};
    icmp::buildEchoRequest(req, 0x1234, 0x0102, sent);

    const uint8_t expected[24] = {0x08, 0x00, 0xf0, 0x50, 0x34, 0x12, 0x01, 0x02,
                                  0x44, 0x33, 0x22, 0x11, 0x00, 0x00, 0x00, 0x00,
                                  0x67, 0x56, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(0, memcmp(req, expected, sizeof(expected)));
    for (size_t i = 24; i < icmp::kRequestSize; ++i) EXPECT_EQ(0, req[i]) << "padding byte " << i;
    EXPECT_EQ(0xFFFF, wireSum(req, sizeof(req)));
}

TEST(IcmpChecksum, FoldedAllOnesGivesFfffNotZero) {
    uint8_t data[icmp::kRequestSize] = {};
    data[0] = 0xFF;
    data[1] = 0xFF;
    EXPECT_EQ(0xFFFF, icmp::checksum(data));

    // Identifier chosen so that type 8 plus identifier folds to 0xFFFF.
    uint8_t req[icmp::kRequestSize];
    icmp::buildEchoRequest(req, 0xFFF7, 0, timeval{0, 0});
    EXPECT_EQ(0xFF, req[2]);
    EXPECT_EQ(0xFF, req[3]);

    // Carries from many words fold back in more than once.
    memset(data, 0xFF, sizeof(data));
    data[0] = 0xFE;
    EXPECT_EQ(0x0001, icmp::checksum(data));
}

// A received packet: 4*ihl bytes of IPv4 header then the echo reply.
struct Reply {
    std::array<uint8_t, icmp::kReceiveBufferSize> buf{};
    in_addr destination{};
    timeval sent{1000, 500000};

    explicit Reply(int ihl = 5, uint16_t seq = 7, const char* from = "8.8.8.8") {
        inet_pton(AF_INET, "8.8.8.8", &destination);
        buf[0] = static_cast<uint8_t>(0x40 | ihl);
        inet_pton(AF_INET, from, &buf[12]);
        uint8_t* msg = icmpStart();
        icmp::buildEchoRequest(msg, 0x4242, seq, sent);
        msg[0] = icmp::kTypeEchoReply;
        reseal();
    }
    uint8_t* icmpStart() { return buf.data() + 4 * (buf[0] & 0x0F); }
    void reseal() {
        uint8_t* msg = icmpStart();
        msg[2] = msg[3] = 0;
        uint16_t sum = icmp::checksum(msg);
        memcpy(msg + 2, &sum, 2);
    }
    icmp::ReplyInfo check(uint16_t seq, timeval received) {
        return icmp::checkEchoReply(buf.data(), buf.size(), destination, seq, sent, received);
    }
};

TEST(IcmpReply, AcceptsGenuineReplyWithTruncatedRtt) {
    Reply r;
    auto info = r.check(7, timeval{1000, 530900});
    EXPECT_EQ(icmp::Verdict::kAccepted, info.verdict);
    EXPECT_EQ(30, info.rtt);  // 30.9 ms truncates

    // Across a second boundary each part truncates toward zero on its own.
    Reply late;
    late.sent = timeval{10, 999900};
    late.reseal();
    info = late.check(7, timeval{11, 100});
    EXPECT_EQ(1000, info.secondsMs);
    EXPECT_EQ(-999, info.microsMs);
    EXPECT_EQ(1, info.rtt);
}

TEST(IcmpReply, RejectionsAndTheirOrder) {
    const timeval at30{1000, 530000};
    {
        Reply r(5, 7, "1.1.1.1");
        auto info = r.check(8, at30);  // wrong sequence too: source is checked first
        EXPECT_EQ(icmp::Verdict::kForeignSource, info.verdict);
        char text[16];
        inet_ntop(AF_INET, &info.sourceRaw, text, sizeof(text));
        EXPECT_STREQ("1.1.1.1", text);
    }
    {
        Reply r(5, 7);
        r.icmpStart()[0] = 3;  // also not an echo reply: sequence comes first
        auto info = r.check(8, at30);
        EXPECT_EQ(icmp::Verdict::kWrongSequence, info.verdict);
        EXPECT_EQ(7, info.sequence);
    }
    {
        // Destination unreachable quoting our sequence, checksum left valid.
        Reply r(5, 7);
        r.icmpStart()[0] = 3;
        r.icmpStart()[1] = 1;
        r.reseal();
        auto info = r.check(7, at30);
        EXPECT_EQ(icmp::Verdict::kNotEchoReply, info.verdict);
        EXPECT_EQ(3, info.type);
        EXPECT_EQ(1, info.code);
    }
    {
        Reply r;
        r.icmpStart()[40] ^= 0x01;
        EXPECT_EQ(icmp::Verdict::kBadChecksum, r.check(7, at30).verdict);
    }
    {
        // Bytes past the received data still count: the checksum covers 56.
        Reply r;
        r.icmpStart()[icmp::kRequestSize - 1] = 0x5A;
        EXPECT_EQ(icmp::Verdict::kBadChecksum, r.check(7, at30).verdict);
    }
}

TEST(IcmpReply, MessageStartFollowsHeaderLength) {
    const timeval at30{1000, 530000};
    Reply withOptions(6);
    EXPECT_EQ(icmp::Verdict::kAccepted, withOptions.check(7, at30).verdict);

    // A reply laid out after 20 bytes but announced with IHL 6 is garbage.
    Reply shifted(5);
    shifted.buf[0] = 0x46;
    EXPECT_NE(icmp::Verdict::kAccepted, shifted.check(7, at30).verdict);

    Reply maximal(15);
    EXPECT_EQ(icmp::Verdict::kAccepted, maximal.check(7, at30).verdict);
}

TEST(IcmpReply, RttOfZeroOrLessIsNotAReply) {
    Reply r;
    auto info = r.check(7, timeval{1000, 500999});
    EXPECT_EQ(icmp::Verdict::kRttNotPositive, info.verdict);
    EXPECT_EQ(0, info.rtt);

    Reply back;
    info = back.check(7, timeval{999, 900000});  // clock stepped back
    EXPECT_EQ(icmp::Verdict::kRttNotPositive, info.verdict);
    EXPECT_EQ(-600, info.rtt);
}

TEST(IcmpReply, ClocksAtOppositeEndsWrapInsteadOfOverflowing) {
    Reply r;
    r.sent = timeval{INT64_MIN, 0};
    // The difference wraps to -1 s, as the 32-bit arithmetic would have it.
    auto info = r.check(7, timeval{INT64_MAX, 0});
    EXPECT_EQ(-1000, info.secondsMs);
    EXPECT_EQ(icmp::Verdict::kRttNotPositive, info.verdict);

    r.sent = timeval{0, LONG_MIN};
    info = r.check(7, timeval{0, LONG_MAX});
    EXPECT_EQ(0, info.microsMs);  // -1 us
}

TEST(IcmpReply, RefusesBufferTooSmallForWorstCase) {
    std::vector<uint8_t> small(icmp::kMinReplyBuffer - 1, 0x4F);
    in_addr any{};
    EXPECT_EQ(icmp::Verdict::kTooShort,
              icmp::checkEchoReply(small.data(), small.size(), any, 0, timeval{}, timeval{1, 0})
                      .verdict);
}

TEST(Ping, EarlyFailuresReturnTimeoutAndKeepSequence) {
    TempPropertyFile props;
    LogCapture log;
    Ping p;
    p.sequenceNumber = 41;

    EXPECT_EQ(200, p.ping(nullptr, "8.8.8.8"));
    EXPECT_EQ(200, p.ping("wlan0", nullptr));
    EXPECT_EQ(2u, log.count("interface or server is null", ANDROID_LOG_ERROR));

    props.set("vendor.kest.probemond.ping_timeout", "350");
    EXPECT_EQ(350, p.ping("nosuchif0", "8.8.8.8"));
    EXPECT_TRUE(log.has("Failed to bind socket on nosuchif0", ANDROID_LOG_ERROR)) << log.dump();

    props.set("vendor.kest.probemond.ping_timeout", "soon");
    EXPECT_EQ(0, p.ping(nullptr, nullptr));
    props.set("vendor.kest.probemond.ping_timeout", "-5");
    EXPECT_EQ(-5, p.ping(nullptr, nullptr));

    EXPECT_EQ(41, p.sequenceNumber);
}

}  // namespace
