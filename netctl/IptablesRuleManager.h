// The mangle/nat chain tree that marks the packets of steered UIDs for one
// interface and masquerades them on it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/InterfaceKind.h"
#include "common/ThreadAnnotations.h"
#include "netctl/WrapperCommand.h"

namespace probemond {

// Destroys one UID's sockets after a steering change.
class SocketKiller {
public:
    virtual ~SocketKiller() = default;
    // 0, or non-zero when the sockets could not be destroyed.
    virtual int32_t killUidSockets(const char* uid) = 0;
};

// The real one: killUidSockets() through NETLINK_SOCK_DIAG.
class KernelSocketKiller : public SocketKiller {
public:
    int32_t killUidSockets(const char* uid) override;
};

// Whether one of the two jumps into the chain tree (from mangle OUTPUT and
// nat POSTROUTING) is there, as iptables -C answered.
enum class JumpState { kInPlace, kMissing, kUnknown };

struct HookCheck {
    JumpState outputJump = JumpState::kUnknown;
    JumpState postroutingJump = JumpState::kUnknown;
};

class IptablesRuleManager {
public:
    // Builds the chain tree. `executor` and `killer` must outlive the manager.
    IptablesRuleManager(CommandExecutor& executor, SocketKiller& killer);
    IptablesRuleManager(const IptablesRuleManager&) = delete;
    IptablesRuleManager& operator=(const IptablesRuleManager&) = delete;

    void initMangleRules(const char* iface, const char* mark, InterfaceKind kind) PM_EXCLUDES(mutex_);
    void initNatRules(const char* iface) PM_EXCLUDES(mutex_);
    int32_t addUid(const char* uid) PM_EXCLUDES(mutex_, uidListLock_);
    // Removes every steered UID; the argument is only logged.
    int32_t delUid(const char* uid) PM_EXCLUDES(mutex_, uidListLock_);
    void selectIface(const char* iface, InterfaceKind kind, bool killSockets) PM_EXCLUDES(mutex_, uidListLock_);
    void enableAutoSelect(const char* iface) PM_EXCLUDES(mutex_, uidListLock_);
    void disableAutoSelect() PM_EXCLUDES(mutex_);
    // Runs without the manager's mutex.
    void killUidSocket() PM_EXCLUDES(uidListLock_);

    // Asks iptables whether the two jumps are there; changes nothing.
    HookCheck checkHooks() PM_EXCLUDES(mutex_);
    // Adds back, with the start-up lines, each jump `found` says is missing.
    void restoreJumps(const HookCheck& found) PM_EXCLUDES(mutex_);

    // A copy of uidList; takes only the short list lock, never the mutex that
    // a slow command sequence holds.
    std::vector<std::string> uidListSnapshot() const PM_EXCLUDES(uidListLock_);

private:
    void killListedUidSockets(const char* caller) PM_EXCLUDES(uidListLock_);

    CommandExecutor& executor_;
    SocketKiller& killer_;
    Mutex mutex_;  // serialises command sequences
    mutable Mutex uidListLock_;  // short: never held across a command or a socket kill
    std::vector<std::string> uidList PM_GUARDED_BY(uidListLock_);
};

}  // namespace probemond
