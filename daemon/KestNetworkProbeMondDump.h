// The text of the service's state dump.
#pragma once

#include <string>
#include <vector>

#include "interfaces/InterfaceManager.h"

namespace probemond {

// One line per interface (map order), then the selections, the auto-select
// state and the steered UIDs.
std::string formatState(const InterfaceManagerSnapshot& state, const std::vector<std::string>& uids);

}  // namespace probemond
