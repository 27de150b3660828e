#include "interfaces/InterfaceManager.h"

#include <android-base/unique_fd.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>

#include "common/Log.h"
#include "interfaces/PingWorker.h"

using probemond::MutexLock;
using probemond::readDebugFlag;
using probemond::threadId;

namespace probemond::ifaces {

const char* const interfaceNames[] = {"wlan0",       "wlan1",       "rmnet_data0", "rmnet_data1",
                                      "rmnet_data2", "rmnet_data3", "rmnet_data4", "rmnet_data5",
                                      "rmnet_data6", "rmnet_data7", nullptr};
const char* const interfaceFwmarks[] = {"0xa0", "0xa1", "0xd0", "0xd1", "0xd2", "0xd3",
                                        "0xd4", "0xd5", "0xd6", "0xd7", nullptr};
const char* const interfacePrios[] = {"29500", "29600", "29700", "29800", "29900", "30000",
                                      "30100", "30200", "30300", "30400", nullptr};
const char* const cnPingServers[] = {"180.76.76.76",    "223.5.5.5", "114.114.114.114",
                                     "208.67.222.222",  "114.114.115.115", "223.6.6.6",
                                     nullptr};
const char* const globalPingServers[] = {"8.8.8.8", "1.1.1.1", "8.8.4.4", "1.0.0.1", nullptr};

}  // namespace probemond::ifaces

using namespace probemond::ifaces;

namespace {

std::atomic<InterfaceManager*> sInstance{nullptr};

constexpr const char* kDataPrefix = "rmnet_data";
constexpr size_t kHistoryMinimum = 5;
constexpr int32_t kWifiLeaveMrtt = 101;
constexpr int32_t kBetterThanMrtt = 100;
constexpr int32_t kDataForcePingRtt = 200;
constexpr int32_t kWifiForcePingRtt = 101;
constexpr uint32_t kDecisionPeriodUs = 100000;

bool startsWithData(const std::string& name) { return name.rfind(kDataPrefix, 0) == 0; }

using UniqueFd = android::base::unique_fd;

}  // namespace

// ---- InterfaceInfo history ----

std::vector<int32_t> InterfaceInfo::addRtt(int32_t value, bool failed) {
    MutexLock g(historyLock_);
    if (rttHistory.size() >= kMaxRttHistory) rttHistory.pop_front();
    rttHistory.push_back(value);
    historyFailures_.push(failed, kMaxRttHistory);
    return std::vector<int32_t>(rttHistory.begin(), rttHistory.end());
}

void InterfaceInfo::clearRttHistory() {
    MutexLock g(historyLock_);
    rttHistory.clear();
    historyFailures_.clear();
}

size_t InterfaceInfo::rttHistorySize() const {
    MutexLock g(historyLock_);
    return rttHistory.size();
}

std::vector<int32_t> InterfaceInfo::rttHistorySnapshot() const {
    MutexLock g(historyLock_);
    return std::vector<int32_t>(rttHistory.begin(), rttHistory.end());
}

int InterfaceInfo::historyFailurePercent() const {
    MutexLock g(historyLock_);
    return historyFailures_.percent();
}

// ---- start-up ----

InterfaceManager::InterfaceManager(RttProberFactory& probers, Sleeper& sleeper,
                                   AutoSelectNotifier& notifier, SteeringControl& steering,
                                   AutoSelectLauncher& launcher)
    : probers_(probers),
      sleeper_(sleeper),
      notifier_(notifier),
      steering_(steering),
      launcher_(launcher) {
    LOGD("%s called", "InterfaceManager");
    initInterfaceInfoAndMap();
    initIptablesMangleNatRules();
}

InterfaceManager::~InterfaceManager() = default;

InterfaceManager* InterfaceManager::instance() {
    InterfaceManager* existing = sInstance.load(std::memory_order_acquire);
    if (existing != nullptr) return existing;
    auto* manager = new InterfaceManager(defaultProberFactory(), defaultSleeper(),
                                         defaultNotifier(), defaultSteering(), defaultLauncher());
    // Published before any worker exists, so a worker asking for the
    // instance gets this one.
    sInstance.store(manager, std::memory_order_release);
    manager->initAllPingThread();
    return manager;
}

