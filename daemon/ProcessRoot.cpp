#include "daemon/ProcessRoot.h"

#include <pthread.h>
#include <unistd.h>

#include <memory>

#include "common/Log.h"
#include "common/Properties.h"
#include "daemon/IKestNetworkProbeMonCallback.h"
#include "interfaces/InterfaceManager.h"
#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"
#include "netctl/NetdRestartWatcher.h"
#include "netctl/PropertyWatch.h"
#include "netctl/WrapperCommand.h"
#include "probe/Ping.h"

namespace probemond {
namespace {

class PingProber : public RttProber {
public:
    ProbeResult ping(const char* iface, const char* server) override { return ping_.ping(iface, server); }

private:
    Ping ping_;  // each worker keeps its own sequence numbers
};

class PingProberFactory : public RttProberFactory {
public:
    std::unique_ptr<RttProber> create(const InterfaceInfo&) override {
        return std::make_unique<PingProber>();
    }
};

class UsleepSleeper : public Sleeper {
public:
    void sleepUs(uint32_t us) override { usleep(us); }
};

// The client's callback service, looked up anew on every call.
class CallbackNotifier : public AutoSelectNotifier {
public:
    void notify(const std::string& iface) override { android::IKestNetworkProbeMonCallback::notify(iface); }
};

class RuleManagers : public SteeringControl {
public:
    RuleManagers(IptablesRuleManager& iptables, IpRuleManager& ipRules)
        : iptables_(iptables), ipRules_(ipRules) {}

    void prepareInterface(const char* iface, const char* mark, InterfaceKind kind) override {
        iptables_.initMangleRules(iface, mark, kind);
        iptables_.initNatRules(iface);
    }
    void steerToUserChoice(const char* iface, InterfaceKind kind, bool resetSockets) override {
        iptables_.selectIface(iface, kind, resetSockets);
    }
    void steerToAutoChoice(const char* iface) override { iptables_.enableAutoSelect(iface); }
    void clearAutoChoice() override { iptables_.disableAutoSelect(); }
    void resetSteeredSockets() override { iptables_.killUidSocket(); }
    void addIpRule(const char* table, const char* fwmark, const char* prio) override {
        ipRules_.addIpRule(table, fwmark, prio);
    }
    bool addIpRuleAccepted(const char* table, const char* fwmark, const char* prio) override {
        return ipRules_.addIpRuleAccepted(table, fwmark, prio);
    }
    void delIpRule(const char* prio) override { ipRules_.delIpRule(prio); }

private:
    IptablesRuleManager& iptables_;
    IpRuleManager& ipRules_;
};

// What a netd restart takes: the iptables manager's two jumps and the policy
// rules the interface manager keeps a list of.
class PlatformHooks : public SteeringHooks {
public:
    PlatformHooks(IptablesRuleManager& iptables, InterfaceManager& interfaces)
        : iptables_(iptables), interfaces_(interfaces) {}

    HookCheck checkHooks() override { return iptables_.checkHooks(); }
    void restoreJumps(const HookCheck& found) override { iptables_.restoreJumps(found); }
    IpRuleRestore restoreIpRules() override { return interfaces_.restoreIpRules(); }
    IpRuleRestore retryRefusedIpRules() override { return interfaces_.retryRefusedIpRules(); }

private:
    IptablesRuleManager& iptables_;
    InterfaceManager& interfaces_;
};

class DetachedLauncher : public ThreadLauncher {
public:
    int start(std::function<void()> body) override {
        auto owned = std::make_unique<std::function<void()>>(std::move(body));
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        pthread_t thread;
        const int rc = pthread_create(&thread, &attr, run, owned.get());
        pthread_attr_destroy(&attr);
        if (rc == 0) owned.release();  // the thread owns it now
        return rc;
    }

private:
    static void* run(void* arg) {
        std::unique_ptr<std::function<void()>> body(static_cast<std::function<void()>*>(arg));
        (*body)();
        return nullptr;
    }
};

// Members are built in declaration order, which is the start-up order.
struct Process {
    PopenCommandExecutor executor;
    KernelSocketKiller killer;
    IptablesRuleManager iptables{executor, killer};
    IpRuleManager ipRules{executor};

    PingProberFactory probers;
    UsleepSleeper sleeper;
    CallbackNotifier notifier;
    RuleManagers steering{iptables, ipRules};
    DetachedLauncher launcher;
    InterfaceManager interfaces{probers, sleeper, notifier, steering, launcher};

    SystemPropertyWatch zygoteState{kZygoteStateProperty};
    PlatformHooks hooks{iptables, interfaces};
    NetdRestartWatcher netdRestarts{zygoteState, hooks};
};

}  // namespace

android::sp<android::KestNetworkProbeMond> buildProcess() {
    static Process* const process = new Process();
    process->interfaces.initAllPingThread();
    NetdRestartWatcher* watcher = &process->netdRestarts;
    if (process->launcher.start([watcher] { watcher->run(); }) != 0) fatal("thread constructor failed");
    return new android::KestNetworkProbeMond(process->interfaces, process->iptables, process->netdRestarts);
}

}  // namespace probemond
