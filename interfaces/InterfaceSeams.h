// The interface manager's seams: the probe, the sleeper, the client callback,
// the firewall/routing calls and the start of a thread. The daemon's
// composition root hands in the real ones; tests hand in doubles.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "common/InterfaceKind.h"
#include "common/ProbeResult.h"

namespace probemond {

struct InterfaceInfo;

// One RTT measurement; each ping worker owns its own prober.
class RttProber {
public:
    virtual ~RttProber() = default;
    virtual ProbeResult ping(const char* iface, const char* server) = 0;
};

class RttProberFactory {
public:
    virtual ~RttProberFactory() = default;
    // Called once per worker, when the worker is set up.
    virtual std::unique_ptr<RttProber> create(const InterfaceInfo& info) = 0;
};

class Sleeper {
public:
    virtual ~Sleeper() = default;
    virtual void sleepUs(uint32_t us) = 0;
};

// Tells the client which interface auto-select steers to ("" when it stops).
class AutoSelectNotifier {
public:
    virtual ~AutoSelectNotifier() = default;
    virtual int32_t notify(const std::string& iface) = 0;
};

// The firewall and policy-rule operations the manager drives.
class SteeringControl {
public:
    virtual ~SteeringControl() = default;
    virtual void initMangleRules(const char* iface, const char* mark, InterfaceKind kind) = 0;
    virtual void initNatRules(const char* iface) = 0;
    virtual int32_t selectIface(const char* iface, InterfaceKind kind, bool killSockets) = 0;
    virtual void enableAutoSelect(const char* iface) = 0;
    virtual void disableAutoSelect() = 0;
    virtual void killUidSocket() = 0;
    virtual int32_t addIpRule(const char* table, const char* fwmark, const char* prio) = 0;
    virtual int32_t delIpRule(const char* prio) = 0;
};

// Starts the ping workers and the auto-select thread; the shipping threads
// are detached.
class ThreadLauncher {
public:
    virtual ~ThreadLauncher() = default;
    // 0, or the error number when the thread could not start.
    virtual int start(std::function<void()> body) = 0;
};

}  // namespace probemond