void InterfaceManager::initInterfaceInfoAndMap() {
    LOGD("%s called", "initInterfaceInfoAndMap");
    const char* startServer = countryIsCn() ? cnPingServers[0] : globalPingServers[0];
    for (size_t row = 0; row < kInterfaceCount; ++row) {
        auto info = std::make_unique<InterfaceInfo>();
        info->name = interfaceNames[row];
        info->fwmark = interfaceFwmarks[row];
        info->prio = interfacePrios[row];
        info->pingServer = startServer;
        info->pingInterval = 1;
        const bool data = info->name.find(kDataPrefix) != std::string::npos;
        info->rtt = data ? 50 : 30;
        info->mrtt = data ? 50 : 30;
        info->isWifi = !data;
        ifaceMap[info->name] = info.get();
        LOGD("%s interface=%s, fwmark=%s, prio=%s, ping_server=%s, ping_interval=%d",
             "initInterfaceInfoAndMap", info->name.c_str(), info->fwmark, info->prio,
             info->pingServer.load(), info->pingInterval * 1000);
        records_.push_back(std::move(info));
    }
}

void InterfaceManager::initIptablesMangleNatRules() {
    LOGD("%s called", "initIptablesMangleNatRules");
    for (auto& entry : ifaceMap) {
        InterfaceInfo* info = entry.second;
        steering_.initMangleRules(info->name.c_str(), info->fwmark);
        steering_.initNatRules(info->name.c_str());
    }
}

void InterfaceManager::initAllPingThread() {
    for (auto& entry : ifaceMap) {
        InterfaceInfo* info = entry.second;
        LOGD("%s Init ping thread on %s", "initAllPingThread", info->name.c_str());
        info->isPingThreadAlive = true;
        info->isPingThreadRunning = false;
        workers_.push_back(
                std::make_unique<PingWorker>(*this, *info, probers_.create(*info), sleeper_));
        // A worker that cannot be created is not noticed; its interface never probes.
        pthread_create(&info->pingThread, nullptr, runPing, workers_.back().get());
    }
}

// ---- registry ----

InterfaceInfo* InterfaceManager::getIfaceInfo(std::string name) {
    for (auto& entry : ifaceMap) {
        if (entry.second->name == name) return entry.second;
    }
    return nullptr;
}

bool InterfaceManager::isUserSelectData() { return startsWithData(userSelectIfaceCopy()); }

bool InterfaceManager::isAutoSelectData() { return startsWithData(autoSelectIfaceCopy()); }

std::string InterfaceManager::userSelectIfaceCopy() const {
    MutexLock g(selectionLock_);
    return userSelectIface;
}

std::string InterfaceManager::autoSelectIfaceCopy() const {
    MutexLock g(selectionLock_);
    return autoSelectIface;
}

void InterfaceManager::setAutoSelectIface(const std::string& name) {
    MutexLock g(selectionLock_);
    autoSelectIface = name;
}

