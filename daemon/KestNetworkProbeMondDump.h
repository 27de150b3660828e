// The service's state dump: its text, and writing it to the reader's pipe.
#pragma once

#include <string>
#include <vector>

#include "interfaces/Snapshot.h"
#include "netctl/NetdRestartWatcher.h"

namespace probemond {

// One line per interface (map order), then the selections, the auto-select
// state and the steered UIDs, then the counters.
std::string formatState(const InterfaceManagerSnapshot& state, const std::vector<std::string>& uids,
                        const RestorationHistory& restorations);

// Writes the text to `fd`: 0, or a negative errno. A reader that goes away
// costs no SIGPIPE, and one that stops draining holds the thread at most two
// seconds per chunk.
int writeState(int fd, const InterfaceManagerSnapshot& state, const std::vector<std::string>& uids,
               const RestorationHistory& restorations);

}  // namespace probemond
