#include <android/log.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "LogCapture.h"
#include "RecordingCommandExecutor.h"
#include "TempPropertyFile.h"
#include "interfaces/InterfaceManager.h"
#include "netctl/IptablesRuleManager.h"
#include "tests/interfaces/InterfaceFakes.h"

using namespace probemond::ifaces;
using probemond::test::FakeManager;
using probemond::test::LogCapture;
using probemond::test::RecordingWrapperTools;
using probemond::test::RecordingKiller;
using probemond::test::TempPropertyFile;
using probemond::test::waitUntil;

namespace {

using Strings = std::vector<std::string>;

void fillHistory(InterfaceInfo& info, size_t n, int32_t value) {
    info.clearRttHistory();
    for (size_t i = 0; i < n; ++i) info.addRtt(value);
}

// ---- one decision at a time ----

struct DecisionRow {
    const char* what;
    const char* current;
    int32_t currentRtt;
    size_t currentHistory;
    std::vector<std::pair<const char*, int32_t>> medians;  // applied to the records
    std::vector<const char*> list;                         // candidates, in list order
    const char* winner;                                    // nullptr: no switch
    bool forcePing;
};

TEST(Decision, RuleTable) {
    const DecisionRow rows[] = {
        {"bad Wi-Fi leaves for a good cellular link", "wlan0", 150, 5,
         {{"wlan0", 150}, {"rmnet_data0", 60}}, {"rmnet_data0", "wlan0"}, "rmnet_data0", true},
        {"Wi-Fi at 100 stays whatever the others are", "wlan0", 100, 10,
         {{"wlan0", 100}, {"rmnet_data0", 1}}, {"rmnet_data0", "wlan0"}, nullptr, false},
        {"Wi-Fi at 101 leaves for a 99", "wlan0", 101, 5,
         {{"wlan0", 101}, {"rmnet_data0", 99}}, {"rmnet_data0", "wlan0"}, "rmnet_data0", true},
        {"a best at exactly 100 is not good enough", "wlan0", 150, 5,
         {{"wlan0", 150}, {"rmnet_data0", 100}}, {"rmnet_data0", "wlan0"}, nullptr, true},
        {"Wi-Fi that is itself the best stays", "wlan0", 90, 5,
         {{"wlan0", 120}, {"rmnet_data0", 130}}, {"rmnet_data0", "wlan0"}, nullptr, false},
        {"Wi-Fi may move to the other Wi-Fi", "wlan0", 150, 5,
         {{"wlan0", 150}, {"wlan1", 40}, {"rmnet_data0", 60}}, {"rmnet_data0", "wlan1", "wlan0"},
         "wlan1", true},
        {"cellular leaves for any best Wi-Fi, even a slower one", "rmnet_data0", 20, 5,
         {{"rmnet_data0", 20}, {"wlan0", 300}}, {"wlan0"}, "wlan0", false},
        {"cellular stays while cellular is best", "rmnet_data0", 20, 5,
         {{"rmnet_data0", 20}, {"wlan0", 300}}, {"rmnet_data0", "wlan0"}, nullptr, false},
        {"never cellular to cellular", "rmnet_data0", 250, 5,
         {{"rmnet_data0", 250}, {"rmnet_data1", 10}, {"wlan0", 90}},
         {"rmnet_data1", "rmnet_data0", "wlan0"}, nullptr, true},
        {"a tie goes to the record met first", "rmnet_data0", 50, 5,
         {{"rmnet_data0", 70}, {"wlan0", 60}, {"wlan1", 60}}, {"wlan1", "wlan0", "rmnet_data0"},
         "wlan1", false},
        {"medians of 0 or below never win", "wlan0", 150, 5,
         {{"wlan0", 150}, {"rmnet_data0", 0}, {"rmnet_data1", -4}, {"rmnet_data2", 50}},
         {"rmnet_data0", "rmnet_data1", "rmnet_data2", "wlan0"}, "rmnet_data2", true},
        {"a history of 4 waits", "wlan0", 150, 4,
         {{"wlan0", 150}, {"rmnet_data0", 10}}, {"rmnet_data0", "wlan0"}, nullptr, false},
        {"no candidate at all", "rmnet_data0", 300, 5, {{"rmnet_data0", 300}}, {}, nullptr, true},
        {"only non-positive medians", "rmnet_data0", 30, 5,
         {{"rmnet_data0", 30}, {"wlan0", 0}}, {"wlan0"}, nullptr, false},
        {"no current interface", "", 0, 0, {{"wlan0", 10}}, {"wlan0"}, nullptr, false},
    };
    for (const DecisionRow& row : rows) {
        SCOPED_TRACE(row.what);
        TempPropertyFile props;
        FakeManager fake;
        fake->isAutoSelectForcePing = true;  // every decision starts by clearing it
        for (const auto& m : row.medians) fake.info(m.first).mrtt = m.second;
        std::vector<InterfaceInfo*> list;
        for (const char* name : row.list) {
            list.push_back(&fake.info(name));
            fillHistory(fake.info(name), 5, 1);
        }
        if (*row.current) {
            fake.info(row.current).rtt = row.currentRtt;
            fillHistory(fake.info(row.current), row.currentHistory, 1);
        }
        InterfaceManagerTestPeer::setAutoSelectIface(*fake.manager, row.current);
        LogCapture log;

        const bool switched = fake->switchInterface(list);

        EXPECT_EQ(row.winner != nullptr, switched);
        EXPECT_EQ(row.forcePing, fake->isAutoSelectForcePing.load());
        if (row.winner) {
            EXPECT_EQ(row.winner, fake->autoSelectIfaceCopy());
            EXPECT_EQ(Strings{row.winner}, fake.notifier.names());
            char line[128];
            snprintf(line, sizeof(line), "%s (%dms) is better than %s (%dms)", row.winner,
                     static_cast<int>(fake.info(row.winner).mrtt), row.current,
                     static_cast<int>(fake.info(row.current).mrtt));
            EXPECT_TRUE(log.has(line, ANDROID_LOG_DEBUG)) << log.dump();
        } else {
            EXPECT_EQ(row.current, fake->autoSelectIfaceCopy());
            EXPECT_TRUE(fake.notifier.names().empty());
            EXPECT_EQ(0u, log.lines().size()) << log.dump();  // debug is off
        }
        // The firewall is the loop's business, not the decision's.
        EXPECT_TRUE(fake.steering.calls().size() == 20u);
    }
}

TEST(Decision, ShortHistoryIsExplainedOnlyWhenDebugging) {
    TempPropertyFile props;
    FakeManager fake;
    InterfaceManagerTestPeer::setAutoSelectIface(*fake.manager, "wlan1");
    fillHistory(fake.info("wlan1"), 4, 500);
    fake.info("wlan1").mrtt = 500;
    fake.info("rmnet_data3").mrtt = 5;
    std::vector<InterfaceInfo*> list{&fake.info("rmnet_data3"), &fake.info("wlan1")};
    LogCapture log;
    EXPECT_FALSE(fake->switchInterface(list));
    EXPECT_EQ(0u, log.lines().size());
    fake->rttDebug = true;
    EXPECT_FALSE(fake->switchInterface(list));
    EXPECT_TRUE(log.has("Could not make switch decision because the rtt history on wlan1 is 4/5.",
                        ANDROID_LOG_DEBUG))
        << log.dump();
}

// ---- the candidate list ----

TEST(EnableList, CommaTerminatedReversedAndUnknownSkipped) {
    struct Row {
        const char* arg;
        Strings candidates;
    };
    const Row rows[] = {
        {"wlan0,rmnet_data0,", {"rmnet_data0", "wlan0"}},
        {"wlan0,rmnet_data0", {"wlan0"}},
        {"wlan0", {}},
        {"", {}},
        {",bogus,wlan1,,wlan1,", {"wlan1", "wlan1"}},
        {"rmnet_data7,wlan1,rmnet_data0,tail", {"rmnet_data0", "wlan1", "rmnet_data7"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.arg);
        TempPropertyFile props;
        FakeManager fake(false, 100);
        LogCapture log;
        fake->enableAutoSelect(row.arg);
        ASSERT_TRUE(log.waitForContaining("Auto select thread ", 5000));
        std::set<std::string> controlled;
        for (auto& e : fake->ifaceMap) {
            if (e.second->isControlByAutoSelect) controlled.insert(e.first);
        }
        // One line per known name, in string order, and none for the rest.
        EXPECT_EQ(row.candidates.size(),
                  log.countContaining("enableAutoSelect Auto select tries to start ping thread on "));
        EXPECT_EQ(0u, log.countContaining("bogus"));
        EXPECT_TRUE(fake->isAutoSelectEnabled);
        fake->disableAutoSelect();
        for (auto& e : fake->ifaceMap) EXPECT_FALSE(e.second->isControlByAutoSelect);
        ASSERT_TRUE(log.waitForContaining("is stopped", 5000));

        // The engine has let go of the mutex: the list can be read now.
        Strings names;
        for (InterfaceInfo* info : InterfaceManagerTestPeer::autoSelectIfaces(*fake.manager)) {
            names.push_back(info->name);
        }
        EXPECT_EQ(row.candidates, names);
        EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), controlled);
    }
}

