#include "ChildProcess.h"

#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <sstream>

extern char** environ;

namespace probemond::test {

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
    // e.g. "qemu-aarch64-static -L /x" for a binary built for another machine
    std::vector<std::string> words;
    std::istringstream emulator(getenv("PROBEMOND_EMULATOR") ? getenv("PROBEMOND_EMULATOR") : "");
    for (std::string w; emulator >> w;) words.push_back(w);
    words.insert(words.end(), argv.begin(), argv.end());
    std::vector<char*> args;
    for (std::string& w : words) args.push_back(w.data());
    args.push_back(nullptr);
    if (posix_spawnp(&pid_, args[0], nullptr, nullptr, args.data(), environ) != 0) pid_ = -1;
}

int ChildProcess::finish(bool kill) {
    int status = 0;
    const bool reaped = pid_ > 0 && (!kill || ::kill(pid_, SIGKILL) == 0) && waitpid(pid_, &status, 0) == pid_;
    pid_ = -1;
    return reaped && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace probemond::test
