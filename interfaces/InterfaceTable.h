// The device's interface set, one row per interface. Change the set here; the
// manager builds one record and one ping worker per row, and the lab's list
// (lab/interfaces) and the wrappers' additions (device/wrappers) follow it.
#pragma once

#include <cstdint>

#include "common/InterfaceKind.h"

namespace probemond {

struct InterfaceRow {
    const char* name;
    const char* fwmark;  // the mark of its steered packets, as it goes into a command line
    const char* prio;    // the priority of its policy rule, likewise
    int32_t startRtt;    // its RTT and median until the first probe
    InterfaceKind kind;
};

inline constexpr InterfaceRow kInterfaceTable[] = {
        {"wlan0", "0xa0", "29500", 30, InterfaceKind::kWifi},
        {"wlan1", "0xa1", "29600", 30, InterfaceKind::kWifi},
        {"rmnet_data0", "0xd0", "29700", 50, InterfaceKind::kCellular},
        {"rmnet_data1", "0xd1", "29800", 50, InterfaceKind::kCellular},
        {"rmnet_data2", "0xd2", "29900", 50, InterfaceKind::kCellular},
        {"rmnet_data3", "0xd3", "30000", 50, InterfaceKind::kCellular},
        {"rmnet_data4", "0xd4", "30100", 50, InterfaceKind::kCellular},
        {"rmnet_data5", "0xd5", "30200", 50, InterfaceKind::kCellular},
        {"rmnet_data6", "0xd6", "30300", 50, InterfaceKind::kCellular},
        {"rmnet_data7", "0xd7", "30400", 50, InterfaceKind::kCellular},
};

}  // namespace probemond
