// Records wrapper command lines instead of starting them.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "netctl/WrapperCommand.h"

namespace probemond::test {

class RecordingCommandExecutor : public CommandExecutor {
public:
    // Installs itself for its lifetime.
    RecordingCommandExecutor() { previous_ = setCommandExecutor(this); }
    ~RecordingCommandExecutor() override { setCommandExecutor(previous_); }

    bool execute(const char* command, const std::function<void(const char*)>& onOutput) override {
        std::string out;
        bool ok;
        {
            std::lock_guard<std::mutex> g(lock_);
            commands_.push_back(command);
            ok = !failAll_;
            out = output_;
        }
        if (ok && !out.empty()) onOutput(out.c_str());
        return ok;
    }

    std::vector<std::string> commands() const {
        std::lock_guard<std::mutex> g(lock_);
        return commands_;
    }
    void clear() {
        std::lock_guard<std::mutex> g(lock_);
        commands_.clear();
    }
    // Every command "fails to start" (as when popen fails).
    void failAll(bool fail) {
        std::lock_guard<std::mutex> g(lock_);
        failAll_ = fail;
    }
    // Output every command prints.
    void setOutput(const std::string& out) {
        std::lock_guard<std::mutex> g(lock_);
        output_ = out;
    }

private:
    CommandExecutor* previous_ = nullptr;
    mutable std::mutex lock_;
    std::vector<std::string> commands_;
    bool failAll_ = false;
    std::string output_;
};

}  // namespace probemond::test
