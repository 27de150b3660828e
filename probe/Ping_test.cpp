#include "probe/Ping.h"

#include <android/log.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <vector>

#include "LogCapture.h"
#include "common/Properties.h"
#include "probe/IcmpPacket.h"

using namespace probemond;

using probemond::test::LogCapture;

namespace {

// Ones' complement sum of network-order words, as a receiver on the wire
// checks it: a valid message sums to 0xFFFF.
uint16_t wireSum(const uint8_t* p, size_t n) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < n; i += 2) sum += static_cast<uint32_t>(p[i] << 8 | p[i + 1]);
    while (sum > 0xFFFF) sum = (sum >> 16) + (sum & 0xFFFF);
    return static_cast<uint16_t>(sum);
}

TEST(IcmpRequest, BytesAndChecksum) {
    uint8_t req[icmp::kRequestSize];
    memset(req, 0xAA, sizeof(req));  // must be fully overwritten
    icmp::buildEchoRequest(req, 0x1234, 0x0102, timeval{0x11223344, 0x55667});
    const uint8_t head[24] = {0x08, 0x00, 0xf0, 0x50, 0x34, 0x12, 0x01, 0x02,
                              0x44, 0x33, 0x22, 0x11, 0x00, 0x00, 0x00, 0x00,
                              0x67, 0x56, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(0, memcmp(req, head, sizeof(head)));
    EXPECT_EQ(std::vector<uint8_t>(32, 0), std::vector<uint8_t>(req + 24, req + 56));
    EXPECT_EQ(0xFFFF, wireSum(req, sizeof(req)));

    // Type 8 plus this identifier folds to 0xFFFF: the checksum is 0xFFFF, not 0.
    icmp::buildEchoRequest(req, 0xFFF7, 0, timeval{0, 0});
    EXPECT_EQ(0xFF, req[2]);
    EXPECT_EQ(0xFF, req[3]);
}

// A received packet: 4*ihl bytes of IPv4 header, then the echo reply to
// sequence 7 sent at 1000.5 s.
struct Reply {
    std::array<uint8_t, icmp::kReceiveBufferSize> buf{};
    in_addr to{};
    timeval sent{1000, 500000};

    explicit Reply(int ihl = 5) {
        inet_pton(AF_INET, "8.8.8.8", &to);
        buf[0] = static_cast<uint8_t>(0x40 | ihl);
        memcpy(&buf[12], &to, 4);
        icmp::buildEchoRequest(msg(), 0x4242, 7, sent);
        msg()[0] = icmp::kTypeEchoReply;
        reseal();
    }
    uint8_t* msg() { return buf.data() + 4 * (buf[0] & 0x0F); }
    void reseal() {
        msg()[2] = msg()[3] = 0;
        const uint16_t sum = icmp::checksum(msg());
        memcpy(msg() + 2, &sum, 2);
    }
    icmp::ReplyInfo check(uint16_t seq = 7, timeval at = {1000, 530900}) {
        return icmp::checkEchoReply(buf.data(), buf.size(), to, seq, sent, at);
    }
};

TEST(IcmpReply, AcceptedWithTruncatedRtt) {
    EXPECT_EQ(icmp::Verdict::kAccepted, Reply().check().verdict);
    EXPECT_EQ(30, Reply().check().rtt);  // 30.9 ms
    EXPECT_EQ(icmp::Verdict::kAccepted, Reply(15).check().verdict);  // the longest header
    // Each part truncates toward zero on its own: 1000 - 499.9 gives 1000 - 499.
    EXPECT_EQ(501, Reply().check(7, timeval{1001, 100}).rtt);
    // Under a millisecond, or a clock stepped back, is no reply.
    EXPECT_EQ(icmp::Verdict::kRttNotPositive, Reply().check(7, timeval{1000, 500999}).verdict);
    EXPECT_EQ(-600, Reply().check(7, timeval{999, 900000}).rtt);
}

TEST(IcmpReply, RejectionsInTheirOrder) {
    const struct {
        const char* what;
        std::function<void(Reply&)> spoil;
        uint16_t seq;
        icmp::Verdict verdict;
    } rows[] = {
        {"foreign source, checked before the sequence", [](Reply& r) { r.buf[15] = 9; }, 8,
         icmp::Verdict::kForeignSource},
        {"wrong sequence, checked before the type", [](Reply& r) { r.msg()[0] = 3; }, 8,
         icmp::Verdict::kWrongSequence},
        {"error quoting our sequence", [](Reply& r) { r.msg()[0] = 3; r.reseal(); }, 7,
         icmp::Verdict::kNotEchoReply},
        {"one flipped bit", [](Reply& r) { r.msg()[40] ^= 1; }, 7, icmp::Verdict::kBadChecksum},
        {"header length announced longer than laid out", [](Reply& r) { r.buf[0] = 0x46; }, 7,
         icmp::Verdict::kWrongSequence},
    };
    for (const auto& row : rows) {
        Reply r;
        row.spoil(r);
        EXPECT_EQ(row.verdict, r.check(row.seq).verdict) << row.what;
    }
}

// A missing device and a timeout that is no number are the reliability cases'.
// The timeout is the one configured where the test runs (on a phone, its own).
TEST(Ping, NullArgumentsReturnTheTimeoutAndKeepTheSequence) {
    LogCapture log;
    Ping p;
    p.sequenceNumber = 41;
    EXPECT_EQ(readIntProperty(kPingTimeoutProperty, "200"), p.ping(nullptr, "8.8.8.8").rtt);
    EXPECT_TRUE(p.ping("wlan0", nullptr).failed);
    EXPECT_EQ(2u, log.count("interface or server is null", ANDROID_LOG_ERROR));
    EXPECT_EQ(41, p.sequenceNumber);
}

}  // namespace
