#include "netctl/CommandFormat.h"

#include <string>

#include <gtest/gtest.h>

using probemond::formatBounded;

namespace {

TEST(FormatBoundedDeathTest, FitsUpTo511AndEndsTheProcessAt512) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char buf[probemond::kCommandSize];
    std::string arg(511 - 4, 'a');
    formatBounded(buf, sizeof(buf), "cmd %s", arg.c_str());
    EXPECT_EQ(std::string(buf), "cmd " + arg);
    std::string tooLong(512 - 4, 'a');
    EXPECT_DEATH(formatBounded(buf, sizeof(buf), "cmd %s", tooLong.c_str()), "");
}

TEST(FormatBoundedDeathTest, ChainNameFitsUpTo63) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char chain[probemond::kChainNameSize];
    std::string name63(63 - 14, 'r');
    formatBounded(chain, sizeof(chain), "kest_probemon_%s", name63.c_str());
    EXPECT_EQ(std::string(chain).size(), 63u);
    std::string name64(64 - 14, 'r');
    EXPECT_DEATH(formatBounded(chain, sizeof(chain), "kest_probemon_%s", name64.c_str()), "");
}

}  // namespace
