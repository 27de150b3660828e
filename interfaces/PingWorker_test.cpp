// One worker cycle at a time on the test's thread: a prober answering the
// rtt each cycle sets, and a sleeper that records the period instead of sleeping.
#include "interfaces/PingWorker.h"

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "TempPropertyFile.h"
#include "common/Properties.h"
#include "InterfaceFakes.h"

using namespace probemond;
using namespace probemond::test;

namespace {

// What the rest of the daemon shows a worker, set by the test.
struct FakeContext : PingContext {
    std::atomic<bool> forcePing{false}, userData{false}, autoData{false};
    bool isAutoSelectForcePing() const override { return forcePing; }
    bool isUserSelectData() override { return userData; }
    bool isAutoSelectData() override { return autoData; }
};

// Workers over records of their own, with a context and servers of their own.
class WorkerCycle : public ::testing::Test {
protected:
    TempPropertyFile props;
    Records records;
    FakeProbes probes;
    FakeSleeper sleeper;
    FakeContext context;
    PingServers servers{records.map};

    PingWorker worker(const char* name) {
        InterfaceInfo& info = records[name];
        info.isPingThreadAlive = true;  // as start-up sets it before the thread runs
        return PingWorker(context, servers, info, probes.create(info), sleeper);
    }
    void cycles(PingWorker& w, std::initializer_list<int32_t> rtts) {
        for (int32_t rtt : rtts) {
            probes.rtt = rtt;
            w.runCycle();
        }
    }
};

TEST_F(WorkerCycle, HistoryKeepsTheLatestTenAndTheirMedian) {
    props.set(kRttDebugProperty, "1");
    records["wlan0"].isPingThreadRunning = true;
    PingWorker w = worker("wlan0");
    InterfaceInfo& info = records["wlan0"];
    LogCapture log;
    cycles(w, {11, 20});
    EXPECT_EQ(15, info.median().mrtt);  // (11 + 20) / 2, truncated
    cycles(w, {30, 40, 50, 60, 70, 80, 90, 100, 5});  // 11 leaves the history
    EXPECT_EQ(55, info.median().mrtt);
    EXPECT_EQ(1u, log.count("rrtt: wlan0, 20 30 40 50 60 70 80 90 100 5, 5 20 30 40 50 60 70 80 90 "
                            "100, [55]"))
        << log.dump();
}

TEST_F(WorkerCycle, SixSlowProbesMoveEveryRecordToTheNextServer) {
    records["rmnet_data0"].isPingThreadRunning = true;
    PingWorker w = worker("rmnet_data0");
    records["wlan1"].switchCount = 3;
    cycles(w, {200, 200, 200, 200, 200});
    EXPECT_EQ(5u, records["rmnet_data0"].switchCount) << "a probe at the threshold, as every failed one is, is slow";
    cycles(w, {200});
    for (auto& entry : records.map) {
        EXPECT_STREQ("1.1.1.1", entry.second->pingServer.load()) << entry.first;
        EXPECT_EQ(0u, entry.second->switchCount) << entry.first;
    }
    cycles(w, {30});
    EXPECT_EQ("1.1.1.1", probes.servers().back());  // the next probe asks the new server

    // A fast probe takes one off; slow ones must lead by six from zero.
    cycles(w, {250, 30, 250, 30, 250, 30, 250, 250, 250, 250, 250});
    EXPECT_STREQ("1.1.1.1", records["wlan0"].pingServer.load());
    cycles(w, {250});
    EXPECT_STREQ("8.8.4.4", records["wlan0"].pingServer.load());
}

TEST_F(WorkerCycle, CandidatesChargeTheProbeAgainstTheirPeriod) {
    records["wlan0"].isControlByAutoSelect = true;
    records["rmnet_data0"].isControlByAutoSelect = true;
    PingWorker wifi = worker("wlan0");
    PingWorker cell = worker("rmnet_data0");
    cycles(wifi, {120});
    cycles(cell, {120});  // not forced, not steering to cellular: idle, full period
    context.forcePing = true;
    cycles(cell, {120});
    props.set(kRttThresholdProperty, "300");
    cycles(wifi, {350});  // a slow probe is charged at the threshold
    context.forcePing = false;
    context.userData = true;
    cycles(wifi, {10});  // the user picked cellular: no probe, the last charge stays
    EXPECT_EQ((std::vector<uint32_t>{880000, 1000000, 380000, 700000, 700000}),
              sleeper.requests());
    EXPECT_EQ(3u, probes.servers().size());
}

// Suspension across all workers is proven on the manager's ten.
TEST_F(WorkerCycle, IdleAndSuspendedWorkersDoNothingButSleep) {
    PingWorker w = worker("wlan0");
    cycles(w, {40});  // never started
    records["wlan0"].isPingThreadRunning = true;
    records["wlan0"].isPingThreadSuspended = true;
    LogCapture log;
    cycles(w, {40});
    EXPECT_TRUE(probes.servers().empty());
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    EXPECT_EQ(std::vector<uint32_t>(2, 1000000), sleeper.requests());
    records["wlan0"].isPingThreadSuspended = false;
    records["wlan0"].isPingThreadAlive = false;
    EXPECT_FALSE(w.runCycle());
    EXPECT_EQ(1u, probes.servers().size());
    EXPECT_EQ(2u, sleeper.requests().size());  // no sleep on the way out
}

}  // namespace
