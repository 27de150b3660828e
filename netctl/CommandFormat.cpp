#include "netctl/CommandFormat.h"

#include <cstdio>
#include <cstring>

#include "common/Log.h"

namespace probemond {

void vformatBounded(char* buf, size_t size, const char* lead, const char* fmt, va_list args) {
    const size_t leadLength = strnlen(lead, size);
    memcpy(buf, lead, leadLength);
    const int n = vsnprintf(buf + leadLength, size - leadLength, fmt, args);
    const long total = n < 0 ? -1 : static_cast<long>(leadLength) + n;
    if (total < 0 || static_cast<size_t>(total) >= size) {
        fatal("formatted text of %ld bytes does not fit in %zu: %s%s", total, size, lead, fmt);
    }
}

void formatBounded(char* buf, size_t size, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vformatBounded(buf, size, "", fmt, args);
    va_end(args);
}

}  // namespace probemond
