// The watcher of netd restarts on a scripted property wait and fake hooks,
// and the real property wait on the host's property file.
#include "netctl/NetdRestartWatcher.h"

#include <android/log.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <future>
#include <numeric>
#include <thread>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "TempPropertyFile.h"
#include "WatcherFakes.h"
#include "common/Properties.h"

using namespace probemond;
using namespace probemond::test;
using Strings = std::vector<std::string>;

namespace {

TEST(NetdRestartWatcher, ChecksAtOnceThenBacksOffAndANewChangeStartsOver) {
    ScriptedWatch watch;
    FakeHooks hooks;
    NetdRestartWatcher watcher(watch, hooks);
    const std::vector<int64_t> delays(std::begin(kCheckDelaysMs), std::end(kCheckDelaysMs));
    watch.script = {"restarting", std::nullopt, std::nullopt, "running"};
    watch.script.insert(watch.script.end(), delays.size(), std::nullopt);
    watch.script.push_back("running");
    const size_t steps = watch.script.size();
    for (size_t i = 0; i < steps; ++i) watcher.step();

    // Waits: for ever before a change, the first three delays (the second
    // change ends the third), all of them again, then for ever.
    std::vector<int64_t> expected{-1, delays[0], delays[1], delays[2]};
    expected.insert(expected.end(), delays.begin(), delays.end());
    expected.push_back(-1);
    EXPECT_EQ(expected, watch.timeouts);
    EXPECT_GE(std::accumulate(delays.begin(), delays.end(), int64_t{0}), 30000) << "netd may take half a minute";
    // One check per wake-up, and nothing changed while the jump was there.
    EXPECT_EQ(Strings(steps, "check"), hooks.calls);
}

TEST(NetdRestartWatcher, PutsBackWhatIsMissingOnlyWhenTheMangleJumpIs) {
    ScriptedWatch watch;
    FakeHooks hooks;
    NetdRestartWatcher watcher(watch, hooks);
    LogCapture log;
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

    const std::string last = "the mangle OUTPUT and nat POSTROUTING jumps and the ip rules of wlan1, rmnet_data0";
    EXPECT_EQ(1u, log.count("restored " + last + " after a platform restart", ANDROID_LOG_INFO)) << log.dump();
    EXPECT_EQ(2u, log.countContaining("after a platform restart"));
    const RestorationHistory h = watcher.restorations();
    EXPECT_EQ(2u, h.count);
    EXPECT_EQ(last, h.lastRestored);
}

// Steps on time-outs until the watcher waits for a change alone; the waits
// before that one.
std::vector<int64_t> waitsUntilIdle(ScriptedWatch& watch, NetdRestartWatcher& watcher) {
    const size_t from = watch.timeouts.size();
    do {
        watch.script = {std::nullopt};
        watcher.step();
    } while (watch.timeouts.back() != -1 && watch.timeouts.size() < from + 1000);
    return {watch.timeouts.begin() + static_cast<std::ptrdiff_t>(from), watch.timeouts.end() - 1};
}

// A rule the tool refused is tried again, alone, at every check; a new
// change starts the bound over; past it the watcher says so and sleeps.
TEST(NetdRestartWatcher, TriesARefusedRuleAgainUntilTheBoundThenSleeps) {
    ScriptedWatch watch;
    FakeHooks hooks;
    NetdRestartWatcher watcher(watch, hooks);
    LogCapture log;
    hooks.found = {JumpState::kMissing, JumpState::kMissing};
    hooks.refusing = {"wlan1"};
    watch.script = {"restarting", std::nullopt, std::nullopt};
    for (int i = 0; i < 3; ++i) {
        watcher.step();
        hooks.found = {JumpState::kInPlace, JumpState::kInPlace};
    }
    EXPECT_EQ((Strings{"check", "jumps OUTPUT POSTROUTING", "rules", "check", "retry", "check", "retry"}), hooks.calls);
    EXPECT_EQ(1u, log.count("restored the mangle OUTPUT and nat POSTROUTING jumps and the ip rules of rmnet_data0 "
                            "(refused for now: wlan1) after a platform restart",
                            ANDROID_LOG_INFO))
            << log.dump();
    EXPECT_EQ("wlan1", watcher.restorations().refused);
    EXPECT_TRUE(watcher.restorations().retrying);

    hooks.calls.clear();
    watch.script = {"running"};
    watcher.step();
    const std::vector<int64_t> waits = waitsUntilIdle(watch, watcher);
    EXPECT_EQ(kRetryForMs, std::accumulate(waits.begin(), waits.end(), int64_t{0}));
    EXPECT_GE(kRetryPeriodMs, *std::max_element(waits.begin() + std::size(kCheckDelaysMs), waits.end()));
    Strings expected;
    for (size_t i = 0; i <= waits.size(); ++i) expected.insert(expected.end(), {"check", "retry"});
    expected.push_back("check");  // the scripted wake-up from the endless wait
    EXPECT_EQ(expected, hooks.calls);
    EXPECT_EQ(1u, log.count("stopped trying the ip rules of wlan1 300 s after a platform restart: their tables are "
                            "not named; add-ip-rule adds them again",
                            ANDROID_LOG_ERROR))
            << log.dump();
    const RestorationHistory given = watcher.restorations();
    EXPECT_EQ(1u, given.count);
    EXPECT_EQ("wlan1", given.refused);
    EXPECT_FALSE(given.retrying);
}

// A rule installed late is a restoration of its own; then nothing is due
// beyond the usual checks.
TEST(NetdRestartWatcher, ARuleInstalledLateCountsAndEndsTheRetries) {
    ScriptedWatch watch;
    FakeHooks hooks;
    NetdRestartWatcher watcher(watch, hooks);
    LogCapture log;
    hooks.found = {JumpState::kMissing, JumpState::kInPlace};
    hooks.refusing = {"wlan1", "rmnet_data0"};
    watch.script = {"running"};
    watcher.step();
    hooks.found = {JumpState::kInPlace, JumpState::kInPlace};
    hooks.refusing = {"rmnet_data0"};
    watch.script = {std::nullopt};
    watcher.step();
    hooks.refusing.clear();
    const std::vector<int64_t> waits = waitsUntilIdle(watch, watcher);
    EXPECT_EQ(std::vector<int64_t>(std::begin(kCheckDelaysMs) + 1, std::end(kCheckDelaysMs)), waits);
    for (const char* late : {"wlan1", "rmnet_data0"}) {
        EXPECT_EQ(1u, log.count(std::string("restored the ip rules of ") + late +
                                        " (refused at first) after a platform restart",
                                ANDROID_LOG_INFO))
                << log.dump();
    }
    const RestorationHistory h = watcher.restorations();
    EXPECT_EQ(3u, h.count);
    EXPECT_EQ("the ip rules of rmnet_data0 (refused at first)", h.lastRestored);
    EXPECT_EQ("", h.refused);
    EXPECT_EQ(0u, log.countContaining("stopped trying"));
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
