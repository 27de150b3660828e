#include <binder/BpBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <gtest/gtest.h>

#include <android/log.h>
#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "daemon/IKestNetworkProbeMon.h"
#include "daemon/IKestNetworkProbeMonCallback.h"
#include "BinderTestEnvironment.h"

using namespace android;
using probemond::test::ChildProcess;
using probemond::test::LogCapture;
using probemond::test::RunResult;

namespace {

const auto* const kEnv =
    ::testing::AddGlobalTestEnvironment(new probemond::test::BinderTestEnvironment("binder_cross"));
const std::string& gDir = probemond::test::BinderTestEnvironment::path();

RunResult ctl(std::vector<std::string> args) {
    args.insert(args.begin(), PROBEMONCTL_PATH);
    return ChildProcess::run(args);
}

int openFdCount() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.') n++;
    closedir(d);
    return n - 1;
}

sp<IBinder> waitForService(const char* name, int timeoutMs = 5000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        sp<IBinder> b = defaultServiceManager()->checkService(String16(name));
        if (b != nullptr || std::chrono::steady_clock::now() > end) return b;
        usleep(10000);
    }
}

// The service behind probemonctl in these tests: records which operation ran with what.
class Recording : public BnKestNetworkProbeMon {
public:
    std::vector<std::pair<std::string, std::string>> calls() {
        std::lock_guard<std::mutex> g(mLock);
        return mCalls;
    }
    void clear() {
        std::lock_guard<std::mutex> g(mLock);
        mCalls.clear();
    }

    int32_t startPingInternal(std::string a) override { return rec("startPing", a); }
    int32_t stopPingInternal(std::string a) override { return rec("stopPing", a); }
    int32_t stopAllPingInternal() override { return rec("stopAllPing", ""); }
    int32_t suspendAllPingInternal() override { return rec("suspendAllPing", ""); }
    int32_t resumeAllPingInternal() override { return rec("resumeAllPing", ""); }
    int32_t getRttInternal(std::string a) override { return rec("getRtt", a) + 42; }
    int32_t addUidInternal(std::string a) override { return rec("addUid", a); }
    int32_t delUidInternal(std::string a) override { return rec("delUid", a); }
    int32_t addIpRuleInternal(std::string a) override { return rec("addIpRule", a); }
    int32_t delIpRuleInternal(std::string a) override { return rec("delIpRule", a); }
    int32_t selectInterfaceInternal(std::string a) override { return rec("selectInterface", a); }
    int32_t enableAutoSelectInternal(std::string a) override { return rec("enableAutoSelect", a); }
    int32_t disableAutoSelectInternal() override { return rec("disableAutoSelect", ""); }
    status_t dump(int fd, const Vector<String16>&) override {
        std::string text = "calls so far: " + std::to_string(calls().size()) + "\n";
        for (int i = 0; i < 3000; i++) text += "history line that makes the dump outgrow a pipe\n";
        return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? OK : UNKNOWN_ERROR;
    }

private:
    // Non-zero, so a reply that should be 0 proves the result was dropped.
    int32_t rec(const char* op, const std::string& a) {
        std::lock_guard<std::mutex> g(mLock);
        mCalls.emplace_back(op, a);
        return -1;
    }
    std::mutex mLock;
    std::vector<std::pair<std::string, std::string>> mCalls;
};

class ProbemonctlTest : public ::testing::Test {
protected:
    void SetUp() override {
        mService = new Recording();
        ASSERT_EQ(OK, defaultServiceManager()->addService(String16("probemond_Binder"), mService));
    }
    sp<Recording> mService;
};

TEST_F(ProbemonctlTest, EachCommandReachesItsOperation) {
    struct Row {
        std::vector<std::string> args;
        uint32_t code;
        const char* op;
        const char* arg;
        const char* out;
    } rows[] = {
        {{"start-ping", "wlan0"}, 1, "startPing", "wlan0", "0\n"},
        {{"stop-ping", "wlan1"}, 2, "stopPing", "wlan1", "0\n"},
        {{"stop-all-ping"}, 3, "stopAllPing", "", "0\n"},
        {{"suspend-all-ping"}, 4, "suspendAllPing", "", "0\n"},
        {{"resume-all-ping"}, 5, "resumeAllPing", "", "0\n"},
        {{"rtt", "rmnet_data3"}, 6, "getRtt", "rmnet_data3", "41\n"},
        {{"add-uid", "10086"}, 7, "addUid", "10086", "0\n"},
        {{"del-uid", "10086"}, 8, "delUid", "10086", "0\n"},
        {{"add-ip-rule", "rmnet_data0"}, 9, "addIpRule", "rmnet_data0", "0\n"},
        {{"del-ip-rule", "rmnet_data0"}, 10, "delIpRule", "rmnet_data0", "0\n"},
        {{"select", "wlan1"}, 11, "selectInterface", "wlan1", "0\n"},
        {{"auto-select", "wlan0,rmnet_data0"}, 12, "enableAutoSelect", "wlan0,rmnet_data0", "0\n"},
        {{"disable-auto-select"}, 13, "disableAutoSelect", "", "0\n"},
        {{"call", "6", "wlan0"}, 6, "getRtt", "wlan0", "41\n"},
        {{"call", "0x7", "1000"}, 7, "addUid", "1000", "0\n"},
        {{"rtt", ""}, 6, "getRtt", "", "41\n"},
    };
    for (const Row& r : rows) {
        mService->clear();
        LogCapture log;
        RunResult res = ctl(r.args);
        EXPECT_EQ(0, res.exitCode) << r.args[0] << ": " << res.err;
        EXPECT_EQ(r.out, res.out) << r.args[0];
        auto calls = mService->calls();
        ASSERT_EQ(1u, calls.size()) << r.args[0];
        EXPECT_EQ(r.op, calls[0].first);
        EXPECT_EQ(r.arg, calls[0].second);
        EXPECT_EQ(std::vector<std::string>{"BnKestNetworkProbeMon::onTransact " + std::to_string(r.code) + " 0"},
                  log.texts());
    }
}

