#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

extern char** environ;

namespace probemond::test {

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
    const int fd = mkostemp(outPath_.data(), O_CLOEXEC);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fd, 1);
    if (fd < 0 || posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    if (fd >= 0) close(fd);
}

ChildProcess::~ChildProcess() {
    finish(true);
    unlink(outPath_.c_str());
}

RunResult ChildProcess::finish(bool kill) {
    RunResult r;
    int status = 0;
    if (pid_ > 0 && (!kill || ::kill(pid_, SIGKILL) == 0) && waitpid(pid_, &status, 0) == pid_)
        r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    pid_ = -1;
    std::stringstream ss;
    ss << std::ifstream(outPath_).rdbuf();
    r.out = ss.str();
    return r;
}

}  // namespace probemond::test
