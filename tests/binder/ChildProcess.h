// A child process owned by a test: killed and reaped when the object goes.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace probemond::test {

struct RunResult {
    int exitCode = -1;  // -1: killed by a signal
    std::string out;
};

class ChildProcess {
public:
    // Starts argv[0] with the test's environment; its stdout goes to a private file.
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }
    // Waits for the end (SIGKILL first when kill is set) and collects the output.
    RunResult finish(bool kill = false);

private:
    pid_t pid_ = -1;
    std::string outPath_ = "/tmp/binder_child.XXXXXX";
};

}  // namespace probemond::test