InterfaceManagerSnapshot InterfaceManager::snapshot() const {
    InterfaceManagerSnapshot s;
    {
        MutexLock g(selectionLock_);
        s.userSelectIface = userSelectIface;
        s.autoSelectIface = autoSelectIface;
    }
    s.isAutoSelectEnabled = isAutoSelectEnabled;
    s.isAutoSelectForcePing = isAutoSelectForcePing;
    s.rttDebug = rttDebug;
    s.autoSwitches = autoSwitchLog.snapshot();
    s.manualSelections = manualSelectLog.snapshot();
    const int64_t now = monotonicMs();
    for (const auto& entry : ifaceMap) {
        const InterfaceInfo* info = entry.second;
        InterfaceSnapshot r;
        r.name = info->name;
        r.fwmark = info->fwmark;
        r.prio = info->prio;
        const char* server = info->pingServer.load();
        r.pingServer = server ? server : "";
        r.isPingThreadRunning = info->isPingThreadRunning;
        r.isPingThreadSuspended = info->isPingThreadSuspended;
        r.isPingThreadAlive = info->isPingThreadAlive;
        r.isControlByAutoSelect = info->isControlByAutoSelect;
        r.isWifi = info->isWifi;
        r.rtt = info->rtt;
        r.mrtt = info->mrtt;
        r.switchCount = info->switchCount;
        r.rttHistory = info->rttHistorySnapshot();
        r.probes = info->counters.probes;
        r.probesFailed = info->counters.failed;
        r.historyFailurePercent = info->historyFailurePercent();
        r.msSinceLastProbe = info->counters.msSinceLastProbe(now);
        r.serverRotations = info->counters.serverRotations;
        s.interfaces.push_back(std::move(r));
    }
    return s;
}

// ---- ping worker controls ----

int32_t InterfaceManager::startPingThread(const char* iface) {
    if (iface == nullptr) return -1;
    InterfaceInfo* info = getIfaceInfo(iface);
    if (info == nullptr) {
        LOGD("%s Invalid interface %s", "startPingThread", iface);
        return -1;
    }
    if (info->isPingThreadRunning) {
        LOGE("%s Failed to start ping on %s", "startPingThread", iface);
        return -1;
    }
    LOGD("%s Start ping on %s", "startPingThread", iface);
    info->isPingThreadRunning = true;
    return 0;
}

int32_t InterfaceManager::stopPingThread(const char* iface) {
    if (iface == nullptr) return -1;
    InterfaceInfo* info = getIfaceInfo(iface);
    if (info == nullptr) {
        LOGD("%s Invalid interface %s", "stopPingThread", iface);
        return -1;
    }
    if (!info->isPingThreadRunning) {
        LOGE("%s Failed to stop ping on %s", "stopPingThread", iface);
        return -1;
    }
    LOGD("%s Stop ping on %s", "stopPingThread", iface);
    info->isPingThreadRunning = false;
    return 0;
}

int32_t InterfaceManager::stopAllPingThreads() {
    for (auto& entry : ifaceMap) {
        entry.second->isPingThreadRunning = false;
        LOGD("Ping thread on %s has been stopped", entry.second->name.c_str());
    }
    return 0;
}

int32_t InterfaceManager::suspendAllPingThreads() {
    for (auto& entry : ifaceMap) {
        entry.second->isPingThreadSuspended = true;
        LOGD("Ping thread on %s has been suspended", entry.second->name.c_str());
    }
    return 0;
}

int32_t InterfaceManager::resumeAllPingThreads() {
    for (auto& entry : ifaceMap) {
        entry.second->isPingThreadSuspended = false;
        LOGD("Ping thread on %s resume", entry.second->name.c_str());
    }
    return 0;
}

int32_t InterfaceManager::getInterfaceRtt(const char* iface) {
    if (iface == nullptr) return -1;
    struct ifreq request;
    memset(&request, 0, sizeof(request));
    {
        UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        // The name field holds 15 characters and the terminator; anything
        // longer is a caller bug, and ends the process like a bounded copy.
        const size_t length = strlen(iface);
        if (length >= sizeof(request.ifr_name)) {
            LOGF("%s interface name too long: %s", "getInterfaceRtt", iface);
            abort();
        }
        memcpy(request.ifr_name, iface, length + 1);
        if (sock.get() >= 0) ioctl(sock.get(), SIOCGIFFLAGS, &request);
    }
    if ((request.ifr_flags & IFF_RUNNING) == 0) return -1;
    InterfaceInfo* info = getIfaceInfo(iface);
    if (info == nullptr) {
        LOGE("%s ifaceInfo of %s is NULL", "getInterfaceRtt", iface);
        return -1;
    }
    return info->rtt;
}

// ---- manual selection ----

