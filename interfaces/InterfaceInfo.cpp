#include "interfaces/InterfaceInfo.h"

#include <algorithm>

namespace probemond {

InterfaceInfo::InterfaceInfo(const InterfaceRow& row, const char* startServer)
    : name(row.name),
      pingServer(startServer),
      fwmark(row.fwmark),
      prio(row.prio),
      rtt(row.startRtt),
      kind(row.kind),
      mrtt(row.startRtt) {}

RttUpdate InterfaceInfo::addRtt(int32_t value, bool failed) {
    MutexLock g(historyLock_);
    if (rttHistory.size() >= kMaxRttHistory) rttHistory.pop_front();
    rttHistory.push_back(value);
    historyFailures_.push(failed, kMaxRttHistory);
    std::vector<int32_t> sorted(rttHistory.begin(), rttHistory.end());
    std::sort(sorted.begin(), sorted.end());
    // Even count: the two middle values' mean, truncated.
    const size_t n = sorted.size();
    mrtt = n % 2 == 1 ? sorted[n / 2]
                      : static_cast<int32_t>((static_cast<int64_t>(sorted[n / 2 - 1]) + sorted[n / 2]) / 2);
    return {std::vector<int32_t>(rttHistory.begin(), rttHistory.end()), mrtt};
}

void InterfaceInfo::clearRttHistory() {
    MutexLock g(historyLock_);
    rttHistory.clear();
    historyFailures_.clear();
}

RttMedian InterfaceInfo::median() const {
    MutexLock g(historyLock_);
    return {rttHistory.size(), mrtt};
}

std::vector<int32_t> InterfaceInfo::rttHistorySnapshot() const {
    MutexLock g(historyLock_);
    return std::vector<int32_t>(rttHistory.begin(), rttHistory.end());
}

int InterfaceInfo::historyFailurePercent() const {
    MutexLock g(historyLock_);
    return historyFailures_.percent();
}

}  // namespace probemond
