// Waiting for a system property to change, without polling: the platform's
// property wait, behind a seam the watcher of netd restarts is built on.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct prop_info;

namespace probemond {

class PropertyWatch {
public:
    virtual ~PropertyWatch() = default;
    // Blocks until the property has changed since the watch was made or last
    // returned a change, or until `timeoutMs` has passed (-1: no limit). Its
    // value then ("" while it does not exist), or nothing on a time-out.
    virtual std::optional<std::string> waitForChange(int64_t timeoutMs) = 0;
};

// The real one, on bionic's property area. A property that does not exist
// yet has no prop_info: the wait is then on the global serial, which any
// property's change moves, and the lookup is made again after each wake-up.
class SystemPropertyWatch : public PropertyWatch {
public:
    explicit SystemPropertyWatch(const char* name);
    SystemPropertyWatch(const SystemPropertyWatch&) = delete;
    SystemPropertyWatch& operator=(const SystemPropertyWatch&) = delete;

    std::optional<std::string> waitForChange(int64_t timeoutMs) override;

private:
    std::string read();  // sets serial_

    const char* const name_;
    const prop_info* info_ = nullptr;
    uint32_t serial_ = 0;        // info_'s, as last read
    uint32_t globalSerial_ = 0;  // 0: not read yet
};

}  // namespace probemond
