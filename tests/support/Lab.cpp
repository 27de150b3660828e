#include "Lab.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace probemond::test {
namespace {

std::string labScript() {
    if (const char* src = getenv("PROBEMOND_SOURCE_DIR")) return std::string(src) + "/lab/lab.sh";
    std::string here = __FILE__;  // <source>/tests/support/Lab.cpp
    for (int i = 0; i < 3; ++i) here = here.substr(0, here.find_last_of('/'));
    return here + "/lab/lab.sh";
}

// Runs lab.sh with `args` (interface names, numbers and modes: no quoting
// needed). True on exit code 0.
bool runLab(const std::string& args) {
    const int status = system((labScript() + " " + args + " >/dev/null").c_str());
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

bool labAvailable() {
    const char* name = getenv("PROBEMOND_LAB");
    if (name == nullptr || geteuid() != 0) return false;
    struct stat st;
    return stat((std::string("/run/probemond-lab-") + name + "/responder.pid").c_str(), &st) == 0;
}

bool labDelay(const std::string& iface, int ms) { return runLab("delay " + iface + " " + std::to_string(ms)); }

bool labFault(const std::string& iface, const std::string& mode) { return runLab("fault " + iface + " " + mode); }

bool labReset() { return runLab("reset"); }

}  // namespace probemond::test
