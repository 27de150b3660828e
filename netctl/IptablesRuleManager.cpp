#include "netctl/IptablesRuleManager.h"

#include "common/Log.h"
#include "common/LogText.h"
#include "netctl/SockDiag.h"
#include "netctl/UidText.h"

namespace probemond {

int32_t KernelSocketKiller::killUidSockets(const char* uid) { return probemond::killUidSockets(uid); }

namespace {

// The tree's two entries, which netd's start flushes with the chains they sit in.
constexpr char kOutputJump[] = "-t mangle -I OUTPUT -j kest_probemon_uid";
constexpr char kPostroutingJump[] = "-t nat -A POSTROUTING -j kest_probemon_snat";

// The tree, in the order it is built. A restarted daemon finds its chains:
// -N fails harmlessly and -F empties them.
constexpr const char* kChainTree[] = {
        "-t mangle -N kest_probemon_uid",
        "-t mangle -F kest_probemon_uid",
        kOutputJump,
        "-t mangle -N kest_probemon_iface",
        "-t mangle -F kest_probemon_iface",
        "-t mangle -N kest_probemon_iface_rmnet",
        "-t mangle -F kest_probemon_iface_rmnet",
        "-t mangle -I kest_probemon_iface -j kest_probemon_iface_rmnet",
        "-t mangle -N kest_probemon_iface_auto",
        "-t mangle -F kest_probemon_iface_auto",
        "-t mangle -A kest_probemon_iface -j kest_probemon_iface_auto",
        "-t mangle -N kest_probemon_iface_wlan",
        "-t mangle -F kest_probemon_iface_wlan",
        "-t mangle -A kest_probemon_iface -j kest_probemon_iface_wlan",
        "-t nat -N kest_probemon_snat",
        "-t nat -F kest_probemon_snat",
        kPostroutingJump,
        "-t nat -N kest_masquerade",
        "-t nat -F kest_masquerade",
};

// iptables -C: 0 when the rule is there, 1 when it is not; anything else
// (a bad line, the xtables lock, a command that did not run) tells nothing.
JumpState jumpState(int status) {
    if (status == 0) return JumpState::kInPlace;
    if (status == 1) return JumpState::kMissing;
    return JumpState::kUnknown;
}

bool refuseBadUid(const char* caller, const char* uid) {
    if (isValidUidText(uid)) return false;
    LOGE("%s Invalid uid %s", caller, printableForLog(uid).c_str());
    return true;
}

}  // namespace

IptablesRuleManager::IptablesRuleManager(CommandExecutor& executor, SocketKiller& killer)
    : executor_(executor), killer_(killer) {
    LOGD("%s called", "IptablesRuleManager");
    MutexLock lock(mutex_);
    for (const char* args : kChainTree) runCommand(executor_, kIptables, "%s", args);
}

void IptablesRuleManager::initMangleRules(const char* iface, const char* mark, InterfaceKind kind) {
    MutexLock lock(mutex_);
    char chain[kChainNameSize] = {};
    formatBounded(chain, sizeof(chain), "kest_probemon_%s", iface);
    runCommand(executor_, kIptables, "-t mangle -N %s", chain);
    runCommand(executor_, kIptables, "-t mangle -F %s", chain);
    runCommand(executor_, kIptables, "-t mangle -A %s -j MARK --set-mark %s", chain, mark);
    runCommand(executor_, kIptables, "-t mangle -A %s -j CONNMARK --save-mark", chain);
    // Wi-Fi returns so traversal goes on after marking; cellular ends it with the mark set.
    const char* end = kind == InterfaceKind::kWifi ? "RETURN" : "ACCEPT";
    runCommand(executor_, kIptables, "-t mangle -A %s -j %s", chain, end);
}

void IptablesRuleManager::initNatRules(const char* iface) {
    MutexLock lock(mutex_);
    // Delete first so exactly one MASQUERADE rule exists per interface.
    runCommand(executor_, kIptables, "-t nat -D kest_masquerade -o %s -j MASQUERADE", iface);
    runCommand(executor_, kIptables, "-t nat -A kest_masquerade -o %s -j MASQUERADE", iface);
}

int32_t IptablesRuleManager::addUid(const char* uid) {
    // The UID reaches a shell command line.
    if (refuseBadUid("addUid", uid)) return 0;
    LOGD("Add uid %s", uid);
    MutexLock lock(mutex_);
    runCommand(executor_, kIptables, "-t mangle -D kest_probemon_uid -m owner --uid-owner %s -j kest_probemon_iface",
               uid);
    runCommand(executor_, kIptables, "-t nat -D kest_probemon_snat -m owner --uid-owner %s -j kest_masquerade", uid);
    runCommand(executor_, kIptables, "-t mangle -I kest_probemon_uid -m owner --uid-owner %s -j kest_probemon_iface",
               uid);
    runCommand(executor_, kIptables, "-t nat -I kest_probemon_snat -m owner --uid-owner %s -j kest_masquerade", uid);
    MutexLock listLock(uidListLock_);
    uidList.emplace_back(uid);
    return 0;
}

int32_t IptablesRuleManager::delUid(const char* uid) {
    // Bad text changes nothing, as in addUid, and never reaches the log verbatim.
    if (refuseBadUid("delUid", uid)) return 0;
    {
        MutexLock listLock(uidListLock_);
        uidList.clear();
    }
    LOGD("Delete uid %s", uid);
    MutexLock lock(mutex_);
    runCommand(executor_, kIptables, "-t mangle -F kest_probemon_uid");
    runCommand(executor_, kIptables, "-t nat -F kest_probemon_snat");
    return 0;
}

void IptablesRuleManager::selectIface(const char* iface, InterfaceKind kind, bool killSockets) {
    MutexLock lock(mutex_);
    if (kind == InterfaceKind::kCellular) {
        runCommand(executor_, kIptables, "-t mangle -F kest_probemon_iface_wlan");
        runCommand(executor_, kIptables, "-t mangle -F kest_probemon_iface_rmnet");
        runCommand(executor_, kIptables, "-t mangle -I kest_probemon_iface_rmnet -j kest_probemon_%s", iface);
    } else {
        // Wi-Fi means no manual cellular steering; only the auto branch can still mark.
        runCommand(executor_, kIptables, "-t mangle -F kest_probemon_iface_rmnet");
        runCommand(executor_, kIptables, "-t mangle -F kest_probemon_iface_wlan");
    }
    if (killSockets) killListedUidSockets("selectIface");
}

void IptablesRuleManager::enableAutoSelect(const char* iface) {
    MutexLock lock(mutex_);
    runCommand(executor_, kIptables, "-t mangle -F kest_probemon_iface_auto");
    runCommand(executor_, kIptables, "-t mangle -I kest_probemon_iface_auto -j kest_probemon_%s", iface);
    killListedUidSockets("enableAutoSelect");
}

void IptablesRuleManager::disableAutoSelect() {
    MutexLock lock(mutex_);
    runCommand(executor_, kIptables, "-t mangle -F kest_probemon_iface_auto");
}

void IptablesRuleManager::killUidSocket() { killListedUidSockets("killUidSocket"); }

void IptablesRuleManager::killListedUidSockets(const char* caller) {
    // Copy first: a socket kill can be slow and must not block addUid's list update.
    std::vector<std::string> uids = uidListSnapshot();
    for (const std::string& uid : uids) {
        if (killer_.killUidSockets(uid.c_str()) != 0) {
            LOGE("%s Failed to kill sockets of uid : %s", caller, uid.c_str());
        }
    }
}

HookCheck IptablesRuleManager::checkHooks() {
    MutexLock lock(mutex_);
    HookCheck found;
    found.outputJump = jumpState(runCheck(executor_, kIptables, "-t mangle -C OUTPUT -j kest_probemon_uid"));
    found.postroutingJump = jumpState(runCheck(executor_, kIptables, "-t nat -C POSTROUTING -j kest_probemon_snat"));
    return found;
}

void IptablesRuleManager::restoreJumps(const HookCheck& found) {
    MutexLock lock(mutex_);
    if (found.outputJump == JumpState::kMissing) runCommand(executor_, kIptables, "%s", kOutputJump);
    if (found.postroutingJump == JumpState::kMissing) runCommand(executor_, kIptables, "%s", kPostroutingJump);
}

std::vector<std::string> IptablesRuleManager::uidListSnapshot() const {
    MutexLock listLock(uidListLock_);
    return uidList;
}

}  // namespace probemond
