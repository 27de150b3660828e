#include "LogCapture.h"

#include <android/log.h>

#include <chrono>
#include <functional>
#include <sstream>
#include <thread>

namespace probemond::test {
namespace {

std::mutex gLock;
std::vector<LogLine>* gLines = nullptr;

void captureLogger(const struct __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> g(gLock);
    if (gLines == nullptr) return;
    gLines->push_back(LogLine{data->priority, data->tag ? data->tag : "", message ? message : ""});
}

bool pollUntil(int timeoutMs, const std::function<bool()>& seen) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!seen()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
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

size_t LogCapture::countContaining(const std::string& part, int priority) const {
    size_t n = 0;
    for (const auto& l : lines()) n += l.text.find(part) != std::string::npos && (priority < 0 || l.priority == priority);
    return n;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> g(gLock);
    if (gLines) gLines->clear();
}

bool LogCapture::waitFor(const std::string& text, int timeoutMs) const {
    return pollUntil(timeoutMs, [&] { return has(text); });
}

bool LogCapture::waitForContaining(const std::string& part, int timeoutMs) const {
    return pollUntil(timeoutMs, [&] { return countContaining(part) > 0; });
}

std::string LogCapture::dump() const {
    std::ostringstream os;
    for (const auto& l : lines()) os << l.priority << ' ' << l.text << '\n';
    return os.str();
}

}  // namespace probemond::test
