#include "interfaces/InterfaceManager.h"

#include <android-base/unique_fd.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/Log.h"
#include "common/LogText.h"
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
      engine_(ifaceMap, selection_, rttDebug, notifier, steering) {
    LOGD("%s called", "InterfaceManager");
    initInterfaceInfoAndMap();
    initIptablesMangleNatRules();
}

InterfaceManager::~InterfaceManager() = default;

void InterfaceManager::initInterfaceInfoAndMap() {
    LOGD("%s called", "initInterfaceInfoAndMap");
    const char* startServer = PingServers::startServer();
    for (size_t row = 0; row < kInterfaceCount; ++row) {
        auto info = std::make_unique<InterfaceInfo>();
        info->name = interfaceNames[row];
        info->fwmark = interfaceFwmarks[row];
        info->prio = interfacePrios[row];
        info->pingServer = startServer;
        info->pingInterval = 1;
        // A record is cellular when "rmnet_data" appears anywhere in its name;
        // the selection predicates test the prefix only.
        const bool data = info->name.find("rmnet_data") != std::string::npos;
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
    PingContext& context = *this;
    for (auto& entry : ifaceMap) {
        InterfaceInfo* info = entry.second;
        LOGD("%s Init ping thread on %s", "initAllPingThread", info->name.c_str());
        info->isPingThreadAlive = true;
        info->isPingThreadRunning = false;
        workers_.push_back(std::make_unique<PingWorker>(context, servers_, *info,
                                                        probers_.create(*info), sleeper_));
        PingWorker* worker = workers_.back().get();
        // A worker that cannot start is not noticed; its interface never probes.
        launcher_.start([worker] { worker->run(); });
    }
}

// ---- registry ----

InterfaceInfo* InterfaceManager::getIfaceInfo(std::string name) {
    return findInterface(ifaceMap, name);
}

bool InterfaceManager::isUserSelectData() { return isDataInterface(selection_.user()); }

bool InterfaceManager::isAutoSelectData() { return isDataInterface(selection_.autoIface()); }

InterfaceManagerSnapshot InterfaceManager::snapshot() const {
    InterfaceManagerSnapshot s;
    s.userSelectIface = selection_.user();
    s.autoSelectIface = selection_.autoIface();
    s.isAutoSelectEnabled = engine_.isEnabled();
    s.isAutoSelectForcePing = engine_.isForcePing();
    s.rttDebug = rttDebug;
    s.autoSwitches = engine_.switches();
    s.manualSelections = manualSelectLog_.snapshot();
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
    engine_.mutex().lock();
    InterfaceInfo* curr = getIfaceInfo(iface);
    InterfaceInfo* prev = getIfaceInfo(selection_.user());
    if (curr == nullptr) {
        LOGD("%s Invalid interface %s", "selectInterface", iface);
        // Deliberately left locked: every later selection and auto-select
        // waits for ever.
        engine_.mutex().keepHeldForever();
        return -1;
    }
    if (prev != nullptr) {
        if (prev->name == curr->name) {
            engine_.mutex().unlock();
            return -1;
        }
        LOGD("%s prev=%s, curr=%s, kill=%d", "selectInterface", prev->name.c_str(),
             curr->name.c_str(), 1);
    }
    selection_.setUser(curr->name);
    manualSelectLog_.record(prev ? prev->name : "", prev ? prev->mrtt.load() : 0, curr->name,
                            curr->mrtt);
    // The first selection moves no open sockets; later ones reset them.
    steering_.selectIface(curr->name.c_str(), prev != nullptr);
    engine_.mutex().unlock();
    return 0;
}

// ---- auto-select ----

void InterfaceManager::enableAutoSelect(const char* ifaces) {
    Candidates candidates = engine_.enable(ifaces);
    const int rc = launcher_.start([this, list = std::move(candidates)] { runAutoSelect(list); });
    if (rc != 0) {
        // Like a std::thread that cannot start in a build without exceptions.
        LOGF("thread constructor failed");
        fprintf(stderr, "thread constructor failed: %s\n", strerror(rc));
        abort();
    }
}

void InterfaceManager::disableAutoSelect() { engine_.disable(); }

void InterfaceManager::runAutoSelect(Candidates ifaces) {
    engine_.mutex().lock();
    engine_.begin(ifaces);
    while (engine_.isEnabled()) {
        engine_.decide(ifaces);
        sleeper_.sleepUs(kDecisionPeriodUs);
    }
    engine_.end();
    engine_.mutex().unlock();
}

}  // namespace probemond
