// The shipping seams: a real Ping per worker, usleep, the rule managers and a
// detached auto-select thread.
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/Log.h"
#include "interfaces/InterfaceManager.h"
#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"
#include "probe/Ping.h"

namespace probemond::ifaces {

namespace {

class PingProber : public RttProber {
public:
    int32_t ping(const char* iface, const char* server) override { return ping_.ping(iface, server); }
    bool lastProbeFailed() const override { return ping_.lastProbeFailed; }

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

class RuleManagers : public SteeringControl {
public:
    void initMangleRules(const char* iface, const char* mark) override {
        IptablesRuleManager::instance()->initMangleRules(iface, mark);
    }
    void initNatRules(const char* iface) override {
        IptablesRuleManager::instance()->initNatRules(iface);
    }
    int32_t selectIface(const char* iface, bool killSockets) override {
        return IptablesRuleManager::instance()->selectIface(iface, killSockets);
    }
    void enableAutoSelect(const char* iface) override {
        IptablesRuleManager::instance()->enableAutoSelect(iface);
    }
    void disableAutoSelect() override { IptablesRuleManager::instance()->disableAutoSelect(); }
    void killUidSocket() override { IptablesRuleManager::instance()->killUidSocket(); }
    int32_t addIpRule(const char* table, const char* fwmark, const char* prio) override {
        return IpRuleManager::instance()->addIpRule(table, fwmark, prio);
    }
    int32_t delIpRule(const char* prio) override { return IpRuleManager::instance()->delIpRule(prio); }
};

class DetachedLauncher : public AutoSelectLauncher {
public:
    void start(std::function<void()> body) override {
        auto* owned = new std::function<void()>(std::move(body));
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        pthread_t thread;
        const int rc = pthread_create(&thread, &attr, run, owned);
        pthread_attr_destroy(&attr);
        if (rc != 0) {
            // Like a std::thread that cannot start in a build without exceptions.
            LOGF("thread constructor failed");
            fprintf(stderr, "thread constructor failed: %s\n", strerror(rc));
            abort();
        }
    }

private:
    static void* run(void* arg) {
        std::unique_ptr<std::function<void()>> body(static_cast<std::function<void()>*>(arg));
        (*body)();
        return nullptr;
    }
};

}  // namespace

// Never destroyed: workers may still use them while the process exits.
RttProberFactory& defaultProberFactory() {
    static auto* factory = new PingProberFactory;
    return *factory;
}

Sleeper& defaultSleeper() {
    static auto* sleeper = new UsleepSleeper;
    return *sleeper;
}

SteeringControl& defaultSteering() {
    static auto* steering = new RuleManagers;
    return *steering;
}

AutoSelectLauncher& defaultLauncher() {
    static auto* launcher = new DetachedLauncher;
    return *launcher;
}

}  // namespace probemond::ifaces
