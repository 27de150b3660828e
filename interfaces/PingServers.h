// The servers the ping workers probe: one table for China, one for
// elsewhere (in PingServers.cpp), and the shared position in each.
#pragma once

#include <atomic>
#include <cstdint>

#include "interfaces/InterfaceInfo.h"

namespace probemond {

class PingServers {
public:
    // `records` must outlive this object; it is read only when rotating.
    explicit PingServers(const InterfaceMap& records) : records_(records) {}
    PingServers(const PingServers&) = delete;
    PingServers& operator=(const PingServers&) = delete;

    // Entry 0 of the table the country selects: every record's first server.
    static const char* startServer();

    // Moves the position in the table now in force one on (wrapping), then
    // points every record at that server and clears their switch counts.
    // The positions are never reset and each keeps its place while the
    // other table is in force; two workers rotating at once move it twice.
    // Returns the new server.
    const char* rotate();

private:
    const InterfaceMap& records_;
    std::atomic<uint32_t> cnServerIndex{0};
    std::atomic<uint32_t> globalServerIndex{0};
};

}  // namespace probemond
