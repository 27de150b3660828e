#include "netctl/NetdRestartWatcher.h"

#include <time.h>

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

void NetdRestartWatcher::step() {
    const int64_t timeoutMs = nextDelay_ < kNoCheckDue ? kCheckDelaysMs[nextDelay_] : -1;
    const std::optional<std::string> state = zygoteState_.waitForChange(timeoutMs);
    if (state) {
        LOGD("%s %s is now '%s'", "NetdRestartWatcher", kZygoteStateProperty, state->c_str());
        nextDelay_ = 0;
    } else {
        ++nextDelay_;
    }
    check();
}

void NetdRestartWatcher::check() {
    const HookCheck found = hooks_.checkHooks();
    LOGD("%s mangle OUTPUT jump %s, nat POSTROUTING jump %s", "NetdRestartWatcher", stateText(found.outputJump),
         stateText(found.postroutingJump));
    // Without the mangle jump nothing is steered: netd has started since.
    if (found.outputJump != JumpState::kMissing) return;
    hooks_.restoreJumps(found);
    const std::vector<std::string> rules = hooks_.restoreIpRules();
    std::string restored = found.postroutingJump == JumpState::kMissing
                                   ? "the mangle OUTPUT and nat POSTROUTING jumps"
                                   : "the mangle OUTPUT jump";
    restored += rules.empty() ? " and no ip rule" : " and the ip rules of " + joined(rules);
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
    lastMonotonicMs_ = now;
}

RestorationHistory NetdRestartWatcher::restorations() const {
    const int64_t now = clockMs(CLOCK_MONOTONIC);
    MutexLock g(lock_);
    RestorationHistory h = history_;
    h.msSinceLast = lastMonotonicMs_ < 0 ? -1 : now - lastMonotonicMs_;
    return h;
}

}  // namespace probemond
