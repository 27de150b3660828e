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
    virtual void notify(const std::string& iface) = 0;
};

// What the manager has the firewall and the policy rules do.
class SteeringControl {
public:
    virtual ~SteeringControl() = default;
    // The interface's marking chain and its MASQUERADE rule, at start-up.
    virtual void prepareInterface(const char* iface, const char* mark, InterfaceKind kind) = 0;
    // Steers by the user's choice; `resetSockets` then destroys the steered
    // UIDs' open sockets.
    virtual void steerToUserChoice(const char* iface, InterfaceKind kind, bool resetSockets) = 0;
    // Steers by auto-select's choice and destroys the steered UIDs' sockets.
    virtual void steerToAutoChoice(const char* iface) = 0;
    virtual void clearAutoChoice() = 0;
    virtual void resetSteeredSockets() = 0;
    // The policy rule that sends packets with `fwmark` through `table`.
    virtual void addIpRule(const char* table, const char* fwmark, const char* prio) = 0;
    // The same lines; false when the tool refused the add.
    virtual bool addIpRuleAccepted(const char* table, const char* fwmark, const char* prio) = 0;
    virtual void delIpRule(const char* prio) = 0;
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
