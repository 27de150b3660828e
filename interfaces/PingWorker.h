// The per-interface ping worker: one thread per record probes its interface,
// keeps the RTT history and median, and rotates the shared ping server.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "interfaces/InterfaceInfo.h"
#include "interfaces/InterfaceSeams.h"
#include "interfaces/PingContext.h"
#include "interfaces/PingServers.h"

namespace probemond {

inline constexpr uint32_t kServerSwitchCount = 6;

// Whether a worker probes in this cycle.
struct ProbeFlags {
    bool running;           // isPingThreadRunning
    bool controlled;        // isControlByAutoSelect
    bool forcePing;         // the manager's isAutoSelectForcePing
    bool isWifi;
    bool userSelectData;    // isUserSelectData()
    bool autoSelectData;    // isAutoSelectData()
};
bool shouldProbe(const ProbeFlags& f);

// Microseconds to sleep after a cycle. Under auto-select the probe's time is
// charged against the period; a probe longer than the period sleeps 0.
uint32_t workerSleepUs(bool controlled, bool forcePing, bool isWifi, int32_t probeElapsed,
                       int32_t pingInterval);

// Median of an ascending list (even count: the two middle values' mean,
// truncated). Empty gives 0.
int32_t medianOfSorted(const std::vector<int32_t>& sorted);

// " a b c, x y z": each value after a blank, arrival order, comma, sorted.
std::string rttText(const std::vector<int32_t>& arrival, const std::vector<int32_t>& sorted);

class PingWorker {
public:
    // Everything handed in must outlive the worker.
    PingWorker(PingContext& context, PingServers& servers, InterfaceInfo& info,
               std::unique_ptr<RttProber> prober, Sleeper& sleeper);

    // The thread's whole life: announce, then cycles while alive.
    void run();
    // Pins the thread to CPU 0 and logs the start line.
    void announce();
    // One cycle, its sleep included. False when the worker is to end.
    bool runCycle();

private:
    void probeOnce();
    void switchServer();

    PingContext& context_;
    PingServers& servers_;
    InterfaceInfo& info_;
    std::unique_ptr<RttProber> prober_;
    Sleeper& sleeper_;
    int32_t probeElapsed_ = 0;
};

}  // namespace probemond
