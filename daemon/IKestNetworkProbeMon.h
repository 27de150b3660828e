// The daemon's binder interface: thirteen operations, each reached by its
// transaction code (its place in the list, from 1); every reply is one int32.
#pragma once

#include <stdint.h>

#include <string>

#include <binder/IInterface.h>
#include <binder/Parcel.h>

namespace android {

class IKestNetworkProbeMon : public IInterface {
public:
    enum {
        START_PING = IBinder::FIRST_CALL_TRANSACTION,
        STOP_PING,
        STOP_ALL_PING,
        SUSPEND_ALL_PING,
        RESUME_ALL_PING,
        GET_RTT,
        ADD_UID,
        DEL_UID,
        ADD_IP_RULE,
        DEL_IP_RULE,
        SELECT_INTERFACE,
        ENABLE_AUTO_SELECT,
        DISABLE_AUTO_SELECT,
    };

    // The name the service is registered under; the descriptor is the same text.
    static constexpr const char* kServiceName = "probemond_Binder";
    static constexpr const char* kDriver = "/dev/vndbinder";

    // Never destroyed: pool threads may still check tokens while the process exits.
    static const String16& descriptor;
    static sp<IKestNetworkProbeMon> asInterface(const sp<IBinder>& obj);
    // Whether the request of this code carries a string after the token.
    static bool takesArgument(uint32_t code);

    virtual int32_t startPingInternal(std::string iface) = 0;
    virtual int32_t stopPingInternal(std::string iface) = 0;
    virtual int32_t stopAllPingInternal() = 0;
    virtual int32_t suspendAllPingInternal() = 0;
    virtual int32_t resumeAllPingInternal() = 0;
    virtual int32_t getRttInternal(std::string iface) = 0;
    virtual int32_t addUidInternal(std::string uid) = 0;
    virtual int32_t delUidInternal(std::string uid) = 0;
    virtual int32_t addIpRuleInternal(std::string iface) = 0;
    virtual int32_t delIpRuleInternal(std::string iface) = 0;
    virtual int32_t selectInterfaceInternal(std::string iface) = 0;
    virtual int32_t enableAutoSelectInternal(std::string ifaces) = 0;
    virtual int32_t disableAutoSelectInternal() = 0;

    virtual const String16& getInterfaceDescriptor() const;
};

class BnKestNetworkProbeMon : public BnInterface<IKestNetworkProbeMon> {
public:
    const String16& getInterfaceDescriptor() const override;
    sp<IInterface> queryLocalInterface(const String16& descriptor) override;
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags = 0) override;

protected:
    IBinder* onAsBinder() override;
};

// Client side, for probemonctl and tests.
class BpKestNetworkProbeMon : public BpInterface<IKestNetworkProbeMon> {
public:
    explicit BpKestNetworkProbeMon(const sp<IBinder>& impl);

    // One request: the token, then arg as a C string when not null. *result gets
    // the reply integer. Returns the transaction's status, or the read's.
    status_t call(uint32_t code, const char* arg, int32_t* result);

    // Each returns the reply integer, or the failing status.
    int32_t startPingInternal(std::string iface) override;
    int32_t stopPingInternal(std::string iface) override;
    int32_t stopAllPingInternal() override;
    int32_t suspendAllPingInternal() override;
    int32_t resumeAllPingInternal() override;
    int32_t getRttInternal(std::string iface) override;
    int32_t addUidInternal(std::string uid) override;
    int32_t delUidInternal(std::string uid) override;
    int32_t addIpRuleInternal(std::string iface) override;
    int32_t delIpRuleInternal(std::string iface) override;
    int32_t selectInterfaceInternal(std::string iface) override;
    int32_t enableAutoSelectInternal(std::string ifaces) override;
    int32_t disableAutoSelectInternal() override;

private:
    int32_t callOrStatus(uint32_t code, const char* arg);
};

}  // namespace android
