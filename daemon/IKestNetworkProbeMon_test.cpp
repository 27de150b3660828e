#include "daemon/IKestNetworkProbeMon.h"
#include "daemon/IKestNetworkProbeMonCallback.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <chrono>

#include "BinderTestEnvironment.h"
#include "LogCapture.h"
#include "RecordingService.h"

using namespace android;
using probemond::test::LogCapture;
using probemond::test::RecordingService;

namespace {

const auto* const kEnv =
    ::testing::AddGlobalTestEnvironment(new probemond::test::BinderTestEnvironment("binder_iface_test"));

status_t send(const sp<IBinder>& b, uint32_t code, const char* arg, Parcel* reply,
              const char* token = "probemond_Binder") {
    Parcel data;
    data.writeInterfaceToken(String16(token));
    if (arg != nullptr) data.writeCString(arg);
    return b->transact(code, data, reply);
}

TEST(BnKestNetworkProbeMon, EachCodeReachesItsOperationAndOnlyRttIsReplied) {
    const char* args[] = {nullptr, "wlan0", "wlan1", nullptr, nullptr, nullptr, "rmnet_data0", "10123",
                          "10124", "rmnet_data1", "rmnet_data2", "wlan0", "wlan0,rmnet_data0,", nullptr};
    for (uint32_t code = 1; code <= 13; code++) {
        sp<RecordingService> svc = new RecordingService();
        LogCapture log;
        Parcel reply;
        ASSERT_EQ(OK, send(svc, code, args[code], &reply)) << code;
        EXPECT_EQ((std::vector<RecordingService::Call>{{code, args[code] ? args[code] : ""}}), svc->calls());
        EXPECT_EQ(4u, reply.dataSize());
        EXPECT_EQ(code == 6 ? 106 : 0, reply.readInt32()) << code;
        EXPECT_EQ(1u, log.count("BnKestNetworkProbeMon::onTransact " + std::to_string(code) + " 0", ANDROID_LOG_DEBUG));
    }
}

TEST(BnKestNetworkProbeMon, PlatformCodesForeignTokenAndMissingString) {
    sp<RecordingService> svc = new RecordingService();
    LogCapture log;
    Parcel reply;
    EXPECT_EQ(UNKNOWN_TRANSACTION, send(svc, 0, "wlan0", &reply));
    EXPECT_EQ(UNKNOWN_TRANSACTION, send(svc, 14, "wlan0", &reply));
    EXPECT_TRUE(svc->calls().empty());
    EXPECT_EQ((std::vector<std::string>{"BnKestNetworkProbeMon::onTransact 0 0", "BnKestNetworkProbeMon::onTransact 14 0"}),
              log.texts());

    ASSERT_EQ(OK, send(svc, 6, "wlan0", &reply, "some.other.Interface"));
    EXPECT_EQ(106, reply.readInt32());

    Parcel noNul;
    noNul.writeInterfaceToken(IKestNetworkProbeMon::descriptor);
    noNul.writeInt32(0x6e616c77);  // "wlan" without its NUL
    EXPECT_EQ(BAD_VALUE, svc->transact(11, noNul, &reply));
    EXPECT_EQ(BAD_VALUE, send(svc, 1, nullptr, &reply));
    EXPECT_EQ(1u, svc->calls().size());
}

TEST(BnKestNetworkProbeMon, LocalInterfaceOnlyForTheExactDescriptor) {
    sp<RecordingService> svc = new RecordingService();
    EXPECT_EQ(static_cast<IInterface*>(svc.get()), svc->queryLocalInterface(String16("probemond_Binder")).get());
    for (const char* other : {"probemond_Binde", "probemond_Binder2", "probemond_Bindex", ""})
        EXPECT_EQ(nullptr, svc->queryLocalInterface(String16(other)).get()) << other;
}

// Answers 7, or nothing at all (an empty reply), or fails the call.
struct Callee : public BBinder {
    Callee(status_t status, bool answer) : status(status), answer(answer) {}
    status_t onTransact(uint32_t, const Parcel& data, Parcel* reply, uint32_t) override {
        if (!data.enforceInterface(String16("NetworkProbeMon_Binder"))) return BAD_TYPE;
        seen = data.readCString();
        if (answer) reply->writeInt32(7);
        return status;
    }
    const status_t status;
    const bool answer;
    std::string seen;
};

int32_t callThrough(const sp<Callee>& client, const char* iface) {
    return sp<BpKestNetworkProbeMonCallback>(new BpKestNetworkProbeMonCallback(client))->onAutoSelect(iface);
}

TEST(BpKestNetworkProbeMonCallback, LogsTheResultAndTheReadStatus) {
    LogCapture log;
    sp<Callee> client = new Callee(OK, true);
    EXPECT_EQ(7, callThrough(client, ""));
    EXPECT_EQ("", client->seen);
    EXPECT_EQ(0, callThrough(new Callee(OK, false), "wlan0"));
    EXPECT_EQ(0, callThrough(new Callee(DEAD_OBJECT, false), "wlan1"));
    EXPECT_EQ((std::vector<std::string>{"BpKestNetworkProbeMonCallback::onAutoSelect() = 7 (status: 0)",
                                        "BpKestNetworkProbeMonCallback::onAutoSelect(wlan0) = 0 (status: -61)",
                                        "onAutoSelect : Couldn't contact remote: -32",
                                        "BpKestNetworkProbeMonCallback::onAutoSelect(wlan1) = 0 (status: -61)"}),
              log.texts());
    EXPECT_EQ(1u, log.count("onAutoSelect : Couldn't contact remote: -32", ANDROID_LOG_ERROR));
}

TEST(Notify, NoClientGivesZeroAfterThreePausesAndNoLog) {
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, IKestNetworkProbeMonCallback::notify("wlan0"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(15));
    EXPECT_TRUE(log.texts().empty()) << log.dump();
}

}  // namespace
