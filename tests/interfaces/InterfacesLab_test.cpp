// The interface manager with its shipping seams (real Ping, usleep, the rule
// managers running iptables-legacy and ip, the client callback) in the lab.
#include <android/log.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "Lab.h"
#include "LogCapture.h"
#include "TempPropertyFile.h"
#include "interfaces/InterfaceManager.h"
#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"
#include "tests/interfaces/InterfaceFakes.h"
#include "PrivateBinderDir.h"

using namespace probemond::test;

namespace {

std::string commandOutput(const char* command) {
    std::string out;
    FILE* f = popen(command, "r");
    if (f == nullptr) return out;
    char buf[512];
    while (fgets(buf, sizeof(buf), f) != nullptr) out += buf;
    pclose(f);
    return out;
}

probemond::test::PrivateBinderDir* gBinderDir = nullptr;

class InterfacesLab : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // A private binder directory, so the callback goes to our watcher only.
        gBinderDir = new probemond::test::PrivateBinderDir("ifaces-lab-binder");
        android::ProcessState::initWithDriver("/dev/vndbinder");
    }
    static void TearDownTestSuite() {
        delete gBinderDir;
        gBinderDir = nullptr;
    }

    void SetUp() override {
        if (!labAvailable()) GTEST_SKIP() << "not inside the network lab (run through lab/lab.sh exec as root)";
        ASSERT_TRUE(labReset());
        InterfaceManager::Seams seams;  // every seam at its shipping default
        manager = InterfaceManager::create(seams);
    }
    void TearDown() override {
        manager.reset();
        if (labAvailable()) labReset();
    }

    TempPropertyFile props;
    LogCapture log;
    std::unique_ptr<InterfaceManager> manager;
};

TEST_F(InterfacesLab, AutoSelectLeavesSlowWifiForCellular) {
    ChildProcess watch({PROBEMONCTL_PATH, "watch"});
    ASSERT_TRUE(watch.started());
    ASSERT_TRUE(waitUntil(
        [] { return std::filesystem::exists(gBinderDir->path() + "/vndbinder/NetworkProbeMon_Binder"); }, 5000));

    ASSERT_TRUE(labDelay("wlan0", 150));
    ASSERT_TRUE(labDelay("rmnet_data0", 30));
    ASSERT_EQ(0, manager->selectInterface("wlan0"));
    const auto start = std::chrono::steady_clock::now();
    manager->enableAutoSelect("wlan0,rmnet_data0,");

    const bool switched =
        waitUntil([&] { return manager->autoSelectIfaceCopy() == "rmnet_data0"; }, 7000);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    ASSERT_TRUE(switched) << log.dump();
    std::printf("switched to rmnet_data0 after %lld ms\n", static_cast<long long>(took.count()));
    ASSERT_TRUE(log.waitFor("Switch to rmnet_data0", 2000));
    const int wifiMrtt = manager->getIfaceInfo("wlan0")->mrtt;
    EXPECT_GE(wifiMrtt, 140);
    EXPECT_LE(wifiMrtt, 200);
    EXPECT_EQ(1u, log.countContaining("rmnet_data0 (")) << log.dump();
    // The interface is up in the lab, so its latest single result comes back.
    EXPECT_GE(manager->getInterfaceRtt("wlan0"), 140);

    // The auto branch now marks for rmnet_data0.
    ASSERT_TRUE(waitUntil(
        [] {
            return commandOutput("iptables-legacy-save -t mangle 2>/dev/null")
                       .find("-A kest_probemon_iface_auto -j kest_probemon_rmnet_data0") !=
                   std::string::npos;
        },
        3000))
        << commandOutput("iptables-legacy-save -t mangle 2>&1");

    manager->disableAutoSelect();
    ASSERT_TRUE(log.waitForContaining(" is stopped", 3000)) << log.dump();
    EXPECT_TRUE(log.has("Auto (rmnet_data0) is NOT equal to User (wlan0)"));
    EXPECT_EQ(std::string::npos, commandOutput("iptables-legacy-save -t mangle 2>/dev/null")
                                     .find("-A kest_probemon_iface_auto -j"));

    const std::string seen = watch.finish(true).out;
    const size_t first = seen.find(" onAutoSelect(wlan0) -> 0\n");
    const size_t second = seen.find(" onAutoSelect(rmnet_data0) -> 0\n");
    const size_t last = seen.rfind(" onAutoSelect() -> 0\n");
    ASSERT_NE(std::string::npos, first) << seen;
    ASSERT_NE(std::string::npos, second) << seen;
    ASSERT_NE(std::string::npos, last) << seen;
    EXPECT_LT(first, second);
    EXPECT_LT(second, last);
}

TEST_F(InterfacesLab, DeadResolverRotatesEveryWorker) {
    // Failed probes answer the timeout, which is at the threshold: all slow.
    props.set("vendor.kest.probemond.ping_timeout", "100");
    props.set("vendor.kest.probemond.rtt_timeout_threshold", "100");
    ASSERT_TRUE(labFault("wlan0", "silent"));
    // A reply in under 1 ms is not accepted: give the healthy link some delay.
    ASSERT_TRUE(labDelay("rmnet_data0", 20));
    ASSERT_EQ(0, manager->startPingThread("wlan0"));
    ASSERT_EQ(0, manager->startPingThread("rmnet_data0"));

    ASSERT_TRUE(log.waitForContaining(" on wlan0 switch DNS to 1.1.1.1", 12000)) << log.dump();
    for (auto& entry : manager->ifaceMap) {
        EXPECT_STREQ("1.1.1.1", entry.second->pingServer.load()) << entry.first;
    }
    // The healthy link kept answering on its own, fast.
    EXPECT_LT(manager->getIfaceInfo("rmnet_data0")->mrtt, 100) << log.dump();
    EXPECT_EQ(100, manager->getIfaceInfo("wlan0")->mrtt);
    // Its probes now go to the new server and are answered there too.
    log.clear();
    ASSERT_TRUE(log.waitForContaining("rmnet_data0,rtt=", 3000));
    EXPECT_LT(manager->getIfaceInfo("rmnet_data0")->rtt, 100);
}

}  // namespace