TEST_F(ProbemonctlTest, PlatformCodesAndMissingStringFail) {
    LogCapture log;
    RunResult zero = ctl({"call", "0"});
    EXPECT_NE(0, zero.exitCode);
    EXPECT_NE(std::string::npos, zero.err.find("UNKNOWN_TRANSACTION (-74)")) << zero.err;
    EXPECT_EQ("", zero.out);
    RunResult fourteen = ctl({"call", "14", "wlan0"});
    EXPECT_NE(0, fourteen.exitCode);
    EXPECT_NE(std::string::npos, fourteen.err.find("-74")) << fourteen.err;
    RunResult missing = ctl({"call", "1"});
    EXPECT_NE(0, missing.exitCode);
    EXPECT_NE(std::string::npos, missing.err.find("BAD_VALUE (-22)")) << missing.err;
    EXPECT_TRUE(mService->calls().empty());
    EXPECT_EQ((std::vector<std::string>{"BnKestNetworkProbeMon::onTransact 0 0",
                                        "BnKestNetworkProbeMon::onTransact 14 0",
                                        "BnKestNetworkProbeMon::onTransact 1 0"}),
              log.texts());
}

TEST_F(ProbemonctlTest, DumpPrintsWhatTheServiceWrites) {
    ctl({"stop-all-ping"});
    RunResult res = ctl({"dump"});
    EXPECT_EQ(0, res.exitCode) << res.err;
    EXPECT_EQ(0u, res.out.rfind("calls so far: 1\n", 0)) << res.out.substr(0, 80);
    EXPECT_EQ(16u + 3000u * 48u, res.out.size());
}

TEST(Probemonctl, UsageAndAbsentServiceAreClearFailures) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {}, {"bogus"}, {"rtt"}, {"rtt", "a", "b"}, {"stop-all-ping", "x"}, {"call"},
             {"call", "-1"}, {"call", "4294967296"}, {"call", "1x"}, {"watch", "--reply"},
             {"watch", "--reply", "seven"}, {"dump", "x"}}) {
        RunResult r = ctl(args);
        EXPECT_EQ(2, r.exitCode) << (args.empty() ? "" : args[0]);
        EXPECT_NE(std::string::npos, r.err.find("usage: probemonctl")) << r.err;
    }
    // A directory where nothing is registered.
    const std::string empty = gDir + "/empty";
    setenv("PROBEMOND_BINDER_DIR", empty.c_str(), 1);
    RunResult absent = ctl({"rtt", "wlan0"});
    RunResult absentDump = ctl({"dump"});
    setenv("PROBEMOND_BINDER_DIR", gDir.c_str(), 1);
    EXPECT_EQ(1, absent.exitCode);
    EXPECT_NE(std::string::npos, absent.err.find("probemond_Binder is not running")) << absent.err;
    EXPECT_EQ("", absent.out);
    EXPECT_EQ(1, absentDump.exitCode);
}

TEST(Callback, WatchingClientAnswersNotify) {
    ChildProcess watch({PROBEMONCTL_PATH, "watch", "--reply", "7"});
    ASSERT_TRUE(watch.started());
    ASSERT_NE(nullptr, waitForService("NetworkProbeMon_Binder").get());
    LogCapture log;
    EXPECT_EQ(7, IKestNetworkProbeMonCallback::notify("rmnet_data1"));
    EXPECT_EQ(7, IKestNetworkProbeMonCallback::notify(""));
    EXPECT_EQ((std::vector<std::string>{"BpKestNetworkProbeMonCallback::onAutoSelect(rmnet_data1) = 7 (status: 0)",
                                        "BpKestNetworkProbeMonCallback::onAutoSelect() = 7 (status: 0)"}),
              log.texts());
    RunResult res = watch.finish(true);
    EXPECT_NE(std::string::npos, res.out.find(" onAutoSelect(rmnet_data1) -> 7\n")) << res.out;
    EXPECT_NE(std::string::npos, res.out.find(" onAutoSelect() -> 7\n")) << res.out;

    // Killed: its socket is stale, so it counts as no client at all.
    log.clear();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, IKestNetworkProbeMonCallback::notify("wlan0"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(15));
    EXPECT_TRUE(log.texts().empty()) << log.dump();
    EXPECT_FALSE(std::filesystem::exists(gDir + "/vndbinder/NetworkProbeMon_Binder"));
}

