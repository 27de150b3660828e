// The device's interface set: each row is one interface's name, the firewall
// mark of its steered packets and the priority of its policy rule. Change the
// set here; the manager builds one record and one ping worker per row.
#pragma once

#include <cstddef>
#include <string>

namespace probemond {

inline constexpr size_t kInterfaceCount = 10;

// Null-terminated; row i of the three forms one interface.
extern const char* const interfaceNames[];
extern const char* const interfaceFwmarks[];
extern const char* const interfacePrios[];

// Whether a selected name is a cellular one: it begins with "rmnet_data".
bool isDataInterface(const std::string& name);

}  // namespace probemond
