#include "daemon/IKestNetworkProbeMon.h"
#include "daemon/IKestNetworkProbeMonCallback.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <gtest/gtest.h>

#include <android/log.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <vector>

#include "LogCapture.h"
#include "PrivateBinderDir.h"

using namespace android;
using probemond::test::LogCapture;

namespace {

struct Call {
    std::string op;
    std::string arg;
};

// Records every operation; each returns a distinct value so a leaked result shows.
class Recording : public BnKestNetworkProbeMon {
public:
    std::vector<Call> calls;
    std::vector<int> dumpFds;

    int32_t startPingInternal(std::string a) override { return rec("startPing", a, 101); }
    int32_t stopPingInternal(std::string a) override { return rec("stopPing", a, 102); }
    int32_t stopAllPingInternal() override { return rec("stopAllPing", "", 103); }
    int32_t suspendAllPingInternal() override { return rec("suspendAllPing", "", 104); }
    int32_t resumeAllPingInternal() override { return rec("resumeAllPing", "", 105); }
    int32_t getRttInternal(std::string a) override { return rec("getRtt", a, 106); }
    int32_t addUidInternal(std::string a) override { return rec("addUid", a, -1); }
    int32_t delUidInternal(std::string a) override { return rec("delUid", a, -1); }
    int32_t addIpRuleInternal(std::string a) override { return rec("addIpRule", a, 109); }
    int32_t delIpRuleInternal(std::string a) override { return rec("delIpRule", a, 110); }
    int32_t selectInterfaceInternal(std::string a) override { return rec("selectInterface", a, -1); }
    int32_t enableAutoSelectInternal(std::string a) override { return rec("enableAutoSelect", a, 112); }
    int32_t disableAutoSelectInternal() override { return rec("disableAutoSelect", "", 113); }
    status_t dump(int fd, const Vector<String16>&) override {
        dumpFds.push_back(fd);
        return OK;
    }

private:
    int32_t rec(const char* op, const std::string& arg, int32_t result) {
        calls.push_back({op, arg});
        return result;
    }
};

status_t send(const sp<IBinder>& b, uint32_t code, const char* arg, Parcel* reply,
              const String16& token = IKestNetworkProbeMon::descriptor, uint32_t flags = 0) {
    Parcel data;
    data.writeInterfaceToken(token);
    if (arg != nullptr) data.writeCString(arg);
    return b->transact(code, data, reply, flags);
}

TEST(BnKestNetworkProbeMon, EveryCodeReachesItsOperationAndOnlyRttIsReplied) {
    struct Row {
        uint32_t code;
        const char* op;
        const char* arg;
        int32_t reply;
    } rows[] = {
        {1, "startPing", "wlan0", 0},           {2, "stopPing", "wlan1", 0},
        {3, "stopAllPing", nullptr, 0},         {4, "suspendAllPing", nullptr, 0},
        {5, "resumeAllPing", nullptr, 0},       {6, "getRtt", "rmnet_data0", 106},
        {7, "addUid", "10123", 0},              {8, "delUid", "10123", 0},
        {9, "addIpRule", "rmnet_data1", 0},     {10, "delIpRule", "rmnet_data1", 0},
        {11, "selectInterface", "wlan0", 0},    {12, "enableAutoSelect", "wlan0,rmnet_data0", 0},
        {13, "disableAutoSelect", nullptr, 0},
    };
    for (const Row& r : rows) {
        sp<Recording> svc = new Recording();
        LogCapture log;
        Parcel reply;
        ASSERT_EQ(OK, send(svc, r.code, r.arg, &reply)) << r.code;
        ASSERT_EQ(1u, svc->calls.size()) << r.code;
        EXPECT_EQ(r.op, svc->calls[0].op);
        EXPECT_EQ(r.arg ? r.arg : "", svc->calls[0].arg);
        EXPECT_EQ(4u, reply.dataSize());
        EXPECT_EQ(r.reply, reply.readInt32()) << r.code;
        EXPECT_EQ(std::vector<std::string>{"BnKestNetworkProbeMon::onTransact " + std::to_string(r.code) + " 0"},
                  log.texts());
        EXPECT_TRUE(log.has("BnKestNetworkProbeMon::onTransact " + std::to_string(r.code) + " 0", ANDROID_LOG_DEBUG));
    }
}

TEST(BnKestNetworkProbeMon, CodesOutsideTheTableGetThePlatformDefault) {
    sp<Recording> svc = new Recording();
    LogCapture log;
    for (uint32_t code : {0u, 14u, 0xffffffffu, 0x00ffffffu}) {
        Parcel reply;
        EXPECT_EQ(UNKNOWN_TRANSACTION, send(svc, code, "wlan0", &reply)) << code;
    }
    EXPECT_TRUE(svc->calls.empty());
    EXPECT_EQ((std::vector<std::string>{"BnKestNetworkProbeMon::onTransact 0 0",
                                        "BnKestNetworkProbeMon::onTransact 14 0",
                                        "BnKestNetworkProbeMon::onTransact 4294967295 0",
                                        "BnKestNetworkProbeMon::onTransact 16777215 0"}),
              log.texts());

    Parcel empty, reply;
    ASSERT_EQ(OK, svc->transact(IBinder::INTERFACE_TRANSACTION, empty, &reply));
    EXPECT_EQ(IKestNetworkProbeMon::descriptor, reply.readString16());
    EXPECT_EQ(OK, svc->transact(IBinder::PING_TRANSACTION, empty, &reply));

    // Dump's own layout is read despite the token check in front of it.
    int fds[2];
    ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
    Parcel dump;
    dump.writeFileDescriptor(fds[1]);
    dump.writeInt32(0);
    EXPECT_EQ(OK, svc->transact(IBinder::DUMP_TRANSACTION, dump, &reply));
    EXPECT_EQ(std::vector<int>{fds[1]}, svc->dumpFds);
    close(fds[0]);
    close(fds[1]);
}

TEST(BnKestNetworkProbeMon, LenientTokenStrictArgumentAndFlags) {
    sp<Recording> svc = new Recording();
    LogCapture log;
    Parcel reply;
    // A foreign descriptor is served as if it were ours.
    ASSERT_EQ(OK, send(svc, 6, "wlan0", &reply, String16("some.other.Interface")));
    EXPECT_EQ(106, reply.readInt32());

    // A missing string is refused and calls nothing.
    Parcel r2;
    EXPECT_EQ(BAD_VALUE, send(svc, 1, nullptr, &r2));
    Parcel noNul;
    noNul.writeInterfaceToken(IKestNetworkProbeMon::descriptor);
    noNul.writeInt32(0x6e616c77);  // "wlan" without its NUL
    EXPECT_EQ(BAD_VALUE, svc->transact(11, noNul, &r2));
    ASSERT_EQ(1u, svc->calls.size());

    // One-way calls run the same way; the flags show in the trace.
    EXPECT_EQ(OK, send(svc, 3, nullptr, nullptr, IKestNetworkProbeMon::descriptor, IBinder::FLAG_ONEWAY));
    EXPECT_EQ(2u, svc->calls.size());
    EXPECT_TRUE(log.has("BnKestNetworkProbeMon::onTransact 3 1"));
}

TEST(BnKestNetworkProbeMon, LocalInterfaceOnlyForTheExactDescriptor) {
    sp<Recording> svc = new Recording();
    EXPECT_EQ(static_cast<IInterface*>(svc.get()), svc->queryLocalInterface(String16("probemond_Binder")).get());
    EXPECT_EQ(nullptr, svc->queryLocalInterface(String16("probemond_Binde")).get());
    EXPECT_EQ(nullptr, svc->queryLocalInterface(String16("probemond_Binder2")).get());
    EXPECT_EQ(nullptr, svc->queryLocalInterface(String16("NetworkProbeMon_Binder")).get());
    EXPECT_EQ(String16("probemond_Binder"), svc->getInterfaceDescriptor());
    sp<IBinder> asBinder = IInterface::asBinder(svc);
    EXPECT_EQ(static_cast<IBinder*>(svc.get()), asBinder.get());
    EXPECT_EQ(svc.get(), interface_cast<IKestNetworkProbeMon>(asBinder).get());
}

TEST(BpKestNetworkProbeMon, WritesTokenAndStringReadsInt) {
    sp<Recording> svc = new Recording();
    // The proxy over a local object still builds and parses real parcels.
    sp<BpKestNetworkProbeMon> proxy = new BpKestNetworkProbeMon(svc);
    EXPECT_EQ(106, proxy->getRttInternal("wlan1"));
    EXPECT_EQ(0, proxy->addUidInternal("10001"));
    EXPECT_EQ(0, proxy->disableAutoSelectInternal());
    int32_t result = 5;
    EXPECT_EQ(UNKNOWN_TRANSACTION, proxy->call(14, nullptr, &result));
    EXPECT_EQ(BAD_VALUE, proxy->call(6, nullptr, &result));
    ASSERT_EQ(3u, svc->calls.size());
    EXPECT_EQ("wlan1", svc->calls[0].arg);
    EXPECT_EQ("10001", svc->calls[1].arg);
}

class Client : public BnKestNetworkProbeMonCallback {
public:
    std::vector<std::string> seen;
    int32_t onAutoSelect(std::string iface) override {
        seen.push_back(iface);
        return 7;
    }
};

class SilentCallee : public BBinder {
protected:
    status_t onTransact(uint32_t, const Parcel&, Parcel*, uint32_t) override { return OK; }
};

class Failing : public BBinder {
protected:
    status_t onTransact(uint32_t, const Parcel&, Parcel*, uint32_t) override { return DEAD_OBJECT; }
};

TEST(BpKestNetworkProbeMonCallback, ResultAndReadStatusAreLogged) {
    sp<Client> client = new Client();
    LogCapture log;
    sp<BpKestNetworkProbeMonCallback> proxy = new BpKestNetworkProbeMonCallback(client);
    EXPECT_EQ(7, proxy->onAutoSelect("rmnet_data2"));
    EXPECT_EQ(7, proxy->onAutoSelect(""));
    EXPECT_EQ((std::vector<std::string>{"rmnet_data2", ""}), client->seen);
    EXPECT_TRUE(log.has("BpKestNetworkProbeMonCallback::onAutoSelect(rmnet_data2) = 7 (status: 0)", ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log.has("BpKestNetworkProbeMonCallback::onAutoSelect() = 7 (status: 0)"));

    // An empty reply: 0, with the read's status, not the call's.
    log.clear();
    sp<BpKestNetworkProbeMonCallback> silent = new BpKestNetworkProbeMonCallback(new SilentCallee());
    EXPECT_EQ(0, silent->onAutoSelect("wlan0"));
    EXPECT_EQ(std::vector<std::string>{"BpKestNetworkProbeMonCallback::onAutoSelect(wlan0) = 0 (status: -61)"},
              log.texts());

    log.clear();
    sp<BpKestNetworkProbeMonCallback> failing = new BpKestNetworkProbeMonCallback(new Failing());
    EXPECT_EQ(0, failing->onAutoSelect("wlan1"));
    EXPECT_EQ((std::vector<std::string>{"onAutoSelect : Couldn't contact remote: -32",
                                        "BpKestNetworkProbeMonCallback::onAutoSelect(wlan1) = 0 (status: -61)"}),
              log.texts());
    EXPECT_EQ(1u, log.count("onAutoSelect : Couldn't contact remote: -32", ANDROID_LOG_ERROR));
}

class NotifyTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        sDir = new probemond::test::PrivateBinderDir("binder_iface_test");
        ASSERT_TRUE(sDir->ok());
        ProcessState::initWithDriver("/dev/vndbinder");
    }
    static void TearDownTestSuite() {
        delete sDir;
        sDir = nullptr;
    }
    static probemond::test::PrivateBinderDir* sDir;
};
probemond::test::PrivateBinderDir* NotifyTest::sDir = nullptr;

TEST_F(NotifyTest, NoClientGivesZeroAfterThreePausesAndNoLog) {
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, IKestNetworkProbeMonCallback::notify("wlan0"));
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    EXPECT_GE(ms.count(), 15);
    EXPECT_LT(ms.count(), 1000);
    EXPECT_TRUE(log.texts().empty()) << log.dump();
}

TEST_F(NotifyTest, LocalClientIsCalledDirectly) {
    sp<Client> client = new Client();
    ASSERT_EQ(OK, defaultServiceManager()->addService(String16("NetworkProbeMon_Binder"), client));
    LogCapture log;
    EXPECT_EQ(7, IKestNetworkProbeMonCallback::notify("wlan1"));
    EXPECT_EQ(std::vector<std::string>{"wlan1"}, client->seen);
    // No proxy in between, so no proxy trace either.
    EXPECT_TRUE(log.texts().empty()) << log.dump();
}

}  // namespace
