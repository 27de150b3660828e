#include "tools/probemonctl/ServiceLookup.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "daemon/IKestNetworkProbeMon.h"

using namespace android;

namespace probemond::ctl {

sp<IBinder> findService(std::string* error) {
    const char* name = IKestNetworkProbeMon::kServiceName;
#ifdef PROBEMOND_HOST
    // The host stand-in's services are sockets in a folder: name it, and tell
    // a refused caller from an absent service, which a device cannot.
    sp<IBinder> binder;
    const status_t status = hostCheckService(String16(name), &binder);
    if (binder != nullptr) return binder;
    const std::string dir = ProcessState::self()->hostDirectory();
    if (status == PERMISSION_DENIED) {
        *error = "permission denied: " + dir + "/" + name +
                 " (only its owner, root and the group in PROBEMOND_BINDER_GROUP may call it)";
    } else {
        *error = std::string("service ") + name + " is not running (looked in " + dir + ")";
    }
    return nullptr;
#else
    sp<IBinder> binder = defaultServiceManager()->checkService(String16(name));
    if (binder == nullptr) *error = std::string("service ") + name + " is not running";
    return binder;
#endif
}

}  // namespace probemond::ctl
