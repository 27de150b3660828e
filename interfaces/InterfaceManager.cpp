#include "interfaces/InterfaceManager.h"

#include <android-base/unique_fd.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "common/Log.h"
#include "common/LogText.h"
#include "common/Properties.h"
#include "interfaces/PingWorker.h"

namespace probemond {

// ---- start-up ----

InterfaceManager::InterfaceManager(RttProberFactory& probers, Sleeper& sleeper,
                                   AutoSelectNotifier& notifier, SteeringControl& steering,
                                   ThreadLauncher& launcher)
    : probers_(probers),
      sleeper_(sleeper),
      steering_(steering),
      launcher_(launcher),
      engine_(ifaceMap, notifier, steering) {
    LOGD("%s called", "InterfaceManager");
    initInterfaceInfoAndMap();
    initIptablesMangleNatRules();
}

InterfaceManager::~InterfaceManager() = default;

void InterfaceManager::initInterfaceInfoAndMap() {
    LOGD("%s called", "initInterfaceInfoAndMap");
    const char* startServer = PingServers::startServer();
    for (const InterfaceRow& row : kInterfaceTable) {
        auto info = std::make_unique<InterfaceInfo>(row, startServer);
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
        steering_.prepareInterface(info->name.c_str(), info->fwmark, info->kind);
    }
}

void InterfaceManager::initAllPingThread() {
    PingContext& context = *this;
    for (auto& entry : ifaceMap) {
        InterfaceInfo* info = entry.second;
        LOGD("%s Init ping thread on %s", "initAllPingThread", info->name.c_str());
        info->isPingThreadAlive = true;
        info->isPingThreadRunning = false;
        workers_.push_back(std::make_unique<PingWorker>(context, servers_, *info,
                                                        probers_.create(*info), sleeper_));
        PingWorker* worker = workers_.back().get();
        startThread([worker] { worker->run(); });
    }
}

void InterfaceManager::startThread(std::function<void()> body) {
    if (launcher_.start(std::move(body)) != 0) fatal("thread constructor failed");
}

// ---- registry ----

InterfaceInfo* InterfaceManager::getIfaceInfo(std::string name) {
    const auto found = ifaceMap.find(name);
    return found == ifaceMap.end() ? nullptr : found->second;
}

bool InterfaceManager::isUserSelectData() { return selection_.isUserSelectData(); }

bool InterfaceManager::isAutoSelectData() { return selection_.isAutoSelectData(); }

InterfaceManagerSnapshot InterfaceManager::snapshot() const {
    InterfaceManagerSnapshot s;
    const InterfaceInfo* user = selection_.user();
    const InterfaceInfo* autoChoice = selection_.autoChoice();
    s.userSelectIface = user ? user->name : "";
    s.autoSelectIface = autoChoice ? autoChoice->name : "";
    s.isAutoSelectEnabled = engine_.isEnabled();
    s.isAutoSelectForcePing = engine_.isForcePing();
    s.rttDebug = readDebugFlag(kRttDebugProperty);
    s.autoSwitches = selection_.autoSwitches();
    s.manualSelections = selection_.manualSelections();
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
        r.isWifi = info->isWifi();
        r.rtt = info->rtt;
        r.mrtt = info->median().mrtt;
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
    // The name field holds 15 characters and the terminator. No interface has
    // a longer name, so it is answered like one that is not running, and a
    // client cannot end the daemon with it.
    const size_t length = strlen(iface);
    if (length >= sizeof(request.ifr_name)) {
        LOGE("%s interface name too long: %s", "getInterfaceRtt", printableForLog(iface).c_str());
        return -1;
    }
    memcpy(request.ifr_name, iface, length + 1);
    {
        android::base::unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
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

// ---- policy rules and manual selection ----

int32_t InterfaceManager::addInterfaceIpRule(const char* iface) {
    if (iface == nullptr) return -1;
    InterfaceInfo* info = getIfaceInfo(iface);
    if (info == nullptr) {
        LOGD("%s Invalid interface %s", "addInterfaceIpRule", iface);
        return -1;
    }
    MutexLock lock(ipRulesMutex_);
    issueIpRule(*info, false);
    // A rule added again counts from its latest add, as added.
    forgetIpRule(info);
    ipRules_.push_back({info, false});
    return 0;
}

bool InterfaceManager::issueIpRule(const InterfaceInfo& info, bool readStatus) {
    // Delete first so that adding twice leaves one rule.
    steering_.delIpRule(info.prio);
    if (readStatus) return steering_.addIpRuleAccepted(info.name.c_str(), info.fwmark, info.prio);
    steering_.addIpRule(info.name.c_str(), info.fwmark, info.prio);
    return true;
}

void InterfaceManager::forgetIpRule(const InterfaceInfo* info) {
    ipRules_.erase(std::remove_if(ipRules_.begin(), ipRules_.end(), [info](const IpRule& r) { return r.info == info; }),
                   ipRules_.end());
}

int32_t InterfaceManager::delInterfaceIpRule(const char* iface) {
    if (iface == nullptr) return -1;
    InterfaceInfo* info = getIfaceInfo(iface);
    if (info == nullptr) {
        LOGD("%s Invalid interface %s", "delInterfaceIpRule", iface);
        return -1;
    }
    MutexLock lock(ipRulesMutex_);
    steering_.delIpRule(info->prio);
    forgetIpRule(info);
    return 0;
}

IpRuleRestore InterfaceManager::restoreIpRules() {
    MutexLock lock(ipRulesMutex_);
    return reissueIpRules(false);
}

IpRuleRestore InterfaceManager::retryRefusedIpRules() {
    MutexLock lock(ipRulesMutex_);
    return reissueIpRules(true);
}

IpRuleRestore InterfaceManager::reissueIpRules(bool onlyRefused) {
    IpRuleRestore result;
    for (IpRule& rule : ipRules_) {
        // A rule in place is never deleted and added again: that would move
        // steered packets off their interface meanwhile.
        if (onlyRefused && !rule.refused) continue;
        rule.refused = !issueIpRule(*rule.info, true);
        (rule.refused ? result.refused : result.installed).push_back(rule.info->name);
    }
    return result;
}

int32_t InterfaceManager::selectInterface(const char* iface) {
    if (iface == nullptr) return -1;
    // Waits while auto-select runs.
    AbandonableLock lock(selection_.ifaceMutex);
    InterfaceInfo* curr = getIfaceInfo(iface);
    InterfaceInfo* prev = selection_.user();
    if (curr == nullptr) {
        LOGD("%s Invalid interface %s", "selectInterface", iface);
        // Deliberately: every later selection and auto-select waits for ever.
        lock.keepHeldForever();
        return -1;
    }
    if (prev == curr) return -1;
    if (prev != nullptr) {
        LOGD("%s prev=%s, curr=%s, kill=%d", "selectInterface", prev->name.c_str(),
             curr->name.c_str(), 1);
    }
    selection_.setUser(*curr);
    // The first selection moves no open sockets; later ones reset them.
    steering_.steerToUserChoice(curr->name.c_str(), curr->kind, prev != nullptr);
    return 0;
}

// ---- auto-select ----

void InterfaceManager::enableAutoSelect(const char* ifaces) {
    startThread([this, list = engine_.restartOn(selection_, ifaces)] { runAutoSelect(list); });
}

void InterfaceManager::disableAutoSelect() { engine_.stop(); }

void InterfaceManager::runAutoSelect(const Candidates& ifaces) {
    AbandonableLock lock(selection_.ifaceMutex);
    engine_.begin(selection_, ifaces);
    while (engine_.isEnabled()) {
        engine_.decide(selection_, ifaces);
        sleeper_.sleepUs(kDecisionPeriodUs);
    }
    engine_.end(selection_);
}

}  // namespace probemond
