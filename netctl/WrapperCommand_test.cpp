// The real popen runner against a small tool standing in for /system/bin.
#include "netctl/WrapperCommand.h"

#include <android/log.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"

using namespace probemond;

using probemond::test::LogCapture;
using Lines = std::vector<std::string>;

namespace {

long openFdCount() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

bool run(const char* command) {
    probemond::PopenCommandExecutor runner;
    return runWrapperCommand(runner, command, probemond::kIptables.failureFormat);
}

TEST(PopenRunner, OnlyALeadingSystemBinIsMappedAndNoDescriptorLeaks) {
    char dir[] = "/tmp/netctl-bin-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string chatty = std::string(dir) + "/chatty";
    std::ofstream(chatty) << "#!/bin/sh\necho one\n";
    chmod(chatty.c_str(), 0755);
    setenv("PROBEMOND_SYSTEM_BIN", dir, 1);
    LogCapture log;
    const long before = openFdCount();
    EXPECT_TRUE(run("/system/bin/chatty -4"));     // mapped into the stand-in folder
    EXPECT_TRUE(run("echo /system/bin/quiet"));    // not leading: echoed as given
    EXPECT_TRUE(run("/system/bin/no-such-tool"));  // the shell started; the tool's absence is its output
    unsetenv("PROBEMOND_SYSTEM_BIN");
    EXPECT_TRUE(run("/system/bin/chatty"));  // not mapped: no such tool here
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(run("true"));  // silent: logs nothing
    // Only a check reads the exit status; a killed shell has none.
    probemond::PopenCommandExecutor runner;
    EXPECT_EQ(3, runner.executeForStatus("exit 3", [](const char*) {}));
    EXPECT_EQ(kNoExitStatus, runner.executeForStatus("kill -KILL $$", [](const char*) {}));
    EXPECT_EQ(log.texts(), (Lines{"PROBEMOND EXECNETD RESP one\n", "PROBEMOND EXECNETD RESP /system/bin/quiet\n"}));
    for (const auto& line : log.lines()) EXPECT_EQ(line.priority, ANDROID_LOG_DEBUG);
    EXPECT_EQ(openFdCount(), before);
    std::filesystem::remove_all(dir);
}

}  // namespace
