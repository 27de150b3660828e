#include "probe/IcmpPacket.h"

#include <arpa/inet.h>

#include <cstring>

namespace probemond::icmp {

uint16_t checksum(const uint8_t* data) {
    uint32_t sum = 0;
    for (size_t i = 0; i < kRequestSize; i += 2) {
        uint16_t word;
        memcpy(&word, data + i, sizeof(word));
        sum += word;
        if (static_cast<int32_t>(sum) < 0) sum = (sum >> 16) + (sum & 0xFFFF);
    }
    while (sum > 0xFFFF) sum = (sum >> 16) + (sum & 0xFFFF);
    if (sum == 0xFFFF) return 0xFFFF;
    return static_cast<uint16_t>(~sum);
}

void buildEchoRequest(uint8_t* out, uint16_t identifier, uint16_t sequence, const timeval& sent) {
    memset(out, 0, kRequestSize);
    out[0] = kTypeEchoRequest;
    out[1] = 0;
    // The identifier stays in host order on purpose; the sequence does not.
    memcpy(out + 4, &identifier, sizeof(identifier));
    const uint16_t seqNet = htons(sequence);
    memcpy(out + 6, &seqNet, sizeof(seqNet));
    const int64_t sec = sent.tv_sec;
    const int64_t usec = sent.tv_usec;
    memcpy(out + 8, &sec, sizeof(sec));
    memcpy(out + 16, &usec, sizeof(usec));
    const uint16_t sum = checksum(out);
    memcpy(out + 2, &sum, sizeof(sum));
}

ReplyInfo checkEchoReply(uint8_t* buffer, size_t bufferSize, in_addr destination, uint16_t sequence,
                         const timeval& sent, const timeval& received) {
    ReplyInfo info;
    if (buffer == nullptr || bufferSize < kMinReplyBuffer) return info;

    uint8_t* msg = buffer + 4 * (buffer[0] & 0x0F);
    info.type = msg[0];
    info.code = msg[1];
    memcpy(&info.sourceRaw, buffer + 12, sizeof(info.sourceRaw));
    uint16_t seqNet;
    memcpy(&seqNet, msg + 6, sizeof(seqNet));
    info.sequence = ntohs(seqNet);
    // Unsigned wrap then narrowing keeps the 32-bit arithmetic of the device;
    // subtracting unsigned too, as a stepped clock may put the two far apart.
    info.secondsMs = static_cast<int32_t>(
            static_cast<uint32_t>(static_cast<uint64_t>(received.tv_sec) - static_cast<uint64_t>(sent.tv_sec)) *
            1000u);
    info.microsMs =
            static_cast<int32_t>(static_cast<uint64_t>(received.tv_usec) - static_cast<uint64_t>(sent.tv_usec)) /
            1000;
    info.rtt = static_cast<int32_t>(static_cast<uint32_t>(info.secondsMs) +
                                    static_cast<uint32_t>(info.microsMs));

    if (info.sourceRaw != destination.s_addr) {
        info.verdict = Verdict::kForeignSource;
    } else if (info.sequence != sequence) {
        info.verdict = Verdict::kWrongSequence;
    } else if (info.type != kTypeEchoReply) {
        info.verdict = Verdict::kNotEchoReply;
    } else {
        uint16_t kept;
        memcpy(&kept, msg + 2, sizeof(kept));
        msg[2] = 0;
        msg[3] = 0;
        if (checksum(msg) != kept) {
            info.verdict = Verdict::kBadChecksum;
        } else {
            info.verdict = info.rtt > 0 ? Verdict::kAccepted : Verdict::kRttNotPositive;
        }
    }
    return info;
}

}  // namespace probemond::icmp
