// Shared by the fuzz targets: silence liblog (formatting still runs) and
// abort loudly when an invariant breaks, so libFuzzer keeps the input.
#pragma once

#include <android/log.h>

#include <cstdio>
#include <cstdlib>

namespace probemond::fuzz {

inline void dropLogLine(const struct __android_logger_data*, const char*) {}

inline void quietLogs() { __android_log_set_logger(dropLogLine); }

[[noreturn]] inline void fail(const char* what, const char* file, int line) {
    fprintf(stderr, "fuzz invariant failed at %s:%d: %s\n", file, line, what);
    abort();
}

}  // namespace probemond::fuzz

#define FUZZ_CHECK(cond) \
    ((cond) ? (void)0 : ::probemond::fuzz::fail(#cond, __FILE__, __LINE__))
