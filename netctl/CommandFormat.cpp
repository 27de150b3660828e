#include "netctl/CommandFormat.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <android/log.h>

namespace probemond {

void formatBounded(char* buf, size_t size, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        __android_log_print(ANDROID_LOG_FATAL, nullptr, "formatted text of %d bytes does not fit in %zu: %s", n,
                            size, fmt);
        abort();
    }
}

}  // namespace probemond
