#include "netctl/IpRuleManager.h"

#include <android/log.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RecordingCommandExecutor.h"

using probemond::test::LogCapture;
using probemond::test::RecordingCommandExecutor;

namespace {

const std::string kDel = "/system/bin/ip-wrapper-1.0 -4 rule del prio ";
const std::string kAdd = "/system/bin/ip-wrapper-1.0 -4 rule add fwmark ";

class IpRuleManagerTest : public ::testing::Test {
protected:
    void SetUp() override { IpRuleManager::resetForTest(); }
    void TearDown() override { IpRuleManager::resetForTest(); }
    RecordingCommandExecutor rec_;
};

TEST_F(IpRuleManagerTest, InstanceIsCreatedOnceAndRunsNothing) {
    LogCapture log;
    IpRuleManager* first = IpRuleManager::instance();
    EXPECT_EQ(IpRuleManager::instance(), first);
    EXPECT_EQ(log.count("IpRuleManager called", ANDROID_LOG_DEBUG), 1u);
    EXPECT_TRUE(rec_.commands().empty());
}

TEST_F(IpRuleManagerTest, AddDeletesThePriorityFirstThenAddsWithArgumentsInOrder) {
    EXPECT_EQ(IpRuleManager::instance()->addIpRule("wlan0", "0xa0", "29500"), 0);
    EXPECT_EQ(rec_.commands(), (std::vector<std::string>{kDel + "29500", kAdd + "0xa0/0xffff table wlan0 prio 29500"}));
    rec_.clear();
    EXPECT_EQ(IpRuleManager::instance()->delIpRule("30400"), 0);
    EXPECT_EQ(rec_.commands(), std::vector<std::string>{kDel + "30400"});
}

TEST_F(IpRuleManagerTest, NotStartedGivesTwoFailurePairsAndMinusOne) {
    rec_.failAll(true);
    IpRuleManager::instance();
    LogCapture log;
    EXPECT_EQ(IpRuleManager::instance()->addIpRule("rmnet_data0", "0xd0", "29700"), -1);
    EXPECT_EQ(rec_.commands().size(), 2u);  // a failed delete does not stop the add
    const std::string del = kDel + "29700";
    const std::string add = kAdd + "0xd0/0xffff table rmnet_data0 prio 29700";
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 4u) << log.dump();
    EXPECT_EQ(lines[0].text, "SEND PROBEMOND NDC COMMAND - FAIL " + del + "\n");
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[1].text, "addIpRule Failue to del ip rule or rule not exist: " + del);
    EXPECT_EQ(lines[1].priority, ANDROID_LOG_WARN);
    EXPECT_EQ(lines[2].text, "SEND PROBEMOND NDC COMMAND - FAIL " + add + "\n");
    EXPECT_EQ(lines[2].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[3].text, "addIpRule Failue to add ip rule : " + add);
    EXPECT_EQ(lines[3].priority, ANDROID_LOG_ERROR);

    log.clear();
    EXPECT_EQ(IpRuleManager::instance()->delIpRule("29700"), -1);
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"SEND PROBEMOND NDC COMMAND - FAIL " + del + "\n",
                                                     "delIpRule Failue to delete ip rule: " + del}));
    // The mutex was released on the failure paths.
    rec_.failAll(false);
    EXPECT_EQ(IpRuleManager::instance()->delIpRule("29700"), 0);
}

TEST_F(IpRuleManagerTest, ConcurrentAddsNeverInterleaveDeleteAndAdd) {
    IpRuleManager* m = IpRuleManager::instance();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([m, t] {
            std::string prio = std::to_string(29500 + 100 * t);
            for (int i = 0; i < 50; ++i) m->addIpRule("wlan0", "0xa0", prio.c_str());
        });
    }
    for (auto& th : threads) th.join();
    auto cmds = rec_.commands();
    ASSERT_EQ(cmds.size(), 4u * 50 * 2);
    for (size_t i = 0; i < cmds.size(); i += 2) {
        ASSERT_EQ(cmds[i].rfind(kDel, 0), 0u);
        std::string prio = cmds[i].substr(kDel.size());
        EXPECT_EQ(cmds[i + 1], kAdd + "0xa0/0xffff table wlan0 prio " + prio);
    }
}

TEST_F(IpRuleManagerTest, CommandOf512EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // "... rule del prio " is 45 characters; the add line is the longer one.
    const size_t fixed = (kAdd + "/0xffff table  prio ").size();
    std::string prio = "1";
    std::string fits(511 - fixed - 1 - 4, 't');
    EXPECT_EQ(IpRuleManager::instance()->addIpRule(fits.c_str(), "0xa0", prio.c_str()), 0);
    EXPECT_EQ(rec_.commands().back().size(), 511u);
    std::string tooLong = fits + "t";
    EXPECT_DEATH(IpRuleManager::instance()->addIpRule(tooLong.c_str(), "0xa0", prio.c_str()), "");
}

}  // namespace
