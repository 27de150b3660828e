// The registry, the ping-worker controls and manual selection, on fakes.
#include "interfaces/InterfaceManager.h"

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "TempPropertyFile.h"
#include "tests/interfaces/InterfaceFakes.h"

using namespace probemond::ifaces;
using namespace probemond::test;

namespace {

// Lookups take exact names only; the records' build order and the chains'
// are proven on the running daemon.
TEST(Registry, CountryTableExactLookupAndSelectionKind) {
    TempPropertyFile props;
    props.set(kCountryProperty, "xxCNyy");
    FakeManager fake;
    EXPECT_STREQ("180.76.76.76", fake.info("wlan0").pingServer.load());
    for (const char* name : {"", "wlan2", "WLAN0", "wlan0 ", "rmnet_data", "rmnet_data8"}) {
        EXPECT_EQ(nullptr, fake.m.getIfaceInfo(name)) << "'" << name << "'";
    }
    EXPECT_FALSE(fake.m.isUserSelectData());
    fake.m.selectInterface("rmnet_data5");
    EXPECT_TRUE(fake.m.isUserSelectData());
    EXPECT_FALSE(fake.m.isAutoSelectData());
}

TEST(PingControlsDeathTest, NameTooLongForTheKernelEndsTheProcess) {
    TempPropertyFile props;
    FakeManager fake;
    EXPECT_DEATH(fake.m.getInterfaceRtt("abcdefghijklmnop"), "interface name too long");
}

TEST(Selection, FirstChangeRepeatAndUnknownNames) {
    TempPropertyFile props;
    FakeManager fake;
    fake.recorder.clear();
    LogCapture log;
    EXPECT_EQ(0, fake.m.selectInterface("wlan0"));
    EXPECT_EQ(0, fake.m.selectInterface("rmnet_data0"));
    EXPECT_EQ(-1, fake.m.selectInterface("rmnet_data0"));
    EXPECT_EQ(0, fake.m.selectInterface("wlan1"));  // the repeat released the mutex
    EXPECT_EQ(-1, fake.m.addInterfaceIpRule("wlan9"));
    EXPECT_EQ(-1, fake.m.delInterfaceIpRule(""));
    EXPECT_EQ((Strings{"selectIface wlan0", "selectIface rmnet_data0 kill", "selectIface wlan1 kill"}),
              fake.recorder.calls());
    EXPECT_EQ((Strings{"selectInterface prev=wlan0, curr=rmnet_data0, kill=1",
                       "selectInterface prev=rmnet_data0, curr=wlan1, kill=1",
                       "addInterfaceIpRule Invalid interface wlan9", "delInterfaceIpRule Invalid interface "}),
              log.texts());
    EXPECT_EQ("wlan1", fake.m.userSelectIfaceCopy());
}

}  // namespace
