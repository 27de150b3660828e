// Wrapper command lines recorded instead of changing the host's network.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
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
        return !failAll_;
    }
    std::vector<std::string> commands() const {
        std::lock_guard<std::mutex> g(lock_);
        return commands_;
    }
    void clear() {
        std::lock_guard<std::mutex> g(lock_);
        commands_.clear();
    }
    void failAll(bool fail) {
        std::lock_guard<std::mutex> g(lock_);
        failAll_ = fail;
    }

private:
    mutable std::mutex lock_;
    std::vector<std::string> commands_;
    bool failAll_ = false;
};

// For the process-wide managers, which run the real popen runner: points the
// host's /system/bin mapping at two tools that only write down their command
// line, and puts the previous mapping back when it goes.
class RecordingWrapperTools {
public:
    RecordingWrapperTools() {
        char tmpl[] = "/tmp/probemond-tools-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) abort();
        dir_ = tmpl;
        for (const char* tool : {"iptables-wrapper-1.0", "ip-wrapper-1.0"}) {
            const std::string path = dir_ + "/" + tool;
            std::ofstream(path) << "#!/bin/sh\necho \"/system/bin/" << tool << " $*\" >> " << dir_ << "/log\n";
            chmod(path.c_str(), 0755);
        }
        const char* previous = getenv("PROBEMOND_SYSTEM_BIN");
        if (previous != nullptr) previous_ = previous;
        setenv("PROBEMOND_SYSTEM_BIN", dir_.c_str(), 1);
    }
    ~RecordingWrapperTools() {
        if (previous_.empty()) unsetenv("PROBEMOND_SYSTEM_BIN");
        else setenv("PROBEMOND_SYSTEM_BIN", previous_.c_str(), 1);
        if (system(("rm -rf '" + dir_ + "'").c_str()) != 0) {
        }
    }
    std::vector<std::string> commands() const {
        std::vector<std::string> out;
        std::ifstream in(dir_ + "/log");
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }
    void clear() { std::ofstream(dir_ + "/log", std::ios::trunc); }

private:
    std::string dir_;
    std::string previous_;
};

}  // namespace probemond::test
