// The real popen runner against small tools standing in for /system/bin.
#include "netctl/WrapperCommand.h"

#include <android/log.h>
#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"

using probemond::test::LogCapture;
using Lines = std::vector<std::string>;

namespace {

int openFdCount() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (readdir(d) != nullptr) ++n;
    closedir(d);
    return n;
}

class PopenRunnerTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/netctl-bin-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        for (auto [name, body] : {std::pair<const char*, const char*>{"chatty",
                                                                      "echo one; printf 'two %s|%s\\n' \"$1\" \"$2\""},
                                  {"longline", "head -c 2500 /dev/zero | tr '\\0' x; echo"},
                                  {"failing", "echo 'No chain/target/match by that name.'; echo oops >&2; exit 1"}}) {
            std::ofstream(dir_ + "/" + name) << "#!/bin/sh\n" << body << "\n";
            chmod((dir_ + "/" + name).c_str(), 0755);
        }
        setenv("PROBEMOND_SYSTEM_BIN", dir_.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("PROBEMOND_SYSTEM_BIN");
        ASSERT_EQ(system(("rm -rf " + dir_).c_str()), 0);
    }
    bool run(const char* command) { return runWrapperCommand(runner_, command, kIptablesCommandFailure); }
    // The tool output that reached the log, all of it at debug priority.
    static Lines responses(const LogCapture& log) {
        Lines out;
        for (const auto& l : log.lines()) {
            EXPECT_EQ(l.priority, ANDROID_LOG_DEBUG) << l.text;
            if (l.text.rfind("PROBEMOND EXECNETD RESP ", 0) == 0) out.push_back(l.text.substr(24));
        }
        return out;
    }
    probemond::PopenCommandExecutor runner_;
    std::string dir_;
};

TEST_F(PopenRunnerTest, OutputIsLoggedPieceByPieceAndAnyExitCountsAsStarted) {
    LogCapture log;
    EXPECT_TRUE(run("/system/bin/chatty -4 'a b'"));
    EXPECT_TRUE(run("/system/bin/failing"));  // exit status 1; stderr is not captured
    EXPECT_EQ(responses(log), (Lines{"one\n", "two -4|a b\n", "No chain/target/match by that name.\n"}));

    // 2500 characters = 1023 + 1023 + 454; liblog cuts a line at 1024 bytes
    // with its prefix, so the first two show 999 of their 1023.
    log.clear();
    EXPECT_TRUE(run("/system/bin/longline"));
    EXPECT_EQ(responses(log), (Lines{std::string(999, 'x'), std::string(999, 'x'), std::string(454, 'x') + "\n"}));
}

TEST_F(PopenRunnerTest, OnlyALeadingSystemBinIsMappedAndNoDescriptorLeaks) {
    LogCapture log;
    const int before = openFdCount();
    EXPECT_TRUE(run("echo /system/bin/quiet"));  // not mapped: echoed as given
    EXPECT_TRUE(run("/system/bin/no-such-tool"));  // the shell started; the tool's absence is its output
    unsetenv("PROBEMOND_SYSTEM_BIN");
    EXPECT_TRUE(run("/system/bin/chatty"));
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(run("true"));  // silent: logs nothing
    EXPECT_EQ(responses(log), Lines{"/system/bin/quiet\n"});
    EXPECT_EQ(openFdCount(), before);
}

}  // namespace
