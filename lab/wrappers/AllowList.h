// How the platform's netutils wrappers decide whether a command line runs:
// the text they match and the patterns they match it with.
#pragma once

#include <regex>
#include <string>
#include <vector>

namespace probemond::lab {

// "iptables" for ".../iptables-wrapper-1.0", and so on; empty for a name that
// is no wrapper's.
std::string wrapperTool(const std::string& self);

// What the wrapper matches: /system/bin/<tool>, then every argument, each
// after a single space.
std::string wrapperText(const std::string& tool, const std::vector<std::string>& args);

class AllowList {
public:
    // Adds one list's patterns: a POSIX extended expression a line, blank
    // lines and lines starting with '#' skipped. False when it cannot be read.
    bool load(const std::string& path);
    // True when any pattern is found anywhere in the text.
    bool allows(const std::string& text) const;

private:
    std::vector<std::regex> patterns_;
};

}  // namespace probemond::lab
