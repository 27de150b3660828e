// Wrapper command lines recorded instead of changing the host's network.
#pragma once

#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "netctl/IptablesRuleManager.h"
#include "netctl/WrapperCommand.h"

namespace probemond::test {

// For a private manager: records each line; "could not start" on request. As
// its socket killer too, it records "kill sockets of UID" in the same log.
class RecordingCommandExecutor : public CommandExecutor, public SocketKiller {
public:
    bool execute(const char* command, const std::function<void(const char*)>&) override {
        record(command);
        return !failAll;
    }
    // Answers with the next of `statuses`, 0 once they are used up.
    int executeForStatus(const char* command, const std::function<void(const char*)>&) override {
        record(command);
        std::lock_guard<std::mutex> g(lock_);
        if (statuses.empty()) return failAll ? kNotStarted : 0;
        const int status = statuses.front();
        statuses.pop_front();
        return status;
    }
    int32_t killUidSockets(const char* uid) override {
        record(std::string("kill sockets of ") + uid);
        return uid == failKillOf ? -1 : 0;
    }
    std::vector<std::string> commands() const {
        std::lock_guard<std::mutex> g(lock_);
        return commands_;
    }
    // What was recorded since the last take.
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> g(lock_);
        return std::move(commands_);
    }
    std::atomic<bool> failAll{false};
    std::string failKillOf;  // not while another thread uses the manager
    std::deque<int> statuses;  // likewise

private:
    void record(std::string entry) {
        std::lock_guard<std::mutex> g(lock_);
        commands_.push_back(std::move(entry));
    }
    mutable std::mutex lock_;
    std::vector<std::string> commands_;
};

}  // namespace probemond::test
