#include "netctl/PropertyWatch.h"

#include <sys/system_properties.h>
#include <time.h>

namespace probemond {
namespace {

int64_t monotonicMs() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

struct Reading {
    std::string value;
    uint32_t serial = 0;
};

void keep(void* cookie, const char* /*name*/, const char* value, uint32_t serial) {
    auto* reading = static_cast<Reading*>(cookie);
    reading->value = value;
    reading->serial = serial;
}

}  // namespace

SystemPropertyWatch::SystemPropertyWatch(const char* name) : name_(name) {
    info_ = __system_property_find(name_);
    if (info_ != nullptr) read();
}

std::string SystemPropertyWatch::read() {
    Reading reading;
    __system_property_read_callback(info_, keep, &reading);
    serial_ = reading.serial;
    return reading.value;
}

std::optional<std::string> SystemPropertyWatch::waitForChange(int64_t timeoutMs) {
    const int64_t deadline = timeoutMs < 0 ? -1 : monotonicMs() + timeoutMs;
    for (;;) {
        timespec left{};
        if (deadline >= 0) {
            const int64_t ms = deadline - monotonicMs();
            if (ms <= 0) return std::nullopt;
            left.tv_sec = static_cast<time_t>(ms / 1000);
            left.tv_nsec = static_cast<long>(ms % 1000) * 1000000;
        }
        const timespec* timeout = deadline < 0 ? nullptr : &left;
        if (info_ != nullptr) {
            uint32_t serial = 0;
            if (!__system_property_wait(info_, serial_, &serial, timeout)) return std::nullopt;
            return read();
        }
        // Not there yet. The global serial is read before the lookup, so a
        // property made in between still ends the wait that follows; the
        // first wait, on serial 0, only reads it.
        info_ = __system_property_find(name_);
        if (info_ != nullptr) return read();
        if (!__system_property_wait(nullptr, globalSerial_, &globalSerial_, timeout)) return std::nullopt;
    }
}

}  // namespace probemond
