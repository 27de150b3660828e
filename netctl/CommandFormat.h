// Bounded formatting for command lines and chain names: a text that does not
// fit is never cut short (a truncated iptables command could do anything),
// it ends the process.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace probemond {

inline constexpr size_t kCommandSize = 512;
inline constexpr size_t kChainNameSize = 64;

// Formats into buf[size]; aborts when the result needs `size` bytes or more.
void formatBounded(char* buf, size_t size, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// The same on a va_list, after a fixed `lead` copied as it is (a tool's path).
void vformatBounded(char* buf, size_t size, const char* lead, const char* fmt, va_list args)
        __attribute__((format(printf, 4, 0)));

}  // namespace probemond
