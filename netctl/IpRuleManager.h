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
    // 0 when the delete command could be started, -1 otherwise.
    int32_t delIpRule(const char* prio) PM_EXCLUDES(mutex_);

private:
    CommandExecutor& executor_;
    Mutex mutex_;
};

}  // namespace probemond
