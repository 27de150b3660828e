// The per-interface ping worker: one thread per record probes its interface,
// keeps the RTT history and median, and rotates the shared ping server.
#pragma once

#include <cstdint>
#include <memory>

#include "interfaces/InterfaceInfo.h"
#include "interfaces/InterfaceSeams.h"
#include "interfaces/PingContext.h"
#include "interfaces/PingServers.h"

namespace probemond {

inline constexpr uint32_t kServerSwitchCount = 6;

class PingWorker {
public:
    // Everything handed in must outlive the worker.
    PingWorker(PingContext& context, PingServers& servers, InterfaceInfo& info,
               std::unique_ptr<RttProber> prober, Sleeper& sleeper);

    // The thread's whole life: announce, then cycles while alive.
    void run();
    // One cycle, its sleep included. False when the worker is to end.
    bool runCycle();

private:
    void announce();
    void probeOnce(bool debug);
    void switchServer();

    PingContext& context_;
    PingServers& servers_;
    InterfaceInfo& info_;
    std::unique_ptr<RttProber> prober_;
    Sleeper& sleeper_;
    int32_t probeElapsed_ = 0;
};

}  // namespace probemond
