#include "interfaces/PingWorker.h"

#include <sched.h>

#include <algorithm>
#include <climits>

#include "common/Log.h"

namespace probemond::ifaces {

bool shouldProbe(const ProbeFlags& f) {
    if (f.running) return true;
    if (!f.controlled) return false;
    // An auto-select candidate the client has not started.
    if (f.forcePing) return true;
    return f.isWifi ? !f.userSelectData : f.autoSelectData;
}

uint32_t workerSleepUs(bool controlled, bool forcePing, bool isWifi, int32_t probeElapsed,
                       int32_t pingInterval) {
    const int64_t periodMs = static_cast<int64_t>(pingInterval) * 1000;
    int64_t us;
    if (!controlled) {
        us = periodMs * 1000;
    } else if (forcePing && !isWifi) {
        us = (periodMs / 2 - probeElapsed) * 1000;
    } else {
        us = (periodMs - probeElapsed) * 1000;
    }
    // Computed wide so that a probe longer than the period sleeps 0 instead
    // of wrapping to an hour.
    if (us < 0) return 0;
    if (us > static_cast<int64_t>(UINT32_MAX)) return UINT32_MAX;
    return static_cast<uint32_t>(us);
}

int32_t medianOfSorted(const std::vector<int32_t>& sorted) {
    const size_t n = sorted.size();
    if (n == 0) return 0;
    if (n % 2 == 1) return sorted[n / 2];
    const int64_t sum = static_cast<int64_t>(sorted[n / 2 - 1]) + sorted[n / 2];
    return static_cast<int32_t>(sum / 2);
}

std::string rttText(const std::vector<int32_t>& arrival, const std::vector<int32_t>& sorted) {
    std::string text;
    for (int32_t v : arrival) text += " " + std::to_string(v);
    text += ",";
    for (int32_t v : sorted) text += " " + std::to_string(v);
    return text;
}

PingWorker::PingWorker(InterfaceManager& manager, InterfaceInfo& info,
                       std::unique_ptr<RttProber> prober, Sleeper& sleeper)
    : manager_(manager), info_(info), prober_(std::move(prober)), sleeper_(sleeper) {}

InterfaceInfo* PingWorker::run() {
    announce();
    if (!info_.isPingThreadAlive) return &info_;
    while (runCycle()) {
    }
    return &info_;
}

void PingWorker::announce() {
    // All workers share CPU 0 so that their timing does not wander.
    cpu_set_t mask;
    static_assert(sizeof(mask) == 128, "the worker pins itself with a 128-byte mask");
    CPU_ZERO(&mask);
    CPU_SET(0, &mask);
    sched_setaffinity(0, sizeof(mask), &mask);
    LOGD("Ping thread %ld on %s is started and running on cpu %d", threadId(),
         info_.name.c_str(), sched_getcpu());
}

bool PingWorker::runCycle() {
    if (!info_.isPingThreadSuspended) {
        manager_.rttDebug = readDebugFlag(kRttDebugProperty);
        ProbeFlags f{};
        f.running = info_.isPingThreadRunning;
        f.controlled = info_.isControlByAutoSelect;
        f.forcePing = manager_.isAutoSelectForcePing;
        f.isWifi = info_.isWifi;
        f.userSelectData = manager_.isUserSelectData();
        f.autoSelectData = manager_.isAutoSelectData();
        if (shouldProbe(f)) {
            if (manager_.rttDebug) {
                LOGD("isPingThreadRunning=%d, isControlByAutoSelect=%d, isAutoSelectForcePing=%d, "
                     "isUserSelectData=%d, isAutoSelectData=%d, isWifi=%d",
                     f.running, f.controlled, f.forcePing, f.userSelectData, f.autoSelectData,
                     f.isWifi);
            }
            probeOnce();
        }
    }
    if (!info_.isPingThreadAlive) return false;
    sleeper_.sleepUs(workerSleepUs(info_.isControlByAutoSelect, manager_.isAutoSelectForcePing,
                                   info_.isWifi, probeElapsed_, info_.pingInterval));
    return info_.isPingThreadAlive;
}

void PingWorker::probeOnce() {
    const int32_t rtt = prober_->ping(info_.name.c_str(), info_.pingServer.load());
    const bool failed = prober_->lastProbeFailed();
    info_.counters.recordProbe(failed);
    info_.rtt = rtt;

    const std::vector<int32_t> history = info_.addRtt(rtt, failed);
    std::vector<int32_t> sorted = history;
    std::sort(sorted.begin(), sorted.end());
    const int32_t median = medianOfSorted(sorted);
    if (manager_.rttDebug) {
        LOGD("rrtt: %s,%s, [%d]", info_.name.c_str(), rttText(history, sorted).c_str(), median);
    }
    info_.mrtt = median;

    const int32_t timeoutThreshold = readIntProperty(kRttThresholdProperty, "200");
    bool checkSwitch = true;
    if (rtt >= timeoutThreshold) {
        // Read again on purpose: the charged time follows the latest value.
        probeElapsed_ = readIntProperty(kRttThresholdProperty, "200");
        info_.switchCount.fetch_add(1);
    } else {
        probeElapsed_ = rtt;
        const uint32_t count = info_.switchCount.load();
        if (count == 0) {
            checkSwitch = false;
        } else {
            info_.switchCount.store(count - 1);
        }
    }
    if (checkSwitch && info_.switchCount.load() >= kServerSwitchCount) switchServer();

    LOGD("%s,rtt=%d,mrtt=%d,switch=%u,cpu=%d", info_.name.c_str(), rtt, median,
         info_.switchCount.load(), sched_getcpu());
}

void PingWorker::switchServer() {
    const bool cn = countryIsCn();
    std::atomic<uint32_t>& index = cn ? manager_.cnServerIndex : manager_.globalServerIndex;
    const uint32_t count = cn ? kCnServerCount : kGlobalServerCount;
    const char* const* table = cn ? cnPingServers : globalPingServers;
    // The index moves first, then is used; two workers switching at once
    // move it twice.
    uint32_t current = index.load();
    uint32_t next;
    do {
        next = current + 1;
        if (next >= count) next = 0;
    } while (!index.compare_exchange_weak(current, next));
    const char* server = table[next];
    info_.counters.serverRotations.fetch_add(1);
    for (auto& entry : manager_.ifaceMap) {
        entry.second->pingServer = server;
        entry.second->switchCount = 0;
    }
    LOGD("Ping thread %ld on %s switch DNS to %s", threadId(), info_.name.c_str(), server);
}

}  // namespace probemond::ifaces

void* runPing(void* arg) { return static_cast<probemond::ifaces::PingWorker*>(arg)->run(); }
