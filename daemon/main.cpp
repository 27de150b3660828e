// probemond: brings up the firewall, policy-rule and interface managers, in
// that order, before the binder service can be reached, then idles for ever.
#include <unistd.h>

#include <log/log.h>

#include "daemon/KestNetworkProbeMond.h"
#include "interfaces/InterfaceManager.h"
#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"

#ifdef PROBEMOND_HOST
#include <android/log.h>
#endif

namespace {

// The only host-specific line of the daemon: host liblog drops debug lines
// unless asked, while a device's logd keeps them, and most of this daemon's
// trace is debug.
void showDebugLinesOnHost() {
#ifdef PROBEMOND_HOST
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
#endif
}

}  // namespace

int main() {
    showDebugLinesOnHost();
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "probemond is starting...");

    IptablesRuleManager::instance();
    IpRuleManager::instance();
    InterfaceManager::instance();

    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s called", "gotIt");
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s called", "gotIt");
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s called", "gotIt");

    android::KestNetworkProbeMond::useBinderIPC();

    for (;;) {
        usleep(1000000);
    }
}
