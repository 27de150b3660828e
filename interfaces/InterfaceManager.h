// The registry of the device's interfaces: their records and ping workers,
// the workers' controls, policy rules, manual selection, and the thread that
// drives the auto-select engine.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/IpRuleRestore.h"
#include "common/ThreadAnnotations.h"
#include "interfaces/AutoSelectEngine.h"
#include "interfaces/InterfaceInfo.h"
#include "interfaces/InterfaceSeams.h"
#include "interfaces/PingContext.h"
#include "interfaces/PingServers.h"
#include "interfaces/Selection.h"
#include "interfaces/Snapshot.h"

namespace probemond {

class PingWorker;

class InterfaceManager : private PingContext {
public:
    // Builds one record per row of the interface table and has `steering`
    // set up each interface's chains. Starts no thread; the seams must
    // outlive the manager.
    InterfaceManager(RttProberFactory& probers,
                     Sleeper& sleeper,
                     AutoSelectNotifier& notifier,
                     SteeringControl& steering,
                     ThreadLauncher& launcher);
    ~InterfaceManager() override;
    InterfaceManager(const InterfaceManager&) = delete;
    InterfaceManager& operator=(const InterfaceManager&) = delete;

    // Starts one ping worker per record, for the life of the process.
    void initAllPingThread();

    InterfaceInfo* getIfaceInfo(std::string name);
    bool isUserSelectData() override;
    bool isAutoSelectData() override;

    int32_t startPingThread(const char* iface);
    int32_t stopPingThread(const char* iface);
    int32_t stopAllPingThreads();
    int32_t suspendAllPingThreads();
    int32_t resumeAllPingThreads();
    int32_t getInterfaceRtt(const char* iface);

    int32_t addInterfaceIpRule(const char* iface) PM_EXCLUDES(ipRulesMutex_);
    int32_t delInterfaceIpRule(const char* iface) PM_EXCLUDES(ipRulesMutex_);
    // Adds again, with addInterfaceIpRule's lines and in the order they were
    // added, the rules that no delInterfaceIpRule undid, after something else
    // removed them. Never waits for ifaceMutex.
    IpRuleRestore restoreIpRules() PM_EXCLUDES(ipRulesMutex_);
    // The same for the rules whose add the tool refused at the last restore
    // or retry, and that the client has neither added nor deleted since.
    IpRuleRestore retryRefusedIpRules() PM_EXCLUDES(ipRulesMutex_);
    int32_t selectInterface(const char* iface) PM_EXCLUDES(selection_.ifaceMutex);

    // Stops a running engine, then starts a new engine thread on the listed
    // candidates.
    void enableAutoSelect(const char* ifaces) PM_EXCLUDES(selection_.ifaceMutex);
    void disableAutoSelect();

    const InterfaceMap& interfaces() const { return ifaceMap; }
    InterfaceManagerSnapshot snapshot() const;

private:
    bool isAutoSelectForcePing() const override { return engine_.isForcePing(); }

    void initInterfaceInfoAndMap();
    void initIptablesMangleNatRules();
    // A thread that cannot start ends the process, as a thread class does in
    // a build without exceptions.
    void startThread(std::function<void()> body);
    // The engine thread's body: holds the selection's mutex from before the
    // first step until after the last, so one engine runs at a time and
    // manual selection waits until auto-select is off.
    void runAutoSelect(const Candidates& ifaces) PM_EXCLUDES(selection_.ifaceMutex);
    struct IpRule {
        const InterfaceInfo* info;
        bool refused;  // at its latest restore
    };
    // With `readStatus`, whether the tool took the add; else true.
    bool issueIpRule(const InterfaceInfo& info, bool readStatus) PM_REQUIRES(ipRulesMutex_);
    void forgetIpRule(const InterfaceInfo* info) PM_REQUIRES(ipRulesMutex_);
    IpRuleRestore reissueIpRules(bool onlyRefused) PM_REQUIRES(ipRulesMutex_);

    RttProberFactory& probers_;
    Sleeper& sleeper_;
    SteeringControl& steering_;
    ThreadLauncher& launcher_;

    InterfaceMap ifaceMap;
    std::vector<std::unique_ptr<InterfaceInfo>> records_;
    Selection selection_;
    PingServers servers_{ifaceMap};
    AutoSelectEngine engine_;
    std::vector<std::unique_ptr<PingWorker>> workers_;

    // Held across the rule commands, so that the list and the kernel change
    // in the same order whatever binder calls run at once.
    Mutex ipRulesMutex_;
    std::vector<IpRule> ipRules_ PM_GUARDED_BY(ipRulesMutex_);  // oldest add first
};

}  // namespace probemond
