// A child process owned by a test: killed and reaped when the object goes.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace probemond::test {

class ChildProcess {
public:
    // Starts argv[0] with the test's environment, under $PROBEMOND_EMULATOR when set.
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess() { finish(true); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Waits for the end (SIGKILL first when kill is set); the exit code, or -1.
    int finish(bool kill = false);

private:
    pid_t pid_ = -1;
};

}  // namespace probemond::test
