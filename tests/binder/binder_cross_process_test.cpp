#include <binder/IServiceManager.h>

#include <gtest/gtest.h>

#include <stdio.h>
#include <sys/wait.h>

#include <chrono>
#include <vector>

#include "BinderTestEnvironment.h"
#include "LogCapture.h"
#include "RecordingService.h"
#include "daemon/IKestNetworkProbeMonCallback.h"

using namespace android;
using probemond::test::LogCapture;
using probemond::test::RecordingService;

namespace {

const auto* const kEnv =
    ::testing::AddGlobalTestEnvironment(new probemond::test::BinderTestEnvironment("binder_cross"));

// probemonctl's exit code and its stdout and stderr together.
std::pair<int, std::string> ctl(const std::string& args, const std::string& env = "") {
    FILE* p = popen((env + " $PROBEMOND_EMULATOR " PROBEMONCTL_PATH " " + args + " 2>&1").c_str(), "re");
    std::string out;
    char buf[256];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int status = pclose(p);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

TEST(Probemonctl, EachCommandReachesItsCode) {
    sp<RecordingService> svc = new RecordingService();
    ASSERT_EQ(OK, defaultServiceManager()->addService(String16("probemond_Binder"), svc));
    const std::pair<const char*, const char*> commands[] = {
        {"start-ping", "wlan0"}, {"stop-ping", "wlan1"}, {"stop-all-ping", ""}, {"suspend-all-ping", ""},
        {"resume-all-ping", ""}, {"rtt", "rmnet_data3"}, {"add-uid", "10086"}, {"del-uid", "10087"},
        {"add-ip-rule", "rmnet_data0"}, {"del-ip-rule", "rmnet_data1"}, {"select", "wlan1"},
        {"auto-select", "wlan0,rmnet_data0,"}, {"disable-auto-select", ""}, {"call 0x6", "wlan0"}};
    for (int i = 0; i < 14; i++) {
        svc->clear();
        const auto& [command, arg] = commands[i];
        const int code = i < 13 ? i + 1 : 6;
        // Only the rtt's result is replied; the others' (non-zero) results are dropped.
        EXPECT_EQ(std::make_pair(0, std::string(code == 6 ? "106\n" : "0\n")), ctl(std::string(command) + " " + arg));
        EXPECT_EQ((std::vector<RecordingService::Call>{{code, arg}}), svc->calls()) << command;
    }
    for (const auto& [args, status] : {std::make_pair("call 14 wlan0", "UNKNOWN_TRANSACTION (-74)"),
                                       std::make_pair("call 1", "BAD_VALUE (-22)")}) {
        auto [code, out] = ctl(args);
        EXPECT_EQ(1, code);
        EXPECT_NE(std::string::npos, out.find(status)) << out;
    }
}

TEST(Probemonctl, UsageAndAbsentServiceAreClearFailures) {
    for (const char* args : {"", "bogus", "rtt", "stop-all-ping x", "call 1x", "watch --reply seven"}) {
        auto [code, out] = ctl(args);
        EXPECT_EQ(2, code) << args;
        EXPECT_NE(std::string::npos, out.find("usage: probemonctl")) << out;
    }
    for (const char* args : {"--help", "-h"}) {  // asked for: the usage alone, no failure
        auto [code, out] = ctl(args);
        EXPECT_EQ(0, code) << args;
        EXPECT_EQ(0u, out.find("usage: probemonctl")) << out;
    }
    auto [code, out] = ctl("rtt wlan0", "PROBEMOND_BINDER_DIR=/nonexistent");
    EXPECT_EQ(1, code);
    EXPECT_NE(std::string::npos, out.find("probemond_Binder is not running")) << out;
}

TEST(Callback, NoClientGivesZeroAfterThreePausesAndNoLog) {
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, IKestNetworkProbeMonCallback::notify("wlan0"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(15));
    EXPECT_TRUE(log.texts().empty()) << log.dump();
}

}  // namespace