TEST(Callback, ClientDyingInTheCallIsAnErrorAndZero) {
    ChildProcess client({TEST_SERVER_PATH, "dying-client"});
    ASSERT_NE(nullptr, waitForService("NetworkProbeMon_Binder").get());
    LogCapture log;
    EXPECT_EQ(0, IKestNetworkProbeMonCallback::notify("wlan1"));
    EXPECT_EQ((std::vector<std::string>{"onAutoSelect : Couldn't contact remote: -32",
                                        "BpKestNetworkProbeMonCallback::onAutoSelect(wlan1) = 0 (status: -61)"}),
              log.texts());
    EXPECT_EQ(1u, log.count("onAutoSelect : Couldn't contact remote: -32", ANDROID_LOG_ERROR));
}

// Under a name of its own, so it never meets a service this process registered.
class RemoteServiceTest : public ::testing::Test {
protected:
    static constexpr const char* kName = "probemond_Binder.remote";
    void SetUp() override {
        mServer = std::make_unique<ChildProcess>(std::vector<std::string>{TEST_SERVER_PATH, "service", kName, "2"});
        mBinder = waitForService(kName);
        ASSERT_NE(nullptr, mBinder.get());
        ASSERT_NE(nullptr, mBinder->remoteBinder()) << "must be a proxy to the helper process";
    }
    std::unique_ptr<ChildProcess> mServer;
    sp<IBinder> mBinder;
};

TEST_F(RemoteServiceTest, EightClientThreadsOnASmallPool) {
    sp<BpKestNetworkProbeMon> probe = new BpKestNetworkProbeMon(mBinder);
    const int32_t serverFdsBefore = probe->getRttInternal("fds");
    probe.clear();
    mBinder.clear();
    const int fdsBefore = openFdCount();
    {
        sp<IBinder> binder = waitForService(kName);
        ASSERT_NE(nullptr, binder.get());
        sp<BpKestNetworkProbeMon> service = new BpKestNetworkProbeMon(binder);
        std::atomic<int> wrong{0};
        std::atomic<int> done{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; t++) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 1000; i++) {
                    const int n = t * 100000 + i;
                    int32_t result = 0;
                    if (service->call(IKestNetworkProbeMon::GET_RTT, std::to_string(n).c_str(), &result) != OK ||
                        result != 3 * n + 1) {
                        wrong++;
                    }
                    done++;
                }
            });
        }
        for (auto& th : threads) th.join();
        EXPECT_EQ(8000, done.load());
        EXPECT_EQ(0, wrong.load());
    }
    EXPECT_EQ(fdsBefore, openFdCount()) << "client side";
    // The server closes a connection when it sees its end; give it a moment.
    sp<BpKestNetworkProbeMon> check = new BpKestNetworkProbeMon(waitForService(kName));
    int32_t serverFdsAfter = -1;
    for (int i = 0; i < 100; i++) {
        serverFdsAfter = check->getRttInternal("fds");
        if (serverFdsAfter == serverFdsBefore) break;
        usleep(10000);
    }
    EXPECT_EQ(serverFdsBefore, serverFdsAfter) << "server side";
}

TEST_F(RemoteServiceTest, ForeignTokenDefaultsAndDeath) {
    Parcel data, reply;
    data.writeInterfaceToken(String16("vendor.other.IThing"));
    data.writeCString("5");
    ASSERT_EQ(OK, mBinder->transact(IKestNetworkProbeMon::GET_RTT, data, &reply));
    EXPECT_EQ(16, reply.readInt32());

    Parcel empty, r2;
    EXPECT_EQ(UNKNOWN_TRANSACTION, mBinder->transact(14, empty, &r2));
    EXPECT_EQ(OK, mBinder->pingBinder());
    EXPECT_EQ(String16("probemond_Binder"), mBinder->getInterfaceDescriptor());
    Parcel noString, r3;
    noString.writeInterfaceToken(IKestNetworkProbeMon::descriptor);
    EXPECT_EQ(BAD_VALUE, mBinder->transact(IKestNetworkProbeMon::GET_RTT, noString, &r3));

    mServer->finish(true);
    EXPECT_EQ(DEAD_OBJECT, mBinder->pingBinder());
    EXPECT_FALSE(mBinder->isBinderAlive());
    EXPECT_EQ(nullptr, defaultServiceManager()->checkService(String16(kName)).get());
}

}  // namespace
