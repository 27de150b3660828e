#include "netctl/NetdRestartWatcher.h"

#include <time.h>

#include <algorithm>
#include <iterator>

#include "common/Log.h"
#include "common/Properties.h"

namespace probemond {
namespace {

constexpr size_t kNoCheckDue = std::size(kCheckDelaysMs);

int64_t clockMs(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

const char* stateText(JumpState s) {
    switch (s) {
        case JumpState::kInPlace: return "in place";
        case JumpState::kMissing: return "missing";
        case JumpState::kUnknown: break;
    }
    return "unknown";
}

std::string joined(const std::vector<std::string>& names) {
    std::string out;
    for (const std::string& n : names) out += (out.empty() ? "" : ", ") + n;
    return out;
}

}  // namespace

NetdRestartWatcher::NetdRestartWatcher(PropertyWatch& zygoteState, SteeringHooks& hooks)
    : zygoteState_(zygoteState), hooks_(hooks), nextDelay_(kNoCheckDue) {}

void NetdRestartWatcher::run() {
    for (;;) step();
}

int64_t NetdRestartWatcher::nextTimeoutMs() const {
    const bool retrying = !refused_.empty() && waitedMs_ < kRetryForMs;
    // A refused rule is tried at least every kRetryPeriodMs, also between the
    // schedule's later checks: its table's name may come back at any time.
    const int64_t retryMs = std::min(kRetryPeriodMs, kRetryForMs - waitedMs_);
    if (nextDelay_ < kNoCheckDue) return retrying ? std::min(kCheckDelaysMs[nextDelay_], retryMs) : kCheckDelaysMs[nextDelay_];
    return retrying ? retryMs : -1;
}

void NetdRestartWatcher::step() {
    const int64_t timeoutMs = nextTimeoutMs();
    const std::optional<std::string> state = zygoteState_.waitForChange(timeoutMs);
    if (state) {
        LOGD("%s %s is now '%s'", "NetdRestartWatcher", kZygoteStateProperty, state->c_str());
        nextDelay_ = 0;
        waitedMs_ = 0;
    } else if (timeoutMs >= 0) {
        if (nextDelay_ < kNoCheckDue) ++nextDelay_;
        waitedMs_ += timeoutMs;
    }
    check();
}

void NetdRestartWatcher::check() {
    const HookCheck found = hooks_.checkHooks();
    LOGD("%s mangle OUTPUT jump %s, nat POSTROUTING jump %s", "NetdRestartWatcher", stateText(found.outputJump),
         stateText(found.postroutingJump));
    // Without the mangle jump nothing is steered: netd has started since.
    if (found.outputJump == JumpState::kMissing) {
        restore(found);
    } else if (!refused_.empty()) {
        retryRefusedRules();
    } else {
        return;
    }
    if (!refused_.empty() && waitedMs_ >= kRetryForMs) {
        LOGE("stopped trying the ip rules of %s %lld s after a platform restart: their tables are not named; "
             "add-ip-rule adds them again",
             joined(refused_).c_str(), static_cast<long long>(waitedMs_ / 1000));
        refused_.clear();
        recordRefused(true);
    }
}

void NetdRestartWatcher::restore(const HookCheck& found) {
    hooks_.restoreJumps(found);
    const IpRuleRestore rules = hooks_.restoreIpRules();
    refused_ = rules.refused;
    std::string restored = found.postroutingJump == JumpState::kMissing
                                   ? "the mangle OUTPUT and nat POSTROUTING jumps"
                                   : "the mangle OUTPUT jump";
    restored += rules.installed.empty() ? " and no ip rule" : " and the ip rules of " + joined(rules.installed);
    if (!refused_.empty()) restored += " (refused for now: " + joined(refused_) + ")";
    LOGI("restored %s after a platform restart", restored.c_str());
    recordRestoration(std::move(restored));
}

void NetdRestartWatcher::retryRefusedRules() {
    const IpRuleRestore rules = hooks_.retryRefusedIpRules();
    refused_ = rules.refused;
    if (rules.installed.empty()) {
        recordRefused(false);  // the client may have added or deleted some
        return;
    }
    std::string restored = "the ip rules of " + joined(rules.installed) + " (refused at first)";
    LOGI("restored %s after a platform restart", restored.c_str());
    recordRestoration(std::move(restored));
}

void NetdRestartWatcher::recordRestoration(std::string restored) {
    const int64_t wall = clockMs(CLOCK_REALTIME);
    const int64_t now = clockMs(CLOCK_MONOTONIC);
    MutexLock g(lock_);
    ++history_.count;
    history_.lastWallMs = wall;
    history_.lastRestored = std::move(restored);
    history_.refused = joined(refused_);
    history_.retrying = !refused_.empty();
    lastMonotonicMs_ = now;
}

void NetdRestartWatcher::recordRefused(bool givenUp) {
    MutexLock g(lock_);
    // What was given up stays named.
    if (!givenUp) history_.refused = joined(refused_);
    history_.retrying = !givenUp && !refused_.empty();
}

RestorationHistory NetdRestartWatcher::restorations() const {
    const int64_t now = clockMs(CLOCK_MONOTONIC);
    MutexLock g(lock_);
    RestorationHistory h = history_;
    h.msSinceLast = lastMonotonicMs_ < 0 ? -1 : now - lastMonotonicMs_;
    return h;
}

}  // namespace probemond
