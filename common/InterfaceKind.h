// Whether an interface is Wi-Fi or cellular: a field of its table row, handed
// to whatever treats the two differently.
#pragma once

namespace probemond {

enum class InterfaceKind { kWifi, kCellular };

}  // namespace probemond
