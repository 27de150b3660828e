// probemond: brings up the firewall, policy-rule and interface managers, in
// that order, before the binder service can be reached, then idles for ever.
#include <unistd.h>

#include "common/Log.h"
#include "daemon/ProcessRoot.h"

namespace {

// Host liblog drops debug lines unless asked, while a device's logd keeps
// them, and most of this daemon's trace is debug.
void showDebugLinesOnHost() {
#ifdef PROBEMOND_HOST
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
#endif
}

}  // namespace

int main() {
    showDebugLinesOnHost();
    LOGD("probemond is starting...");

    android::sp<android::KestNetworkProbeMond> service = probemond::buildProcess();

    LOGD("%s called", "gotIt");
    LOGD("%s called", "gotIt");
    LOGD("%s called", "gotIt");

    service->useBinderIPC();

    for (;;) {
        usleep(1000000);
    }
}
