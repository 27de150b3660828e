#include "interfaces/InterfaceManager.h"

#include <android/log.h>
#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "LogCapture.h"
#include "RecordingCommandExecutor.h"
#include "TempPropertyFile.h"
#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"
#include "tests/interfaces/InterfaceFakes.h"

using namespace probemond::ifaces;
using probemond::test::FakeManager;
using probemond::test::LogCapture;
using probemond::test::RecordingWrapperTools;
using probemond::test::RecordingKiller;
using probemond::test::TempPropertyFile;

namespace {

std::vector<std::string> linesContaining(const LogCapture& log, const std::string& part) {
    std::vector<std::string> out;
    for (const auto& t : log.texts()) {
        if (t.find(part) != std::string::npos) out.push_back(t);
    }
    return out;
}

// ---- registry ----

TEST(Registry, StartUpBuildsRecordsThenRulesThenWorkersInTheirOrders) {
    TempPropertyFile props;
    LogCapture log;
    FakeManager fake;

    const std::vector<std::string> texts = log.texts();
    ASSERT_GE(texts.size(), 2u);
    EXPECT_EQ("InterfaceManager called", texts[0]);
    EXPECT_EQ("initInterfaceInfoAndMap called", texts[1]);

    // Records in table order.
    auto records = linesContaining(log, "initInterfaceInfoAndMap interface=");
    ASSERT_EQ(10u, records.size());
    EXPECT_EQ("initInterfaceInfoAndMap interface=wlan0, fwmark=0xa0, prio=29500, "
              "ping_server=8.8.8.8, ping_interval=1000",
              records[0]);
    EXPECT_EQ("initInterfaceInfoAndMap interface=wlan1, fwmark=0xa1, prio=29600, "
              "ping_server=8.8.8.8, ping_interval=1000",
              records[1]);
    EXPECT_EQ("initInterfaceInfoAndMap interface=rmnet_data7, fwmark=0xd7, prio=30400, "
              "ping_server=8.8.8.8, ping_interval=1000",
              records[9]);

    // Chains and worker start in map order: rmnet_data0 first, wlan1 last.
    const auto calls = fake.steering.calls();
    ASSERT_EQ(20u, calls.size());
    EXPECT_EQ("initMangleRules rmnet_data0 0xd0", calls[0]);
    EXPECT_EQ("initNatRules rmnet_data0", calls[1]);
    EXPECT_EQ("initMangleRules rmnet_data7 0xd7", calls[14]);
    EXPECT_EQ("initMangleRules wlan0 0xa0", calls[16]);
    EXPECT_EQ("initNatRules wlan1", calls[19]);

    auto workers = linesContaining(log, "Init ping thread on ");
    ASSERT_EQ(10u, workers.size());
    EXPECT_EQ("initAllPingThread Init ping thread on rmnet_data0", workers[0]);
    EXPECT_EQ("initAllPingThread Init ping thread on wlan0", workers[8]);
    EXPECT_EQ("initAllPingThread Init ping thread on wlan1", workers[9]);

    // The rule set-up comes between the records and the workers.
    size_t rulesAt = 0, lastRecordAt = 0, firstWorkerAt = 0;
    for (size_t i = 0; i < texts.size(); ++i) {
        if (texts[i] == "initIptablesMangleNatRules called") rulesAt = i;
        if (texts[i].find("interface=wlan0,") != std::string::npos) lastRecordAt = i;
        if (texts[i] == workers[0]) firstWorkerAt = i;
    }
    EXPECT_LT(lastRecordAt, rulesAt);
    EXPECT_LT(rulesAt, firstWorkerAt);
}

TEST(Registry, RecordsStartWithTheirTableValues) {
    TempPropertyFile props;
    FakeManager fake;
    ASSERT_EQ(10u, fake->ifaceMap.size());
    for (auto& entry : fake->ifaceMap) {
        const InterfaceInfo& info = *entry.second;
        const bool data = entry.first.rfind("rmnet_data", 0) == 0;
        EXPECT_EQ(!data, info.isWifi) << info.name;
        EXPECT_EQ(data ? 50 : 30, info.rtt) << info.name;
        EXPECT_EQ(data ? 50 : 30, info.mrtt) << info.name;
        EXPECT_FALSE(info.isPingThreadRunning);
        EXPECT_TRUE(info.isPingThreadAlive);
    }
}

TEST(Registry, CountryChoosesTheStartServer) {
    const std::pair<const char*, const char*> rows[] = {
        {"", "8.8.8.8"}, {"TW", "8.8.8.8"}, {"CN", "180.76.76.76"},
        {"xxCNyy", "180.76.76.76"}, {"cn", "8.8.8.8"},
    };
    for (const auto& row : rows) {
        TempPropertyFile props;
        if (*row.first) props.set(kCountryProperty, row.first);
        FakeManager fake;
        for (auto& entry : fake->ifaceMap) {
            EXPECT_STREQ(row.second, entry.second->pingServer.load())
                << "country '" << row.first << "' " << entry.first;
        }
    }
}

TEST(Registry, LookupIsExactAndPredicatesTestThePrefix) {
    TempPropertyFile props;
    FakeManager fake;
    InterfaceInfo* wlan0 = fake->getIfaceInfo("wlan0");
    ASSERT_NE(nullptr, wlan0);
    EXPECT_STREQ("0xa0", wlan0->fwmark);
    EXPECT_STREQ("29500", wlan0->prio);
    InterfaceInfo* last = fake->getIfaceInfo("rmnet_data7");
    ASSERT_NE(nullptr, last);
    EXPECT_STREQ("0xd7", last->fwmark);
    EXPECT_STREQ("30400", last->prio);
    for (const char* name : {"", "wlan2", "WLAN0", "wlan0 ", "rmnet_data", "rmnet_data8"}) {
        EXPECT_EQ(nullptr, fake->getIfaceInfo(name)) << "'" << name << "'";
    }

    EXPECT_FALSE(fake->isUserSelectData());
    EXPECT_FALSE(fake->isAutoSelectData());
    const std::pair<const char*, bool> names[] = {
        {"rmnet_data5", true}, {"rmnet_data", true}, {"wlan0", false},
        {"xrmnet_data0", false}, {"rmnet_dat", false}, {"", false},
    };
    for (const auto& n : names) {
        InterfaceManagerTestPeer::setUserSelectIface(*fake.manager, n.first);
        InterfaceManagerTestPeer::setAutoSelectIface(*fake.manager, n.first);
        EXPECT_EQ(n.second, fake->isUserSelectData()) << n.first;
        EXPECT_EQ(n.second, fake->isAutoSelectData()) << n.first;
    }
}

// ---- ping controls ----

TEST(PingControls, StartStopMessagesAndResults) {
    TempPropertyFile props;
    FakeManager fake;
    LogCapture log;
    EXPECT_EQ(0, fake->startPingThread("wlan0"));
    EXPECT_TRUE(log.has("startPingThread Start ping on wlan0", ANDROID_LOG_DEBUG));
    EXPECT_EQ(-1, fake->startPingThread("wlan0"));
    EXPECT_TRUE(log.has("startPingThread Failed to start ping on wlan0", ANDROID_LOG_ERROR));
    EXPECT_EQ(-1, fake->startPingThread("wlan5"));
    EXPECT_TRUE(log.has("startPingThread Invalid interface wlan5", ANDROID_LOG_DEBUG));
    EXPECT_EQ(-1, fake->stopPingThread("rmnet_data1"));
    EXPECT_TRUE(log.has("stopPingThread Failed to stop ping on rmnet_data1", ANDROID_LOG_ERROR));
    EXPECT_EQ(-1, fake->stopPingThread("eth0"));
    EXPECT_TRUE(log.has("stopPingThread Invalid interface eth0", ANDROID_LOG_DEBUG));
    EXPECT_EQ(0, fake->stopPingThread("wlan0"));
    EXPECT_TRUE(log.has("stopPingThread Stop ping on wlan0", ANDROID_LOG_DEBUG));
    EXPECT_FALSE(fake.info("wlan0").isPingThreadRunning);

    log.clear();
    EXPECT_EQ(-1, fake->startPingThread(nullptr));
    EXPECT_EQ(-1, fake->stopPingThread(nullptr));
    EXPECT_EQ(-1, fake->getInterfaceRtt(nullptr));
    EXPECT_EQ(0u, log.lines().size());
}

TEST(PingControls, AllWorkersOperationsInMapOrder) {
    TempPropertyFile props;
    FakeManager fake;
    fake->startPingThread("wlan1");
    fake->startPingThread("rmnet_data4");
    LogCapture log;
    EXPECT_EQ(0, fake->suspendAllPingThreads());
    EXPECT_EQ(0, fake->resumeAllPingThreads());
    EXPECT_EQ(0, fake->suspendAllPingThreads());
    // Suspension leaves the client's choices alone.
    EXPECT_TRUE(fake.info("wlan1").isPingThreadRunning);
    EXPECT_TRUE(fake.info("rmnet_data4").isPingThreadSuspended);
    EXPECT_EQ(0, fake->resumeAllPingThreads());
    EXPECT_EQ(0, fake->stopAllPingThreads());
    for (auto& entry : fake->ifaceMap) {
        EXPECT_FALSE(entry.second->isPingThreadRunning);
        EXPECT_FALSE(entry.second->isPingThreadSuspended);
    }
    const auto texts = log.texts();
    ASSERT_EQ(50u, texts.size());
    EXPECT_EQ("Ping thread on rmnet_data0 has been suspended", texts[0]);
    EXPECT_EQ("Ping thread on rmnet_data0 resume", texts[10]);
    EXPECT_EQ("Ping thread on wlan1 has been stopped", texts[49]);
}

size_t openFdCount() {
    size_t n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (readdir(d) != nullptr) ++n;
    closedir(d);
    return n;
}

TEST(PingControls, RttNeedsARunningInterfaceKnownToTheRegistry) {
    TempPropertyFile props;
    FakeManager fake;
    LogCapture log;
    const size_t fds = openFdCount();
    // Loopback runs but is not one of ours: the only logged case.
    EXPECT_EQ(-1, fake->getInterfaceRtt("lo"));
    EXPECT_TRUE(log.has("getInterfaceRtt ifaceInfo of lo is NULL", ANDROID_LOG_ERROR));
    log.clear();
    EXPECT_EQ(-1, fake->getInterfaceRtt("probemondnone0"));
    EXPECT_EQ(-1, fake->getInterfaceRtt("abcdefghijklmno"));  // 15 characters fit
    for (int i = 0; i < 50; ++i) fake->getInterfaceRtt("lo");
    log.clear();
    // No wlan0 in this namespace: down counts as not running, silently.
    if (fake->getInterfaceRtt("wlan0") == -1) {
        EXPECT_EQ(0u, log.lines().size());
    }
    EXPECT_EQ(fds, openFdCount());
}

TEST(PingControlsDeathTest, SixteenCharacterNameEndsTheProcess) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    TempPropertyFile props;
    FakeManager fake;
    EXPECT_DEATH(fake->getInterfaceRtt("abcdefghijklmnop"), "");
}

