#include "tools/probemonctl/Top.h"

#include <gtest/gtest.h>

#include "daemon/KestNetworkProbeMondDump.h"
#include "interfaces/InterfaceTable.h"

using namespace probemond;

namespace {

// The daemon's own dump text, so the table follows the dump's format.
std::string sampleDump() {
    InterfaceManagerSnapshot s;
    for (const InterfaceRow& row : kInterfaceTable) {
        InterfaceSnapshot r;
        r.name = row.name;
        r.pingServer = "8.8.4.4";
        r.rtt = r.mrtt = 50;
        s.interfaces.push_back(r);
    }
    s.interfaces[0].isPingThreadRunning = true;  // wlan0
    s.interfaces[0].isControlByAutoSelect = true;
    s.interfaces[0].rttHistory = {20, 150, 200};
    s.interfaces[0].probes = 42;
    s.interfaces[0].probesFailed = 3;
    s.interfaces[0].historyFailurePercent = 33;
    s.interfaces[2].isPingThreadRunning = true;  // rmnet_data0
    s.interfaces[3].isPingThreadSuspended = true;  // rmnet_data1
    s.interfaces[3].isControlByAutoSelect = true;
    s.userSelectIface = "wlan0";
    s.autoSelectIface = "rmnet_data0";
    s.isAutoSelectEnabled = true;
    s.autoSwitches.count = 7;
    s.autoSwitches.msSinceLast = 2500;
    for (int k = 0; k < 7; ++k) {
        s.autoSwitches.recent.push_back({1700000000000 + k * 1000, "wlan0", 150 + k, "rmnet_data0", 40});
    }
    const RestorationHistory restored{2, 61000, 1700000009000, "the mangle OUTPUT jump and the ip rules of wlan1", "", false};
    return probemond::formatState(s, {"10123"}, restored);
}

TEST(Top, OneRowPerInterfaceThenTheSelection) {
    const std::vector<std::string> lines = probemond::ctl::renderTop(probemond::ctl::parseDump(sampleDump()));
    ASSERT_GE(lines.size(), 12u);
    std::string all;
    for (const std::string& l : lines) all += l + "\n";
    EXPECT_EQ(std::string::npos, all.find('\033')) << all;
    // Rows in the dump's order, each with its state.
    EXPECT_EQ(lines[1].substr(0, 22), "wlan0        candidate");
    EXPECT_NE(lines[1].find("▁▆█       "), std::string::npos) << lines[1];
    EXPECT_NE(lines[1].find("     42      3   33%"), std::string::npos) << lines[1];
    EXPECT_EQ(lines[2].substr(0, 22), "wlan1        idle     ");
    EXPECT_EQ(lines[3].substr(0, 22), "rmnet_data0  probing  ");
    EXPECT_EQ(lines[4].substr(0, 22), "rmnet_data1  suspended");  // suspension wins
    EXPECT_EQ(lines[10].substr(0, 11), "rmnet_data7");

    EXPECT_NE(all.find("user: wlan0   auto-select: on   auto: rmnet_data0\n"), std::string::npos) << all;
    EXPECT_NE(all.find("auto-select switches: 7, last 2.5 s ago\n"), std::string::npos);
    // Only the latest five decisions are shown.
    EXPECT_EQ(all.find("wlan0 (151ms)"), std::string::npos);
    EXPECT_NE(all.find("wlan0 (152ms) -> rmnet_data0 (40ms)"), std::string::npos);
    EXPECT_NE(all.find("restored after platform restarts: 2, last 61.0 s ago\n  "), std::string::npos) << all;
    EXPECT_NE(all.find(" the mangle OUTPUT jump and the ip rules of wlan1\n"), std::string::npos);
}

}  // namespace
