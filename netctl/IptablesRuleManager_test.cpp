#include "netctl/IptablesRuleManager.h"

#include <android/log.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RecordingCommandExecutor.h"

using probemond::test::LogCapture;
using probemond::test::RecordingCommandExecutor;
using Lines = std::vector<std::string>;

namespace {

const std::string P = "/system/bin/iptables-wrapper-1.0 -w ";

class RecordingSocketKiller : public probemond::SocketKiller {
public:
    RecordingSocketKiller() { previous_ = probemond::setSocketKiller(this); }
    ~RecordingSocketKiller() override { probemond::setSocketKiller(previous_); }
    int32_t killUidSockets(const char* uid) override {
        std::lock_guard<std::mutex> g(lock_);
        killed_.push_back(uid);
        auto it = results_.find(uid);
        return it == results_.end() ? 0 : it->second;
    }
    Lines killed() {
        std::lock_guard<std::mutex> g(lock_);
        return killed_;
    }
    void failFor(const std::string& uid, int32_t result) {
        std::lock_guard<std::mutex> g(lock_);
        results_[uid] = result;
    }

private:
    probemond::SocketKiller* previous_;
    std::mutex lock_;
    Lines killed_;
    std::map<std::string, int32_t> results_;
};

class IptablesTest : public ::testing::Test {
protected:
    void SetUp() override {
        IptablesRuleManager::resetForTest();
        mgr_ = IptablesRuleManager::instance();
        rec_.clear();
    }
    void TearDown() override { IptablesRuleManager::resetForTest(); }
    Lines prefixed(const Lines& tails) {
        Lines out;
        for (const auto& t : tails) out.push_back(P + t);
        return out;
    }
    RecordingCommandExecutor rec_;
    RecordingSocketKiller killer_;
    IptablesRuleManager* mgr_ = nullptr;
};

TEST(IptablesCreation, FirstInstanceBuildsTheTreeAndLaterOnesRunNothing) {
    IptablesRuleManager::resetForTest();
    RecordingCommandExecutor rec;
    LogCapture log;
    IptablesRuleManager* m = IptablesRuleManager::instance();
    const Lines expected = {
        "-t mangle -N kest_probemon_uid",
        "-t mangle -F kest_probemon_uid",
        "-t mangle -I OUTPUT -j kest_probemon_uid",
        "-t mangle -N kest_probemon_iface",
        "-t mangle -F kest_probemon_iface",
        "-t mangle -N kest_probemon_iface_rmnet",
        "-t mangle -F kest_probemon_iface_rmnet",
        "-t mangle -I kest_probemon_iface -j kest_probemon_iface_rmnet",
        "-t mangle -N kest_probemon_iface_auto",
        "-t mangle -F kest_probemon_iface_auto",
        "-t mangle -A kest_probemon_iface -j kest_probemon_iface_auto",
        "-t mangle -N kest_probemon_iface_wlan",
        "-t mangle -F kest_probemon_iface_wlan",
        "-t mangle -A kest_probemon_iface -j kest_probemon_iface_wlan",
        "-t nat -N kest_probemon_snat",
        "-t nat -F kest_probemon_snat",
        "-t nat -A POSTROUTING -j kest_probemon_snat",
        "-t nat -N kest_masquerade",
        "-t nat -F kest_masquerade",
    };
    Lines full;
    for (const auto& t : expected) full.push_back(P + t);
    EXPECT_EQ(rec.commands(), full);
    EXPECT_EQ(log.count("IptablesRuleManager called", ANDROID_LOG_DEBUG), 1u);
    EXPECT_EQ(IptablesRuleManager::instance(), m);
    EXPECT_EQ(rec.commands().size(), 19u);
    IptablesRuleManager::resetForTest();
}

TEST_F(IptablesTest, PerInterfaceChainsEndByKindAndNatRuleIsReplaced) {
    mgr_->initMangleRules("wlan0", "0xa0");
    mgr_->initMangleRules("rmnet_data0", "0xd0");
    // Wi-Fi is recognised anywhere in the name here (unlike selectIface).
    mgr_->initMangleRules("xwlan", "0x1");
    mgr_->initNatRules("rmnet_data3");
    EXPECT_EQ(rec_.commands(), prefixed({
                                   "-t mangle -N kest_probemon_wlan0",
                                   "-t mangle -F kest_probemon_wlan0",
                                   "-t mangle -A kest_probemon_wlan0 -j MARK --set-mark 0xa0",
                                   "-t mangle -A kest_probemon_wlan0 -j CONNMARK --save-mark",
                                   "-t mangle -A kest_probemon_wlan0 -j RETURN",
                                   "-t mangle -N kest_probemon_rmnet_data0",
                                   "-t mangle -F kest_probemon_rmnet_data0",
                                   "-t mangle -A kest_probemon_rmnet_data0 -j MARK --set-mark 0xd0",
                                   "-t mangle -A kest_probemon_rmnet_data0 -j CONNMARK --save-mark",
                                   "-t mangle -A kest_probemon_rmnet_data0 -j ACCEPT",
                                   "-t mangle -N kest_probemon_xwlan",
                                   "-t mangle -F kest_probemon_xwlan",
                                   "-t mangle -A kest_probemon_xwlan -j MARK --set-mark 0x1",
                                   "-t mangle -A kest_probemon_xwlan -j CONNMARK --save-mark",
                                   "-t mangle -A kest_probemon_xwlan -j RETURN",
                                   "-t nat -D kest_masquerade -o rmnet_data3 -j MASQUERADE",
                                   "-t nat -A kest_masquerade -o rmnet_data3 -j MASQUERADE",
                               }));
}

TEST_F(IptablesTest, AddUidTwiceListsItTwiceAndKillsTwice) {
    LogCapture log;
    EXPECT_EQ(mgr_->addUid("10123"), 0);
    const Lines once = prefixed({
        "-t mangle -D kest_probemon_uid -m owner --uid-owner 10123 -j kest_probemon_iface",
        "-t nat -D kest_probemon_snat -m owner --uid-owner 10123 -j kest_masquerade",
        "-t mangle -I kest_probemon_uid -m owner --uid-owner 10123 -j kest_probemon_iface",
        "-t nat -I kest_probemon_snat -m owner --uid-owner 10123 -j kest_masquerade",
    });
    EXPECT_EQ(rec_.commands(), once);
    EXPECT_EQ(mgr_->addUid("10123"), 0);
    EXPECT_EQ(log.count("Add uid 10123", ANDROID_LOG_DEBUG), 2u);
    EXPECT_EQ(mgr_->uidListSnapshot(), (Lines{"10123", "10123"}));

    rec_.clear();
    EXPECT_EQ(mgr_->selectIface("rmnet_data2", true), 0);
    EXPECT_EQ(rec_.commands(), prefixed({
                                   "-t mangle -F kest_probemon_iface_wlan",
                                   "-t mangle -F kest_probemon_iface_rmnet",
                                   "-t mangle -I kest_probemon_iface_rmnet -j kest_probemon_rmnet_data2",
                               }));
    EXPECT_EQ(killer_.killed(), (Lines{"10123", "10123"}));
}

TEST_F(IptablesTest, DelUidRemovesEveryUid) {
    mgr_->addUid("10001");
    mgr_->addUid("10002");
    rec_.clear();
    LogCapture log;
    EXPECT_EQ(mgr_->delUid("10001"), 0);
    EXPECT_TRUE(log.has("Delete uid 10001", ANDROID_LOG_DEBUG));
    EXPECT_EQ(rec_.commands(), prefixed({"-t mangle -F kest_probemon_uid", "-t nat -F kest_probemon_snat"}));
    EXPECT_TRUE(mgr_->uidListSnapshot().empty());
    mgr_->selectIface("wlan0", true);
    EXPECT_TRUE(killer_.killed().empty());
}

TEST_F(IptablesTest, BadUidTextRunsNothingAndIsNotListed) {
    mgr_->addUid("10001");
    rec_.clear();
    const char* bad[] = {"",           "1000;touch /tmp/x", "$(reboot)", "`id`",  "-1",         "+5",  " 1",
                         "1 ",         "1\n",                "0x10",      "010",   "4294967295", "abc", "12345678901",
                         "99999999999"};
    for (const char* uid : bad) {
        LogCapture log;
        EXPECT_EQ(mgr_->addUid(uid), 0);
        EXPECT_EQ(mgr_->delUid(uid), 0);
        EXPECT_EQ(log.countContaining("addUid Invalid uid", ANDROID_LOG_ERROR), 1u) << uid;
        EXPECT_EQ(log.countContaining("delUid Invalid uid", ANDROID_LOG_ERROR), 1u) << uid;
        EXPECT_EQ(log.lines().size(), 2u) << log.dump();
        for (const auto& l : log.lines()) EXPECT_EQ(l.text.find('\n'), std::string::npos);
    }
    LogCapture log;
    EXPECT_EQ(mgr_->addUid(nullptr), 0);
    EXPECT_EQ(log.count("addUid Invalid uid (null)"), 1u);
    EXPECT_TRUE(rec_.commands().empty());
    // A refused delete leaves the steered UIDs alone.
    EXPECT_EQ(mgr_->uidListSnapshot(), Lines{"10001"});
    for (const char* good : {"0", "1000", "4294967294"}) {
        rec_.clear();
        mgr_->addUid(good);
        EXPECT_EQ(rec_.commands().size(), 4u) << good;
    }
}

TEST_F(IptablesTest, SelectWifiFlushesBothBranchesAndKillsOnlyWhenAsked) {
    mgr_->addUid("10001");
    rec_.clear();
    EXPECT_EQ(mgr_->selectIface("wlan1", false), 0);
    EXPECT_EQ(rec_.commands(), prefixed({"-t mangle -F kest_probemon_iface_rmnet", "-t mangle -F kest_probemon_iface_wlan"}));
    EXPECT_TRUE(killer_.killed().empty());
}

TEST_F(IptablesTest, KillFailureIsLoggedPerUidAndTheLoopGoesOn) {
    mgr_->addUid("10001");
    mgr_->addUid("10002");
    mgr_->addUid("10003");
    killer_.failFor("10002", -1);
    LogCapture log;
    mgr_->enableAutoSelect("rmnet_data1");
    mgr_->killUidSocket();
    EXPECT_EQ(killer_.killed(), (Lines{"10001", "10002", "10003", "10001", "10002", "10003"}));
    EXPECT_EQ(log.count("enableAutoSelect Failed to kill sockets of uid : 10002", ANDROID_LOG_ERROR), 1u);
    EXPECT_EQ(log.count("killUidSocket Failed to kill sockets of uid : 10002", ANDROID_LOG_ERROR), 1u);
    EXPECT_EQ(log.countContaining("Failed to kill"), 2u);
}

TEST_F(IptablesTest, AutoSelectReplacesTheSingleJumpAndDisableOnlyFlushes) {
    mgr_->addUid("10001");
    rec_.clear();
    mgr_->disableAutoSelect();
    mgr_->enableAutoSelect("wlan0");
    EXPECT_EQ(rec_.commands(), prefixed({
                                   "-t mangle -F kest_probemon_iface_auto",
                                   "-t mangle -F kest_probemon_iface_auto",
                                   "-t mangle -I kest_probemon_iface_auto -j kest_probemon_wlan0",
                               }));
    EXPECT_EQ(killer_.killed(), Lines{"10001"});
}

TEST_F(IptablesTest, BadInterfaceRunsNothingAndLeavesTheMutexHeld) {
    mgr_->addUid("10001");
    rec_.clear();
    LogCapture log;
    EXPECT_EQ(mgr_->selectIface("eth0", true), -1);
    EXPECT_TRUE(log.has("selectIface Invalid interface eth0", ANDROID_LOG_DEBUG)) << log.dump();
    EXPECT_TRUE(rec_.commands().empty());
    EXPECT_TRUE(killer_.killed().empty());
    bool held = false;
    std::thread([&] { held = mgr_->mutexHeldForTest(); }).join();
    EXPECT_TRUE(held);

    // The snapshot and killUidSocket take no part in the held mutex.
    EXPECT_EQ(mgr_->uidListSnapshot(), Lines{"10001"});
    mgr_->killUidSocket();
    EXPECT_EQ(killer_.killed(), Lines{"10001"});

    // Every chain change now waits for ever; leave that thread behind.
    std::atomic<bool> returned{false};
    std::thread([&returned, m = mgr_] {
        m->disableAutoSelect();
        returned = true;
    }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(returned.load());
    EXPECT_TRUE(rec_.commands().empty());
}

TEST_F(IptablesTest, OnlyTheTwoPrefixesCountAsInterfaces) {
    // "wlan" and "rmnet_data" count only at the start; each refusal keeps the mutex, so use a fresh manager.
    for (const char* bad : {"", "xwlan0", "rmnet0"}) {
        IptablesRuleManager::resetForTest();
        mgr_ = IptablesRuleManager::instance();
        rec_.clear();
        EXPECT_EQ(mgr_->selectIface(bad, false), -1) << bad;
        EXPECT_TRUE(rec_.commands().empty()) << bad;
    }
}

TEST_F(IptablesTest, CommandsNotStartedAreLoggedAndResultsStayZero) {
    rec_.failAll(true);
    LogCapture log;
    EXPECT_EQ(mgr_->addUid("10001"), 0);
    EXPECT_EQ(mgr_->selectIface("rmnet_data0", false), 0);
    EXPECT_EQ(mgr_->uidListSnapshot(), Lines{"10001"});
    const std::string first = P + "-t mangle -D kest_probemon_uid -m owner --uid-owner 10001 -j kest_probemon_iface";
    EXPECT_EQ(log.count("SEND PROBEMOND NDC COMMAND - FAIL " + first, ANDROID_LOG_ERROR), 1u) << log.dump();
    EXPECT_EQ(log.countContaining("SEND PROBEMOND NDC COMMAND - FAIL", ANDROID_LOG_ERROR), 7u);
}

TEST_F(IptablesTest, ConcurrentUseLosesNoUidAndNeverInterleavesASequence) {
    constexpr int kThreads = 4, kEach = 25;
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            mgr_->killUidSocket();
            (void)mgr_->uidListSnapshot();
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([this, t] {
            for (int i = 0; i < kEach; ++i) mgr_->addUid(std::to_string(20000 + t * 100 + i).c_str());
        });
    }
    for (auto& w : writers) w.join();
    stop = true;
    reader.join();
    EXPECT_EQ(mgr_->uidListSnapshot().size(), static_cast<size_t>(kThreads * kEach));
    auto cmds = rec_.commands();
    ASSERT_EQ(cmds.size(), static_cast<size_t>(kThreads * kEach * 4));
    for (size_t i = 0; i < cmds.size(); i += 4) {
        size_t at = cmds[i].find("--uid-owner ");
        ASSERT_NE(at, std::string::npos);
        std::string uid = cmds[i].substr(at + 12, 5);
        for (size_t k = 1; k < 4; ++k) EXPECT_NE(cmds[i + k].find("--uid-owner " + uid + " "), std::string::npos);
    }
}

TEST_F(IptablesTest, CommandOf512EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string fixed = P + "-t mangle -I kest_probemon_iface_rmnet -j kest_probemon_";
    std::string iface = "rmnet_data" + std::string(511 - fixed.size() - 10, '9');
    EXPECT_EQ(mgr_->selectIface(iface.c_str(), false), 0);
    EXPECT_EQ(rec_.commands().back().size(), 511u);
    iface += "9";
    EXPECT_DEATH(mgr_->selectIface(iface.c_str(), false), "");
}

TEST_F(IptablesTest, ChainNameOf64EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    mgr_->initMangleRules(std::string(63 - 14, 'w').c_str(), "0x1");
    EXPECT_EQ(rec_.commands().size(), 5u);
    EXPECT_DEATH(mgr_->initMangleRules(std::string(64 - 14, 'w').c_str(), "0x1"), "");
}

}  // namespace
