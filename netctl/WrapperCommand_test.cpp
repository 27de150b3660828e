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
        std::ofstream(dir_ + "/chatty") << "#!/bin/sh\necho one\n";
        chmod((dir_ + "/chatty").c_str(), 0755);
        setenv("PROBEMOND_SYSTEM_BIN", dir_.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("PROBEMOND_SYSTEM_BIN");
        ASSERT_EQ(system(("rm -rf " + dir_).c_str()), 0);
    }
    bool run(const char* command) { return runWrapperCommand(runner_, command, probemond::kIptables.failureFormat); }
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

TEST_F(PopenRunnerTest, OnlyALeadingSystemBinIsMappedAndNoDescriptorLeaks) {
    LogCapture log;
    const int before = openFdCount();
    EXPECT_TRUE(run("/system/bin/chatty -4"));   // mapped into the stand-in folder
    EXPECT_TRUE(run("echo /system/bin/quiet"));  // not leading: echoed as given
    EXPECT_TRUE(run("/system/bin/no-such-tool"));  // the shell started; the tool's absence is its output
    unsetenv("PROBEMOND_SYSTEM_BIN");
    EXPECT_TRUE(run("/system/bin/chatty"));  // not mapped: no such tool here
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(run("true"));  // silent: logs nothing
    EXPECT_EQ(responses(log), (Lines{"one\n", "/system/bin/quiet\n"}));
    EXPECT_EQ(openFdCount(), before);
}

}  // namespace
