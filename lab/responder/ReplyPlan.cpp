#include "lab/responder/ReplyPlan.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace probemond::lab {

namespace {

// A documentation address (TEST-NET-1) that no probe ever targets.
constexpr const char* kForeignSource = "192.0.2.1";

void reseal(std::vector<uint8_t>* msg) {
    (*msg)[2] = (*msg)[3] = 0;
    const uint16_t sum = internetChecksum(msg->data(), msg->size());
    memcpy(msg->data() + 2, &sum, sizeof(sum));
}

}  // namespace

uint16_t internetChecksum(const uint8_t* data, size_t len) {
    uint32_t sum = 0;
    size_t i = 0;
    for (; i + 1 < len; i += 2) {
        uint16_t w;
        memcpy(&w, data + i, 2);
        sum += w;
    }
    if (i < len) {
        uint16_t w = 0;
        memcpy(&w, data + i, 1);
        sum += w;
    }
    while (sum > 0xFFFF) sum = (sum >> 16) + (sum & 0xFFFF);
    const uint16_t c = static_cast<uint16_t>(~sum);
    // Both are zero in ones' complement; the probe expects 0xFFFF.
    return c == 0 ? 0xFFFF : c;
}

bool parseFault(const std::string& text, Settings* out) {
    std::string mode = text;
    bool thenReply = false;
    const std::string suffix = "+reply";
    if (mode.size() > suffix.size() && mode.compare(mode.size() - suffix.size(), suffix.size(), suffix) == 0) {
        thenReply = true;
        mode.resize(mode.size() - suffix.size());
    }
    Fault f;
    if (mode == "off") f = Fault::kOff;
    else if (mode == "silent") f = Fault::kSilent;
    else if (mode == "wrong-seq") f = Fault::kWrongSeq;
    else if (mode == "bad-checksum") f = Fault::kBadChecksum;
    else if (mode == "foreign-source") f = Fault::kForeignSource;
    else if (mode == "unreachable") f = Fault::kUnreachable;
    else if (mode == "duplicate") f = Fault::kDuplicate;
    else return false;
    if (thenReply && (f == Fault::kOff || f == Fault::kSilent || f == Fault::kDuplicate)) return false;
    out->fault = f;
    out->thenReply = thenReply;
    return true;
}

std::vector<Outgoing> plan(const Settings& s, const uint8_t* icmp, size_t len, in_addr from,
                           in_addr to, const uint8_t* requestIpHeader) {
    std::vector<Outgoing> out;
    if (len < 8 || s.fault == Fault::kSilent) return out;

    Outgoing reply;
    reply.afterMs = s.delayMs;
    reply.source = to;
    reply.destination = from;
    reply.icmp.assign(icmp, icmp + len);
    reply.icmp[0] = 0;  // echo reply
    reply.icmp[1] = 0;
    reseal(&reply.icmp);

    Outgoing bad = reply;
    switch (s.fault) {
        case Fault::kOff:
            out.push_back(reply);
            return out;
        case Fault::kDuplicate: {
            out.push_back(reply);
            Outgoing copy = reply;
            copy.afterMs = s.delayMs + std::max(1, s.delayMs / 2);
            out.push_back(copy);
            return out;
        }
        case Fault::kWrongSeq: {
            uint16_t seq;
            memcpy(&seq, &bad.icmp[6], 2);
            seq = htons(static_cast<uint16_t>(ntohs(seq) + 1));
            memcpy(&bad.icmp[6], &seq, 2);
            reseal(&bad.icmp);
            break;
        }
        case Fault::kBadChecksum:
            bad.icmp[2] ^= 0x5A;
            break;
        case Fault::kForeignSource:
            inet_pton(AF_INET, kForeignSource, &bad.source);
            break;
        case Fault::kUnreachable: {
            // Host unreachable quoting the request's header and first 8 bytes;
            // bytes 4-7 carry its identifier and sequence.
            const size_t ihl = 4u * (requestIpHeader[0] & 0x0F);
            bad.icmp.assign(8, 0);
            bad.icmp[0] = 3;
            bad.icmp[1] = 1;
            memcpy(&bad.icmp[4], icmp + 4, 4);
            bad.icmp.insert(bad.icmp.end(), requestIpHeader, requestIpHeader + ihl);
            bad.icmp.insert(bad.icmp.end(), icmp, icmp + 8);
            reseal(&bad.icmp);
            break;
        }
        case Fault::kSilent:
            break;
    }
    out.push_back(bad);
    if (s.thenReply) {
        reply.afterMs = 2 * s.delayMs;
        out.push_back(reply);
    }
    return out;
}

}  // namespace probemond::lab
