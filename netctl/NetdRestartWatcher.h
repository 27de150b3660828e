// Restore after netd restart. netd flushes mangle OUTPUT and nat POSTROUTING
// and deletes every ip rule but priority 0's each time it starts, taking the
// daemon's two jumps and its policy rules while its chains stay. netd starts
// again whenever zygote does, so the watcher follows zygote's state, asks
// iptables whether the mangle jump is still there and, when it is not, puts
// back the jumps and the client's policy rules. While the jump is there it
// changes nothing but the rules the tool refused at that restore, which it
// tries again for a while.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/IpRuleRestore.h"
#include "common/ThreadAnnotations.h"
#include "netctl/IptablesRuleManager.h"
#include "netctl/PropertyWatch.h"

namespace probemond {

// After each change of zygote's state: a check at once, then checks this far
// apart, since netd may finish starting after zygote's state moved. A new
// change starts them over.
inline constexpr int64_t kCheckDelaysMs[] = {1000, 2000, 4000, 8000, 16000};
// While a restored policy rule is refused (its table has no name until the
// framework puts the interface back in a network), the checks come at most
// this far apart until their waits since the change add up to kRetryForMs.
inline constexpr int64_t kRetryPeriodMs = 5000;
inline constexpr int64_t kRetryForMs = 300000;

// What the watcher checks and puts back.
class SteeringHooks {
public:
    virtual ~SteeringHooks() = default;
    virtual HookCheck checkHooks() = 0;
    // The jumps `found` says are missing.
    virtual void restoreJumps(const HookCheck& found) = 0;
    // The policy rule of every interface whose add-ip-rule no del-ip-rule
    // undid, with add-ip-rule's lines, in the order the client added them.
    virtual IpRuleRestore restoreIpRules() = 0;
    // The same for those the tool refused and the client left alone since.
    virtual IpRuleRestore retryRefusedIpRules() = 0;
};

// For the dump: how often something was put back, and the latest time.
struct RestorationHistory {
    uint64_t count = 0;
    int64_t msSinceLast = -1;  // -1 when none yet
    int64_t lastWallMs = 0;    // Unix time in ms
    std::string lastRestored;  // what was put back the latest time
    std::string refused;       // rules the tool refuses since the latest restore
    bool retrying = false;     // and whether they are still tried
};

class NetdRestartWatcher {
public:
    // Both must outlive the watcher.
    NetdRestartWatcher(PropertyWatch& zygoteState, SteeringHooks& hooks);
    NetdRestartWatcher(const NetdRestartWatcher&) = delete;
    NetdRestartWatcher& operator=(const NetdRestartWatcher&) = delete;

    // Waits for zygote's state to change or for the next scheduled check,
    // then checks. Its thread calls it for ever; with no check due and no
    // rule to try again it waits for a change alone and never wakes on its
    // own.
    void step();
    [[noreturn]] void run();

    RestorationHistory restorations() const PM_EXCLUDES(lock_);

private:
    int64_t nextTimeoutMs() const;
    void check();
    void restore(const HookCheck& found);
    void retryRefusedRules();
    void recordRestoration(std::string restored) PM_EXCLUDES(lock_);
    void recordRefused(bool givenUp) PM_EXCLUDES(lock_);

    PropertyWatch& zygoteState_;
    SteeringHooks& hooks_;
    // The watcher's thread alone uses these.
    size_t nextDelay_;  // into kCheckDelaysMs; at its end only retries are due
    int64_t waitedMs_ = 0;  // the time-outs since the latest change
    std::vector<std::string> refused_;  // rules to try again

    mutable Mutex lock_;  // short: the dump's copy
    RestorationHistory history_ PM_GUARDED_BY(lock_);
    int64_t lastMonotonicMs_ PM_GUARDED_BY(lock_) = -1;
};

}  // namespace probemond
