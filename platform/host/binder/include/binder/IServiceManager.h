// Host stand-in for libbinder's service manager client.
#pragma once

#include <binder/IInterface.h>
#include <utils/Vector.h>

namespace android {

class IServiceManager : public IInterface {
public:
    enum {
        DUMP_FLAG_PRIORITY_CRITICAL = 1 << 0,
        DUMP_FLAG_PRIORITY_HIGH = 1 << 1,
        DUMP_FLAG_PRIORITY_NORMAL = 1 << 2,
        DUMP_FLAG_PRIORITY_DEFAULT = 1 << 3,
        DUMP_FLAG_PRIORITY_ALL = DUMP_FLAG_PRIORITY_CRITICAL | DUMP_FLAG_PRIORITY_HIGH |
                                 DUMP_FLAG_PRIORITY_NORMAL | DUMP_FLAG_PRIORITY_DEFAULT,
        DUMP_FLAG_PROTO = 1 << 4,
    };

    // Same deprecation as the platform; on the host it never polls and answers at once.
    [[deprecated("this polls for 5s on a device, prefer checkService")]]
    virtual sp<IBinder> getService(const String16& name) const = 0;
    virtual sp<IBinder> checkService(const String16& name) const = 0;
    virtual status_t addService(const String16& name, const sp<IBinder>& service,
                                bool allowIsolated = false,
                                int dumpsysFlags = DUMP_FLAG_PRIORITY_DEFAULT) = 0;
    virtual Vector<String16> listServices(int dumpsysFlags = DUMP_FLAG_PRIORITY_ALL) = 0;
};

sp<IServiceManager> defaultServiceManager();

// Host only: checkService that says why it found nothing: NAME_NOT_FOUND, or
// PERMISSION_DENIED when the service's socket does not admit this process.
// On a device a service the caller may not find is simply absent.
status_t hostCheckService(const String16& name, sp<IBinder>* service);

}  // namespace android
