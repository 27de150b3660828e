// What putting the client's policy rules back came to, by interface name.
#pragma once

#include <string>
#include <vector>

namespace probemond {

struct IpRuleRestore {
    std::vector<std::string> installed;
    // The tool refused the add: after netd's start, until the framework puts
    // the interface back in a network, its table has no name.
    std::vector<std::string> refused;
};

}  // namespace probemond
