#include "interfaces/Telemetry.h"

#include <time.h>

namespace probemond {

namespace {

int64_t clockMs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

int64_t monotonicMs() { return clockMs(CLOCK_MONOTONIC); }

void ProbeCounters::recordProbe(bool probeFailed) {
    probes.fetch_add(1, std::memory_order_relaxed);
    if (probeFailed) failed.fetch_add(1, std::memory_order_relaxed);
    lastProbeMs.store(monotonicMs(), std::memory_order_relaxed);
}

int64_t ProbeCounters::msSinceLastProbe(int64_t nowMs) const {
    const int64_t last = lastProbeMs.load(std::memory_order_relaxed);
    return last < 0 ? -1 : nowMs - last;
}

void FailureWindow::push(bool probeFailed, size_t capacity) {
    bits_ = (bits_ << 1) | (probeFailed ? 1u : 0u);
    if (size_ < capacity) ++size_;
    // Forget results that have left the history.
    if (size_ < 32) bits_ &= (1u << size_) - 1;
}

size_t FailureWindow::failures() const { return static_cast<size_t>(__builtin_popcount(bits_)); }

int FailureWindow::percent() const {
    return size_ == 0 ? 0 : static_cast<int>(failures() * 100 / size_);
}

void SwitchLog::record(const std::string& from, int32_t fromMrtt, const std::string& to,
                       int32_t toMrtt) {
    SwitchRecord r{clockMs(CLOCK_REALTIME), from, fromMrtt, to, toMrtt};
    const int64_t now = monotonicMs();
    MutexLock g(lock_);
    if (recent_.size() >= kSwitchRecordCount) recent_.pop_front();
    recent_.push_back(std::move(r));
    ++count_;
    lastMonotonicMs_ = now;
}

SwitchHistory SwitchLog::snapshot() const {
    SwitchHistory h;
    const int64_t now = monotonicMs();
    MutexLock g(lock_);
    h.count = count_;
    h.msSinceLast = lastMonotonicMs_ < 0 ? -1 : now - lastMonotonicMs_;
    h.recent.assign(recent_.begin(), recent_.end());
    return h;
}

}  // namespace probemond
