// Rotation through the two server tables; what triggers it, and that every
// record follows, is shown with a worker.
#include "interfaces/PingServers.h"

#include <gtest/gtest.h>

#include <string>

#include "TempPropertyFile.h"
#include "common/Properties.h"

using namespace probemond;

namespace {

TEST(PingServers, TheCountryPicksTheTableAndEachKeepsItsPlace) {
    probemond::test::TempPropertyFile props;
    InterfaceInfo a(kInterfaceTable[0], "");
    const InterfaceMap records{{"a", &a}};
    PingServers servers(records);
    auto rotate = [&](const char* country, int n) {
        props.set(kCountryProperty, country);
        for (int i = 1; i < n; ++i) servers.rotate();
        return std::string(servers.rotate());
    };
    EXPECT_EQ("1.1.1.1", rotate("TW", 1));
    EXPECT_EQ("8.8.4.4", rotate("cn", 1));  // lower case is not China
    EXPECT_EQ("223.5.5.5", rotate("xxCNxx", 7));  // wrapped at six
    EXPECT_EQ("1.1.1.1", rotate("TW", 3));  // wrapped at four
}

}  // namespace
