// probemonctl top: a live table of the interfaces and the selection, read
// from the service's state dump.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace probemond::ctl {

struct TopRow {
    std::string name;
    std::string state;  // idle, probing, candidate or suspended
    std::string server;
    int rtt = 0;
    int mrtt = 0;
    std::vector<int> history;
    std::string probes = "-";
    std::string failed = "-";
    std::string failPercent = "-";
};

struct TopSwitches {
    std::string count = "0";
    std::string lastMsAgo = "never";
    std::vector<std::string> recent;  // oldest first, as dumped
};

struct TopFrame {
    std::vector<TopRow> rows;
    std::string userSelect = "(none)";
    std::string autoSelect = "(none)";
    bool autoEnabled = false;
    TopSwitches autoSwitches;
    TopSwitches manualSelections;
    TopSwitches restorations;  // the hooks put back after a platform restart
};

TopFrame parseDump(const std::string& dump);
// The frame as text lines, without any terminal control.
std::vector<std::string> renderTop(const TopFrame& frame);

// `top [--interval SECONDS] [--once]`; argv holds the words after "top".
int runTop(int argc, char** argv);

}  // namespace probemond::ctl
