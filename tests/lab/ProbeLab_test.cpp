// Real probes through the lab's veth links against its ICMP responder.
#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "Lab.h"
#include "TempPropertyFile.h"
#include "common/Properties.h"
#include "probe/Ping.h"

using namespace probemond;

using namespace probemond::test;

namespace {

long msSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

class ProbeLab : public ::testing::Test {
protected:
    void SetUp() override {
        if (!labAvailable()) GTEST_SKIP() << "not inside the network lab (run through lab/lab.sh exec as root)";
        ASSERT_TRUE(labReset());
        // On a busy machine an ordinary thread may wake milliseconds after its
        // reply arrived, which the probe would count as network delay.
        sched_getparam(0, &saved_);
        policy_ = sched_getscheduler(0);
        sched_param p{};
        p.sched_priority = 5;
        realTime_ = sched_setscheduler(0, SCHED_FIFO, &p) == 0;
    }
    void TearDown() override {
        if (realTime_) sched_setscheduler(0, policy_, &saved_);
        if (labAvailable()) labReset();
    }
    TempPropertyFile props_;
    sched_param saved_{};
    int policy_ = SCHED_OTHER;
    bool realTime_ = false;
};

// Each link has its own delay, so a probe that left by the main route (wlan0)
// would show wlan0's.
TEST_F(ProbeLab, RttFollowsEachInterfacesDelay) {
    const struct {
        const char* iface;
        const char* server;
        int delay;
    } links[] = {{"wlan0", "8.8.8.8", 5}, {"rmnet_data0", "223.5.5.5", 30}, {"wlan1", "1.1.1.1", 150}};
    for (const auto& l : links) ASSERT_TRUE(labDelay(l.iface, l.delay));
    props_.set(kPingTimeoutProperty, "1000");
    for (const auto& l : links) {
        Ping p;
        std::vector<int32_t> rtts;
        for (int i = 0; i < 5; ++i) {
            const ProbeResult r = p.ping(l.iface, l.server);
            EXPECT_FALSE(r.failed) << l.iface;
            rtts.push_back(r.rtt);
        }
        // The median carries the 1 ms claim; a single sample may pay for a
        // scheduling hiccup, but never arrives early.
        std::vector<int32_t> sorted = rtts;
        std::sort(sorted.begin(), sorted.end());
        EXPECT_LE(std::abs(sorted[2] - l.delay), 1) << l.iface << " configured " << l.delay << " ms";
        EXPECT_GE(sorted[0], l.delay - 1) << l.iface;
        EXPECT_LE(sorted[4], l.delay + 10) << l.iface;
        EXPECT_EQ(5, p.sequenceNumber);
    }
}

TEST_F(ProbeLab, SilenceEndsWithTheTimeoutAndWrapsTheSequence) {
    props_.set(kPingTimeoutProperty, "500");
    ASSERT_TRUE(labFault("rmnet_data3", "silent"));
    Ping p;
    p.sequenceNumber = 65535;
    const auto start = std::chrono::steady_clock::now();
    const ProbeResult r = p.ping("rmnet_data3", "8.8.4.4");
    EXPECT_EQ(500, r.rtt);
    EXPECT_TRUE(r.failed);
    const long elapsed = msSince(start);
    EXPECT_GE(elapsed, 490);
    EXPECT_LT(elapsed, 900);
    EXPECT_EQ(0, p.sequenceNumber);
}

// Each kind of bad reply is rejected (which reason is the parser's unit
// test), and the probe waits on for the real reply, which the responder sends
// one delay after the bad one.
TEST_F(ProbeLab, RejectedRepliesRestartTheWait) {
    props_.set(kPingTimeoutProperty, "1000");
    ASSERT_TRUE(labDelay("wlan1", 20));
    for (const char* fault : {"wrong-seq+reply", "bad-checksum+reply", "unreachable+reply", "foreign-source+reply"}) {
        SCOPED_TRACE(fault);
        ASSERT_TRUE(labFault("wlan1", fault));
        Ping p;
        // ~40 ms; ending at the bad packet would give ~20, by timeout 1000.
        const int32_t rtt = p.ping("wlan1", "208.67.222.222").rtt;
        EXPECT_GE(rtt, 39);
        EXPECT_LE(rtt, 50);
        EXPECT_EQ(1, p.sequenceNumber);
    }

    // A bad reply at 60 ms starts a new full wait: no answer before 60 + 150.
    props_.set(kPingTimeoutProperty, "150");
    ASSERT_TRUE(labDelay("rmnet_data2", 60));
    ASSERT_TRUE(labFault("rmnet_data2", "wrong-seq"));
    Ping p;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(150, p.ping("rmnet_data2", "114.114.115.115").rtt);
    EXPECT_GE(msSince(start), 60 + 145);
}

}  // namespace
