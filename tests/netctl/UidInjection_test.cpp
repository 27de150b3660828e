// UIDs reach a shell command line: text that is not a UID must start nothing,
// through the real runner and real (recording) tools.
#include "netctl/IptablesRuleManager.h"

#include <android/log.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"

using probemond::test::LogCapture;

namespace {

class UidInjectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/netctl-inject-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        std::string tool = dir_ + "/iptables-wrapper-1.0";
        std::ofstream(tool) << "#!/bin/sh\necho \"$*\" >> " << dir_ << "/calls\n";
        chmod(tool.c_str(), 0755);
        setenv("PROBEMOND_SYSTEM_BIN", dir_.c_str(), 1);
        IptablesRuleManager::resetForTest();
    }
    void TearDown() override {
        IptablesRuleManager::resetForTest();
        unsetenv("PROBEMOND_SYSTEM_BIN");
        std::string rm = "rm -rf " + dir_;
        ASSERT_EQ(system(rm.c_str()), 0);
    }
    std::vector<std::string> calls() {
        std::vector<std::string> out;
        std::ifstream in(dir_ + "/calls");
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }
    bool exists(const std::string& name) { return access((dir_ + "/" + name).c_str(), F_OK) == 0; }
    std::string dir_;
};

TEST_F(UidInjectionTest, ShellTextInAUidRunsNothing) {
    IptablesRuleManager* m = IptablesRuleManager::instance();
    // The real runner mapped /system/bin/ and started the tool for the tree.
    ASSERT_EQ(calls().size(), 19u);
    EXPECT_EQ(calls()[0], "-w -t mangle -N kest_probemon_uid");

    const std::string attacks[] = {
        "1000;touch " + dir_ + "/semi",  "1000 && touch " + dir_ + "/and", "$(touch " + dir_ + "/subst)",
        "`touch " + dir_ + "/tick`",    "1000\ntouch " + dir_ + "/newline", "1000|touch " + dir_ + "/pipe",
    };
    LogCapture log;
    for (const auto& uid : attacks) {
        EXPECT_EQ(m->addUid(uid.c_str()), 0);
        EXPECT_EQ(m->delUid(uid.c_str()), 0);
    }
    for (const char* f : {"semi", "and", "subst", "tick", "newline", "pipe"}) EXPECT_FALSE(exists(f)) << f;
    EXPECT_EQ(calls().size(), 19u);
    EXPECT_TRUE(m->uidListSnapshot().empty());
    EXPECT_EQ(log.countContaining("Invalid uid", ANDROID_LOG_ERROR), 12u);

    EXPECT_EQ(m->addUid("1000"), 0);
    auto c = calls();
    ASSERT_EQ(c.size(), 23u);
    EXPECT_EQ(c[21], "-w -t mangle -I kest_probemon_uid -m owner --uid-owner 1000 -j kest_probemon_iface");
}

}  // namespace
