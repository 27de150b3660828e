// Test doubles for the watcher of netd restarts: its property wait and the
// hooks it checks and puts back.
#pragma once

#include <algorithm>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "netctl/NetdRestartWatcher.h"

namespace probemond::test {

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

// Answers every check with `found`, refuses the rules named in `refusing`
// and records the calls.
struct FakeHooks : SteeringHooks {
    HookCheck found{JumpState::kInPlace, JumpState::kInPlace};
    std::vector<std::string> refusing;
    std::vector<std::string> calls;
    HookCheck checkHooks() override {
        calls.push_back("check");
        return found;
    }
    void restoreJumps(const HookCheck& f) override {
        calls.push_back(std::string("jumps") + (f.outputJump == JumpState::kMissing ? " OUTPUT" : "") +
                        (f.postroutingJump == JumpState::kMissing ? " POSTROUTING" : ""));
    }
    IpRuleRestore restoreIpRules() override {
        calls.push_back("rules");
        return split({"wlan1", "rmnet_data0"});
    }
    IpRuleRestore retryRefusedIpRules() override {
        calls.push_back("retry");
        return split(last_.refused);
    }

private:
    IpRuleRestore split(std::vector<std::string> rules) {
        last_ = {};
        for (const std::string& r : rules) {
            (std::count(refusing.begin(), refusing.end(), r) ? last_.refused : last_.installed).push_back(r);
        }
        return last_;
    }
    IpRuleRestore last_;
};

}  // namespace probemond::test
