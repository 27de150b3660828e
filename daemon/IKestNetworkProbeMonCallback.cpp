#include "daemon/IKestNetworkProbeMonCallback.h"

#include <unistd.h>

#include <binder/IServiceManager.h>

#include "common/Log.h"

namespace android {
namespace {

constexpr int kLookups = 3;
constexpr useconds_t kLookupPauseUs = 5000;

}  // namespace

const String16& IKestNetworkProbeMonCallback::descriptor = *new String16(kServiceName);

const String16& IKestNetworkProbeMonCallback::getInterfaceDescriptor() const { return descriptor; }

sp<IKestNetworkProbeMonCallback> IKestNetworkProbeMonCallback::asInterface(const sp<IBinder>& obj) {
    if (obj == nullptr) return nullptr;
    sp<IInterface> local = obj->queryLocalInterface(descriptor);
    if (local != nullptr) return static_cast<IKestNetworkProbeMonCallback*>(local.get());
    return new BpKestNetworkProbeMonCallback(obj);
}

int32_t IKestNetworkProbeMonCallback::notify(std::string iface) {
    sp<IServiceManager> sm = defaultServiceManager();
    sp<IBinder> binder;
    for (int i = 0; i < kLookups; i++) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        binder = sm->getService(String16(kServiceName));
#pragma GCC diagnostic pop
        if (binder != nullptr) break;
        // The pause follows every empty answer, the last one included.
        usleep(kLookupPauseUs);
    }
    if (binder == nullptr) return 0;
    // Looked up anew each time, so a restarted client is found on the next switch.
    return asInterface(binder)->onAutoSelect(iface);
}

BpKestNetworkProbeMonCallback::BpKestNetworkProbeMonCallback(const sp<IBinder>& impl)
    : BpInterface<IKestNetworkProbeMonCallback>(impl) {}

int32_t BpKestNetworkProbeMonCallback::onAutoSelect(std::string iface) {
    Parcel data;
    Parcel reply;
    data.writeInterfaceToken(IKestNetworkProbeMonCallback::getInterfaceDescriptor());
    data.writeCString(iface.c_str());
    const status_t status = remote()->transact(ON_AUTO_SELECT, data, &reply, 0);
    if (status != OK) {
        LOGE("%s : Couldn't contact remote: %d", "onAutoSelect", status);
    }
    reply.setDataPosition(0);
    int32_t result = 0;
    const status_t readStatus = reply.readInt32(&result);
    LOGD("BpKestNetworkProbeMonCallback::onAutoSelect(%s) = %d (status: %d)", iface.c_str(),
         result, readStatus);
    return result;
}

status_t BnKestNetworkProbeMonCallback::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                                   uint32_t flags) {
    if (code != ON_AUTO_SELECT) return BBinder::onTransact(code, data, reply, flags);
    if (!data.checkInterface(this)) return PERMISSION_DENIED;
    const char* iface = data.readCString();
    if (iface == nullptr) return BAD_VALUE;
    const int32_t result = onAutoSelect(iface);
    if (reply != nullptr) reply->writeInt32(result);
    return OK;
}

}  // namespace android