// ---- manual selection on fakes ----

TEST(Selection, FirstChangeAndRepeat) {
    TempPropertyFile props;
    FakeManager fake;
    fake.steering.clear();
    LogCapture log;

    EXPECT_EQ(0, fake->selectInterface("wlan0"));
    EXPECT_EQ(0u, log.countContaining("prev="));
    EXPECT_EQ("wlan0", fake->userSelectIfaceCopy());
    EXPECT_FALSE(fake->isUserSelectData());

    EXPECT_EQ(0, fake->selectInterface("rmnet_data0"));
    EXPECT_TRUE(log.has("selectInterface prev=wlan0, curr=rmnet_data0, kill=1", ANDROID_LOG_DEBUG));
    EXPECT_TRUE(fake->isUserSelectData());

    log.clear();
    EXPECT_EQ(-1, fake->selectInterface("rmnet_data0"));
    EXPECT_EQ(0u, log.lines().size());

    // The repeat released the mutex: selection still works.
    EXPECT_EQ(0, fake->selectInterface("wlan1"));
    EXPECT_EQ((std::vector<std::string>{"selectIface wlan0 nokill", "selectIface rmnet_data0 kill",
                                        "selectIface wlan1 kill"}),
              fake.steering.calls());
    EXPECT_TRUE(fake.notifier.names().empty());
}