// ---- the engine's thread, on fakes ----

class Engine : public ::testing::Test {
protected:
    TempPropertyFile props;
    LogCapture log;
    FakeManager fake{false, 100};  // a 100 ms decision period takes 1 ms

    void waitStopped() { ASSERT_TRUE(log.waitForContaining(" is stopped", 5000)) << log.dump(); }
};

TEST_F(Engine, SwitchesAwayAndKillsSocketsWhenStoppingElsewhere) {
    ASSERT_EQ(0, fake->selectInterface("wlan0"));
    fake->enableAutoSelect("wlan0,rmnet_data0,");
    ASSERT_TRUE(fake.notifier.waitForCount(2, 5000));
    EXPECT_EQ((Strings{"", "wlan0"}), fake.notifier.names());
    EXPECT_EQ("wlan0", fake->autoSelectIfaceCopy());

    fake.info("wlan0").mrtt = 150;
    fake.info("wlan0").rtt = 150;
    fake.info("rmnet_data0").mrtt = 30;
    fillHistory(fake.info("rmnet_data0"), 5, 30);
    fillHistory(fake.info("wlan0"), 5, 150);
    ASSERT_TRUE(fake.notifier.waitForCount(3, 5000));
    ASSERT_TRUE(log.waitFor("Switch to rmnet_data0", 5000)) << log.dump();
    EXPECT_TRUE(log.has("rmnet_data0 (30ms) is better than wlan0 (150ms)"));
    EXPECT_EQ("rmnet_data0", fake->autoSelectIfaceCopy());
    EXPECT_TRUE(fake->isAutoSelectData());

    fake->disableAutoSelect();
    waitStopped();
    // Histories restart after a switch so that the next decision waits.
    EXPECT_EQ(0u, fake.info("wlan0").rttHistorySize());
    EXPECT_EQ(0u, fake.info("rmnet_data0").rttHistorySize());
    EXPECT_TRUE(log.has("Auto (rmnet_data0) is NOT equal to User (wlan0)")) << log.dump();
    EXPECT_EQ((Strings{"", "wlan0", "rmnet_data0", ""}), fake.notifier.names());
    Strings calls = fake.steering.calls();
    calls.erase(calls.begin(), calls.begin() + 20);  // start-up
    ASSERT_EQ(5u, calls.size());
    EXPECT_EQ((Strings{"selectIface wlan0 nokill", "disableAutoSelect",
                       "enableAutoSelect rmnet_data0"}),
              Strings(calls.begin(), calls.begin() + 3));
    // The stop races the disable call; both happen.
    EXPECT_EQ((std::multiset<std::string>{"disableAutoSelect", "killUidSocket"}),
              std::multiset<std::string>(calls.begin() + 3, calls.end()));
    EXPECT_EQ("", fake->autoSelectIfaceCopy());
    EXPECT_FALSE(fake->isAutoSelectForcePing);
    EXPECT_FALSE(fake->isAutoSelectEnabled);
}

