// probemond-netutils-wrapper WRAPPER ARGS...
// The platform's netutils wrapper as the lab runs it, started by the scripts
// beside this file with their own path as WRAPPER. It matches the line with
// the device's stock patterns and the daemon's additions; a line they allow
// becomes the lab's tool (its output and exit status are the tool's), any
// other is refused as on a phone, and also appended to the file named by
// PROBEMOND_WRAPPER_REFUSALS, so that the run that caused it fails. Each line
// it runs is appended to the file PROBEMOND_WRAPPER_RUNS names, when set, so a
// test can count what the daemon ran.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "lab/wrappers/AllowList.h"

namespace {

using namespace probemond::lab;

// The host's tools behind the phone's: the lab runs the legacy iptables backend.
const char* hostTool(const std::string& tool) {
    if (tool == "iptables") return "iptables-legacy";
    if (tool == "ip6tables") return "ip6tables-legacy";
    if (tool == "ip") return "ip";
    return nullptr;
}

// Appends the line to the file the variable names, if it names one.
void record(const char* variable, const std::string& text) {
    const char* path = getenv(variable);
    if (path == nullptr || path[0] == '\0') return;
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    const std::string line = text + "\n";
    if (fd < 0 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        fprintf(stderr, "NetUtilsWrapper: cannot record the line in %s: %s\n", path, strerror(errno));
    if (fd >= 0) close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: probemond-netutils-wrapper WRAPPER [ARGS...]\n");
        return 2;
    }
    const std::string tool = wrapperTool(argv[1]);
    const std::string text = wrapperText(tool.empty() ? argv[1] : tool, std::vector<std::string>(argv + 2, argv + argc));
    AllowList list;
    bool allowed = hostTool(tool) != nullptr;
    for (const char* name : {"stock.allow", "probemond.allow"}) {
        const std::string path = std::string(WRAPPER_LISTS_DIR) + "/" + name;
        if (allowed && !list.load(path)) {
            fprintf(stderr, "NetUtilsWrapper: cannot read %s\n", path.c_str());
            allowed = false;
        }
    }
    if (!allowed || !list.allows(text)) {
        fprintf(stderr, "NetUtilsWrapper: Unexpected command: %s\n", text.c_str());
        record("PROBEMOND_WRAPPER_REFUSALS", text);
        return 1;
    }
    record("PROBEMOND_WRAPPER_RUNS", text);
    argv[1] = const_cast<char*>(hostTool(tool));
    execvp(argv[1], argv + 1);
    fprintf(stderr, "NetUtilsWrapper: cannot run %s: %s\n", argv[1], strerror(errno));
    return 127;
}
