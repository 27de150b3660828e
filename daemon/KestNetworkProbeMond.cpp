#include "daemon/KestNetworkProbeMond.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include "common/Log.h"
#include "daemon/KestNetworkProbeMondDump.h"
#include "interfaces/InterfaceManager.h"
#include "netctl/IptablesRuleManager.h"
#include "netctl/NetdRestartWatcher.h"

namespace android {

KestNetworkProbeMond::KestNetworkProbeMond(probemond::InterfaceManager& interfaces,
                                           probemond::IptablesRuleManager& iptables,
                                           const probemond::NetdRestartWatcher& netdRestarts)
    : interfaces_(interfaces), iptables_(iptables), netdRestarts_(netdRestarts) {}

void KestNetworkProbeMond::useBinderIPC() {
    ProcessState::initWithDriver(kDriver);
    sp<IServiceManager> sm = defaultServiceManager();
    String16 name(kServiceName);
    sp<KestNetworkProbeMond> service = this;
    // Not reachable from isolated processes; no retry: a daemon that failed
    // to register keeps running unreachable.
    sm->addService(name, service, false, IServiceManager::DUMP_FLAG_PRIORITY_DEFAULT);
    sm.clear();
    ProcessState::self()->startThreadPool();
}

int32_t KestNetworkProbeMond::startPingInternal(std::string iface) {
    LOGD("%s, iface=%s", "startPingInternal", iface.c_str());
    return interfaces_.startPingThread(iface.c_str());
}

int32_t KestNetworkProbeMond::stopPingInternal(std::string iface) {
    LOGD("%s, iface=%s", "stopPingInternal", iface.c_str());
    return interfaces_.stopPingThread(iface.c_str());
}

int32_t KestNetworkProbeMond::stopAllPingInternal() {
    LOGD("%s", "stopAllPingInternal");
    return interfaces_.stopAllPingThreads();
}

int32_t KestNetworkProbeMond::suspendAllPingInternal() {
    LOGD("%s", "suspendAllPingInternal");
    return interfaces_.suspendAllPingThreads();
}

int32_t KestNetworkProbeMond::resumeAllPingInternal() {
    LOGD("%s", "resumeAllPingInternal");
    return interfaces_.resumeAllPingThreads();
}

int32_t KestNetworkProbeMond::getRttInternal(std::string iface) {
    LOGD("%s, iface=%s", "getRttInternal", iface.c_str());
    return interfaces_.getInterfaceRtt(iface.c_str());
}

int32_t KestNetworkProbeMond::addUidInternal(std::string uid) {
    LOGD("%s, uid=%s", "addUidInternal", uid.c_str());
    return iptables_.addUid(uid.c_str());
}

int32_t KestNetworkProbeMond::delUidInternal(std::string uid) {
    // The uid stays out of this line; the iptables manager logs it.
    LOGD("%s", "delUidInternal");
    return iptables_.delUid(uid.c_str());
}

int32_t KestNetworkProbeMond::addIpRuleInternal(std::string iface) {
    LOGD("%s, iface=%s", "addIpRuleInternal", iface.c_str());
    return interfaces_.addInterfaceIpRule(iface.c_str());
}

int32_t KestNetworkProbeMond::delIpRuleInternal(std::string iface) {
    LOGD("%s, iface=%s", "delIpRuleInternal", iface.c_str());
    return interfaces_.delInterfaceIpRule(iface.c_str());
}

int32_t KestNetworkProbeMond::selectInterfaceInternal(std::string iface) {
    LOGD("%s, iface=%s", "selectInterfaceInternal", iface.c_str());
    return interfaces_.selectInterface(iface.c_str());
}

int32_t KestNetworkProbeMond::enableAutoSelectInternal(std::string ifaces) {
    LOGD("%s, ifaces=%s", "enableAutoSelectInternal", ifaces.c_str());
    interfaces_.enableAutoSelect(ifaces.c_str());
    return 0;
}

int32_t KestNetworkProbeMond::disableAutoSelectInternal() {
    LOGD("%s", "disableAutoSelectInternal");
    interfaces_.disableAutoSelect();
    return 0;
}

status_t KestNetworkProbeMond::dump(int fd, const Vector<String16>& /*args*/) {
    return probemond::writeState(fd, interfaces_.snapshot(), iptables_.uidListSnapshot(),
                                 netdRestarts_.restorations());
}

}  // namespace android