TEST_F(Engine, CellularReturnsToWifiAndStopsWithoutKill) {
    ASSERT_EQ(0, fake->selectInterface("wlan0"));
    fake->enableAutoSelect("wlan0,rmnet_data0,");
    ASSERT_TRUE(fake.notifier.waitForCount(2, 5000));
    fake.info("wlan0").mrtt = 150;
    fake.info("rmnet_data0").mrtt = 30;
    fillHistory(fake.info("rmnet_data0"), 5, 30);
    fillHistory(fake.info("wlan0"), 5, 150);
    ASSERT_TRUE(fake.notifier.waitForCount(3, 5000));
    ASSERT_TRUE(waitUntil([&] { return fake.info("rmnet_data0").rttHistorySize() == 0; }, 5000));

    // Cellular is best: it stays, however long we wait.
    fillHistory(fake.info("rmnet_data0"), 5, 30);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(3u, fake.notifier.names().size());
    // Wi-Fi becomes the best candidate: back to it.
    fake.info("wlan0").mrtt = 25;
    ASSERT_TRUE(fake.notifier.waitForCount(4, 5000));
    EXPECT_EQ("wlan0", fake.notifier.names()[3]);

    fake->disableAutoSelect();
    waitStopped();
    EXPECT_EQ(0u, log.countContaining("is NOT equal to User"));
    for (const auto& c : fake.steering.calls()) EXPECT_NE("killUidSocket", c);
}

