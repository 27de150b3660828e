// One ICMP echo exchange on a named interface.
#pragma once

#include <cstdint>

namespace probemond {

class Ping {
public:
    // Sends one echo request to `server` through `iface` and waits for its
    // reply. Returns the round-trip time in ms, or the configured ping
    // timeout when no acceptable reply came.
    int32_t ping(const char* iface, const char* server);

    uint16_t sequenceNumber = 0;
    // Set when the last call returned the timeout because nothing acceptable
    // came back (or it never got to send), as opposed to a reply that slow.
    bool lastProbeFailed = false;
};

}  // namespace probemond
