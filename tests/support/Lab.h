// Drives the network lab (lab/lab.sh) from tests running inside it.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace probemond::test {

// Runs lab.sh with `args` (interface names, numbers and modes: no quoting
// needed). True on exit code 0.
inline bool runLab(const std::string& args) {
    std::string root = __FILE__;  // <source>/tests/support/Lab.h
    for (int i = 0; i < 3; ++i) root = root.substr(0, root.find_last_of('/'));
    if (const char* src = getenv("PROBEMOND_SOURCE_DIR")) root = src;
    const int status = system((root + "/lab/lab.sh " + args + " >/dev/null").c_str());
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// True inside `lab.sh exec` with the lab up (root, namespaces, responder).
inline bool labAvailable() {
    const char* name = getenv("PROBEMOND_LAB");
    struct stat st;
    return name != nullptr && geteuid() == 0 &&
           stat((std::string("/run/probemond-lab-") + name + "/responder.pid").c_str(), &st) == 0;
}

inline bool labDelay(const std::string& iface, int ms) { return runLab("delay " + iface + " " + std::to_string(ms)); }
inline bool labFault(const std::string& iface, const std::string& mode) { return runLab("fault " + iface + " " + mode); }
// Delay 0, loss 0, fault off on every interface.
inline bool labReset() { return runLab("reset"); }

}  // namespace probemond::test
