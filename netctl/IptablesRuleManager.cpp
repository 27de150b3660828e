#include "netctl/IptablesRuleManager.h"

#include <cstring>

#include <android/log.h>

#include "netctl/CommandFormat.h"
#include "netctl/SockDiag.h"
#include "netctl/UidText.h"
#include "netctl/WrapperCommand.h"

using probemond::formatBounded;
using probemond::kChainNameSize;
using probemond::kCommandSize;

int32_t probemond::KernelSocketKiller::killUidSockets(const char* uid) { return ::killUidSockets(uid); }

namespace {

#define IPTABLES "/system/bin/iptables-wrapper-1.0 -w "

bool refuseBadUid(const char* caller, const char* uid) {
    if (probemond::isValidUidText(uid)) return false;
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s Invalid uid %s", caller,
                        probemond::printableForLog(uid).c_str());
    return true;
}

}  // namespace

IptablesRuleManager* IptablesRuleManager::instance() {
    // Never destroyed: threads that outlive main may still use it.
    static IptablesRuleManager* const sInstance =
            new IptablesRuleManager(*new probemond::PopenCommandExecutor(), *new probemond::KernelSocketKiller());
    return sInstance;
}

IptablesRuleManager::IptablesRuleManager(probemond::CommandExecutor& executor, probemond::SocketKiller& killer)
    : mExecutor(executor), mKiller(killer) {
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s called", "IptablesRuleManager");
    probemond::MutexLock lock(mMutex);
    // A restarted daemon finds its chains: -N fails harmlessly and -F empties them.
    run(IPTABLES "-t mangle -N kest_probemon_uid");
    run(IPTABLES "-t mangle -F kest_probemon_uid");
    run(IPTABLES "-t mangle -I OUTPUT -j kest_probemon_uid");
    run(IPTABLES "-t mangle -N kest_probemon_iface");
    run(IPTABLES "-t mangle -F kest_probemon_iface");
    run(IPTABLES "-t mangle -N kest_probemon_iface_rmnet");
    run(IPTABLES "-t mangle -F kest_probemon_iface_rmnet");
    run(IPTABLES "-t mangle -I kest_probemon_iface -j kest_probemon_iface_rmnet");
    run(IPTABLES "-t mangle -N kest_probemon_iface_auto");
    run(IPTABLES "-t mangle -F kest_probemon_iface_auto");
    run(IPTABLES "-t mangle -A kest_probemon_iface -j kest_probemon_iface_auto");
    run(IPTABLES "-t mangle -N kest_probemon_iface_wlan");
    run(IPTABLES "-t mangle -F kest_probemon_iface_wlan");
    run(IPTABLES "-t mangle -A kest_probemon_iface -j kest_probemon_iface_wlan");
    run(IPTABLES "-t nat -N kest_probemon_snat");
    run(IPTABLES "-t nat -F kest_probemon_snat");
    run(IPTABLES "-t nat -A POSTROUTING -j kest_probemon_snat");
    run(IPTABLES "-t nat -N kest_masquerade");
    run(IPTABLES "-t nat -F kest_masquerade");
}

void IptablesRuleManager::run(const char* command) {
    runWrapperCommand(mExecutor, command, kIptablesCommandFailure);
}

void IptablesRuleManager::runFormatted(const char* fmt, const char* arg) {
    char cmd[kCommandSize];
    memset(cmd, 0, sizeof(cmd));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    formatBounded(cmd, sizeof(cmd), fmt, arg);
#pragma GCC diagnostic pop
    run(cmd);
}

void IptablesRuleManager::initMangleRules(const char* iface, const char* mark) {
    probemond::MutexLock lock(mMutex);
    char chain[kChainNameSize];
    memset(chain, 0, sizeof(chain));
    formatBounded(chain, sizeof(chain), "kest_probemon_%s", iface);
    char cmd[kCommandSize];
    memset(cmd, 0, sizeof(cmd));
    formatBounded(cmd, sizeof(cmd), IPTABLES "-t mangle -N %s", chain);
    run(cmd);
    memset(cmd, 0, sizeof(cmd));
    formatBounded(cmd, sizeof(cmd), IPTABLES "-t mangle -F %s", chain);
    run(cmd);
    memset(cmd, 0, sizeof(cmd));
    formatBounded(cmd, sizeof(cmd), IPTABLES "-t mangle -A %s -j MARK --set-mark %s", chain, mark);
    run(cmd);
    memset(cmd, 0, sizeof(cmd));
    formatBounded(cmd, sizeof(cmd), IPTABLES "-t mangle -A %s -j CONNMARK --save-mark", chain);
    run(cmd);
    memset(cmd, 0, sizeof(cmd));
    // Wi-Fi returns so traversal goes on after marking; cellular ends it with the mark set.
    if (strstr(iface, "wlan") != nullptr) {
        formatBounded(cmd, sizeof(cmd), IPTABLES "-t mangle -A %s -j RETURN", chain);
    } else {
        formatBounded(cmd, sizeof(cmd), IPTABLES "-t mangle -A %s -j ACCEPT", chain);
    }
    run(cmd);
}

