// The watcher of netd restarts on a scripted property wait and fake hooks,
// and the real property wait on the host's property file.
#include "netctl/NetdRestartWatcher.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <future>
#include <numeric>
#include <thread>

#include <gtest/gtest.h>

#include "TempPropertyFile.h"
#include "WatcherFakes.h"
#include "common/Properties.h"

using namespace probemond;
using namespace probemond::test;
using Strings = std::vector<std::string>;

namespace {

// A watcher on a scripted property wait and fake hooks.
struct RestartWatcher : ::testing::Test {
    ScriptedWatch watch;
    FakeHooks hooks;
    NetdRestartWatcher watcher{watch, hooks};
};

TEST_F(RestartWatcher, PutsBackWhatIsMissingOnlyWhenTheMangleJumpIs) {
    auto checkWith = [&](JumpState output, JumpState postrouting) {
        hooks.calls.clear();
        hooks.found = {output, postrouting};
        watch.script = {"running"};
        watcher.step();
        return hooks.calls;
    };
    // Not netd's doing, or no answer: left alone.
    EXPECT_EQ(Strings{"check"}, checkWith(JumpState::kInPlace, JumpState::kMissing));
    EXPECT_EQ(Strings{"check"}, checkWith(JumpState::kUnknown, JumpState::kMissing));
    EXPECT_EQ((Strings{"check", "jumps OUTPUT", "rules"}), checkWith(JumpState::kMissing, JumpState::kUnknown));
    EXPECT_EQ((Strings{"check", "jumps OUTPUT POSTROUTING", "rules"}),
              checkWith(JumpState::kMissing, JumpState::kMissing));
    EXPECT_EQ("the mangle OUTPUT and nat POSTROUTING jumps and the ip rules of wlan1, rmnet_data0",
              watcher.restorations().lastRestored);
}

// With nothing refused: a check at once after a change, then backing off
// over half a minute, then a wait for the next change alone.
TEST_F(RestartWatcher, ChecksFollowTheScheduleThenWaitForAChange) {
    watch.script = {"running"};
    do {
        watcher.step();
        watch.script = {std::nullopt};
    } while (watch.timeouts.back() != -1 || watch.timeouts.size() == 1);
    std::vector<int64_t> expected{-1};
    expected.insert(expected.end(), std::begin(kCheckDelaysMs), std::end(kCheckDelaysMs));
    expected.push_back(-1);
    EXPECT_EQ(expected, watch.timeouts);
    EXPECT_GE(std::accumulate(std::begin(kCheckDelaysMs), std::end(kCheckDelaysMs), int64_t{0}), 30000)
            << "netd may take half a minute";
}

// A new change starts the checks over. A rule the tool refused is tried again, alone, at every check, and is
// a restoration of its own once in place; the checks go on while one is
// refused, until the waits since the latest change reach the bound; then the
// watcher names what is left and waits for a change alone.
TEST_F(RestartWatcher, TriesRefusedRulesAgainUntilInPlaceOrTheBound) {
    hooks.found = {JumpState::kMissing, JumpState::kMissing};
    hooks.refusing = {"wlan1", "rmnet_data0"};
    watch.script = {"restarting", std::nullopt, "running"};
    for (int i = 0; i < 3; ++i) {
        watcher.step();
        hooks.found = {JumpState::kInPlace, JumpState::kInPlace};
        hooks.refusing = {"wlan1"};
    }
    const size_t fromRunning = watch.timeouts.size();
    do {
        watch.script = {std::nullopt};
        watcher.step();
    } while (watch.timeouts.back() != -1 && watch.timeouts.size() < 1000);
    const std::vector<int64_t> waits(watch.timeouts.begin() + fromRunning, watch.timeouts.end() - 1);
    EXPECT_EQ((std::vector<int64_t>{-1, kCheckDelaysMs[0]}), (std::vector<int64_t>{watch.timeouts[0], watch.timeouts[1]}));
    EXPECT_EQ(kRetryForMs, std::accumulate(waits.begin(), waits.end(), int64_t{0}));
    // A name may come back at any time: never a longer wait while a rule is refused.
    EXPECT_GE(kRetryPeriodMs, *std::max_element(waits.begin(), waits.end()));

    Strings expected{"check", "jumps OUTPUT POSTROUTING", "rules"};
    for (size_t i = 0; i < waits.size() + 2; ++i) expected.insert(expected.end(), {"check", "retry"});
    expected.push_back("check");  // the scripted wake-up from the endless wait
    EXPECT_EQ(expected, hooks.calls);
    const RestorationHistory h = watcher.restorations();
    EXPECT_EQ(2u, h.count);
    EXPECT_EQ("wlan1", h.refused);
    EXPECT_FALSE(h.retrying);
}

// The device's wait over the host's stand-in: only the watched property's
// changes end it, however the file changes.
TEST(SystemPropertyWatch, OnlyItsOwnPropertyEndsTheWait) {
    TempPropertyFile props;
    props.set("vendor.kest.probemond.rtt_debug", "0");
    SystemPropertyWatch watch(kZygoteStateProperty);
    auto soon = [](auto write) {
        return std::async(std::launch::async, [write] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            write();
        });
    };
    // Absent while another property changes.
    auto other = soon([&] { props.set("vendor.kest.probemond.rtt_debug", "1"); });
    EXPECT_EQ(std::nullopt, watch.waitForChange(400));
    // A line appended, as tests write one; then replaced by rename, as property_set does.
    auto appended = soon([&] { std::ofstream(props.path(), std::ios::app) << "init.svc.zygote=restarting\n"; });
    EXPECT_EQ("restarting", watch.waitForChange(10000).value_or("(timed out)"));
    auto set = soon([&] { props.set(kZygoteStateProperty, "running"); });
    EXPECT_EQ("running", watch.waitForChange(10000).value_or("(timed out)"));
    // The same value again, and another property: no change of its own.
    props.set(kZygoteStateProperty, "running");
    props.set("vendor.kest.probemond.rtt_debug", "0");
    EXPECT_EQ(std::nullopt, watch.waitForChange(200));
}

}  // namespace
