// The daemon's system properties, and reading them the way it parses them:
// "%d" on the value, where a value that does not parse counts as 0. Every
// property is read again where it is used, so a change takes effect at once.
#pragma once

#include <cutils/properties.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace probemond {

// Contains "CN": the Chinese resolver table.
inline constexpr const char* kCountryProperty = "vendor.kest.operator.iso-country";
// RTT in ms at or above which a probe counts towards a server switch.
inline constexpr const char* kRttThresholdProperty = "vendor.kest.probemond.rtt_timeout_threshold";
// 1: per-probe and auto-select debug lines.
inline constexpr const char* kRttDebugProperty = "vendor.kest.probemond.rtt_debug";
// Probe timeout in ms, also the RTT a failed probe reports.
inline constexpr const char* kPingTimeoutProperty = "vendor.kest.probemond.ping_timeout";
// 1: diagnostics of rejected replies.
inline constexpr const char* kPingDebugProperty = "vendor.kest.probemond.ping_debug";
// The platform's, not ours: zygote's state as init keeps it. netd restarts
// with zygote, and every domain may read it.
inline constexpr const char* kZygoteStateProperty = "init.svc.zygote";

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
