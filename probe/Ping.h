// One ICMP echo exchange on a named interface.
#pragma once

#include <cstdint>

#include "common/ProbeResult.h"

namespace probemond {

class Ping {
public:
    // Sends one echo request to `server` through `iface` and waits for its
    // reply: the round-trip time in ms, or the configured ping timeout,
    // failed, when no acceptable reply came.
    ProbeResult ping(const char* iface, const char* server);

    uint16_t sequenceNumber = 0;
};

}  // namespace probemond
