#include "Lab.h"

#include <stdio.h>
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
// needed); its stdout goes to `out` when given. True on exit code 0.
bool runLab(const std::string& args, std::string* out = nullptr) {
    FILE* p = popen((labScript() + " " + args).c_str(), "re");
    if (p == nullptr) return false;
    char buf[256];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        if (out != nullptr) out->append(buf, n);
    const int status = pclose(p);
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

bool labLoss(const std::string& iface, int percent) {
    return runLab("loss " + iface + " " + std::to_string(percent));
}

bool labFault(const std::string& iface, const std::string& mode) { return runLab("fault " + iface + " " + mode); }

bool labReset() {
    bool ok = true;
    for (const char* iface : {"wlan0", "wlan1", "rmnet_data0", "rmnet_data1", "rmnet_data2", "rmnet_data3",
                              "rmnet_data4", "rmnet_data5", "rmnet_data6", "rmnet_data7"})
        for (bool done : {labDelay(iface, 0), labLoss(iface, 0), labFault(iface, "off")}) ok = ok && done;
    return ok;
}

long labCounter(const std::string& iface) {
    std::string out;
    if (!runLab("counters " + iface, &out) || out.empty()) return -1;
    char* end = nullptr;
    const long v = strtol(out.c_str(), &end, 10);
    return end == out.c_str() ? -1 : v;
}

}  // namespace probemond::test
