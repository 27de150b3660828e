// The registry of the device's ten network interfaces, their ping workers,
// manual selection and the auto-select engine.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "interfaces/InterfaceSeams.h"
#include "interfaces/Telemetry.h"
#include "common/ThreadAnnotations.h"

class InterfaceManager;

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

// True when the property parses with "%d" to exactly 1.
bool readDebugFlag(const char* property);
// The property parsed with "%d"; 0 when it does not parse.
int32_t readIntProperty(const char* property, const char* defaultValue);
// True when the operator country names China ("CN" anywhere, case-sensitive).
bool countryIsCn();

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

    // The manager that owns this record; fixed at start-up.
    InterfaceManager* manager = nullptr;
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
    using Seams = probemond::ifaces::InterfaceManagerSeams;

    // The process's manager, built (records, iptables chains, workers) on the
    // first call. The first call must come from one thread before any other.
    static InterfaceManager* instance();

    // A manager of its own, built by the same start-up sequence but not
    // published as the instance. Tests and tools use it; its destructor stops
    // its workers and waits for its auto-select thread.
    static std::unique_ptr<InterfaceManager> create(const Seams& seams);
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

    std::string userSelectIfaceCopy() const;
    std::string autoSelectIfaceCopy() const;
    InterfaceManagerSnapshot snapshot() const;

    // Name to record, ordered by name; fixed once start-up has built it.
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

    probemond::ifaces::Sleeper& sleeper() const { return *sleeper_; }
    probemond::ifaces::RttProberFactory& proberFactory() const { return *probers_; }

private:
    explicit InterfaceManager(const Seams& seams);
    static InterfaceManager* build(const Seams& seams, bool publish);
    void initInterfaceInfoAndMap();
    void initIptablesMangleNatRules();
    void initAllPingThread();
    void startAutoSelectThread(std::vector<InterfaceInfo*> ifaces);
    void runAutoSelect(std::vector<InterfaceInfo*> ifaces);
    static void* autoSelectThreadMain(void* arg);
    void setAutoSelectIface(const std::string& name);

    friend class InterfaceManagerTestPeer;

    mutable probemond::Mutex selectionLock_;
    std::string userSelectIface PM_GUARDED_BY(selectionLock_);
    std::string autoSelectIface PM_GUARDED_BY(selectionLock_);

    // Taken by selection and auto-select; some paths leave it held on purpose.
    probemond::PosixMutex ifaceMutex;
    std::vector<InterfaceInfo*> autoSelectIfaces PM_GUARDED_BY(ifaceMutex);

    probemond::ifaces::RttProberFactory* probers_;
    probemond::ifaces::Sleeper* sleeper_;
    probemond::ifaces::AutoSelectNotifier* notifier_;
    probemond::ifaces::SteeringControl* steering_;
    bool startWorkers_;

    std::vector<std::unique_ptr<InterfaceInfo>> records_;
    std::vector<bool> workerStarted_;

    // Auto-select threads not yet finished, so a destroyed manager can wait.
    std::mutex autoThreadsLock_;
    std::condition_variable autoThreadsDone_;
    int autoThreads_ = 0;
};
