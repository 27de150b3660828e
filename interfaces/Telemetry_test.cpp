#include "interfaces/Telemetry.h"

#include <gtest/gtest.h>

#include <thread>

using namespace probemond;

namespace {

TEST(FailureWindow, FollowsTheHistoryAsItSlides) {
    FailureWindow w;
    EXPECT_EQ(0, w.percent());
    w.push(true, 10);
    w.push(true, 10);
    for (int i = 0; i < 8; ++i) w.push(false, 10);
    EXPECT_EQ(20, w.percent());
    w.push(false, 10);  // the oldest failure leaves the history
    EXPECT_EQ(10, w.percent());
    for (int i = 0; i < 40; ++i) w.push(i % 4 == 0, 10);  // well past the mask's width
    EXPECT_EQ(2u, w.failures());
}

TEST(SwitchLog, KeepsTheLatestSixteenAndCountsAll) {
    SwitchLog log;
    EXPECT_EQ(-1, log.snapshot().msSinceLast);
    // Two writers at once: no record is lost from the count.
    auto writer = [&log](const char* to) {
        for (int i = 0; i < 50; ++i) log.record("wlan0", 150, to, i);
    };
    std::thread a(writer, "rmnet_data0"), b(writer, "rmnet_data1");
    a.join();
    b.join();
    log.record("rmnet_data0", 300, "wlan0", 20);
    const SwitchHistory h = log.snapshot();
    EXPECT_EQ(101u, h.count);
    ASSERT_EQ(kSwitchRecordCount, h.recent.size());
    EXPECT_EQ("wlan0", h.recent.back().to);  // oldest first
    EXPECT_GE(h.msSinceLast, 0);
    EXPECT_GT(h.recent.back().wallMs, 1600000000000);  // Unix milliseconds
}

}  // namespace