int32_t InterfaceManager::addInterfaceIpRule(const char* iface) {
    if (iface == nullptr) return -1;
    InterfaceInfo* info = getIfaceInfo(iface);
    if (info == nullptr) {
        LOGD("%s Invalid interface %s", "addInterfaceIpRule", iface);
        return -1;
    }
    // Delete first so that adding twice leaves one rule.
    steering_.delIpRule(info->prio);
    steering_.addIpRule(info->name.c_str(), info->fwmark, info->prio);
    return 0;
}

int32_t InterfaceManager::delInterfaceIpRule(const char* iface) {
    if (iface == nullptr) return -1;
    InterfaceInfo* info = getIfaceInfo(iface);
    if (info == nullptr) {
        LOGD("%s Invalid interface %s", "delInterfaceIpRule", iface);
        return -1;
    }
    steering_.delIpRule(info->prio);
    return 0;
}

int32_t InterfaceManager::selectInterface(const char* iface) {
    if (iface == nullptr) return -1;
    ifaceMutex.lock();
    InterfaceInfo* curr = getIfaceInfo(iface);
    InterfaceInfo* prev = getIfaceInfo(userSelectIfaceCopy());
    if (curr == nullptr) {
        LOGD("%s Invalid interface %s", "selectInterface", iface);
        // Deliberately left locked: every later selection and auto-select
        // waits for ever.
        ifaceMutex.keepHeldForever();
        return -1;
    }
    if (prev != nullptr) {
        if (prev->name == curr->name) {
            ifaceMutex.unlock();
            return -1;
        }
        LOGD("%s prev=%s, curr=%s, kill=%d", "selectInterface", prev->name.c_str(),
             curr->name.c_str(), 1);
    }
    {
        MutexLock g(selectionLock_);
        userSelectIface = curr->name;
    }
    manualSelectLog.record(prev ? prev->name : "", prev ? prev->mrtt.load() : 0, curr->name,
                           curr->mrtt);
    // The first selection moves no open sockets; later ones reset them.
    steering_.selectIface(curr->name.c_str(), prev != nullptr);
    ifaceMutex.unlock();
    return 0;
}

// ---- auto-select ----

void InterfaceManager::enableAutoSelect(const char* ifaces) {
    disableAutoSelect();
    std::vector<InterfaceInfo*> candidates;
    ifaceMutex.lock();
    // The list is comma-terminated: text after the last comma is dropped.
    std::string rest = ifaces ? ifaces : "";
    std::vector<std::string> tokens;
    for (size_t comma = rest.find(','); comma != std::string::npos; comma = rest.find(',')) {
        tokens.push_back(rest.substr(0, comma));
        rest.erase(0, comma + 1);
    }
    autoSelectIfaces.clear();
    for (const std::string& token : tokens) {
        InterfaceInfo* info = getIfaceInfo(token);
        if (info == nullptr) continue;
        LOGD("%s Auto select tries to start ping thread on %s", "enableAutoSelect",
             token.c_str());
        info->isControlByAutoSelect = true;
        autoSelectIfaces.insert(autoSelectIfaces.begin(), info);
    }
    candidates = autoSelectIfaces;
    ifaceMutex.unlock();
    isAutoSelectEnabled = true;
    launcher_.start([this, list = std::move(candidates)] { runAutoSelect(list); });
}

void InterfaceManager::disableAutoSelect() {
    for (auto& entry : ifaceMap) entry.second->isControlByAutoSelect = false;
    isAutoSelectEnabled = false;
    steering_.disableAutoSelect();
    notifier_.notify("");
}

void InterfaceManager::runAutoSelect(std::vector<InterfaceInfo*> ifaces) {
    // Held for the thread's whole life: one engine at a time, and manual
    // selection waits until auto-select is off.
    ifaceMutex.lock();
    beginAutoSelect(ifaces);
    while (isAutoSelectEnabled) {
        decideAutoSelect(ifaces);
        sleeper_.sleepUs(kDecisionPeriodUs);
    }
    endAutoSelect();
    ifaceMutex.unlock();
}

