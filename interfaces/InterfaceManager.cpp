#include "interfaces/InterfaceManager.h"

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <cutils/properties.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "interfaces/PingWorker.h"

#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, nullptr, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, nullptr, __VA_ARGS__)

using probemond::MutexLock;

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

bool readDebugFlag(const char* property) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(property, value, "");
    int parsed = 0;
    return sscanf(value, "%d", &parsed) == 1 && parsed == 1;
}

int32_t readIntProperty(const char* property, const char* defaultValue) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(property, value, defaultValue);
    int parsed = 0;
    if (sscanf(value, "%d", &parsed) != 1) return 0;
    return parsed;
}

bool countryIsCn() {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kCountryProperty, value, "TW");
    return strstr(value, "CN") != nullptr;
}

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

long threadId() { return static_cast<long>(syscall(SYS_gettid)); }

bool startsWithData(const std::string& name) { return name.rfind(kDataPrefix, 0) == 0; }

using UniqueFd = android::base::unique_fd;

struct AutoSelectStart {
    InterfaceManager* manager;
    std::vector<InterfaceInfo*> ifaces;
};

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

InterfaceManager::InterfaceManager(const Seams& seams)
    : probers_(seams.probers ? seams.probers : &defaultProberFactory()),
      sleeper_(seams.sleeper ? seams.sleeper : &defaultSleeper()),
      notifier_(seams.notifier ? seams.notifier : &defaultNotifier()),
      steering_(seams.steering ? seams.steering : &defaultSteering()),
      startWorkers_(seams.startWorkers) {
    LOGD("%s called", "InterfaceManager");
}

InterfaceManager* InterfaceManager::instance() {
    InterfaceManager* existing = sInstance.load(std::memory_order_acquire);
    if (existing != nullptr) return existing;
    return build(Seams{}, true);
}

std::unique_ptr<InterfaceManager> InterfaceManager::create(const Seams& seams) {
    return std::unique_ptr<InterfaceManager>(build(seams, false));
}

InterfaceManager* InterfaceManager::build(const Seams& seams, bool publish) {
    auto* manager = new InterfaceManager(seams);
    manager->initInterfaceInfoAndMap();
    manager->initIptablesMangleNatRules();
    // Published before any worker exists, so a worker asking for the
    // instance gets this one.
    if (publish) sInstance.store(manager, std::memory_order_release);
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
        info->manager = this;
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
        steering_->initMangleRules(info->name.c_str(), info->fwmark);
        steering_->initNatRules(info->name.c_str());
    }
}

void InterfaceManager::initAllPingThread() {
    for (auto& entry : ifaceMap) {
        InterfaceInfo* info = entry.second;
        LOGD("%s Init ping thread on %s", "initAllPingThread", info->name.c_str());
        info->isPingThreadAlive = true;
        info->isPingThreadRunning = false;
        bool started = false;
        if (startWorkers_) started = pthread_create(&info->pingThread, nullptr, runPing, info) == 0;
        workerStarted_.push_back(started);
    }
}

InterfaceManager::~InterfaceManager() {
    // Only managers from create() get here; the instance lives for ever.
    isAutoSelectEnabled = false;
    {
        std::unique_lock<std::mutex> l(autoThreadsLock_);
        autoThreadsDone_.wait(l, [this] { return autoThreads_ == 0; });
    }
    for (auto& entry : ifaceMap) entry.second->isPingThreadAlive = false;
    size_t i = 0;
    for (auto& entry : ifaceMap) {
        if (workerStarted_[i++]) pthread_join(entry.second->pingThread, nullptr);
    }
    if (sInstance.load() == this) sInstance.store(nullptr);
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
            __android_log_print(ANDROID_LOG_FATAL, nullptr, "%s interface name too long: %s",
                                "getInterfaceRtt", iface);
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
    steering_->delIpRule(info->prio);
    steering_->addIpRule(info->name.c_str(), info->fwmark, info->prio);
    return 0;
}

int32_t InterfaceManager::delInterfaceIpRule(const char* iface) {
    if (iface == nullptr) return -1;
    InterfaceInfo* info = getIfaceInfo(iface);
    if (info == nullptr) {
        LOGD("%s Invalid interface %s", "delInterfaceIpRule", iface);
        return -1;
    }
    steering_->delIpRule(info->prio);
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
    steering_->selectIface(curr->name.c_str(), prev != nullptr);
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
    startAutoSelectThread(std::move(candidates));
}

void InterfaceManager::disableAutoSelect() {
    for (auto& entry : ifaceMap) entry.second->isControlByAutoSelect = false;
    isAutoSelectEnabled = false;
    steering_->disableAutoSelect();
    notifier_->notify("");
}

void InterfaceManager::startAutoSelectThread(std::vector<InterfaceInfo*> ifaces) {
    {
        std::lock_guard<std::mutex> g(autoThreadsLock_);
        ++autoThreads_;
    }
    auto* start = new AutoSelectStart{this, std::move(ifaces)};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    const int rc = pthread_create(&thread, &attr, autoSelectThreadMain, start);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        __android_log_print(ANDROID_LOG_FATAL, nullptr, "thread constructor failed");
        fprintf(stderr, "thread constructor failed: %s\n", strerror(rc));
        abort();
    }
}

void* InterfaceManager::autoSelectThreadMain(void* arg) {
    std::unique_ptr<AutoSelectStart> start(static_cast<AutoSelectStart*>(arg));
    InterfaceManager* manager = start->manager;
    manager->runAutoSelect(std::move(start->ifaces));
    start.reset();
    // Last touch of the manager: a test manager's destructor waits for it.
    std::lock_guard<std::mutex> g(manager->autoThreadsLock_);
    --manager->autoThreads_;
    manager->autoThreadsDone_.notify_all();
    return nullptr;
}

void InterfaceManager::runAutoSelect(std::vector<InterfaceInfo*> ifaces) {
    // Held for the thread's whole life: one engine at a time, and manual
    // selection waits until auto-select is off.
    ifaceMutex.lock();
    for (InterfaceInfo* info : ifaces) info->clearRttHistory();
    const std::string user = userSelectIfaceCopy();
    setAutoSelectIface(user);
    notifier_->notify(user);
    LOGD("Auto select thread %ld is started", threadId());

    while (isAutoSelectEnabled) {
        rttDebug = readDebugFlag(kRttDebugProperty);
        if (switchInterface(ifaces)) {
            const std::string chosen = autoSelectIfaceCopy();
            LOGD("Switch to %s", chosen.c_str());
            steering_->enableAutoSelect(chosen.c_str());
            // Hysteresis: the next decision waits for fresh results.
            for (InterfaceInfo* info : ifaces) info->clearRttHistory();
        }
        sleeper_->sleepUs(kDecisionPeriodUs);
    }

    rttDebug = false;
    isAutoSelectForcePing = false;
    const std::string autoIface = autoSelectIfaceCopy();
    const std::string userIface = userSelectIfaceCopy();
    if (autoIface != userIface) {
        LOGD("Auto (%s) is NOT equal to User (%s)", autoIface.c_str(), userIface.c_str());
        // The steered apps reconnect over the user's interface.
        steering_->killUidSocket();
    }
    setAutoSelectIface("");
    LOGD("Auto select thread %ld is stopped", threadId());
    ifaceMutex.unlock();
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
    notifier_->notify(best->name);
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
