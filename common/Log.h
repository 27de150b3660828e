// Log lines go to the Android log without a tag of our own, so the logging
// library's default tag for the process applies.
#pragma once

#include <android/log.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, nullptr, __VA_ARGS__)
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, nullptr, __VA_ARGS__)
#define LOGW(...) __android_log_print(ANDROID_LOG_WARN, nullptr, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, nullptr, __VA_ARGS__)

namespace probemond {

// The kernel's id of the calling thread, as the log lines show it.
inline long threadId() { return static_cast<long>(syscall(SYS_gettid)); }

// Ends the process: the message goes to the log at fatal priority and to
// stderr (init gives a service /dev/null there; a person or a test reads it),
// then abort(). The platform's assert path does all three.
[[noreturn]] inline void fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline void fatal(const char* format, ...) {
    char message[512];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    __android_log_assert(nullptr, nullptr, "%s", message);
}

}  // namespace probemond
