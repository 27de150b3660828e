// What one ICMP probe reports.
#pragma once

#include <cstdint>

namespace probemond {

struct ProbeResult {
    // Milliseconds; the ping timeout when the probe failed.
    int32_t rtt;
    // No acceptable reply (or it never got to send), as opposed to a reply
    // that slow.
    bool failed;
};

}  // namespace probemond
