#include "netctl/WrapperCommand.h"

#include <android/log.h>
#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RecordingCommandExecutor.h"

using probemond::test::LogCapture;
using probemond::test::RecordingCommandExecutor;

namespace {

int openFdCount() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (readdir(d) != nullptr) ++n;
    closedir(d);
    return n;
}

// A folder of small tools standing in for /system/bin.
class RealRunnerTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/netctl-bin-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        tool("quiet", "exit 0\n");
        tool("chatty", "echo one\nprintf 'two %s|%s\\n' \"$1\" \"$2\"\n");
        tool("longline", "head -c 2500 /dev/zero | tr '\\0' x; echo\n");
        tool("failing", "echo 'iptables: No chain/target/match by that name.'\necho oops >&2\nexit 1\n");
        setenv("PROBEMOND_SYSTEM_BIN", dir_.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("PROBEMOND_SYSTEM_BIN");
        std::string rm = "rm -rf " + dir_;
        ASSERT_EQ(system(rm.c_str()), 0);
    }
    void tool(const std::string& name, const std::string& body) {
        std::string path = dir_ + "/" + name;
        std::ofstream(path) << "#!/bin/sh\n" << body;
        chmod(path.c_str(), 0755);
    }
    std::vector<std::string> responses(const LogCapture& log) {
        std::vector<std::string> out;
        for (const auto& l : log.lines()) {
            if (l.text.rfind("PROBEMOND EXECNETD RESP ", 0) == 0) {
                EXPECT_EQ(l.priority, ANDROID_LOG_DEBUG);
                out.push_back(l.text.substr(24));
            }
        }
        return out;
    }
    std::string dir_;
};

TEST_F(RealRunnerTest, SilentToolLogsNothingAndSucceeds) {
    LogCapture log;
    EXPECT_TRUE(runWrapperCommand("/system/bin/quiet", kIptablesCommandFailure));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(RealRunnerTest, OutputIsLoggedLineByLineWithArguments) {
    LogCapture log;
    EXPECT_TRUE(runWrapperCommand("/system/bin/chatty -4 'a b'", kIpCommandFailure));
    EXPECT_EQ(responses(log), (std::vector<std::string>{"one\n", "two -4|a b\n"}));
}

TEST_F(RealRunnerTest, LongLineIsLoggedInPiecesOf1023) {
    LogCapture log;
    EXPECT_TRUE(runWrapperCommand("/system/bin/longline", kIptablesCommandFailure));
    auto pieces = responses(log);
    // 2500 = 1023 + 1023 + 454. liblog formats a line into 1024 bytes, so
    // the first two lines carry only the start of their piece.
    ASSERT_EQ(pieces.size(), 3u) << log.dump();
    EXPECT_EQ(pieces[0], std::string(1023 - 24, 'x'));
    EXPECT_EQ(pieces[1], std::string(1023 - 24, 'x'));
    EXPECT_EQ(pieces[2], std::string(454, 'x') + "\n");
}

TEST_F(RealRunnerTest, FailingToolStillCountsAsStartedAndStderrIsNotCaptured) {
    LogCapture log;
    EXPECT_TRUE(runWrapperCommand("/system/bin/failing", kIptablesCommandFailure));
    EXPECT_EQ(responses(log), (std::vector<std::string>{"iptables: No chain/target/match by that name.\n"}));
    EXPECT_EQ(log.countContaining("FAIL"), 0u);
}

TEST_F(RealRunnerTest, OnlyLeadingSystemBinIsMapped) {
    LogCapture log;
    // Elsewhere in the line the prefix stays; a missing tool is still "started".
    EXPECT_TRUE(runWrapperCommand("echo /system/bin/quiet", kIptablesCommandFailure));
    EXPECT_TRUE(runWrapperCommand("/system/bin/no-such-tool", kIptablesCommandFailure));
    unsetenv("PROBEMOND_SYSTEM_BIN");
    EXPECT_TRUE(runWrapperCommand("/system/bin/chatty", kIptablesCommandFailure));
    EXPECT_EQ(responses(log), (std::vector<std::string>{"/system/bin/quiet\n"}));
}

TEST_F(RealRunnerTest, NoDescriptorLeaksAcrossManyCommands) {
    LogCapture log;
    const int before = openFdCount();
    for (int i = 0; i < 50; ++i) ASSERT_TRUE(runWrapperCommand("/system/bin/chatty", kIptablesCommandFailure));
    EXPECT_EQ(openFdCount(), before);
}

TEST(RunnerFailure, NotStartedLogsCallersMessageWithCommandLine) {
    RecordingCommandExecutor rec;
    rec.failAll(true);
    LogCapture log;
    EXPECT_FALSE(runWrapperCommand("/system/bin/iptables-wrapper-1.0 -w -t nat -F x", kIptablesCommandFailure));
    EXPECT_FALSE(runWrapperCommand("/system/bin/ip-wrapper-1.0 -4 rule del prio 1", kIpCommandFailure));
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u) << log.dump();
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[0].text, "SEND PROBEMOND NDC COMMAND - FAIL /system/bin/iptables-wrapper-1.0 -w -t nat -F x");
    EXPECT_EQ(lines[1].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[1].text, "SEND PROBEMOND NDC COMMAND - FAIL /system/bin/ip-wrapper-1.0 -4 rule del prio 1\n");
}

TEST(RunnerSeam, RemovingTheRecorderRestoresTheRealRunner) {
    {
        RecordingCommandExecutor rec;
        EXPECT_TRUE(runWrapperCommand("echo seam", kIptablesCommandFailure));
        EXPECT_EQ(rec.commands(), std::vector<std::string>{"echo seam"});
    }
    LogCapture log;
    EXPECT_TRUE(runWrapperCommand("echo real", kIptablesCommandFailure));
    EXPECT_TRUE(log.has("PROBEMOND EXECNETD RESP real\n")) << log.dump();
}

}  // namespace
