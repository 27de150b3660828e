#include "netctl/IpRuleManager.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <vector>

#include <android/log.h>

#include "netctl/CommandFormat.h"
#include "netctl/WrapperCommand.h"

using probemond::formatBounded;
using probemond::kCommandSize;

namespace {
std::atomic<IpRuleManager*> sInstance{nullptr};
}  // namespace

IpRuleManager* IpRuleManager::instance() {
    IpRuleManager* existing = sInstance.load();
    if (existing != nullptr) return existing;
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s called", "IpRuleManager");
    IpRuleManager* created = new IpRuleManager();
    sInstance.store(created);
    return created;
}

void IpRuleManager::resetForTest() {
    // A test may leave the mutex held on purpose; destroying it then is not allowed.
    static std::mutex retiredLock;
    static auto* retired = new std::vector<IpRuleManager*>();  // never destroyed: outlives exit-time leak checks
    IpRuleManager* old = sInstance.exchange(nullptr);
    if (old == nullptr) return;
    std::lock_guard<std::mutex> g(retiredLock);
    retired->push_back(old);
}

int32_t IpRuleManager::addIpRule(const char* table, const char* fwmark, const char* prio) {
    probemond::MutexLock lock(mMutex);
    char cmd[kCommandSize];
    memset(cmd, 0, sizeof(cmd));
    formatBounded(cmd, sizeof(cmd), "/system/bin/ip-wrapper-1.0 -4 rule del prio %s", prio);
    if (!runWrapperCommand(cmd, kIpCommandFailure)) {
        __android_log_print(ANDROID_LOG_WARN, nullptr, "%s Failue to del ip rule or rule not exist: %s", "addIpRule",
                            cmd);
    }
    memset(cmd, 0, sizeof(cmd));
    formatBounded(cmd, sizeof(cmd), "/system/bin/ip-wrapper-1.0 -4 rule add fwmark %s/0xffff table %s prio %s",
                  fwmark, table, prio);
    if (!runWrapperCommand(cmd, kIpCommandFailure)) {
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
    if (!runWrapperCommand(cmd, kIpCommandFailure)) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s Failue to delete ip rule: %s", "delIpRule", cmd);
        return -1;
    }
    return 0;
}
