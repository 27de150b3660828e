#include "ChildProcess.h"

#include <errno.h>
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
namespace {

std::string tempFile() {
    char tmpl[] = "/tmp/binder_child.XXXXXX";
    const int fd = mkstemp(tmpl);
    if (fd >= 0) close(fd);
    return tmpl;
}

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv)
    : mOutPath(tempFile()), mErrPath(tempFile()) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, mOutPath.c_str(), O_WRONLY | O_TRUNC, 0);
    posix_spawn_file_actions_addopen(&actions, 2, mErrPath.c_str(), O_WRONLY | O_TRUNC, 0);
    // A cross-built program runs through the emulator the test runs under.
    std::vector<std::string> words;
    std::istringstream emulator(getenv("PROBEMOND_EMULATOR") ? getenv("PROBEMOND_EMULATOR") : "");
    for (std::string w; emulator >> w;) words.push_back(w);
    words.insert(words.end(), argv.begin(), argv.end());
    std::vector<char*> args;
    for (const std::string& a : words) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    if (posix_spawn(&mPid, args[0], &actions, nullptr, args.data(), environ) != 0) mPid = -1;
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess() {
    finish(true);
    unlink(mOutPath.c_str());
    unlink(mErrPath.c_str());
}

RunResult ChildProcess::finish(bool killIt) {
    RunResult r;
    if (mPid > 0) {
        if (killIt) kill(mPid, SIGKILL);
        int status = 0;
        while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
        }
        r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        mPid = -1;
    }
    r.out = slurp(mOutPath);
    r.err = slurp(mErrPath);
    return r;
}

std::string ChildProcess::outputSoFar() const { return slurp(mOutPath); }

RunResult ChildProcess::run(const std::vector<std::string>& argv) {
    ChildProcess child(argv);
    return child.finish(false);
}

}  // namespace probemond::test
