#include "interfaces/PingWorker.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <deque>

#include "LogCapture.h"
#include "TempPropertyFile.h"
#include "tests/interfaces/InterfaceFakes.h"

using namespace probemond::ifaces;
using probemond::test::FakeManager;
using probemond::test::LogCapture;
using probemond::test::RecordingSleeper;
using probemond::test::TempPropertyFile;

namespace {

// ---- pure rules ----

TEST(ProbeDecision, EveryFlagCombination) {
    struct Row {
        bool running, controlled, force, wifi, userData, autoData, probe;
    };
    const Row rows[] = {
        // The client's own start wins over everything.
        {true, false, false, false, false, false, true},
        {true, true, false, false, true, false, true},
        // Neither started nor a candidate: idle.
        {false, false, true, true, false, true, false},
        {false, false, false, false, false, true, false},
        // Candidates under forced probing always probe.
        {false, true, true, true, true, false, true},
        {false, true, true, false, false, false, true},
        // Wi-Fi candidate: probes unless the user picked cellular.
        {false, true, false, true, false, false, true},
        {false, true, false, true, false, true, true},
        {false, true, false, true, true, false, false},
        // Cellular candidate: probes only while auto-select steers to cellular.
        {false, true, false, false, false, true, true},
        {false, true, false, false, true, false, false},
        {false, true, false, false, false, false, false},
    };
    for (const Row& r : rows) {
        ProbeFlags f{r.running, r.controlled, r.force, r.wifi, r.userData, r.autoData};
        EXPECT_EQ(r.probe, shouldProbe(f))
            << "running=" << r.running << " controlled=" << r.controlled << " force=" << r.force
            << " wifi=" << r.wifi << " userData=" << r.userData << " autoData=" << r.autoData;
    }
}

TEST(WorkerSleep, PeriodAndChargedProbeTime) {
    struct Row {
        bool controlled, force, wifi;
        int32_t elapsed;
        uint32_t us;
    };
    const Row rows[] = {
        {false, false, true, 120, 1000000},   // plain period whatever the probe took
        {false, true, false, 900, 1000000},
        {true, true, false, 120, 380000},     // forced cellular: half period
        {true, true, true, 120, 880000},      // forced Wi-Fi keeps the full period
        {true, false, false, 120, 880000},
        {true, false, true, 0, 1000000},      // no probe yet
        {true, false, true, 1000, 0},
        {true, false, true, 2500, 0},         // longer than the period: no wrap
        {true, true, false, 600, 0},
        {true, false, true, INT32_MAX, 0},
        {true, false, true, -5, 1005000},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(r.us, workerSleepUs(r.controlled, r.force, r.wifi, r.elapsed, 1))
            << "controlled=" << r.controlled << " force=" << r.force << " wifi=" << r.wifi
            << " elapsed=" << r.elapsed;
    }
}

TEST(Median, EvenCountsTruncateWithoutOverflow) {
    EXPECT_EQ(3, medianOfSorted({3, 4}));
    EXPECT_EQ(-1, medianOfSorted({-3, 0}));
    EXPECT_EQ(INT32_MAX, medianOfSorted({INT32_MAX, INT32_MAX}));
}

// ---- one worker cycle at a time, on fakes ----

class WorkerCycle : public ::testing::Test {
protected:
    TempPropertyFile props;
    FakeManager fake;
    std::deque<int32_t> script;

    void SetUp() override {
        fake.probes.setAnswer([this](const std::string&, const std::string&) {
            int32_t v = script.empty() ? 30 : script.front();
            if (!script.empty()) script.pop_front();
            return v;
        });
    }

