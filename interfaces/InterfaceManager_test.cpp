// The registry, the ping-worker controls and manual selection, on fakes.
#include "interfaces/InterfaceManager.h"

#include <gtest/gtest.h>

#include <condition_variable>

#include "LogCapture.h"
#include "TempPropertyFile.h"
#include "tests/interfaces/InterfaceFakes.h"

using namespace probemond::ifaces;
using namespace probemond::test;

namespace {

// Each interface as the manager hands it to the firewall and policy rules
// and shows it in its records; rows in map order, which is the chains' order.
TEST(Registry, EveryInterfaceRow) {
    struct Row {
        const char* name;
        const char* mark;
        const char* prio;
        int32_t startRtt;
        bool wifi;
    };
    const Row rows[] = {
        {"rmnet_data0", "0xd0", "29700", 50, false}, {"rmnet_data1", "0xd1", "29800", 50, false},
        {"rmnet_data2", "0xd2", "29900", 50, false}, {"rmnet_data3", "0xd3", "30000", 50, false},
        {"rmnet_data4", "0xd4", "30100", 50, false}, {"rmnet_data5", "0xd5", "30200", 50, false},
        {"rmnet_data6", "0xd6", "30300", 50, false}, {"rmnet_data7", "0xd7", "30400", 50, false},
        {"wlan0", "0xa0", "29500", 30, true},        {"wlan1", "0xa1", "29600", 30, true},
    };
    TempPropertyFile props;
    FakeManager fake;
    Strings chains;
    for (const Row& row : rows) {
        chains.push_back(std::string("initMangleRules ") + row.name + " " + row.mark);
        chains.push_back(std::string("initNatRules ") + row.name);
    }
    EXPECT_EQ(chains, fake.recorder.calls());
    const InterfaceManagerSnapshot state = fake.m.snapshot();
    ASSERT_EQ(std::size(rows), state.interfaces.size());
    for (size_t i = 0; i < std::size(rows); ++i) {
        const Row& row = rows[i];
        SCOPED_TRACE(row.name);
        fake.recorder.clear();
        EXPECT_EQ(0, fake.m.addInterfaceIpRule(row.name));
        EXPECT_EQ((Strings{std::string("delIpRule ") + row.prio,
                           std::string("addIpRule ") + row.name + " " + row.mark + " " + row.prio}),
                  fake.recorder.calls());
        const InterfaceSnapshot& r = state.interfaces[i];
        EXPECT_EQ(row.name, r.name);
        EXPECT_EQ(row.startRtt, r.rtt);
        EXPECT_EQ(row.startRtt, r.mrtt);
        EXPECT_EQ(row.wifi, r.isWifi);
        EXPECT_EQ("8.8.8.8", r.pingServer);
        ASSERT_EQ(0, fake.m.selectInterface(row.name));
        EXPECT_EQ(!row.wifi, fake.m.isUserSelectData());
    }
}

// Lookups take exact names only.
TEST(Registry, CountryTableAndExactLookup) {
    TempPropertyFile props;
    props.set(kCountryProperty, "xxCNyy");
    FakeManager fake;
    EXPECT_STREQ("180.76.76.76", fake.info("wlan0").pingServer.load());
    for (const char* name : {"", "wlan2", "WLAN0", "wlan0 ", "rmnet_data", "rmnet_data8"}) {
        EXPECT_EQ(nullptr, fake.m.getIfaceInfo(name)) << "'" << name << "'";
    }
}

// Every sleeping thread waits for the next turn: between two turns each
// worker runs exactly one cycle.
class TurnSleeper : public Sleeper {
public:
    void sleepUs(uint32_t) override {
        std::unique_lock<std::mutex> l(lock_);
        const uint64_t mine = turn_;
        ++asleep_;
        changed_.notify_all();
        changed_.wait(l, [&] { return free_ || turn_ != mine; });
    }
    // Waits until n threads sleep in this turn.
    bool settle(size_t n) {
        std::unique_lock<std::mutex> l(lock_);
        return changed_.wait_for(l, std::chrono::seconds(5), [&] { return asleep_ >= n; });
    }
    void next() {
        std::lock_guard<std::mutex> g(lock_);
        asleep_ = 0;
        ++turn_;
        changed_.notify_all();
    }
    void free() {
        std::lock_guard<std::mutex> g(lock_);
        free_ = true;
        changed_.notify_all();
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    uint64_t turn_ = 0;
    size_t asleep_ = 0;
    bool free_ = false;
};

// Workers the client started and auto-select candidates it never started
// are suspended and resumed alike.
TEST(PingWorkers, SuspendAndResumeReachEveryWorker) {
    TempPropertyFile props;
    FakeProbes probes;
    TurnSleeper sleeper;
    Recorder recorder;
    JoiningLauncher launcher;
    InterfaceManager m{probes, sleeper, recorder, recorder, launcher};
    ASSERT_EQ(0, m.selectInterface("rmnet_data0"));
    // Cellular candidates probe while auto-select steers to cellular.
    m.enableAutoSelect("rmnet_data3,rmnet_data4,rmnet_data5,rmnet_data6,rmnet_data7,");
    ASSERT_TRUE(sleeper.settle(1));  // the engine has begun
    m.initAllPingThread();
    const size_t threads = kInterfaceCount + 1;  // and the engine
    ASSERT_TRUE(sleeper.settle(threads));
    for (const char* name : {"wlan0", "wlan1", "rmnet_data0", "rmnet_data1", "rmnet_data2"}) {
        ASSERT_EQ(0, m.startPingThread(name));
    }
    auto probesMade = [&] {
        std::vector<uint64_t> made;
        for (const auto& entry : m.interfaces()) made.push_back(entry.second->counters.probes);
        return made;
    };
    auto plusOne = [](std::vector<uint64_t> made) {
        for (uint64_t& n : made) ++n;
        return made;
    };
    auto turn = [&] {
        sleeper.next();
        return sleeper.settle(threads);
    };
    const std::vector<uint64_t> before = probesMade();
    ASSERT_TRUE(turn());
    const std::vector<uint64_t> probing = probesMade();
    EXPECT_EQ(plusOne(before), probing);
    m.suspendAllPingThreads();
    ASSERT_TRUE(turn());
    ASSERT_TRUE(turn());
    EXPECT_EQ(probing, probesMade());
    m.resumeAllPingThreads();
    ASSERT_TRUE(turn());
    EXPECT_EQ(plusOne(probing), probesMade());

    m.disableAutoSelect();
    for (const auto& entry : m.interfaces()) entry.second->isPingThreadAlive = false;
    sleeper.free();
    launcher.join();
}

TEST(PingControlsDeathTest, NameTooLongForTheKernelEndsTheProcess) {
    TempPropertyFile props;
    FakeManager fake;
    EXPECT_DEATH(fake.m.getInterfaceRtt("abcdefghijklmnop"), "interface name too long");
}

TEST(Selection, FirstChangeRepeatAndUnknownNames) {
    TempPropertyFile props;
    FakeManager fake;
    fake.recorder.clear();
    LogCapture log;
    EXPECT_EQ(0, fake.m.selectInterface("wlan0"));
    EXPECT_EQ(0, fake.m.selectInterface("rmnet_data0"));
    EXPECT_EQ(-1, fake.m.selectInterface("rmnet_data0"));
    EXPECT_EQ(0, fake.m.selectInterface("wlan1"));  // the repeat released the mutex
    EXPECT_EQ(-1, fake.m.addInterfaceIpRule("wlan9"));
    EXPECT_EQ(-1, fake.m.delInterfaceIpRule(""));
    EXPECT_EQ((Strings{"selectIface wlan0", "selectIface rmnet_data0 kill", "selectIface wlan1 kill"}),
              fake.recorder.calls());
    EXPECT_EQ((Strings{"selectInterface prev=wlan0, curr=rmnet_data0, kill=1",
                       "selectInterface prev=rmnet_data0, curr=wlan1, kill=1",
                       "addInterfaceIpRule Invalid interface wlan9", "delInterfaceIpRule Invalid interface "}),
              log.texts());
    EXPECT_EQ("wlan1", fake.m.userSelectIfaceCopy());
}

}  // namespace
