#include <binder/Binder.h>

#include <unistd.h>

#include <binder/IInterface.h>
#include <binder/Parcel.h>

namespace android {

IBinder::IBinder() = default;
IBinder::~IBinder() = default;

sp<IInterface> IBinder::queryLocalInterface(const String16&) { return nullptr; }
BBinder* IBinder::localBinder() { return nullptr; }
BpBinder* IBinder::remoteBinder() { return nullptr; }

BBinder::BBinder() = default;
BBinder::~BBinder() = default;

const String16& BBinder::getInterfaceDescriptor() const {
    static const String16* const kEmpty = new String16();
    return *kEmpty;
}

bool BBinder::isBinderAlive() const { return true; }
status_t BBinder::pingBinder() { return OK; }
status_t BBinder::dump(int, const Vector<String16>&) { return OK; }
BBinder* BBinder::localBinder() { return this; }

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    status_t err;
    switch (code) {
        case PING_TRANSACTION:
            err = pingBinder();
            break;
        case DEBUG_PID_TRANSACTION:
            err = reply != nullptr ? reply->writeInt32(getpid()) : OK;
            break;
        default:
            err = onTransact(code, data, reply, flags);
            break;
    }
    if (reply != nullptr) reply->setDataPosition(0);
    return err;
}

status_t BBinder::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t) {
    switch (code) {
        case INTERFACE_TRANSACTION:
            if (reply == nullptr) return BAD_VALUE;
            reply->writeString16(getInterfaceDescriptor());
            return OK;
        case DUMP_TRANSACTION: {
            const int fd = data.readFileDescriptor();
            const int32_t argc = data.readInt32();
            Vector<String16> args;
            for (int32_t i = 0; i < argc && data.dataAvail() > 0; i++) {
                const size_t before = data.dataPosition();
                args.add(data.readString16());
                // A tail too short for a length never advances: a huge argc would spin.
                if (data.dataPosition() == before) break;
            }
            return dump(fd, args);
        }
        default:
            return UNKNOWN_TRANSACTION;
    }
}

BpRefBase::BpRefBase(const sp<IBinder>& o) : mRemote(o) {}
BpRefBase::~BpRefBase() = default;

IInterface::IInterface() = default;
IInterface::~IInterface() = default;

sp<IBinder> IInterface::asBinder(const IInterface* iface) {
    if (iface == nullptr) return nullptr;
    return const_cast<IInterface*>(iface)->onAsBinder();
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) {
    if (iface == nullptr) return nullptr;
    return iface->onAsBinder();
}

}  // namespace android
