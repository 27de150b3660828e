// The client's callback interface: the daemon tells it which interface
// auto-select chose.
#pragma once

#include <stdint.h>

#include <string>

#include <binder/IInterface.h>
#include <binder/Parcel.h>

namespace android {

class IKestNetworkProbeMonCallback : public IInterface {
public:
    enum { ON_AUTO_SELECT = IBinder::FIRST_CALL_TRANSACTION };

    // The name the client registers its callback under; the descriptor is the same text.
    static constexpr const char* kServiceName = "NetworkProbeMon_Binder";

    // Never destroyed: pool threads may still check tokens while the process exits.
    static const String16& descriptor;
    static sp<IKestNetworkProbeMonCallback> asInterface(const sp<IBinder>& obj);

    virtual int32_t onAutoSelect(std::string iface) = 0;

    virtual const String16& getInterfaceDescriptor() const;

    // Finds the client's callback service and calls it; 0 without one.
    static int32_t notify(std::string iface);
};

class BpKestNetworkProbeMonCallback : public BpInterface<IKestNetworkProbeMonCallback> {
public:
    explicit BpKestNetworkProbeMonCallback(const sp<IBinder>& impl);
    int32_t onAutoSelect(std::string iface) override;
};

// Service side, for clients written against this project (probemonctl watch, tests).
class BnKestNetworkProbeMonCallback : public BnInterface<IKestNetworkProbeMonCallback> {
public:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags = 0) override;
};

}  // namespace android