TEST(Selection, IpRulesDeleteBeforeAdd) {
    TempPropertyFile props;
    FakeManager fake;
    fake.steering.clear();
    LogCapture log;
    EXPECT_EQ(0, fake->addInterfaceIpRule("wlan1"));
    EXPECT_EQ(0, fake->delInterfaceIpRule("rmnet_data7"));
    EXPECT_EQ(-1, fake->addInterfaceIpRule("wlan9"));
    EXPECT_EQ(-1, fake->delInterfaceIpRule(""));
    EXPECT_EQ(-1, fake->addInterfaceIpRule(nullptr));
    EXPECT_EQ((std::vector<std::string>{"delIpRule 29600", "addIpRule wlan1 0xa1 29600",
                                        "delIpRule 30400"}),
              fake.steering.calls());
    EXPECT_TRUE(log.has("addInterfaceIpRule Invalid interface wlan9", ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log.has("delInterfaceIpRule Invalid interface ", ANDROID_LOG_DEBUG));
}

// Kept reachable so that leak checkers stay quiet: its mutex is held for good.
FakeManager* gAbandoned = nullptr;

TEST(Selection, UnknownNameKeepsTheMutexHeld) {
    TempPropertyFile props;
    gAbandoned = new FakeManager;
    InterfaceManager* m = gAbandoned->manager.get();
    ASSERT_EQ(0, m->selectInterface("wlan0"));
    LogCapture log;
    EXPECT_EQ(-1, m->selectInterface("eth0"));
    EXPECT_TRUE(log.has("selectInterface Invalid interface eth0", ANDROID_LOG_DEBUG));

    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread([m, done] {
        m->selectInterface("rmnet_data1");
        done->store(true);
    }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(done->load()) << "a selection went through after an unknown name";

    // What does not need the mutex keeps working, the state dump included.
    EXPECT_EQ(0, m->startPingThread("wlan1"));
    EXPECT_EQ("wlan0", m->snapshot().userSelectIface);
    m->disableAutoSelect();
    EXPECT_EQ((std::vector<std::string>{""}), gAbandoned->notifier.names());
}

TEST(Snapshot, CopiesEveryRecordAndTheSelections) {
    TempPropertyFile props;
    FakeManager fake;
    fake->selectInterface("rmnet_data2");
    InterfaceInfo& w = fake.info("wlan0");
    w.addRtt(12);
    w.addRtt(14);
    w.rtt = 14;
    w.mrtt = 13;
    w.switchCount = 2;
    w.isPingThreadRunning = true;
    const InterfaceManagerSnapshot s = fake->snapshot();
    EXPECT_EQ("rmnet_data2", s.userSelectIface);
    EXPECT_EQ("", s.autoSelectIface);
    ASSERT_EQ(10u, s.interfaces.size());
    const InterfaceSnapshot& r = s.interfaces[8];
    EXPECT_EQ("wlan0", r.name);
    EXPECT_EQ("0xa0", r.fwmark);
    EXPECT_EQ("29500", r.prio);
    EXPECT_EQ("8.8.8.8", r.pingServer);
    EXPECT_EQ(14, r.rtt);
    EXPECT_EQ(13, r.mrtt);
    EXPECT_EQ(2u, r.switchCount);
    EXPECT_TRUE(r.isPingThreadRunning);
    EXPECT_TRUE(r.isWifi);
    EXPECT_EQ((std::vector<int32_t>{12, 14}), r.rttHistory);
    EXPECT_FALSE(s.interfaces[0].isWifi);
}

// ---- with the real rule managers, recording command lines ----

class RealRules : public ::testing::Test {
protected:
    TempPropertyFile props;
    RecordingWrapperTools commands;
    probemond::test::FakeProbes probes;
    probemond::test::RecordingNotifier notifier;
    std::unique_ptr<InterfaceManager> manager;

    void SetUp() override {
        IptablesRuleManager::instance();
        IpRuleManager::instance();
        commands.clear();
        InterfaceManager::Seams seams;
        seams.probers = &probes;
        seams.notifier = &notifier;
        seams.startWorkers = false;
        manager = InterfaceManager::create(seams);
    }
    void TearDown() override {
        manager.reset();
    }
};

const std::string kIpt = "/system/bin/iptables-wrapper-1.0 -w ";
const std::string kIp = "/system/bin/ip-wrapper-1.0 -4 ";

TEST_F(RealRules, StartUpProgramsEachInterfaceChainInMapOrder) {
    const auto c = commands.commands();
    ASSERT_EQ(70u, c.size());
    EXPECT_EQ(kIpt + "-t mangle -N kest_probemon_rmnet_data0", c[0]);
    EXPECT_EQ(kIpt + "-t mangle -A kest_probemon_rmnet_data0 -j MARK --set-mark 0xd0", c[2]);
    EXPECT_EQ(kIpt + "-t mangle -A kest_probemon_rmnet_data0 -j ACCEPT", c[4]);
    EXPECT_EQ(kIpt + "-t nat -D kest_masquerade -o rmnet_data0 -j MASQUERADE", c[5]);
    EXPECT_EQ(kIpt + "-t nat -A kest_masquerade -o rmnet_data0 -j MASQUERADE", c[6]);
    EXPECT_EQ(kIpt + "-t mangle -A kest_probemon_wlan1 -j MARK --set-mark 0xa1", c[65]);
    EXPECT_EQ(kIpt + "-t mangle -A kest_probemon_wlan1 -j RETURN", c[67]);
    EXPECT_EQ(kIpt + "-t nat -A kest_masquerade -o wlan1 -j MASQUERADE", c[69]);
}

TEST_F(RealRules, SelectionAndIpRuleCommandLines) {
    IptablesRuleManager::instance()->addUid("10123");
    commands.clear();
    EXPECT_EQ(0, manager->addInterfaceIpRule("wlan1"));
    EXPECT_EQ((std::vector<std::string>{kIp + "rule del prio 29600", kIp + "rule del prio 29600",
                                        kIp + "rule add fwmark 0xa1/0xffff table wlan1 prio 29600"}),
              commands.commands());
    commands.clear();

    EXPECT_EQ(0, manager->selectInterface("wlan0"));
    EXPECT_EQ((std::vector<std::string>{kIpt + "-t mangle -F kest_probemon_iface_rmnet",
                                        kIpt + "-t mangle -F kest_probemon_iface_wlan"}),
              commands.commands());
    commands.clear();

    EXPECT_EQ(0, manager->selectInterface("rmnet_data2"));
    EXPECT_EQ((std::vector<std::string>{
                  kIpt + "-t mangle -F kest_probemon_iface_wlan",
                  kIpt + "-t mangle -F kest_probemon_iface_rmnet",
                  kIpt + "-t mangle -I kest_probemon_iface_rmnet -j kest_probemon_rmnet_data2"}),
              commands.commands());
    commands.clear();

    EXPECT_EQ(-1, manager->selectInterface("rmnet_data2"));
    EXPECT_TRUE(commands.commands().empty());
    IptablesRuleManager::instance()->disableAutoSelect();  // blocks if the mutex was left held
}

}  // namespace
