// The registry of the device's ten network interfaces, their ping workers,
// manual selection and the auto-select engine.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/Properties.h"
#include "interfaces/Telemetry.h"
#include "common/ThreadAnnotations.h"
#include "interfaces/InterfaceSeams.h"

namespace probemond::ifaces {

inline constexpr size_t kInterfaceCount = 10;
inline constexpr size_t kCnServerCount = 6;
inline constexpr size_t kGlobalServerCount = 4;
inline constexpr size_t kMaxRttHistory = 10;

// Null-terminated; row i of the first three forms one interface.
extern const char* const interfaceNames[];
extern const char* const interfaceFwmarks[];
extern const char* const interfacePrios[];
extern const char* const cnPingServers[];
extern const char* const globalPingServers[];

inline constexpr const char* kCountryProperty = "vendor.kest.operator.iso-country";
inline constexpr const char* kRttDebugProperty = "vendor.kest.probemond.rtt_debug";
inline constexpr const char* kRttThresholdProperty = "vendor.kest.probemond.rtt_timeout_threshold";

// True when the operator country names China ("CN" anywhere, case-sensitive).
inline bool countryIsCn() { return propertyContains(kCountryProperty, "TW", "CN"); }

class PingWorker;

}  // namespace probemond::ifaces

// One interface. Flags, counters and the server pointer are single words that
// several threads read and write without a lock (last writer wins); the
// history has a short lock of its own.
struct InterfaceInfo {
    pthread_t pingThread{};
    std::string name;
    std::atomic<const char*> pingServer{nullptr};
    int32_t pingInterval = 1;
    const char* fwmark = nullptr;
    const char* prio = nullptr;
    std::atomic<int32_t> rtt{0};
    std::atomic<int32_t> mrtt{0};
    std::atomic<bool> isPingThreadRunning{false};
    std::atomic<bool> isPingThreadSuspended{false};
    std::atomic<bool> isPingThreadAlive{false};
    std::atomic<bool> isControlByAutoSelect{false};
    bool isWifi = true;
    std::atomic<uint32_t> switchCount{0};

    probemond::ifaces::ProbeCounters counters;

    // Appends one result, dropping the oldest beyond ten; returns the
    // history as it then stands, oldest first.
    std::vector<int32_t> addRtt(int32_t value, bool failed = false);
    void clearRttHistory();
    size_t rttHistorySize() const;
    std::vector<int32_t> rttHistorySnapshot() const;
    // Whole percent of the results in the history that were failed probes.
    int historyFailurePercent() const;

private:
    mutable probemond::Mutex historyLock_;
    std::deque<int32_t> rttHistory PM_GUARDED_BY(historyLock_);
    probemond::ifaces::FailureWindow historyFailures_ PM_GUARDED_BY(historyLock_);
};

// Read-only copies for the state dump; taking them never waits on ifaceMutex.
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
    probemond::ifaces::SwitchHistory autoSwitches;
    probemond::ifaces::SwitchHistory manualSelections;
};

class InterfaceManager {
public:
    // The process's manager on the shipping seams, built on the first call,
    // which must come from one thread before any other. Its ten ping workers
    // start once it is published and run for the life of the process.
    static InterfaceManager* instance();

    // Builds the ten records and has `steering` set up each interface's
    // chains. Starts no thread; the seams must outlive the manager.
    InterfaceManager(probemond::ifaces::RttProberFactory& probers,
                     probemond::ifaces::Sleeper& sleeper,
                     probemond::ifaces::AutoSelectNotifier& notifier,
                     probemond::ifaces::SteeringControl& steering,
                     probemond::ifaces::AutoSelectLauncher& launcher);
    ~InterfaceManager();
    InterfaceManager(const InterfaceManager&) = delete;
    InterfaceManager& operator=(const InterfaceManager&) = delete;

    InterfaceInfo* getIfaceInfo(std::string name);
    bool isUserSelectData();
    bool isAutoSelectData();

    int32_t startPingThread(const char* iface);
    int32_t stopPingThread(const char* iface);
    int32_t stopAllPingThreads();
    int32_t suspendAllPingThreads();
    int32_t resumeAllPingThreads();
    int32_t getInterfaceRtt(const char* iface);

    int32_t addInterfaceIpRule(const char* iface);
    int32_t delInterfaceIpRule(const char* iface);
    int32_t selectInterface(const char* iface);

    void enableAutoSelect(const char* ifaces);
    void disableAutoSelect();
    bool switchInterface(std::vector<InterfaceInfo*> ifaces);
    InterfaceInfo* getCurrBestIfaceInfo(std::vector<InterfaceInfo*> ifaces);

    // The auto-select thread's work, one piece per call. Its thread runs
    // begin, one decision every 100 ms while isAutoSelectEnabled, then end,
    // holding ifaceMutex from before begin until after end.
    void beginAutoSelect(const std::vector<InterfaceInfo*>& ifaces);
    // One decision; on a switch also moves the firewall and clears the
    // candidates' histories. True when it switched.
    bool decideAutoSelect(const std::vector<InterfaceInfo*>& ifaces);
    void endAutoSelect();

    std::string userSelectIfaceCopy() const;
    std::string autoSelectIfaceCopy() const;
    InterfaceManagerSnapshot snapshot() const;

    // Name to record, ordered by name; fixed once the constructor has built it.
    std::map<std::string, InterfaceInfo*> ifaceMap;
    std::atomic<bool> isAutoSelectForcePing{false};
    std::atomic<bool> isAutoSelectEnabled{false};

    // Shared by every worker and the auto-select thread.
    std::atomic<bool> rttDebug{false};
    std::atomic<uint32_t> cnServerIndex{0};
    std::atomic<uint32_t> globalServerIndex{0};

    // Every switch auto-select made and every successful manual selection.
    probemond::ifaces::SwitchLog autoSwitchLog;
    probemond::ifaces::SwitchLog manualSelectLog;

private:
    void initInterfaceInfoAndMap();
    void initIptablesMangleNatRules();
    void initAllPingThread();
    void runAutoSelect(std::vector<InterfaceInfo*> ifaces);
    void setAutoSelectIface(const std::string& name);

    mutable probemond::Mutex selectionLock_;
    std::string userSelectIface PM_GUARDED_BY(selectionLock_);
    std::string autoSelectIface PM_GUARDED_BY(selectionLock_);

    // Taken by selection and auto-select; some paths leave it held on purpose.
    probemond::PosixMutex ifaceMutex;
    std::vector<InterfaceInfo*> autoSelectIfaces PM_GUARDED_BY(ifaceMutex);

    probemond::ifaces::RttProberFactory& probers_;
    probemond::ifaces::Sleeper& sleeper_;
    probemond::ifaces::AutoSelectNotifier& notifier_;
    probemond::ifaces::SteeringControl& steering_;
    probemond::ifaces::AutoSelectLauncher& launcher_;

    std::vector<std::unique_ptr<InterfaceInfo>> records_;
    std::vector<std::unique_ptr<probemond::ifaces::PingWorker>> workers_;
};
