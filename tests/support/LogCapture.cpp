#include "LogCapture.h"

#include <android/log.h>

#include <mutex>

namespace probemond::test {
namespace {

std::mutex gLock;
std::vector<LogLine>* gLines = nullptr;

void captureLogger(const struct __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> g(gLock);
    if (gLines != nullptr) gLines->push_back(LogLine{data->priority, message ? message : ""});
}

}  // namespace

LogCapture::LogCapture() {
    {
        std::lock_guard<std::mutex> g(gLock);
        gLines = new std::vector<LogLine>();
    }
    // Outside gLock: liblog holds its logger lock while it calls captureLogger.
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(captureLogger);
}

LogCapture::~LogCapture() {
    __android_log_set_logger(__android_log_stderr_logger);
    std::lock_guard<std::mutex> g(gLock);
    delete gLines;
    gLines = nullptr;
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> g(gLock);
    return gLines ? *gLines : std::vector<LogLine>();
}

std::vector<std::string> LogCapture::texts() const {
    std::vector<std::string> out;
    for (const auto& l : lines()) out.push_back(l.text);
    return out;
}

size_t LogCapture::count(const std::string& text, int priority) const {
    size_t n = 0;
    for (const auto& l : lines()) n += l.text == text && (priority < 0 || l.priority == priority);
    return n;
}

std::string LogCapture::dump() const {
    std::string out;
    for (const auto& l : lines()) out += std::to_string(l.priority) + ' ' + l.text + '\n';
    return out;
}

}  // namespace probemond::test
