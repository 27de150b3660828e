#include "netctl/IpRuleManager.h"

#include "common/Log.h"

namespace probemond {

IpRuleManager::IpRuleManager(CommandExecutor& executor) : executor_(executor) {
    LOGD("%s called", "IpRuleManager");
}

int32_t IpRuleManager::addIpRule(const char* table, const char* fwmark, const char* prio) {
    return addRule(table, fwmark, prio, false) == kNotStarted ? -1 : 0;
}

bool IpRuleManager::addIpRuleAccepted(const char* table, const char* fwmark, const char* prio) {
    const int status = addRule(table, fwmark, prio, true);
    return status == 0 || status == kNoExitStatus;
}

int IpRuleManager::addRule(const char* table, const char* fwmark, const char* prio, bool readStatus) {
    MutexLock lock(mutex_);
    // Whatever holds the priority goes first, so the add never duplicates it.
    const CommandRun del = runCommand(executor_, kIp, "rule del prio %s", prio);
    if (!del.started) LOGW("%s Failue to del ip rule or rule not exist: %s", "addIpRule", del.line);
    if (!readStatus) {
        const CommandRun add =
                runCommand(executor_, kIp, "rule add fwmark %s/0xffff table %s prio %s", fwmark, table, prio);
        if (!add.started) LOGE("%s Failue to add ip rule : %s", "addIpRule", add.line);
        return add.started ? 0 : kNotStarted;
    }
    const StatusRun add =
            runCommandForStatus(executor_, kIp, "rule add fwmark %s/0xffff table %s prio %s", fwmark, table, prio);
    if (add.status == kNotStarted) {
        LOGE("%s Failue to add ip rule : %s", "addIpRule", add.line);
    } else if (add.status > 0) {
        LOGD("%s exit status %d: %s", "addIpRule", add.status, add.line);
    }
    return add.status;
}

int32_t IpRuleManager::delIpRule(const char* prio) {
    MutexLock lock(mutex_);
    const CommandRun del = runCommand(executor_, kIp, "rule del prio %s", prio);
    if (!del.started) {
        LOGE("%s Failue to delete ip rule: %s", "delIpRule", del.line);
        return -1;
    }
    return 0;
}

}  // namespace probemond