void IptablesRuleManager::initNatRules(const char* iface) {
    probemond::MutexLock lock(mMutex);
    // Delete first so exactly one MASQUERADE rule exists per interface.
    runFormatted(IPTABLES "-t nat -D kest_masquerade -o %s -j MASQUERADE", iface);
    runFormatted(IPTABLES "-t nat -A kest_masquerade -o %s -j MASQUERADE", iface);
}

int32_t IptablesRuleManager::addUid(const char* uid) {
    // The UID reaches a shell command line.
    if (refuseBadUid("addUid", uid)) return 0;
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "Add uid %s", uid);
    probemond::MutexLock lock(mMutex);
    runFormatted(IPTABLES "-t mangle -D kest_probemon_uid -m owner --uid-owner %s -j kest_probemon_iface", uid);
    runFormatted(IPTABLES "-t nat -D kest_probemon_snat -m owner --uid-owner %s -j kest_masquerade", uid);
    runFormatted(IPTABLES "-t mangle -I kest_probemon_uid -m owner --uid-owner %s -j kest_probemon_iface", uid);
    runFormatted(IPTABLES "-t nat -I kest_probemon_snat -m owner --uid-owner %s -j kest_masquerade", uid);
    probemond::MutexLock listLock(mUidListLock);
    uidList.emplace_back(uid);
    return 0;
}

int32_t IptablesRuleManager::delUid(const char* uid) {
    // Bad text changes nothing, as in addUid, and never reaches the log verbatim.
    if (refuseBadUid("delUid", uid)) return 0;
    {
        probemond::MutexLock listLock(mUidListLock);
        uidList.clear();
    }
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "Delete uid %s", uid);
    probemond::MutexLock lock(mMutex);
    run(IPTABLES "-t mangle -F kest_probemon_uid");
    run(IPTABLES "-t nat -F kest_probemon_snat");
    return 0;
}

int32_t IptablesRuleManager::selectIface(const char* iface, bool killSockets) {
    mMutex.lock();
    const bool cellular = iface != nullptr && strncmp(iface, "rmnet_data", 10) == 0;
    const bool wifi = iface != nullptr && strncmp(iface, "wlan", 4) == 0;
    if (iface == nullptr || iface[0] == '\0' || (!cellular && !wifi)) {
        __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s Invalid interface %s", "selectIface",
                            iface != nullptr ? iface : "");
        // Deliberately returns with the mutex held: every later chain change waits for ever.
        mMutex.keepHeldForever();
        return -1;
    }
    if (cellular) {
        run(IPTABLES "-t mangle -F kest_probemon_iface_wlan");
        run(IPTABLES "-t mangle -F kest_probemon_iface_rmnet");
        runFormatted(IPTABLES "-t mangle -I kest_probemon_iface_rmnet -j kest_probemon_%s", iface);
    } else {
        // Wi-Fi means no manual cellular steering; only the auto branch can still mark.
        run(IPTABLES "-t mangle -F kest_probemon_iface_rmnet");
        run(IPTABLES "-t mangle -F kest_probemon_iface_wlan");
    }
    if (killSockets) killListedUidSockets("selectIface");
    mMutex.unlock();
    return 0;
}

void IptablesRuleManager::enableAutoSelect(const char* iface) {
    probemond::MutexLock lock(mMutex);
    run(IPTABLES "-t mangle -F kest_probemon_iface_auto");
    runFormatted(IPTABLES "-t mangle -I kest_probemon_iface_auto -j kest_probemon_%s", iface);
    killListedUidSockets("enableAutoSelect");
}

void IptablesRuleManager::disableAutoSelect() {
    probemond::MutexLock lock(mMutex);
    run(IPTABLES "-t mangle -F kest_probemon_iface_auto");
}

void IptablesRuleManager::killUidSocket() { killListedUidSockets("killUidSocket"); }

void IptablesRuleManager::killListedUidSockets(const char* caller) {
    // Copy first: a socket kill can be slow and must not block addUid's list update.
    std::vector<std::string> uids = uidListSnapshot();
    for (const std::string& uid : uids) {
        if (mKiller.killUidSockets(uid.c_str()) != 0) {
            __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s Failed to kill sockets of uid : %s", caller,
                                uid.c_str());
        }
    }
}

std::vector<std::string> IptablesRuleManager::uidListSnapshot() const {
    probemond::MutexLock listLock(mUidListLock);
    return uidList;
}
