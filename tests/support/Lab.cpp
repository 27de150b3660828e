#include "Lab.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

extern char** environ;

namespace probemond::test {
namespace {

const char* kIfaces[] = {"wlan0",       "wlan1",       "rmnet_data0", "rmnet_data1", "rmnet_data2",
                         "rmnet_data3", "rmnet_data4", "rmnet_data5", "rmnet_data6", "rmnet_data7"};

std::string labScript() {
    if (const char* src = getenv("PROBEMOND_SOURCE_DIR")) return std::string(src) + "/lab/lab.sh";
    std::string here = __FILE__;  // <source>/tests/support/Lab.cpp
    for (int i = 0; i < 3; ++i) here = here.substr(0, here.find_last_of('/'));
    return here + "/lab/lab.sh";
}

// Runs lab.sh with `args`; its stdout goes to `out` when given. Returns the exit code.
int runLab(const std::vector<std::string>& args, std::string* out) {
    const std::string script = labScript();
    std::vector<char*> argv{const_cast<char*>(script.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    int fds[2] = {-1, -1};
    if (out != nullptr && pipe2(fds, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (out != nullptr) posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    pid_t pid = -1;
    const int err = posix_spawn(&pid, script.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (out != nullptr) {
        close(fds[1]);
        if (err == 0) {
            char buf[256];
            ssize_t n;
            while ((n = read(fds[0], buf, sizeof(buf))) > 0) out->append(buf, static_cast<size_t>(n));
        }
        close(fds[0]);
    }
    if (err != 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

bool labAvailable() {
    const char* name = getenv("PROBEMOND_LAB");
    if (name == nullptr || geteuid() != 0) return false;
    struct stat st;
    return stat((std::string("/run/probemond-lab-") + name + "/responder.pid").c_str(), &st) == 0;
}

bool labDelay(const std::string& iface, int ms) {
    return runLab({"delay", iface, std::to_string(ms)}, nullptr) == 0;
}

bool labLoss(const std::string& iface, int percent) {
    return runLab({"loss", iface, std::to_string(percent)}, nullptr) == 0;
}

bool labFault(const std::string& iface, const std::string& mode) {
    return runLab({"fault", iface, mode}, nullptr) == 0;
}

bool labReset() {
    bool ok = true;
    for (const char* iface : kIfaces) {
        ok = labDelay(iface, 0) && ok;
        ok = labLoss(iface, 0) && ok;
        ok = labFault(iface, "off") && ok;
    }
    return ok;
}

long labCounter(const std::string& iface) {
    std::string out;
    if (runLab({"counters", iface}, &out) != 0 || out.empty()) return -1;
    char* end = nullptr;
    const long v = strtol(out.c_str(), &end, 10);
    return end == out.c_str() ? -1 : v;
}

}  // namespace probemond::test
