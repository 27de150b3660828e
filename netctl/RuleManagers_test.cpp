// The two rule managers on a recording runner: ordering that matters, bad
// input, socket kills, contention, failures to start and bounds. What they
// leave in the kernel is proven in the lab.
#include <android/log.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RecordingCommandExecutor.h"
#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"

using probemond::test::LogCapture;
using probemond::test::RecordingCommandExecutor;
using Lines = std::vector<std::string>;

namespace {

struct RecordingKiller : probemond::SocketKiller {
    int32_t killUidSockets(const char* uid) override {
        std::lock_guard<std::mutex> g(lock);
        killed.push_back(uid);
        return uid == failing ? -1 : 0;
    }
    std::mutex lock;
    Lines killed;
    std::string failing;
};

bool has(const Lines& lines, const std::string& part) {
    for (const auto& l : lines)
        if (l.find(part) != std::string::npos) return true;
    return false;
}

class IptablesTest : public ::testing::Test {
protected:
    RecordingCommandExecutor rec_;
    RecordingKiller killer_;
    IptablesRuleManager mgr_{rec_, killer_};
};

TEST_F(IptablesTest, EveryListedUidIsKilledInOrderAndFailuresAreLoggedPerUid) {
    for (const char* uid : {"10001", "10001", "10002"}) mgr_.addUid(uid);
    killer_.failing = "10001";
    LogCapture log;
    EXPECT_EQ(mgr_.selectIface("wlan1", false), 0);
    mgr_.disableAutoSelect();
    EXPECT_TRUE(killer_.killed.empty());
    EXPECT_EQ(mgr_.selectIface("rmnet_data2", true), 0);
    mgr_.enableAutoSelect("wlan0");
    mgr_.killUidSocket();
    EXPECT_EQ(killer_.killed, (Lines{"10001", "10001", "10002", "10001", "10001", "10002", "10001", "10001", "10002"}));
    for (const char* caller : {"selectIface", "enableAutoSelect", "killUidSocket"})
        EXPECT_EQ(log.count(std::string(caller) + " Failed to kill sockets of uid : 10001", ANDROID_LOG_ERROR), 2u);
    EXPECT_EQ(log.countContaining("Failed to kill"), 6u);

    // delUid takes them all, whatever it names.
    rec_.clear();
    EXPECT_EQ(mgr_.delUid("10001"), 0);
    EXPECT_TRUE(mgr_.uidListSnapshot().empty());
    EXPECT_FALSE(has(rec_.commands(), "10002"));
}

// Never destroyed: each manager's mutex stays locked for good (reachable, for
// leak checkers). That a later sequence then waits for good is proven on the
// running daemon.
struct HeldManager {
    RecordingCommandExecutor rec;
    RecordingKiller killer;
    IptablesRuleManager m{rec, killer};
};
HeldManager* gHeld[4];

TEST(IptablesBadInterface, RunsNothingAndLeavesTheListAndKillsFree) {
    int i = 0;
    for (const char* bad : {"eth0", "", "xwlan0", "rmnet0"}) {
        HeldManager& h = *(gHeld[i++] = new HeldManager);
        h.m.addUid("10001");
        h.rec.clear();
        LogCapture log;
        EXPECT_EQ(h.m.selectIface(bad, true), -1) << bad;
        EXPECT_TRUE(log.has(std::string("selectIface Invalid interface ") + bad, ANDROID_LOG_DEBUG)) << log.dump();
        EXPECT_TRUE(h.rec.commands().empty());
        // Neither the list nor killUidSocket take the held mutex.
        EXPECT_EQ(h.m.uidListSnapshot(), Lines{"10001"});
        h.m.killUidSocket();
        EXPECT_EQ(h.killer.killed, Lines{"10001"});
    }
}

TEST_F(IptablesTest, CommandsNotStartedAreLoggedAndTheSequenceGoesOnInBothManagers) {
    IpRuleManager ip(rec_);
    rec_.clear();
    rec_.failAll = true;
    LogCapture log;
    EXPECT_EQ(mgr_.addUid("10001"), 0);
    EXPECT_EQ(mgr_.uidListSnapshot(), Lines{"10001"});
    Lines c = rec_.commands();
    ASSERT_EQ(c.size(), 4u);
    for (const auto& cmd : c) EXPECT_EQ(log.count("SEND PROBEMOND NDC COMMAND - FAIL " + cmd, ANDROID_LOG_ERROR), 1u);

    rec_.clear();
    log.clear();
    EXPECT_EQ(ip.addIpRule("rmnet_data0", "0xd0", "29700"), -1);
    EXPECT_EQ(ip.delIpRule("29700"), -1);
    c = rec_.commands();
    ASSERT_EQ(c.size(), 3u);
    const std::string fail = "SEND PROBEMOND NDC COMMAND - FAIL ";
    EXPECT_EQ(log.texts(), (Lines{fail + c[0] + "\n", "addIpRule Failue to del ip rule or rule not exist: " + c[0],
                                  fail + c[1] + "\n", "addIpRule Failue to add ip rule : " + c[1], fail + c[2] + "\n",
                                  "delIpRule Failue to delete ip rule: " + c[2]}));
    EXPECT_EQ(log.lines()[1].priority, ANDROID_LOG_WARN);
    EXPECT_EQ(log.lines()[3].priority, ANDROID_LOG_ERROR);
    rec_.failAll = false;
    EXPECT_EQ(ip.addIpRule("rmnet_data0", "0xd0", "29700"), 0);  // the mutex was released
}

TEST_F(IptablesTest, ConcurrentUseLosesNoUidAndNeverInterleavesASequence) {
    constexpr int kThreads = 4, kEach = 25;
    rec_.clear();
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) mgr_.killUidSocket();
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([this, t] {
            for (int i = 0; i < kEach; ++i) mgr_.addUid(std::to_string(20000 + t * 100 + i).c_str());
        });
    }
    for (auto& w : writers) w.join();
    stop = true;
    reader.join();
    EXPECT_EQ(mgr_.uidListSnapshot().size(), static_cast<size_t>(kThreads * kEach));
    const Lines c = rec_.commands();
    const size_t perUid = c.size() / (kThreads * kEach);
    for (size_t i = 0; i < c.size(); i += perUid) {
        const std::string uid = c[i].substr(c[i].find("--uid-owner ") + 12, 6);
        for (size_t k = 1; k < perUid; ++k) EXPECT_NE(c[i + k].find("--uid-owner " + uid), std::string::npos);
    }
}

TEST_F(IptablesTest, BoundsEndTheProcessInsteadOfCuttingACommand) {
    std::string iface = "rmnet_data";
    mgr_.selectIface(iface.c_str(), false);
    iface.append(511 - rec_.commands().back().size(), '9');
    EXPECT_EQ(mgr_.selectIface(iface.c_str(), false), 0);
    EXPECT_EQ(rec_.commands().back().size(), 511u);
    iface += "9";
    EXPECT_DEATH(mgr_.selectIface(iface.c_str(), false), "formatted text of 512 bytes does not fit in 512");

    // "kest_probemon_" is 14 characters: a 49-character name makes 63.
    mgr_.initMangleRules(std::string(49, 'w').c_str(), "0x1");
    EXPECT_TRUE(has(rec_.commands(), " -N kest_probemon_" + std::string(49, 'w')));
    EXPECT_DEATH(mgr_.initMangleRules(std::string(50, 'w').c_str(), "0x1"),
                 "formatted text of 64 bytes does not fit in 64");
}

}  // namespace
