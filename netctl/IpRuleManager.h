// IPv4 policy rules that route packets with an interface's mark to the
// routing table named after that interface.
#pragma once

#include <cstdint>

#include "common/ThreadAnnotations.h"
#include "netctl/WrapperCommand.h"

namespace probemond {

class IpRuleManager {
public:
    // `executor` must outlive the manager.
    explicit IpRuleManager(CommandExecutor& executor);
    IpRuleManager(const IpRuleManager&) = delete;
    IpRuleManager& operator=(const IpRuleManager&) = delete;

    // 0 when the add command could be started, -1 otherwise.
    int32_t addIpRule(const char* table, const char* fwmark, const char* prio) PM_EXCLUDES(mutex_);
    // addIpRule's lines, with the add's exit status read: false when the
    // tool refused the rule or could not be started, so it is surely not
    // there. A tool ended by a signal may have added it: true.
    bool addIpRuleAccepted(const char* table, const char* fwmark, const char* prio) PM_EXCLUDES(mutex_);
    // 0 when the delete command could be started, -1 otherwise.
    int32_t delIpRule(const char* prio) PM_EXCLUDES(mutex_);

private:
    // The add's status as executeForStatus gives it, or when `readStatus` is
    // false 0 once the add could be started.
    int addRule(const char* table, const char* fwmark, const char* prio, bool readStatus) PM_EXCLUDES(mutex_);

    CommandExecutor& executor_;
    Mutex mutex_;
};

}  // namespace probemond
