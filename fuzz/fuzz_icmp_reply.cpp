// Any bytes as a received IPv4 packet, checked against a request. Half of the
// inputs are turned into a genuine reply to that request first, so the
// accepting path is reached and must accept.
#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "fuzz/FuzzCommon.h"
#include "probe/IcmpPacket.h"

using namespace probemond;

namespace {

struct Header {
    uint8_t mode;
    uint8_t ihlWords;
    uint16_t sequence;
    uint32_t destination;
    int64_t sentSec, sentUsec, recvSec, recvUsec;
};

timeval makeTime(int64_t sec, int64_t usec) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(sec);
    tv.tv_usec = static_cast<suseconds_t>(usec);
    return tv;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    probemond::fuzz::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Header h;
    if (size < sizeof(h)) return 0;
    memcpy(&h, data, sizeof(h));
    data += sizeof(h);
    size -= sizeof(h);

    in_addr destination{};
    destination.s_addr = h.destination;
    timeval sent = makeTime(h.sentSec, h.sentUsec);
    timeval received = makeTime(h.recvSec, h.recvUsec);
    if (h.mode & 1) {
        // Real clocks: microseconds in range, reply after the request.
        sent = makeTime(h.sentSec & 0xFFFFFFFF, static_cast<uint64_t>(h.sentUsec) % 1000000);
        received = makeTime(sent.tv_sec + (h.recvSec & 0xFF), static_cast<uint64_t>(h.recvUsec) % 1000000);
    }

    // Exactly the received length, so any read past it is caught.
    std::vector<uint8_t> packet(data, data + size);
    const bool genuine = (h.mode & 2) != 0 && packet.size() >= icmp::kMinReplyBuffer;
    if (genuine) {
        const size_t ihl = 4u * (5u + h.ihlWords % 11u);
        packet[0] = static_cast<uint8_t>(0x40 | (ihl / 4));
        memcpy(packet.data() + 12, &destination.s_addr, 4);
        uint8_t* icmpPart = packet.data() + ihl;
        icmp::buildEchoRequest(icmpPart, 0x1234, h.sequence, sent);
        // The responder's answer: type 0, checksum redone over the same bytes.
        icmpPart[0] = icmp::kTypeEchoReply;
        icmpPart[2] = icmpPart[3] = 0;
        const uint16_t sum = icmp::checksum(icmpPart);
        memcpy(icmpPart + 2, &sum, sizeof(sum));
    }

    const icmp::ReplyInfo info =
            icmp::checkEchoReply(packet.data(), packet.size(), destination, h.sequence, sent, received);

    if (packet.size() < icmp::kMinReplyBuffer) {
        FUZZ_CHECK(info.verdict == icmp::Verdict::kTooShort);
        return 0;
    }
    FUZZ_CHECK(info.verdict != icmp::Verdict::kTooShort);
    if (info.verdict == icmp::Verdict::kAccepted) {
        FUZZ_CHECK(info.rtt > 0);
        FUZZ_CHECK(info.sequence == h.sequence);
        FUZZ_CHECK(info.sourceRaw == destination.s_addr);
        FUZZ_CHECK(info.type == icmp::kTypeEchoReply);
    }
    if (genuine) {
        FUZZ_CHECK(info.verdict == icmp::Verdict::kAccepted || info.verdict == icmp::Verdict::kRttNotPositive);
        if (h.mode & 1) {
            // Clocks in range: the RTT is the elapsed time in whole ms (within rounding).
            const int64_t elapsedUs = (received.tv_sec - sent.tv_sec) * 1000000 + (received.tv_usec - sent.tv_usec);
            FUZZ_CHECK(info.rtt >= elapsedUs / 1000 - 1 && info.rtt <= elapsedUs / 1000 + 1);
        }
    }
    return 0;
}
