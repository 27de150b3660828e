// Wrapper command lines recorded instead of changing the host's network.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "netctl/WrapperCommand.h"

namespace probemond::test {

// For a private manager: records each line; "could not start" on request.
class RecordingCommandExecutor : public CommandExecutor {
public:
    bool execute(const char* command, const std::function<void(const char*)>&) override {
        std::lock_guard<std::mutex> g(lock_);
        commands_.push_back(command);
        return !failAll;
    }
    std::vector<std::string> commands() const {
        std::lock_guard<std::mutex> g(lock_);
        return commands_;
    }
    void clear() {
        std::lock_guard<std::mutex> g(lock_);
        commands_.clear();
    }
    std::atomic<bool> failAll{false};

private:
    mutable std::mutex lock_;
    std::vector<std::string> commands_;
};

}  // namespace probemond::test
