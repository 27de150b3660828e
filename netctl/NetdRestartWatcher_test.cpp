// The watcher of netd restarts on a scripted property wait and fake hooks,
// and the real property wait on the host's property file.
#include "netctl/NetdRestartWatcher.h"

#include <android/log.h>
#include <cutils/properties.h>

#include <chrono>
#include <deque>
#include <fstream>
#include <future>
#include <iterator>
#include <numeric>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "TempPropertyFile.h"
#include "common/Properties.h"

using namespace probemond;
using probemond::test::LogCapture;
using probemond::test::TempPropertyFile;
using Strings = std::vector<std::string>;

namespace {

// Answers each wait from a script: a value is a change, nothing a time-out.
struct ScriptedWatch : PropertyWatch {
    std::deque<std::optional<std::string>> script;
    std::vector<int64_t> timeouts;
    std::optional<std::string> waitForChange(int64_t timeoutMs) override {
        timeouts.push_back(timeoutMs);
        std::optional<std::string> next = script.front();
        script.pop_front();
        return next;
    }
};

struct FakeHooks : SteeringHooks {
    HookCheck found{JumpState::kInPlace, JumpState::kInPlace};
    Strings calls;
    HookCheck checkHooks() override {
        calls.push_back("check");
        return found;
    }
    void restoreJumps(const HookCheck& f) override {
        calls.push_back(std::string("jumps") + (f.outputJump == JumpState::kMissing ? " OUTPUT" : "") +
                        (f.postroutingJump == JumpState::kMissing ? " POSTROUTING" : ""));
    }
    Strings restoreIpRules() override {
        calls.push_back("rules");
        return {"wlan1", "rmnet_data0"};
    }
};

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

    // Nothing is due before the first change, nor once the schedule ran out.
    ASSERT_EQ(steps, watch.timeouts.size());
    EXPECT_EQ(-1, watch.timeouts[0]);
    EXPECT_EQ(-1, watch.timeouts[4 + delays.size()]);
    // The second change came two checks into the schedule of the first.
    EXPECT_EQ(std::vector<int64_t>(delays.begin(), delays.begin() + 3),
              std::vector<int64_t>(watch.timeouts.begin() + 1, watch.timeouts.begin() + 4));
    EXPECT_EQ(delays, std::vector<int64_t>(watch.timeouts.begin() + 4, watch.timeouts.begin() + 4 + delays.size()));
    EXPECT_GE(std::accumulate(delays.begin(), delays.end(), int64_t{0}), 30000) << "netd may take half a minute";
    // One check per wake-up, and nothing changed while the jump was there.
    EXPECT_EQ(Strings(steps, "check"), hooks.calls);
    EXPECT_EQ(0u, watcher.restorations().count);
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
    EXPECT_EQ(1u, log.count("NetdRestartWatcher mangle OUTPUT jump in place, nat POSTROUTING jump missing",
                            ANDROID_LOG_DEBUG));
    const RestorationHistory h = watcher.restorations();
    EXPECT_EQ(2u, h.count);
    EXPECT_EQ(last, h.lastRestored);
    EXPECT_GE(h.msSinceLast, 0);
}

// The device's wait over the host's stand-in: only the watched property's
// changes end it, however the file changes.
TEST(SystemPropertyWatch, OnlyItsOwnPropertyEndsTheWait) {
    TempPropertyFile props;
    props.set("vendor.kest.probemond.rtt_debug", "0");
    SystemPropertyWatch watch(kZygoteStateProperty);
    auto later = [&](auto write) {
        return std::async(std::launch::async, [write] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            write();
        });
    };
    // Absent: other properties change, the file is rewritten, nothing ends it.
    auto other = later([&] { props.set("vendor.kest.probemond.rtt_debug", "1"); });
    EXPECT_EQ(std::nullopt, watch.waitForChange(400));
    // It appears: an appended line, as tests write one.
    auto appended = later([&] { std::ofstream(props.path(), std::ios::app) << "init.svc.zygote=restarting\n"; });
    EXPECT_EQ("restarting", watch.waitForChange(10000).value_or("(timed out)"));
    // Replaced by rename, as property_set does.
    auto set = later([&] { props.set(kZygoteStateProperty, "running"); });
    EXPECT_EQ("running", watch.waitForChange(10000).value_or("(timed out)"));
    // The same value again, and another property: no change of its own.
    props.set(kZygoteStateProperty, "running");
    props.set("vendor.kest.probemond.rtt_debug", "0");
    EXPECT_EQ(std::nullopt, watch.waitForChange(200));
}

}  // namespace
