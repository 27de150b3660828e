// Captures the daemon's log lines in tests, through liblog's logger hook,
// exactly as they would reach logcat: priority and text.
#pragma once

#include <string>
#include <vector>

namespace probemond::test {

struct LogLine {
    int priority;
    std::string text;
};

// While alive, every __android_log_print of the process is recorded (and not
// printed). Only one LogCapture may be alive at a time.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    std::vector<std::string> texts() const;
    // Lines whose text equals `text` exactly (optionally of one priority).
    size_t count(const std::string& text, int priority = -1) const;
    // Every line, one per row, for failure messages.
    std::string dump() const;
};

}  // namespace probemond::test
