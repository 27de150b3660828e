// Test doubles for the watcher of netd restarts: its property wait and the
// hooks it checks and puts back.
#pragma once

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

// Answers every check with `found` and records the calls.
struct FakeHooks : SteeringHooks {
    HookCheck found{JumpState::kInPlace, JumpState::kInPlace};
    std::vector<std::string> calls;
    HookCheck checkHooks() override {
        calls.push_back("check");
        return found;
    }
    void restoreJumps(const HookCheck& f) override {
        calls.push_back(std::string("jumps") + (f.outputJump == JumpState::kMissing ? " OUTPUT" : "") +
                        (f.postroutingJump == JumpState::kMissing ? " POSTROUTING" : ""));
    }
    std::vector<std::string> restoreIpRules() override {
        calls.push_back("rules");
        return {"wlan1", "rmnet_data0"};
    }
};

}  // namespace probemond::test
