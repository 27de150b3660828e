// The binder service: thirteen operations forwarded to the interface and
// iptables managers, plus a state dump for people debugging a device.
#pragma once

#include <cstdint>
#include <string>

#include <utils/String16.h>
#include <utils/StrongPointer.h>
#include <utils/Vector.h>

#include "daemon/IKestNetworkProbeMon.h"

namespace probemond {
class InterfaceManager;
class IptablesRuleManager;
class NetdRestartWatcher;
}  // namespace probemond

namespace android {

class KestNetworkProbeMond : public BnKestNetworkProbeMon {
public:
    // The managers and the watcher must outlive the service.
    KestNetworkProbeMond(probemond::InterfaceManager& interfaces, probemond::IptablesRuleManager& iptables,
                         const probemond::NetdRestartWatcher& netdRestarts);

    // Registers this object as "probemond_Binder" on /dev/vndbinder and starts
    // the binder thread pool. Later calls register the same object again.
    void useBinderIPC();

    int32_t startPingInternal(std::string iface) override;
    int32_t stopPingInternal(std::string iface) override;
    int32_t stopAllPingInternal() override;
    int32_t suspendAllPingInternal() override;
    int32_t resumeAllPingInternal() override;
    int32_t getRttInternal(std::string iface) override;
    int32_t addUidInternal(std::string uid) override;
    int32_t delUidInternal(std::string uid) override;
    int32_t addIpRuleInternal(std::string iface) override;
    int32_t delIpRuleInternal(std::string iface) override;
    int32_t selectInterfaceInternal(std::string iface) override;
    int32_t enableAutoSelectInternal(std::string ifaces) override;
    int32_t disableAutoSelectInternal() override;

    // Writes the daemon's state as text. Reads only snapshots that never wait
    // for the selection or firewall mutexes, so it answers even while
    // selection is locked for good or a command sequence is slow.
    status_t dump(int fd, const Vector<String16>& args) override;

private:
    probemond::InterfaceManager& interfaces_;
    probemond::IptablesRuleManager& iptables_;
    const probemond::NetdRestartWatcher& netdRestarts_;
};

}  // namespace android