    PingWorker worker(const std::string& name) {
        InterfaceInfo& info = fake.info(name);
        return PingWorker(*fake.manager, info, fake.probes.create(info), fake.sleeper);
    }
};

TEST_F(WorkerCycle, HistoryKeepsLatestTenAndMedianFollows) {
    fake->startPingThread("wlan0");
    PingWorker w = worker("wlan0");
    InterfaceInfo& info = fake.info("wlan0");
    script = {10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 5};
    w.runCycle();
    EXPECT_EQ(10, info.mrtt);  // a single result is its own median
    w.runCycle();
    EXPECT_EQ(15, info.mrtt);
    for (int i = 0; i < 9; ++i) w.runCycle();
    EXPECT_EQ((std::vector<int32_t>{20, 30, 40, 50, 60, 70, 80, 90, 100, 5}),
              info.rttHistorySnapshot());
    EXPECT_EQ(55, info.mrtt);
    EXPECT_EQ(5, info.rtt);
}

TEST_F(WorkerCycle, StatusAndDebugLines) {
    props.set(kRttDebugProperty, "1");
    fake->startPingThread("wlan1");
    PingWorker w = worker("wlan1");
    script = {40, 31, 35};
    LogCapture log;
    w.runCycle();
    w.runCycle();
    w.runCycle();
    EXPECT_TRUE(log.has("rrtt: wlan1, 40 31 35, 31 35 40, [35]", ANDROID_LOG_DEBUG)) << log.dump();
    EXPECT_EQ(1u, log.countContaining("wlan1,rtt=35,mrtt=35,switch=0,cpu=")) << log.dump();
    EXPECT_TRUE(log.has("isPingThreadRunning=1, isControlByAutoSelect=0, isAutoSelectForcePing=0, "
                        "isUserSelectData=0, isAutoSelectData=0, isWifi=1"))
        << log.dump();
    EXPECT_TRUE(fake->rttDebug);

    // Without the debug property only the status line remains.
    props.set(kRttDebugProperty, "0");
    log.clear();
    w.runCycle();
    EXPECT_EQ(0u, log.countContaining("rrtt:"));
    EXPECT_EQ(1u, log.countContaining("wlan1,rtt=30,mrtt="));
    EXPECT_FALSE(fake->rttDebug);
}

TEST_F(WorkerCycle, IdleAndSuspendedWorkersNeitherProbeNorLog) {
    PingWorker w = worker("wlan0");
    LogCapture log;
    w.runCycle();  // never started
    fake->startPingThread("wlan0");
    fake->suspendAllPingThreads();
    log.clear();
    w.runCycle();
    w.runCycle();
    EXPECT_EQ(0u, fake.probes.calls().size());
    EXPECT_EQ(0u, log.lines().size()) << log.dump();
    EXPECT_TRUE(fake.info("wlan0").isPingThreadRunning);
    fake->resumeAllPingThreads();
    w.runCycle();
    EXPECT_EQ(1u, fake.probes.calls().size());
    // Every one of these cycles slept the full period.
    EXPECT_EQ(std::vector<uint32_t>(4, 1000000), fake.sleeper.requests());
}

TEST_F(WorkerCycle, WorkerEndsWhenNoLongerAlive) {
    PingWorker w = worker("wlan0");
    EXPECT_TRUE(w.runCycle());
    fake.info("wlan0").isPingThreadAlive = false;
    EXPECT_FALSE(w.runCycle());
    EXPECT_EQ(1u, fake.sleeper.requests().size());  // no sleep before ending
}

TEST_F(WorkerCycle, SlowProbesWalkTheGlobalTableForEveryInterface) {
    fake->startPingThread("rmnet_data0");
    PingWorker w = worker("rmnet_data0");
    InterfaceInfo& info = fake.info("rmnet_data0");
    fake.info("wlan1").switchCount = 3;  // others' counts are reset too
    LogCapture log;
    const char* expected[] = {"1.1.1.1", "8.8.4.4", "1.0.0.1", "8.8.8.8", "1.1.1.1"};
    for (const char* server : expected) {
        for (uint32_t i = 1; i <= 5; ++i) {
            script.push_back(200);
            w.runCycle();
            EXPECT_EQ(i, info.switchCount);
        }
        script.push_back(200);
        w.runCycle();
        for (auto& entry : fake->ifaceMap) {
            EXPECT_STREQ(server, entry.second->pingServer.load()) << entry.first;
            EXPECT_EQ(0u, entry.second->switchCount) << entry.first;
        }
        EXPECT_EQ(1u, log.countContaining(std::string(" on rmnet_data0 switch DNS to ") + server))
            << log.dump();
        log.clear();
    }
    // The worker asked the server in force at each probe.
    EXPECT_EQ("8.8.8.8", fake.probes.calls().front().second);
    EXPECT_EQ("1.1.1.1", fake.probes.calls()[6].second);
    EXPECT_EQ(0u, fake->cnServerIndex);
}

TEST_F(WorkerCycle, StatusLineShowsCountAfterReset) {
    fake->startPingThread("wlan0");
    PingWorker w = worker("wlan0");
    LogCapture log;
    script = {200, 200, 200, 200, 200, 200};
    for (int i = 0; i < 6; ++i) w.runCycle();
    EXPECT_EQ(1u, log.countContaining("wlan0,rtt=200,mrtt=200,switch=5,cpu="));
    EXPECT_EQ(1u, log.countContaining("wlan0,rtt=200,mrtt=200,switch=0,cpu="));
}

TEST_F(WorkerCycle, AlternatingSlowAndFastNeverSwitches) {
    fake->startPingThread("wlan0");
    PingWorker w = worker("wlan0");
    for (int i = 0; i < 40; ++i) {
        script.push_back(i % 2 ? 30 : 250);
        w.runCycle();
        EXPECT_LE(fake.info("wlan0").switchCount, 1u);
    }
    EXPECT_STREQ("8.8.8.8", fake.info("wlan0").pingServer.load());
    // Slow probes outnumbering fast ones by six switch.
    script = {250, 250, 30, 250, 250, 250, 250, 250};
    for (int i = 0; i < 7; ++i) w.runCycle();
    EXPECT_STREQ("8.8.8.8", fake.info("wlan0").pingServer.load());
    w.runCycle();
    EXPECT_STREQ("1.1.1.1", fake.info("wlan0").pingServer.load());
}

TEST_F(WorkerCycle, CountryChangeUsesTheOtherIndexAndKeepsThisOne) {
    fake->startPingThread("wlan0");
    PingWorker w = worker("wlan0");
    auto sixSlow = [&] {
        for (int i = 0; i < 6; ++i) {
            script.push_back(300);
            w.runCycle();
        }
    };
    sixSlow();
    sixSlow();
    EXPECT_STREQ("8.8.4.4", fake.info("wlan0").pingServer.load());
    props.set(kCountryProperty, "xxCNxx");
    sixSlow();
    EXPECT_STREQ("223.5.5.5", fake.info("wlan1").pingServer.load());
    EXPECT_EQ(1u, fake->cnServerIndex);
    EXPECT_EQ(2u, fake->globalServerIndex);
    props.set(kCountryProperty, "cn");  // lower case is not China
    sixSlow();
    EXPECT_STREQ("1.0.0.1", fake.info("rmnet_data7").pingServer.load());
    props.set(kCountryProperty, "CN");
    for (int i = 0; i < 5; ++i) sixSlow();
    EXPECT_STREQ("180.76.76.76", fake.info("wlan0").pingServer.load());  // wrapped at six
    EXPECT_EQ(0u, fake->cnServerIndex);
}

TEST_F(WorkerCycle, UnparsableThresholdMakesEveryProbeSlow) {
    props.set(kRttThresholdProperty, "fast");
    fake->startPingThread("wlan0");
    PingWorker w = worker("wlan0");
    for (int i = 0; i < 6; ++i) {
        script.push_back(1);
        w.runCycle();
    }
    EXPECT_STREQ("1.1.1.1", fake.info("wlan0").pingServer.load());
}

TEST_F(WorkerCycle, CandidateSleepChargesProbeOrThreshold) {
    InterfaceInfo& wifi = fake.info("wlan0");
    wifi.isControlByAutoSelect = true;
    PingWorker w = worker("wlan0");
    script = {120};
    w.runCycle();
    EXPECT_EQ(880000u, fake.sleeper.requests().back());
    // A slow probe is charged at the threshold, not at what it took.
    props.set(kRttThresholdProperty, "300");
    script = {350};
    w.runCycle();
    EXPECT_EQ(700000u, fake.sleeper.requests().back());
    // A cycle that does not probe keeps charging the last probe.
    InterfaceManagerTestPeer::setUserSelectIface(*fake.manager, "rmnet_data0");
    w.runCycle();
    EXPECT_EQ(2u, fake.probes.calls().size());
    EXPECT_EQ(700000u, fake.sleeper.requests().back());
}

TEST_F(WorkerCycle, ForcedCellularCandidateProbesTwiceAsOften) {
    InterfaceInfo& cell = fake.info("rmnet_data0");
    cell.isControlByAutoSelect = true;
    PingWorker w = worker("rmnet_data0");
    w.runCycle();  // not steering to cellular, not forced: idle
    EXPECT_EQ(0u, fake.probes.calls().size());
    EXPECT_EQ(1000000u, fake.sleeper.requests().back());
    fake->isAutoSelectForcePing = true;
    script = {120};
    w.runCycle();
    EXPECT_EQ(1u, fake.probes.calls().size());
    EXPECT_EQ(380000u, fake.sleeper.requests().back());
    props.set(kRttThresholdProperty, "2000");
    script = {900};  // longer than the half period
    w.runCycle();
    EXPECT_EQ(0u, fake.sleeper.requests().back());
}

// ---- real worker threads on fakes ----

TEST(WorkerThreads, TenWorkersStartPinnedAndProbeOnlyWhenStarted) {
    TempPropertyFile props;
    LogCapture log;
    FakeManager fake(/*startWorkers=*/true, /*sleepScale=*/100);
    for (auto& entry : fake->ifaceMap) {
        ASSERT_TRUE(log.waitForContaining(" on " + entry.first + " is started and running on cpu ",
                                          5000))
            << log.dump();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(0u, fake.probes.calls().size());  // nothing probes until started

    fake->startPingThread("rmnet_data3");
    ASSERT_TRUE(log.waitForContaining("rmnet_data3,rtt=30,mrtt=30,switch=0,cpu=", 5000));
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof(allowed), &allowed);
    if (CPU_ISSET(0, &allowed)) {
        EXPECT_EQ(0u, log.countContaining(",cpu=1")) << log.dump();
    }
    fake->suspendAllPingThreads();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // > one scaled period
    const size_t frozen = fake.probes.callCount("rmnet_data3");
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    EXPECT_EQ(frozen, fake.probes.callCount("rmnet_data3"));
    fake->resumeAllPingThreads();
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    EXPECT_GT(fake.probes.callCount("rmnet_data3"), frozen);
    EXPECT_EQ(fake.probes.calls().size(), fake.probes.callCount("rmnet_data3"));
}

}  // namespace
