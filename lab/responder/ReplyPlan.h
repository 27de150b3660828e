// What the lab's responder sends for one echo request: the reply after the
// interface's delay, or the fault it is set to misbehave with.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

namespace probemond::lab {

enum class Fault { kOff, kSilent, kWrongSeq, kBadChecksum, kForeignSource, kUnreachable, kDuplicate };

struct Settings {
    int delayMs = 0;
    int lossPercent = 0;
    Fault fault = Fault::kOff;
    bool thenReply = false;  // "MODE+reply": the faulty packet, then the real reply
};

// Parses a fault setting ("off", "wrong-seq", "bad-checksum+reply", ...).
bool parseFault(const std::string& text, Settings* out);

// One packet to put on the wire, `afterMs` after the request arrived.
struct Outgoing {
    int afterMs = 0;
    in_addr source{};
    in_addr destination{};
    std::vector<uint8_t> icmp;  // the ICMP message; the IP header is added on send
};

// The packets to send for one echo request (`icmp` is the request's ICMP
// message, `from` its IPv4 source, `to` its IPv4 destination).
std::vector<Outgoing> plan(const Settings& s, const uint8_t* icmp, size_t len, in_addr from,
                           in_addr to, const uint8_t* requestIpHeader);

// Standard Internet checksum over `len` bytes, never 0x0000 (0xFFFF instead).
uint16_t internetChecksum(const uint8_t* data, size_t len);

}  // namespace probemond::lab
