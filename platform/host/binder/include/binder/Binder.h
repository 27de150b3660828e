// Host stand-in for libbinder's BBinder (local object) and BpRefBase.
#pragma once

#include <binder/IBinder.h>

namespace android {

class BBinder : public IBinder {
public:
    BBinder();

    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    status_t dump(int fd, const Vector<String16>& args) override;
    // Rewinds data, answers ping itself and hands everything else to onTransact.
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                      uint32_t flags = 0) final;
    BBinder* localBinder() override;

protected:
    ~BBinder() override;
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                uint32_t flags = 0);
};

class BpRefBase : public virtual RefBase {
protected:
    explicit BpRefBase(const sp<IBinder>& o);
    ~BpRefBase() override;

    inline IBinder* remote() const { return mRemote.get(); }

private:
    BpRefBase(const BpRefBase&) = delete;
    BpRefBase& operator=(const BpRefBase&) = delete;

    sp<IBinder> mRemote;
};

}  // namespace android
