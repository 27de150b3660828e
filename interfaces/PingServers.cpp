#include "interfaces/PingServers.h"

namespace probemond {

const char* const cnPingServers[] = {"180.76.76.76",    "223.5.5.5", "114.114.114.114",
                                     "208.67.222.222",  "114.114.115.115", "223.6.6.6",
                                     nullptr};
const char* const globalPingServers[] = {"8.8.8.8", "1.1.1.1", "8.8.4.4", "1.0.0.1", nullptr};

const char* PingServers::startServer() {
    return countryIsCn() ? cnPingServers[0] : globalPingServers[0];
}

const char* PingServers::rotate() {
    const bool cn = countryIsCn();
    std::atomic<uint32_t>& index = cn ? cnServerIndex : globalServerIndex;
    const uint32_t count = cn ? kCnServerCount : kGlobalServerCount;
    uint32_t current = index.load();
    uint32_t next;
    do {
        next = current + 1;
        if (next >= count) next = 0;
    } while (!index.compare_exchange_weak(current, next));
    const char* server = (cn ? cnPingServers : globalPingServers)[next];
    for (const auto& entry : records_) {
        entry.second->pingServer = server;
        entry.second->switchCount = 0;
    }
    return server;
}

}  // namespace probemond
