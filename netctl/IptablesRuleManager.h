// The mangle/nat chain tree that marks the packets of steered UIDs for one
// interface and masquerades them on it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/ThreadAnnotations.h"

namespace probemond {

// Seam under the socket destruction done after a steering change. The
// default calls killUidSockets(); tests install a recorder so that no real
// socket of the host is touched.
class SocketKiller {
public:
    virtual ~SocketKiller() = default;
    virtual int32_t killUidSockets(const char* uid) = 0;
};

// Installs `killer` (nullptr restores the default); returns the previous one.
SocketKiller* setSocketKiller(SocketKiller* killer);

}  // namespace probemond

class IptablesRuleManager {
public:
    // Creates the manager and its chain tree on first call.
    static IptablesRuleManager* instance();

    void initMangleRules(const char* iface, const char* mark) PM_EXCLUDES(mMutex);
    void initNatRules(const char* iface) PM_EXCLUDES(mMutex);
    int32_t addUid(const char* uid) PM_EXCLUDES(mMutex, mUidListLock);
    // Removes every steered UID; the argument is only logged.
    int32_t delUid(const char* uid) PM_EXCLUDES(mMutex, mUidListLock);
    // -1 for an empty or unknown name; that path leaves the mutex held.
    int32_t selectIface(const char* iface, bool killSockets) PM_EXCLUDES(mMutex, mUidListLock);
    void enableAutoSelect(const char* iface) PM_EXCLUDES(mMutex, mUidListLock);
    void disableAutoSelect() PM_EXCLUDES(mMutex);
    // Runs without the manager's mutex.
    void killUidSocket() PM_EXCLUDES(mUidListLock);

    // A copy of uidList; takes only the short list lock, never the mutex that
    // a failed selectIface leaves held.
    std::vector<std::string> uidListSnapshot() const PM_EXCLUDES(mUidListLock);

    // Tests only: the next instance() builds a fresh manager (and issues the
    // creation commands again). The old one is kept alive, never destroyed.
    static void resetForTest();
    // Tests only: whether another thread holds the manager's mutex.
    bool mutexHeldForTest() PM_NO_THREAD_SAFETY_ANALYSIS;

private:
    IptablesRuleManager() = default;
    void createChains() PM_EXCLUDES(mMutex);
    void killListedUidSockets(const char* caller) PM_EXCLUDES(mUidListLock);

    probemond::Mutex mMutex;  // serialises command sequences
    mutable probemond::Mutex mUidListLock;  // short: never held across a command or a socket kill
    std::vector<std::string> uidList PM_GUARDED_BY(mUidListLock);
};
