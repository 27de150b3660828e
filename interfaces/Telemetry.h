// Counters and decision history that the state dump shows: what each worker
// measured and why the selection moved. Nothing here feeds a decision.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "common/ThreadAnnotations.h"
#include "interfaces/Snapshot.h"

namespace probemond {

inline constexpr size_t kSwitchRecordCount = 16;

// Milliseconds on the monotonic clock, for "how long ago".
int64_t monotonicMs();

// One interface's probe counters. Only its worker writes them, the dump
// reads them; single words, so no lock.
struct ProbeCounters {
    std::atomic<uint64_t> probes{0};
    std::atomic<uint64_t> failed{0};
    std::atomic<uint64_t> serverRotations{0};
    std::atomic<int64_t> lastProbeMs{-1};  // monotonic; -1 before the first

    void recordProbe(bool probeFailed);
    // -1 before the first probe.
    int64_t msSinceLastProbe(int64_t nowMs) const;
};

// Which of the results in the RTT history were failed probes. It follows
// the history step by step, so it lives under the history's lock.
class FailureWindow {
public:
    void push(bool probeFailed, size_t capacity);
    void clear() { bits_ = 0; size_ = 0; }
    size_t failures() const;
    // Whole percent of the window; 0 when empty.
    int percent() const;

private:
    uint32_t bits_ = 0;  // bit 0 is the newest result
    size_t size_ = 0;
};

// The selection changes of one kind (auto-select or manual): a total and
// the latest sixteen, under a short lock of its own.
class SwitchLog {
public:
    void record(const std::string& from, int32_t fromMrtt, const std::string& to, int32_t toMrtt);
    SwitchHistory snapshot() const;

private:
    mutable Mutex lock_;
    std::deque<SwitchRecord> recent_ PM_GUARDED_BY(lock_);
    uint64_t count_ PM_GUARDED_BY(lock_) = 0;
    int64_t lastMonotonicMs_ PM_GUARDED_BY(lock_) = -1;
};

}  // namespace probemond
