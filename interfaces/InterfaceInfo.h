// The record of one interface, shared by its ping worker, the manager, the
// auto-select engine and the state dump.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "common/InterfaceKind.h"
#include "common/ThreadAnnotations.h"
#include "interfaces/InterfaceTable.h"
#include "interfaces/Telemetry.h"

namespace probemond {

inline constexpr size_t kMaxRttHistory = 10;

// The length of the RTT history and its median, read together.
struct RttMedian {
    size_t historySize;
    int32_t mrtt;
};

// The RTT history after one more result, oldest first, and its new median.
struct RttUpdate {
    std::vector<int32_t> history;
    int32_t mrtt;
};

// Flags, counters and the server pointer are single words that several
// threads read and write without a lock (last writer wins); the history and
// its median share a short lock of their own.
struct InterfaceInfo {
    InterfaceInfo(const InterfaceRow& row, const char* startServer);
    InterfaceInfo(const InterfaceInfo&) = delete;
    InterfaceInfo& operator=(const InterfaceInfo&) = delete;

    const std::string name;
    std::atomic<const char*> pingServer;
    const int32_t pingInterval = 1;
    const char* const fwmark;
    const char* const prio;
    std::atomic<int32_t> rtt;
    std::atomic<bool> isPingThreadRunning{false};
    std::atomic<bool> isPingThreadSuspended{false};
    std::atomic<bool> isPingThreadAlive{false};
    std::atomic<bool> isControlByAutoSelect{false};
    const InterfaceKind kind;
    std::atomic<uint32_t> switchCount{0};

    ProbeCounters counters;

    bool isWifi() const { return kind == InterfaceKind::kWifi; }

    // Appends one result, dropping the oldest beyond ten, and takes the new
    // median.
    RttUpdate addRtt(int32_t value, bool failed);
    // The median stays until the next result.
    void clearRttHistory();
    RttMedian median() const;
    std::vector<int32_t> rttHistorySnapshot() const;
    // Whole percent of the results in the history that were failed probes.
    int historyFailurePercent() const;

private:
    mutable Mutex historyLock_;
    std::deque<int32_t> rttHistory PM_GUARDED_BY(historyLock_);
    int32_t mrtt PM_GUARDED_BY(historyLock_);
    FailureWindow historyFailures_ PM_GUARDED_BY(historyLock_);
};

// Name to record, ordered by name; fixed once the manager has built it.
using InterfaceMap = std::map<std::string, InterfaceInfo*>;

}  // namespace probemond
