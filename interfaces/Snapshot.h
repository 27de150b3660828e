// Read-only copies of the manager's state, for the state dump and the tools
// that read it. Taking them never waits on the selection's mutex.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace probemond {

struct SwitchRecord {
    int64_t wallMs = 0;  // Unix time in ms
    std::string from;    // "" when nothing was selected before
    int32_t fromMrtt = 0;
    std::string to;
    int32_t toMrtt = 0;
};

struct SwitchHistory {
    uint64_t count = 0;
    int64_t msSinceLast = -1;           // -1 when none yet
    std::vector<SwitchRecord> recent;   // oldest first
};

struct InterfaceSnapshot {
    std::string name;
    std::string fwmark;
    std::string prio;
    std::string pingServer;
    bool isPingThreadRunning = false;
    bool isPingThreadSuspended = false;
    bool isPingThreadAlive = false;
    bool isControlByAutoSelect = false;
    bool isWifi = false;
    int32_t rtt = 0;
    int32_t mrtt = 0;
    uint32_t switchCount = 0;
    std::vector<int32_t> rttHistory;
    uint64_t probes = 0;
    uint64_t probesFailed = 0;
    int historyFailurePercent = 0;
    int64_t msSinceLastProbe = -1;
    uint64_t serverRotations = 0;
};

struct InterfaceManagerSnapshot {
    std::string userSelectIface;
    std::string autoSelectIface;
    bool isAutoSelectEnabled = false;
    bool isAutoSelectForcePing = false;
    bool rttDebug = false;
    std::vector<InterfaceSnapshot> interfaces;  // map order
    SwitchHistory autoSwitches;
    SwitchHistory manualSelections;
};

}  // namespace probemond
