// A child process owned by a test: killed and reaped when the object goes.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace probemond::test {

struct RunResult {
    int exitCode = -1;  // -1: killed by a signal
    std::string out;
    std::string err;
};

class ChildProcess {
public:
    // Starts argv[0] with the test's environment (through PROBEMOND_EMULATOR
    // when set); output goes to private files.
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return mPid > 0; }
    pid_t pid() const { return mPid; }
    // Waits for the end (SIGKILL first when kill is set) and collects the output.
    RunResult finish(bool kill = false);
    std::string outputSoFar() const;

    static RunResult run(const std::vector<std::string>& argv);

private:
    pid_t mPid = -1;
    std::string mOutPath;
    std::string mErrPath;
};

}  // namespace probemond::test
