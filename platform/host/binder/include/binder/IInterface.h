// Host stand-in for libbinder's IInterface and the Bn/Bp templates.
#pragma once

#include <binder/Binder.h>

namespace android {

class IInterface : public virtual RefBase {
public:
    IInterface();
    static sp<IBinder> asBinder(const IInterface* iface);
    static sp<IBinder> asBinder(const sp<IInterface>& iface);

protected:
    ~IInterface() override;
    virtual IBinder* onAsBinder() = 0;
};

template <typename INTERFACE>
inline sp<INTERFACE> interface_cast(const sp<IBinder>& obj) {
    return INTERFACE::asInterface(obj);
}

template <typename INTERFACE>
class BnInterface : public INTERFACE, public BBinder {
public:
    sp<IInterface> queryLocalInterface(const String16& _descriptor) override;
    const String16& getInterfaceDescriptor() const override;
    typedef INTERFACE BaseInterface;

protected:
    IBinder* onAsBinder() override;
};

template <typename INTERFACE>
class BpInterface : public INTERFACE, public BpRefBase {
public:
    explicit BpInterface(const sp<IBinder>& remote);
    typedef INTERFACE BaseInterface;

protected:
    IBinder* onAsBinder() override;
};

template <typename INTERFACE>
inline sp<IInterface> BnInterface<INTERFACE>::queryLocalInterface(const String16& _descriptor) {
    if (_descriptor == INTERFACE::descriptor) return sp<IInterface>(this);
    return nullptr;
}

template <typename INTERFACE>
inline const String16& BnInterface<INTERFACE>::getInterfaceDescriptor() const {
    return INTERFACE::getInterfaceDescriptor();
}

template <typename INTERFACE>
IBinder* BnInterface<INTERFACE>::onAsBinder() {
    return this;
}

template <typename INTERFACE>
inline BpInterface<INTERFACE>::BpInterface(const sp<IBinder>& remote) : BpRefBase(remote) {}

template <typename INTERFACE>
inline IBinder* BpInterface<INTERFACE>::onAsBinder() {
    return remote();
}

}  // namespace android
