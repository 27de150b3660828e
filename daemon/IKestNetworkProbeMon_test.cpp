#include "daemon/IKestNetworkProbeMon.h"
#include "daemon/IKestNetworkProbeMonCallback.h"

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RecordingService.h"

using namespace android;
using probemond::test::LogCapture;
using probemond::test::RecordingService;

// Local objects only, no service manager: on a phone these run against the
// platform's own Parcel.
namespace {

status_t send(const sp<IBinder>& b, uint32_t code, const char* arg, Parcel* reply,
              const char* token = "probemond_Binder") {
    Parcel data;
    data.writeInterfaceToken(String16(token));
    if (arg != nullptr) data.writeCString(arg);
    return b->transact(code, data, reply);
}

TEST(BnKestNetworkProbeMon, PlatformCodesForeignTokenAndLocalInterface) {
    sp<RecordingService> svc = new RecordingService();
    LogCapture log;
    Parcel reply;
    // Past the last code, a missing string and one without its NUL are covered
    // through probemonctl and the reliability client.
    EXPECT_EQ(UNKNOWN_TRANSACTION, send(svc, 0, "wlan0", &reply));
    EXPECT_TRUE(svc->calls().empty());
    EXPECT_EQ(std::vector<std::string>{"BnKestNetworkProbeMon::onTransact 0 0"}, log.texts());

    ASSERT_EQ(OK, send(svc, 6, "wlan0", &reply, "some.other.Interface"));
    EXPECT_EQ(106, reply.readInt32());

    EXPECT_EQ(static_cast<IInterface*>(svc.get()), svc->queryLocalInterface(String16("probemond_Binder")).get());
    for (const char* other : {"probemond_Binde", "probemond_Binder2", "probemond_Bindex", ""})
        EXPECT_EQ(nullptr, svc->queryLocalInterface(String16(other)).get()) << other;
}

// Answers nothing at all (an empty reply). A reply and a client dying in the
// call are covered across processes.
struct Callee : public BBinder {
    status_t onTransact(uint32_t, const Parcel& data, Parcel*, uint32_t) override {
        if (!data.enforceInterface(String16("NetworkProbeMon_Binder"))) return BAD_TYPE;
        seen = data.readCString();
        return OK;
    }
    std::string seen = "unset";
};

TEST(BpKestNetworkProbeMonCallback, AnEmptyReplyGivesZeroAndItsReadStatus) {
    LogCapture log;
    sp<Callee> client = new Callee();
    EXPECT_EQ(0, sp<BpKestNetworkProbeMonCallback>(new BpKestNetworkProbeMonCallback(client))->onAutoSelect(""));
    EXPECT_EQ("", client->seen);
    EXPECT_EQ(std::vector<std::string>{"BpKestNetworkProbeMonCallback::onAutoSelect() = 0 (status: -61)"}, log.texts());
}

}  // namespace