TEST_F(Engine, ManualSelectionWaitsForTheEngine) {
    ASSERT_EQ(0, fake->selectInterface("wlan0"));
    fake->enableAutoSelect("wlan0,");
    ASSERT_TRUE(fake.notifier.waitForCount(2, 5000));
    std::atomic<int> result{99};
    std::thread select([&] { result = fake->selectInterface("rmnet_data1"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(99, result.load()) << "selection ran while auto-select held the mutex";
    fake->disableAutoSelect();
    select.join();
    EXPECT_EQ(0, result.load());
    const Strings calls = fake.steering.calls();
    EXPECT_NE(calls.end(), std::find(calls.begin(), calls.end(), "selectIface rmnet_data1 kill"));
}

TEST_F(Engine, ReEnableStopsTheRunningEngineFirst) {
    ASSERT_EQ(0, fake->selectInterface("wlan1"));
    fake->enableAutoSelect("wlan1,");
    ASSERT_TRUE(fake.notifier.waitForCount(2, 5000));
    fake->enableAutoSelect("wlan0,wlan1,");
    ASSERT_TRUE(fake.notifier.waitForCount(4, 5000));
    EXPECT_EQ((Strings{"", "wlan1", "", "wlan1"}), fake.notifier.names());
    ASSERT_TRUE(waitUntil([&] { return log.countContaining(" is started") == 2; }, 5000));
    Strings order;
    for (const auto& t : log.texts()) {
        if (t.find("Auto select thread ") == 0) order.push_back(t.substr(t.rfind(' ') + 1));
    }
    EXPECT_EQ((Strings{"started", "stopped", "started"}), order);
    EXPECT_TRUE(fake.info("wlan0").isControlByAutoSelect);
    fake->disableAutoSelect();
}

TEST_F(Engine, EnabledBeforeAnySelectionNeverSwitches) {
    fake->enableAutoSelect("wlan0,rmnet_data0,");
    ASSERT_TRUE(fake.notifier.waitForCount(2, 5000));
    fake.info("rmnet_data0").mrtt = 5;
    fake.info("wlan0").mrtt = 500;
    fillHistory(fake.info("rmnet_data0"), 10, 5);
    fillHistory(fake.info("wlan0"), 10, 500);
    props.set(kRttDebugProperty, "1");
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_TRUE(fake->rttDebug);
    fake->disableAutoSelect();
    waitStopped();
    EXPECT_EQ((Strings{"", "", ""}), fake.notifier.names());
    EXPECT_FALSE(fake->rttDebug);  // cleared on the way out
    EXPECT_EQ(0u, log.countContaining("is NOT equal"));
    for (uint32_t us : fake.sleeper.requests()) EXPECT_EQ(100000u, us);
}

// ---- the engine against the real rule manager ----

TEST(EngineRules, FirewallCommandsAndSocketKills) {
    TempPropertyFile props;
    RecordingWrapperTools commands;
    IptablesRuleManager::instance()->addUid("10077");
    {
        probemond::test::FakeProbes probes;
        probemond::test::RecordingSleeper sleeper(100);
        probemond::test::RecordingNotifier notifier;
        InterfaceManager::Seams seams;
        seams.probers = &probes;
        seams.sleeper = &sleeper;
        seams.notifier = &notifier;
        seams.startWorkers = false;
        auto m = InterfaceManager::create(seams);
        ASSERT_EQ(0, m->selectInterface("wlan0"));
        commands.clear();
        m->enableAutoSelect("wlan0,rmnet_data0,");
        ASSERT_TRUE(notifier.waitForCount(2, 5000));
        m->getIfaceInfo("wlan0")->mrtt = 180;
        m->getIfaceInfo("rmnet_data0")->mrtt = 40;
        fillHistory(*m->getIfaceInfo("rmnet_data0"), 5, 40);
        fillHistory(*m->getIfaceInfo("wlan0"), 5, 180);
        ASSERT_TRUE(notifier.waitForCount(3, 5000));
        ASSERT_TRUE(waitUntil([&] { return commands.commands().size() == 3; }, 5000));
        m->disableAutoSelect();
        m.reset();  // waits for the engine to stop
    }
    const std::string ipt = "/system/bin/iptables-wrapper-1.0 -w ";
    EXPECT_EQ((Strings{ipt + "-t mangle -F kest_probemon_iface_auto",
                       ipt + "-t mangle -F kest_probemon_iface_auto",
                       ipt + "-t mangle -I kest_probemon_iface_auto -j kest_probemon_rmnet_data0",
                       ipt + "-t mangle -F kest_probemon_iface_auto"}),
              commands.commands());
}

}  // namespace
