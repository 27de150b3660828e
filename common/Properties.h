// Reading system properties the way the daemon parses them: "%d" on the
// value, where a value that does not parse counts as 0.
#pragma once

#include <cutils/properties.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace probemond {

inline int32_t readIntProperty(const char* key, const char* defaultValue) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(key, value, defaultValue);
    int parsed = 0;
    if (sscanf(value, "%d", &parsed) != 1) return 0;
    return parsed;
}

// The debug switches: on only when the value parses to exactly 1.
inline bool readDebugFlag(const char* key) { return readIntProperty(key, "") == 1; }

// True when the property's value contains `part` (case-sensitive).
inline bool propertyContains(const char* key, const char* defaultValue, const char* part) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(key, value, defaultValue);
    return strstr(value, part) != nullptr;
}

}  // namespace probemond
