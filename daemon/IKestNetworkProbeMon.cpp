#include "daemon/IKestNetworkProbeMon.h"

#include "common/Log.h"

namespace android {

const String16& IKestNetworkProbeMon::descriptor = *new String16(kServiceName);

const String16& IKestNetworkProbeMon::getInterfaceDescriptor() const { return descriptor; }

bool IKestNetworkProbeMon::takesArgument(uint32_t code) {
    switch (code) {
        case STOP_ALL_PING:
        case SUSPEND_ALL_PING:
        case RESUME_ALL_PING:
        case DISABLE_AUTO_SELECT:
            return false;
        default:
            return code >= START_PING && code <= DISABLE_AUTO_SELECT;
    }
}

sp<IKestNetworkProbeMon> IKestNetworkProbeMon::asInterface(const sp<IBinder>& obj) {
    if (obj == nullptr) return nullptr;
    sp<IInterface> local = obj->queryLocalInterface(descriptor);
    if (local != nullptr) return static_cast<IKestNetworkProbeMon*>(local.get());
    return new BpKestNetworkProbeMon(obj);
}

const String16& BnKestNetworkProbeMon::getInterfaceDescriptor() const {
    return IKestNetworkProbeMon::descriptor;
}

sp<IInterface> BnKestNetworkProbeMon::queryLocalInterface(const String16& d) {
    if (d == IKestNetworkProbeMon::descriptor) return sp<IInterface>(this);
    return nullptr;
}

IBinder* BnKestNetworkProbeMon::onAsBinder() { return this; }

status_t BnKestNetworkProbeMon::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                           uint32_t flags) {
    LOGD("BnKestNetworkProbeMon::onTransact %u %u", code, flags);
    // Not tested on purpose: a foreign token is served all the same; this only skips it.
    data.checkInterface(this);
    if (code - 1 > 12) {
        // The platform's own codes (dump above all) read their layout from the start.
        data.setDataPosition(0);
        return BBinder::onTransact(code, data, reply, flags);
    }

    std::string arg;
    if (takesArgument(code)) {
        const char* str = data.readCString();
        if (str == nullptr) return BAD_VALUE;
        arg = str;
    }
    int32_t result = 0;
    switch (code) {
        case START_PING: startPingInternal(arg); break;
        case STOP_PING: stopPingInternal(arg); break;
        case STOP_ALL_PING: stopAllPingInternal(); break;
        case SUSPEND_ALL_PING: suspendAllPingInternal(); break;
        case RESUME_ALL_PING: resumeAllPingInternal(); break;
        // The only operation whose result reaches the client.
        case GET_RTT: result = getRttInternal(arg); break;
        case ADD_UID: addUidInternal(arg); break;
        case DEL_UID: delUidInternal(arg); break;
        case ADD_IP_RULE: addIpRuleInternal(arg); break;
        case DEL_IP_RULE: delIpRuleInternal(arg); break;
        case SELECT_INTERFACE: selectInterfaceInternal(arg); break;
        case ENABLE_AUTO_SELECT: enableAutoSelectInternal(arg); break;
        case DISABLE_AUTO_SELECT: disableAutoSelectInternal(); break;
    }
    if (reply != nullptr) reply->writeInt32(result);
    return OK;
}

BpKestNetworkProbeMon::BpKestNetworkProbeMon(const sp<IBinder>& impl)
    : BpInterface<IKestNetworkProbeMon>(impl) {}

status_t BpKestNetworkProbeMon::call(uint32_t code, const char* arg, int32_t* result) {
    Parcel data;
    Parcel reply;
    data.writeInterfaceToken(IKestNetworkProbeMon::descriptor);
    if (arg != nullptr) data.writeCString(arg);
    const status_t status = remote()->transact(code, data, &reply, 0);
    if (status != OK) return status;
    reply.setDataPosition(0);
    return reply.readInt32(result);
}

int32_t BpKestNetworkProbeMon::callOrStatus(uint32_t code, const char* arg) {
    int32_t result = 0;
    const status_t status = call(code, arg, &result);
    return status == OK ? result : status;
}

int32_t BpKestNetworkProbeMon::startPingInternal(std::string iface) { return callOrStatus(START_PING, iface.c_str()); }
int32_t BpKestNetworkProbeMon::stopPingInternal(std::string iface) { return callOrStatus(STOP_PING, iface.c_str()); }
int32_t BpKestNetworkProbeMon::stopAllPingInternal() { return callOrStatus(STOP_ALL_PING, nullptr); }
int32_t BpKestNetworkProbeMon::suspendAllPingInternal() { return callOrStatus(SUSPEND_ALL_PING, nullptr); }
int32_t BpKestNetworkProbeMon::resumeAllPingInternal() { return callOrStatus(RESUME_ALL_PING, nullptr); }
int32_t BpKestNetworkProbeMon::getRttInternal(std::string iface) { return callOrStatus(GET_RTT, iface.c_str()); }
int32_t BpKestNetworkProbeMon::addUidInternal(std::string uid) { return callOrStatus(ADD_UID, uid.c_str()); }
int32_t BpKestNetworkProbeMon::delUidInternal(std::string uid) { return callOrStatus(DEL_UID, uid.c_str()); }
int32_t BpKestNetworkProbeMon::addIpRuleInternal(std::string iface) { return callOrStatus(ADD_IP_RULE, iface.c_str()); }
int32_t BpKestNetworkProbeMon::delIpRuleInternal(std::string iface) { return callOrStatus(DEL_IP_RULE, iface.c_str()); }
int32_t BpKestNetworkProbeMon::selectInterfaceInternal(std::string iface) { return callOrStatus(SELECT_INTERFACE, iface.c_str()); }
int32_t BpKestNetworkProbeMon::enableAutoSelectInternal(std::string ifaces) { return callOrStatus(ENABLE_AUTO_SELECT, ifaces.c_str()); }
int32_t BpKestNetworkProbeMon::disableAutoSelectInternal() { return callOrStatus(DISABLE_AUTO_SELECT, nullptr); }

}  // namespace android
