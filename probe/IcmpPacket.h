// The pure byte-level parts of the ICMP echo probe: checksum, request layout
// and reply validation. No sockets, no clock, no logging, so tests and fuzzers
// can drive them with crafted buffers.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>

namespace probemond::icmp {

constexpr size_t kRequestSize = 56;
constexpr size_t kReceiveBufferSize = 4096;
// Largest IPv4 header (IHL 15) plus the 56 bytes the checksum covers.
constexpr size_t kMinReplyBuffer = 60 + kRequestSize;

constexpr uint8_t kTypeEchoReply = 0;
constexpr uint8_t kTypeEchoRequest = 8;

// Internet checksum over 56 bytes read as host-order words; yields 0xFFFF
// rather than 0x0000 when the folded sum is 0xFFFF.
uint16_t checksum(const uint8_t* data);

// Fills `out` (kRequestSize bytes) with a complete echo request.
void buildEchoRequest(uint8_t* out, uint16_t identifier, uint16_t sequence, const timeval& sent);

enum class Verdict {
    kAccepted,
    kForeignSource,
    kWrongSequence,
    kNotEchoReply,
    kBadChecksum,
    kRttNotPositive,  // RTT of 0 or less
    kTooShort,        // buffer smaller than kMinReplyBuffer
};

struct ReplyInfo {
    Verdict verdict = Verdict::kTooShort;
    uint8_t type = 0;
    uint8_t code = 0;
    uint32_t sourceRaw = 0;     // header bytes 12-15 as they lie in memory
    uint16_t sequence = 0;      // reply sequence, host order
    int32_t secondsMs = 0;      // (received - sent) seconds, times 1000
    int32_t microsMs = 0;       // (received - sent) microseconds, divided by 1000
    int32_t rtt = 0;            // secondsMs + microsMs
};

// Validates a received IPv4 packet against the request that was sent.
// Checks stop at the first failure in this order: source, sequence, type,
// checksum, RTT. The checksum field of the reply is zeroed in `buffer` as a
// side effect, and the checksum covers 56 bytes from the ICMP start whatever
// was actually received, so `buffer` must hold at least kMinReplyBuffer bytes.
ReplyInfo checkEchoReply(uint8_t* buffer, size_t bufferSize, in_addr destination, uint16_t sequence,
                         const timeval& sent, const timeval& received);

}  // namespace probemond::icmp