void InterfaceManager::beginAutoSelect(const std::vector<InterfaceInfo*>& ifaces) {
    for (InterfaceInfo* info : ifaces) info->clearRttHistory();
    const std::string user = userSelectIfaceCopy();
    setAutoSelectIface(user);
    notifier_.notify(user);
    LOGD("Auto select thread %ld is started", threadId());
}

bool InterfaceManager::decideAutoSelect(const std::vector<InterfaceInfo*>& ifaces) {
    rttDebug = readDebugFlag(kRttDebugProperty);
    if (!switchInterface(ifaces)) return false;
    const std::string chosen = autoSelectIfaceCopy();
    LOGD("Switch to %s", chosen.c_str());
    steering_.enableAutoSelect(chosen.c_str());
    // Hysteresis: the next decision waits for fresh results.
    for (InterfaceInfo* info : ifaces) info->clearRttHistory();
    return true;
}

void InterfaceManager::endAutoSelect() {
    rttDebug = false;
    isAutoSelectForcePing = false;
    const std::string autoIface = autoSelectIfaceCopy();
    const std::string userIface = userSelectIfaceCopy();
    if (autoIface != userIface) {
        LOGD("Auto (%s) is NOT equal to User (%s)", autoIface.c_str(), userIface.c_str());
        // The steered apps reconnect over the user's interface.
        steering_.killUidSocket();
    }
    setAutoSelectIface("");
    LOGD("Auto select thread %ld is stopped", threadId());
}

bool InterfaceManager::switchInterface(std::vector<InterfaceInfo*> ifaces) {
    InterfaceInfo* curr = getIfaceInfo(autoSelectIfaceCopy());
    isAutoSelectForcePing = false;
    // Nothing to compare against (no selection yet): stay put.
    if (curr == nullptr) return false;

    const size_t historySize = curr->rttHistorySize();
    if (historySize < kHistoryMinimum) {
        if (rttDebug) {
            LOGD("Could not make switch decision because the rtt history on %s is %d/%d.",
                 curr->name.c_str(), static_cast<int>(historySize),
                 static_cast<int>(kHistoryMinimum));
        }
        return false;
    }

    const int32_t currMrtt = curr->mrtt;
    InterfaceInfo* best = nullptr;
    if (!curr->isWifi) {
        if (curr->rtt >= kDataForcePingRtt) isAutoSelectForcePing = true;
        best = getCurrBestIfaceInfo(ifaces);
        // Cellular leaves for any Wi-Fi, never for another cellular link.
        if (best == nullptr || !best->isWifi) return false;
    } else {
        if (curr->rtt >= kWifiForcePingRtt) isAutoSelectForcePing = true;
        if (currMrtt < kWifiLeaveMrtt) return false;
        best = getCurrBestIfaceInfo(ifaces);
        if (best == nullptr) return false;
        if (best->name == curr->name) return false;
        if (best->mrtt >= kBetterThanMrtt) return false;
    }

    LOGD("%s (%dms) is better than %s (%dms)", best->name.c_str(), static_cast<int>(best->mrtt),
         curr->name.c_str(), currMrtt);
    setAutoSelectIface(best->name);
    autoSwitchLog.record(curr->name, currMrtt, best->name, best->mrtt);
    notifier_.notify(best->name);
    return true;
}

InterfaceInfo* InterfaceManager::getCurrBestIfaceInfo(std::vector<InterfaceInfo*> ifaces) {
    InterfaceInfo* candidate = nullptr;
    int32_t bestMrtt = INT32_MAX;
    for (InterfaceInfo* info : ifaces) {
        const int32_t m = info->mrtt;
        // Strictly below: on a tie the record met first keeps its place.
        if (m >= 1 && m < bestMrtt) {
            candidate = info;
            bestMrtt = m;
        }
    }
    return getIfaceInfo(candidate ? candidate->name : std::string());
}
