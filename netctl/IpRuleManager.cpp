#include "netctl/IpRuleManager.h"

#include <cstring>

#include <android/log.h>

#include "netctl/CommandFormat.h"

using probemond::formatBounded;
using probemond::kCommandSize;

IpRuleManager* IpRuleManager::instance() {
    // Never destroyed: threads that outlive main may still use it.
    static IpRuleManager* const sInstance = new IpRuleManager(*new probemond::PopenCommandExecutor());
    return sInstance;
}

IpRuleManager::IpRuleManager(probemond::CommandExecutor& executor) : mExecutor(executor) {
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s called", "IpRuleManager");
}

int32_t IpRuleManager::addIpRule(const char* table, const char* fwmark, const char* prio) {
    probemond::MutexLock lock(mMutex);
    char cmd[kCommandSize];
    memset(cmd, 0, sizeof(cmd));
    formatBounded(cmd, sizeof(cmd), "/system/bin/ip-wrapper-1.0 -4 rule del prio %s", prio);
    if (!runWrapperCommand(mExecutor, cmd, kIpCommandFailure)) {
        __android_log_print(ANDROID_LOG_WARN, nullptr, "%s Failue to del ip rule or rule not exist: %s", "addIpRule",
                            cmd);
    }
    memset(cmd, 0, sizeof(cmd));
    formatBounded(cmd, sizeof(cmd), "/system/bin/ip-wrapper-1.0 -4 rule add fwmark %s/0xffff table %s prio %s",
                  fwmark, table, prio);
    if (!runWrapperCommand(mExecutor, cmd, kIpCommandFailure)) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s Failue to add ip rule : %s", "addIpRule", cmd);
        return -1;
    }
    return 0;
}

int32_t IpRuleManager::delIpRule(const char* prio) {
    probemond::MutexLock lock(mMutex);
    char cmd[kCommandSize];
    memset(cmd, 0, sizeof(cmd));
    formatBounded(cmd, sizeof(cmd), "/system/bin/ip-wrapper-1.0 -4 rule del prio %s", prio);
    if (!runWrapperCommand(mExecutor, cmd, kIpCommandFailure)) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s Failue to delete ip rule: %s", "delIpRule", cmd);
        return -1;
    }
    return 0;
}
