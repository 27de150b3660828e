// The two rule managers on a recording runner. CommandLines: the exact lines
// each builder issues, in order, written out by hand (the one place a test
// spells them), with the socket kills in the same log so their place shows.
// RuleManagers: bad interfaces, commands that cannot start, contention and
// bounds. What the lines leave in the kernel is proven in the lab.
#include <android/log.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RecordingCommandExecutor.h"
#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"

using namespace probemond;

using probemond::test::LogCapture;
using probemond::test::RecordingCommandExecutor;
using Lines = std::vector<std::string>;

namespace {

// Lines as the shell receives them.
std::string ipt(const std::string& rest) { return "/system/bin/iptables-wrapper-1.0 -w -t " + rest; }
std::string ipRule(const std::string& rest) { return "/system/bin/ip-wrapper-1.0 -4 rule " + rest; }

class RuleManagers : public ::testing::Test {
protected:
    RecordingCommandExecutor rec_;
    IptablesRuleManager ipt_{rec_, rec_};  // the recorder is its runner and its socket killer
};
using CommandLines = RuleManagers;

TEST_F(CommandLines, StartUpTree) {
    EXPECT_EQ(rec_.take(), (Lines{ipt("mangle -N kest_probemon_uid"), ipt("mangle -F kest_probemon_uid"),
                                  ipt("mangle -I OUTPUT -j kest_probemon_uid"),
                                  ipt("mangle -N kest_probemon_iface"), ipt("mangle -F kest_probemon_iface"),
                                  ipt("mangle -N kest_probemon_iface_rmnet"), ipt("mangle -F kest_probemon_iface_rmnet"),
                                  ipt("mangle -I kest_probemon_iface -j kest_probemon_iface_rmnet"),
                                  ipt("mangle -N kest_probemon_iface_auto"), ipt("mangle -F kest_probemon_iface_auto"),
                                  ipt("mangle -A kest_probemon_iface -j kest_probemon_iface_auto"),
                                  ipt("mangle -N kest_probemon_iface_wlan"), ipt("mangle -F kest_probemon_iface_wlan"),
                                  ipt("mangle -A kest_probemon_iface -j kest_probemon_iface_wlan"),
                                  ipt("nat -N kest_probemon_snat"), ipt("nat -F kest_probemon_snat"),
                                  ipt("nat -A POSTROUTING -j kest_probemon_snat"),
                                  ipt("nat -N kest_masquerade"), ipt("nat -F kest_masquerade")}));
}

// Which interface gets which mark is the registry's (Registry.EveryRowReachesItsUses);
// here, that a Wi-Fi chain returns and a cellular one accepts.
TEST_F(CommandLines, InterfaceChainAndMasquerade) {
    rec_.take();
    ipt_.initMangleRules("wlan1", "0xa1", InterfaceKind::kWifi);
    ipt_.initNatRules("wlan1");
    ipt_.initMangleRules("rmnet_data5", "0xd5", InterfaceKind::kCellular);
    ipt_.initNatRules("rmnet_data5");
    EXPECT_EQ(rec_.take(), (Lines{ipt("mangle -N kest_probemon_wlan1"), ipt("mangle -F kest_probemon_wlan1"),
                                  ipt("mangle -A kest_probemon_wlan1 -j MARK --set-mark 0xa1"),
                                  ipt("mangle -A kest_probemon_wlan1 -j CONNMARK --save-mark"),
                                  ipt("mangle -A kest_probemon_wlan1 -j RETURN"),
                                  ipt("nat -D kest_masquerade -o wlan1 -j MASQUERADE"),
                                  ipt("nat -A kest_masquerade -o wlan1 -j MASQUERADE"),
                                  ipt("mangle -N kest_probemon_rmnet_data5"), ipt("mangle -F kest_probemon_rmnet_data5"),
                                  ipt("mangle -A kest_probemon_rmnet_data5 -j MARK --set-mark 0xd5"),
                                  ipt("mangle -A kest_probemon_rmnet_data5 -j CONNMARK --save-mark"),
                                  ipt("mangle -A kest_probemon_rmnet_data5 -j ACCEPT"),
                                  ipt("nat -D kest_masquerade -o rmnet_data5 -j MASQUERADE"),
                                  ipt("nat -A kest_masquerade -o rmnet_data5 -j MASQUERADE")}));
}

TEST_F(CommandLines, Uid) {
    rec_.take();
    ipt_.addUid("10001");
    EXPECT_EQ(rec_.take(), (Lines{ipt("mangle -D kest_probemon_uid -m owner --uid-owner 10001 -j kest_probemon_iface"),
                                  ipt("nat -D kest_probemon_snat -m owner --uid-owner 10001 -j kest_masquerade"),
                                  ipt("mangle -I kest_probemon_uid -m owner --uid-owner 10001 -j kest_probemon_iface"),
                                  ipt("nat -I kest_probemon_snat -m owner --uid-owner 10001 -j kest_masquerade")}));
    // Every steered UID goes, whichever one is named.
    ipt_.delUid("10002");
    EXPECT_EQ(rec_.take(), (Lines{ipt("mangle -F kest_probemon_uid"),
                                  ipt("nat -F kest_probemon_snat")}));
    EXPECT_TRUE(ipt_.uidListSnapshot().empty());
}

TEST_F(CommandLines, CellularAndWifiSelection) {
    for (const char* uid : {"10001", "10002", "10001"}) ipt_.addUid(uid);
    rec_.take();
    rec_.failKillOf = "10002";  // logged with the caller's name; the next UID still goes
    LogCapture log;
    ipt_.selectIface("rmnet_data2", InterfaceKind::kCellular, true);
    ipt_.selectIface("wlan1", InterfaceKind::kWifi, false);
    EXPECT_EQ(rec_.take(), (Lines{ipt("mangle -F kest_probemon_iface_wlan"),
                                  ipt("mangle -F kest_probemon_iface_rmnet"),
                                  ipt("mangle -I kest_probemon_iface_rmnet -j kest_probemon_rmnet_data2"),
                                  "kill sockets of 10001", "kill sockets of 10002", "kill sockets of 10001",
                                  ipt("mangle -F kest_probemon_iface_rmnet"),
                                  ipt("mangle -F kest_probemon_iface_wlan")}));
    EXPECT_EQ(log.count("selectIface Failed to kill sockets of uid : 10002", ANDROID_LOG_ERROR), 1u);
}

TEST_F(CommandLines, AutoSelect) {
    ipt_.addUid("10002");
    rec_.take();
    rec_.failKillOf = "10002";
    LogCapture log;
    ipt_.enableAutoSelect("rmnet_data5");
    ipt_.disableAutoSelect();
    ipt_.killUidSocket();
    EXPECT_EQ(rec_.take(), (Lines{ipt("mangle -F kest_probemon_iface_auto"),
                                  ipt("mangle -I kest_probemon_iface_auto -j kest_probemon_rmnet_data5"),
                                  "kill sockets of 10002",
                                  ipt("mangle -F kest_probemon_iface_auto"),
                                  "kill sockets of 10002"}));
    for (const char* caller : {"enableAutoSelect", "killUidSocket"})
        EXPECT_EQ(log.count(std::string(caller) + " Failed to kill sockets of uid : 10002", ANDROID_LOG_ERROR), 1u);
}

// -C answers 0 when the rule is there and 1 when not; the restore adds back
// only what is missing, with the start-up lines.
TEST_F(CommandLines, HookCheckAndRestore) {
    rec_.take();
    rec_.statuses = {1, 0, 0, 1, 2, kNotStarted};
    const HookCheck found[] = {ipt_.checkHooks(), ipt_.checkHooks(), ipt_.checkHooks()};
    EXPECT_EQ(rec_.take(), (Lines{ipt("mangle -C OUTPUT -j kest_probemon_uid"),
                                  ipt("nat -C POSTROUTING -j kest_probemon_snat"),
                                  ipt("mangle -C OUTPUT -j kest_probemon_uid"),
                                  ipt("nat -C POSTROUTING -j kest_probemon_snat"),
                                  ipt("mangle -C OUTPUT -j kest_probemon_uid"),
                                  ipt("nat -C POSTROUTING -j kest_probemon_snat")}));
    for (const HookCheck& f : found) ipt_.restoreJumps(f);
    EXPECT_EQ(rec_.take(), (Lines{ipt("mangle -I OUTPUT -j kest_probemon_uid"),
                                  ipt("nat -A POSTROUTING -j kest_probemon_snat")}));
    EXPECT_EQ(found[2].outputJump, JumpState::kUnknown);
    EXPECT_EQ(found[2].postroutingJump, JumpState::kUnknown);
}

// addIpRuleAccepted runs addIpRule's lines and reads the add's status alone:
// refused (1 to 255) or not started is false, a signal true.
TEST_F(CommandLines, IpRule) {
    IpRuleManager ip(rec_);
    rec_.take();
    EXPECT_EQ(ip.addIpRule("rmnet_data3", "0xd3", "30000"), 0);
    EXPECT_EQ(ip.delIpRule("30000"), 0);
    EXPECT_EQ(rec_.take(), (Lines{ipRule("del prio 30000"),
                                  ipRule("add fwmark 0xd3/0xffff table rmnet_data3 prio 30000"),
                                  ipRule("del prio 30000")}));
    rec_.statuses = {2, kNoExitStatus, kNotStarted, 0};
    LogCapture log;
    for (bool accepted : {false, true, false, true}) EXPECT_EQ(ip.addIpRuleAccepted("wlan1", "0xa1", "29600"), accepted);
    const std::string del = ipRule("del prio 29600");
    const std::string add = ipRule("add fwmark 0xa1/0xffff table wlan1 prio 29600");
    EXPECT_EQ(rec_.take(), (Lines{del, add, del, add, del, add, del, add}));
    EXPECT_EQ(log.count("addIpRule Failue to add ip rule : " + add, ANDROID_LOG_ERROR), 1u) << log.dump();
}

TEST_F(RuleManagers, CommandsNotStartedAreLoggedAndTheSequenceGoesOnInBothManagers) {
    IpRuleManager ip(rec_);
    rec_.take();
    rec_.failAll = true;
    LogCapture log;
    ipt_.addUid("10001");
    EXPECT_EQ(ipt_.uidListSnapshot(), Lines{"10001"});
    EXPECT_EQ(ip.addIpRule("rmnet_data0", "0xd0", "29700"), -1);
    EXPECT_EQ(ip.delIpRule("29700"), -1);
    const Lines c = rec_.take();
    ASSERT_EQ(c.size(), 7u);
    const std::string fail = "SEND PROBEMOND NDC COMMAND - FAIL ";
    EXPECT_EQ(log.texts(), (Lines{"Add uid 10001", fail + c[0], fail + c[1], fail + c[2], fail + c[3], fail + c[4] + "\n",
                                  "addIpRule Failue to del ip rule or rule not exist: " + c[4], fail + c[5] + "\n",
                                  "addIpRule Failue to add ip rule : " + c[5], fail + c[6] + "\n",
                                  "delIpRule Failue to delete ip rule: " + c[6]}));
    EXPECT_EQ(log.lines()[1].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(log.lines()[6].priority, ANDROID_LOG_WARN);
    rec_.failAll = false;
    EXPECT_EQ(ip.addIpRule("rmnet_data0", "0xd0", "29700"), 0);  // the mutex was released
}

TEST_F(RuleManagers, ConcurrentUseLosesNoUidAndNeverInterleavesASequence) {
    rec_.take();
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([this, t] {
            for (int i = 0; i < 25; ++i) ipt_.addUid(std::to_string(20000 + t * 100 + i).c_str());
        });
    }
    for (auto& w : writers) w.join();
    EXPECT_EQ(ipt_.uidListSnapshot().size(), 100u);
    // Each UID's four lines follow each other.
    const Lines c = rec_.take();
    auto uidOf = [](const std::string& line) { return line.substr(line.find("--uid-owner "), 18); };
    for (size_t i = 0; i < c.size(); ++i) EXPECT_EQ(uidOf(c[i]), uidOf(c[i - i % 4])) << i;
}

TEST_F(RuleManagers, BoundsEndTheProcessInsteadOfCuttingACommand) {
    std::string iface = "rmnet_data";
    ipt_.selectIface(iface.c_str(), InterfaceKind::kCellular, false);
    iface.append(511 - rec_.commands().back().size(), '9');
    ipt_.selectIface(iface.c_str(), InterfaceKind::kCellular, false);
    EXPECT_EQ(rec_.commands().back().size(), 511u);
    iface += "9";
    EXPECT_DEATH(ipt_.selectIface(iface.c_str(), InterfaceKind::kCellular, false),
                 "formatted text of 512 bytes does not fit in 512");

    // "kest_probemon_" is 14 characters: a 49-character name makes 63.
    ipt_.initMangleRules(std::string(49, 'w').c_str(), "0x1", InterfaceKind::kWifi);
    EXPECT_NE(rec_.commands().back().find(" kest_probemon_" + std::string(49, 'w') + " "), std::string::npos);
    EXPECT_DEATH(ipt_.initMangleRules(std::string(50, 'w').c_str(), "0x1", InterfaceKind::kWifi),
                 "formatted text of 64 bytes does not fit in 64");
}

}  // namespace
