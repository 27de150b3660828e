#include "netctl/UidText.h"

#include <gtest/gtest.h>

namespace {

TEST(UidText, PrintableRenderingIsBoundedAndSingleLine) {
    EXPECT_EQ(probemond::printableForLog("1000;touch\n/tmp/x"), "1000;touch?/tmp/x");
    EXPECT_EQ(probemond::printableForLog(std::string(40, '7').c_str()), std::string(32, '7') + "...");
    EXPECT_EQ(probemond::printableForLog("\xff\x01"), "??");
    EXPECT_EQ(probemond::printableForLog(nullptr), "(null)");
}

}  // namespace
