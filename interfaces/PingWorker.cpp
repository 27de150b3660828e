#include "interfaces/PingWorker.h"

#include <sched.h>

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "common/Log.h"
#include "common/Properties.h"

namespace probemond {

namespace {

// Whether a worker probes in this cycle.
struct ProbeFlags {
    bool running;           // isPingThreadRunning
    bool controlled;        // isControlByAutoSelect
    bool forcePing;         // the manager's isAutoSelectForcePing
    bool isWifi;
    bool userSelectData;    // isUserSelectData()
    bool autoSelectData;    // isAutoSelectData()
};

bool shouldProbe(const ProbeFlags& f) {
    if (f.running) return true;
    if (!f.controlled) return false;
    // An auto-select candidate the client has not started.
    if (f.forcePing) return true;
    return f.isWifi ? !f.userSelectData : f.autoSelectData;
}

// Under auto-select the probe's time is charged against the period.
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

// " a b c, x y z": each value after a blank, arrival order, comma, sorted.
std::string rttText(const std::vector<int32_t>& arrival) {
    std::vector<int32_t> sorted = arrival;
    std::sort(sorted.begin(), sorted.end());
    std::string text;
    for (int32_t v : arrival) text += " " + std::to_string(v);
    text += ",";
    for (int32_t v : sorted) text += " " + std::to_string(v);
    return text;
}

}  // namespace

PingWorker::PingWorker(PingContext& context, PingServers& servers, InterfaceInfo& info,
                       std::unique_ptr<RttProber> prober, Sleeper& sleeper)
    : context_(context),
      servers_(servers),
      info_(info),
      prober_(std::move(prober)),
      sleeper_(sleeper) {}

void PingWorker::run() {
    announce();
    if (!info_.isPingThreadAlive) return;
    while (runCycle()) {
    }
}

void PingWorker::announce() {
    // All workers share CPU 0 so that their timing does not wander. The mask
    // is 128 bytes wherever cpu_set_t is smaller (32-bit bionic).
    constexpr size_t kMaskBytes = 128;
    cpu_set_t mask[(kMaskBytes + sizeof(cpu_set_t) - 1) / sizeof(cpu_set_t)];
    static_assert(sizeof(mask) == kMaskBytes, "cpu_set_t does not divide 128 bytes");
    CPU_ZERO_S(kMaskBytes, mask);
    CPU_SET_S(0, kMaskBytes, mask);
    sched_setaffinity(0, kMaskBytes, mask);
    LOGD("Ping thread %ld on %s is started and running on cpu %d", threadId(),
         info_.name.c_str(), sched_getcpu());
}

bool PingWorker::runCycle() {
    if (!info_.isPingThreadSuspended) {
        const bool debug = readDebugFlag(kRttDebugProperty);
        ProbeFlags f{};
        f.running = info_.isPingThreadRunning;
        f.controlled = info_.isControlByAutoSelect;
        f.forcePing = context_.isAutoSelectForcePing();
        f.isWifi = info_.isWifi();
        f.userSelectData = context_.isUserSelectData();
        f.autoSelectData = context_.isAutoSelectData();
        if (shouldProbe(f)) {
            if (debug) {
                LOGD("isPingThreadRunning=%d, isControlByAutoSelect=%d, isAutoSelectForcePing=%d, "
                     "isUserSelectData=%d, isAutoSelectData=%d, isWifi=%d",
                     f.running, f.controlled, f.forcePing, f.userSelectData, f.autoSelectData,
                     f.isWifi);
            }
            probeOnce(debug);
        }
    }
    if (!info_.isPingThreadAlive) return false;
    sleeper_.sleepUs(workerSleepUs(info_.isControlByAutoSelect, context_.isAutoSelectForcePing(),
                                   info_.isWifi(), probeElapsed_, info_.pingInterval));
    return info_.isPingThreadAlive;
}

void PingWorker::probeOnce(bool debug) {
    const ProbeResult probe = prober_->ping(info_.name.c_str(), info_.pingServer.load());
    info_.counters.recordProbe(probe.failed);
    info_.rtt = probe.rtt;
    const RttUpdate update = info_.addRtt(probe.rtt, probe.failed);
    if (debug) LOGD("rrtt: %s,%s, [%d]", info_.name.c_str(), rttText(update.history).c_str(), update.mrtt);

    const int32_t timeoutThreshold = readIntProperty(kRttThresholdProperty, "200");
    bool checkSwitch = true;
    if (probe.rtt >= timeoutThreshold) {
        // Read again on purpose: the charged time follows the latest value.
        probeElapsed_ = readIntProperty(kRttThresholdProperty, "200");
        info_.switchCount.fetch_add(1);
    } else {
        probeElapsed_ = probe.rtt;
        const uint32_t count = info_.switchCount.load();
        if (count == 0) {
            checkSwitch = false;
        } else {
            info_.switchCount.store(count - 1);
        }
    }
    if (checkSwitch && info_.switchCount.load() >= kServerSwitchCount) switchServer();

    LOGD("%s,rtt=%d,mrtt=%d,switch=%u,cpu=%d", info_.name.c_str(), probe.rtt, update.mrtt,
         info_.switchCount.load(), sched_getcpu());
}

void PingWorker::switchServer() {
    const char* server = servers_.rotate();
    info_.counters.serverRotations.fetch_add(1);
    LOGD("Ping thread %ld on %s switch DNS to %s", threadId(), info_.name.c_str(), server);
}

}  // namespace probemond
