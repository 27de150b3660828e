// The shipping instance(): built once, on the real rule managers (recorded,
// not run) and with real, idle worker threads.
#include <gtest/gtest.h>
#include <unistd.h>

#include "LogCapture.h"
#include "RecordingCommandExecutor.h"
#include "TempPropertyFile.h"
#include "interfaces/InterfaceManager.h"
#include "netctl/IpRuleManager.h"
#include "netctl/IptablesRuleManager.h"

using namespace probemond::test;

// The workers outlive the test; so do the properties they read. Global, so
// that leak checkers see them as reachable.
TempPropertyFile* gInstanceProps = nullptr;
RecordingWrapperTools* gInstanceCommands = nullptr;

namespace {

TEST(Instance, BuiltOnceWithIdleWorkers) {
    gInstanceProps = new TempPropertyFile;
    gInstanceCommands = new RecordingWrapperTools;
    RecordingWrapperTools* commands = gInstanceCommands;
    IptablesRuleManager::instance();
    IpRuleManager::instance();
    commands->clear();
    LogCapture log;

    InterfaceManager* first = InterfaceManager::instance();
    ASSERT_NE(nullptr, first);
    const size_t issued = commands->commands().size();
    EXPECT_EQ(70u, issued);
    for (auto& entry : first->ifaceMap) {
        EXPECT_EQ(first, entry.second->manager);
        EXPECT_TRUE(log.waitForContaining(" on " + entry.first + " is started and running on cpu ", 5000))
            << log.dump();
    }

    EXPECT_EQ(first, InterfaceManager::instance());
    EXPECT_EQ(issued, commands->commands().size());
    EXPECT_EQ(1u, log.count("InterfaceManager called"));
    EXPECT_EQ(10u, log.countContaining("Init ping thread on "));

    // Nobody asked for probes: a full period passes without one.
    usleep(1300000);
    EXPECT_EQ(0u, log.countContaining(",rtt=")) << log.dump();
    EXPECT_EQ(30, first->getIfaceInfo("wlan1")->rtt);
}

}  // namespace
