#include "interfaces/PingServers.h"

#include <iterator>

#include "common/Properties.h"

namespace probemond {

namespace {

// Change the tables here; the lab (lab/lab.sh) gives its internet side every
// quoted address in this file.
constexpr const char* cnPingServers[] = {"180.76.76.76",   "223.5.5.5",       "114.114.114.114",
                                         "208.67.222.222", "114.114.115.115", "223.6.6.6"};
constexpr const char* globalPingServers[] = {"8.8.8.8", "1.1.1.1", "8.8.4.4", "1.0.0.1"};

// The operator's country names China: "CN" anywhere, case-sensitive.
bool countryIsCn() { return propertyContains(kCountryProperty, "TW", "CN"); }

}  // namespace

const char* PingServers::startServer() {
    return countryIsCn() ? cnPingServers[0] : globalPingServers[0];
}

const char* PingServers::rotate() {
    const bool cn = countryIsCn();
    std::atomic<uint32_t>& index = cn ? cnServerIndex : globalServerIndex;
    const uint32_t count = cn ? std::size(cnPingServers) : std::size(globalPingServers);
    uint32_t current = index.load();
    uint32_t next;
    do {
        next = current + 1;
        if (next >= count) next = 0;
    } while (!index.compare_exchange_weak(current, next));
    const char* server = cn ? cnPingServers[next] : globalPingServers[next];
    for (const auto& entry : records_) {
        entry.second->pingServer = server;
        entry.second->switchCount = 0;
    }
    return server;
}

}  // namespace probemond
