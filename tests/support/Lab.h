// Drives the network lab (lab/lab.sh) from tests running inside it.
#pragma once

#include <string>

namespace probemond::test {

// True inside `lab.sh exec` with the lab up (root, namespaces, responder).
bool labAvailable();

// Each runs the matching lab.sh command; false when it failed.
bool labDelay(const std::string& iface, int ms);
bool labFault(const std::string& iface, const std::string& mode);  // "off" clears
// Delay 0, loss 0, fault off on every interface.
bool labReset();

}  // namespace probemond::test
