// The registry, the ping-worker controls and manual selection, on fakes.
#include "interfaces/InterfaceManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <thread>

#include "LogCapture.h"
#include "TempPropertyFile.h"
#include "common/Properties.h"
#include "InterfaceFakes.h"

using namespace probemond;
using namespace probemond::test;

namespace {

// Each row of the interface table as the manager hands it on: to the
// firewall in map order (the chains' order), to the policy rules, to the
// records the dump shows and to the kind of a selection. Lookups take exact
// names only.
TEST(Registry, EveryRowReachesItsUses) {
    TempPropertyFile props;
    props.set(kCountryProperty, "xxCNyy");
    FakeManager fake;
    std::map<std::string, InterfaceRow> rows;
    for (const InterfaceRow& row : kInterfaceTable) rows.emplace(row.name, row);
    Strings chains;
    for (const auto& [name, row] : rows) {
        chains.push_back("prepare " + name + " " + row.fwmark + (row.kind == InterfaceKind::kWifi ? " wifi" : " cell"));
    }
    EXPECT_EQ(chains, fake.recorder.calls());
    const InterfaceManagerSnapshot state = fake.m.snapshot();
    ASSERT_EQ(rows.size(), state.interfaces.size());
    size_t i = 0;
    for (const auto& [name, row] : rows) {
        SCOPED_TRACE(name);
        fake.recorder.clear();
        EXPECT_EQ(0, fake.m.addInterfaceIpRule(row.name));
        EXPECT_EQ((Strings{std::string("delIpRule ") + row.prio,
                           "addIpRule " + name + " " + row.fwmark + " " + row.prio}),
                  fake.recorder.calls());
        const InterfaceSnapshot& r = state.interfaces[i++];
        EXPECT_EQ(name, r.name);
        EXPECT_EQ(row.startRtt, r.rtt);
        EXPECT_EQ(row.startRtt, r.mrtt);
        EXPECT_EQ(row.kind == InterfaceKind::kWifi, r.isWifi);
        EXPECT_EQ("180.76.76.76", r.pingServer);
        ASSERT_EQ(0, fake.m.selectInterface(row.name));
        EXPECT_EQ(row.kind == InterfaceKind::kCellular, fake.m.isUserSelectData());
    }
    for (const char* name : {"", "wlan2", "WLAN0", "wlan0 ", "rmnet_data", "rmnet_data8"}) {
        EXPECT_EQ(nullptr, fake.m.getIfaceInfo(name)) << "'" << name << "'";
    }
    // Too long for any interface: -1 and a short, printable line, not an abort.
    LogCapture log;
    EXPECT_EQ(-1, fake.m.getInterfaceRtt(("wlan0\n" + std::string(40, 'x')).c_str()));
    EXPECT_EQ(Strings{"getInterfaceRtt interface name too long: wlan0?" + std::string(26, 'x') + "..."},
              log.texts());
}

// Workers the client started and auto-select candidates it never started
// are suspended and resumed alike.
TEST(PingWorkers, SuspendAndResumeReachEveryWorker) {
    TempPropertyFile props;
    FakeManager fake;
    InterfaceManager& m = fake.m;
    fake.sleeper.step();
    ASSERT_EQ(0, m.selectInterface("rmnet_data0"));
    // Cellular candidates probe while auto-select steers to cellular.
    m.enableAutoSelect("rmnet_data3,rmnet_data4,rmnet_data5,rmnet_data6,rmnet_data7,");
    ASSERT_TRUE(fake.sleeper.waitForSleep(1));  // the engine has begun
    m.initAllPingThread();
    const size_t workers = std::size(kInterfaceTable);
    size_t sleeps = 1 + workers;
    ASSERT_TRUE(fake.sleeper.waitForSleep(sleeps));
    for (const char* name : {"wlan0", "wlan1", "rmnet_data0", "rmnet_data1", "rmnet_data2"}) {
        ASSERT_EQ(0, m.startPingThread(name));
    }
    auto turn = [&] {  // one cycle of each worker, and one decision
        fake.sleeper.release();
        sleeps += workers + 1;
        return fake.sleeper.waitForSleep(sleeps);
    };
    auto probesMade = [&](int more = 0) {
        std::vector<uint64_t> made;
        for (const auto& entry : m.interfaces()) made.push_back(entry.second->counters.probes + more);
        return made;
    };
    const std::vector<uint64_t> oneMore = probesMade(1);
    ASSERT_TRUE(turn());
    EXPECT_EQ(oneMore, probesMade());
    m.suspendAllPingThreads();
    ASSERT_TRUE(turn());
    ASSERT_TRUE(turn());
    EXPECT_EQ(oneMore, probesMade()) << "a suspended worker probed";
    m.resumeAllPingThreads();
    ASSERT_TRUE(turn());
    EXPECT_EQ(oneMore, probesMade(-1)) << "a resumed worker did not probe";
}

// As the engine's thread does.
TEST(PingWorkers, AWorkerThatCannotStartEndsTheProcess) {
    TempPropertyFile props;
    FakeManager fake;
    fake.launcher.refuse = true;
    EXPECT_DEATH(fake.m.initAllPingThread(), "thread constructor failed");
}

TEST(Selection, FirstChangeRepeatAndUnknownNames) {
    TempPropertyFile props;
    FakeManager fake;
    fake.recorder.clear();
    EXPECT_EQ(0, fake.m.selectInterface("wlan0"));
    EXPECT_EQ(0, fake.m.selectInterface("rmnet_data0"));
    EXPECT_EQ(-1, fake.m.selectInterface("rmnet_data0"));
    EXPECT_EQ(0, fake.m.selectInterface("wlan1"));  // the repeat released the mutex
    EXPECT_EQ(-1, fake.m.addInterfaceIpRule("wlan9"));
    EXPECT_EQ(-1, fake.m.delInterfaceIpRule(""));
    EXPECT_EQ((Strings{"user wlan0 wifi", "user rmnet_data0 cell reset", "user wlan1 wifi reset"}),
              fake.recorder.calls());
    EXPECT_EQ("wlan1", fake.m.snapshot().userSelectIface);
}

// A restore repeats add-ip-rule's calls for the rules the client's adds
// left, in the order of their latest add; it is no add itself. A retry
// repeats them only for the rules the tool refused, until the client adds
// or deletes them.
TEST(PolicyRules, RestoreRepeatsTheLiveAddsInOrderAndRetriesOnlyTheRefused) {
    TempPropertyFile props;
    FakeManager fake;
    for (const char* add : {"wlan0", "rmnet_data0", "wlan1", "rmnet_data3", "wlan0"}) fake.m.addInterfaceIpRule(add);
    for (const char* del : {"wlan1", "rmnet_data5", "rmnet_data3"}) fake.m.delInterfaceIpRule(del);
    fake.recorder.clear();
    fake.recorder.refusedTables = {"rmnet_data0"};
    EXPECT_EQ(Strings{"rmnet_data0"}, fake.m.restoreIpRules().refused);
    EXPECT_EQ((Strings{"delIpRule 29700", "addIpRule rmnet_data0 0xd0 29700", "delIpRule 29500",
                       "addIpRule wlan0 0xa0 29500"}),
              fake.recorder.calls());

    fake.recorder.clear();
    fake.recorder.refusedTables.clear();
    EXPECT_EQ(Strings{"rmnet_data0"}, fake.m.retryRefusedIpRules().installed);
    EXPECT_EQ(Strings{}, fake.m.retryRefusedIpRules().installed);
    EXPECT_EQ((Strings{"delIpRule 29700", "addIpRule rmnet_data0 0xd0 29700"}), fake.recorder.calls());

    fake.recorder.refusedTables = {"rmnet_data0", "wlan0"};
    EXPECT_EQ((Strings{"rmnet_data0", "wlan0"}), fake.m.restoreIpRules().refused);
    fake.m.addInterfaceIpRule("wlan0");
    fake.m.delInterfaceIpRule("rmnet_data0");
    fake.recorder.clear();
    EXPECT_EQ(Strings{}, fake.m.retryRefusedIpRules().refused);
    EXPECT_EQ(Strings{}, fake.recorder.calls());
}

// Binder calls at once: the list ends as the rules do, whichever came last.
TEST(PolicyRules, ConcurrentAddsAndDeletesLeaveTheListAsTheRules) {
    TempPropertyFile props;
    FakeManager fake;
    std::vector<std::thread> clients;
    for (int t = 0; t < 4; ++t) {
        clients.emplace_back([&fake, t] {
            for (int i = 0; i < 200; ++i) {
                const char* iface = (i + t) % 3 ? "wlan0" : "rmnet_data0";
                if ((i * 7 + t) % 2) {
                    fake.m.addInterfaceIpRule(iface);
                } else {
                    fake.m.delInterfaceIpRule(iface);
                }
            }
        });
    }
    for (std::thread& c : clients) c.join();
    const Strings calls = fake.recorder.calls();
    Strings live;  // the interfaces whose last call was an add, by its mark
    for (const char* name : {"rmnet_data0", "wlan0"}) {
        const std::string prio = fake.info(name).prio;
        const auto last = std::find_if(calls.rbegin(), calls.rend(),
                                       [&](const std::string& c) { return c.find(prio) != std::string::npos; });
        if (last != calls.rend() && last->rfind("addIpRule", 0) == 0) live.push_back(name);
    }
    Strings listed = fake.m.restoreIpRules().installed;
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(live, listed);
}

}  // namespace
