#include "interfaces/InterfaceInfo.h"

namespace probemond {

InterfaceInfo::InterfaceInfo(const InterfaceRow& row, const char* startServer)
    : name(row.name),
      pingServer(startServer),
      fwmark(row.fwmark),
      prio(row.prio),
      rtt(row.startRtt),
      mrtt(row.startRtt),
      kind(row.kind) {}

std::vector<int32_t> InterfaceInfo::addRtt(int32_t value, bool failed) {
    MutexLock g(historyLock_);
    if (rttHistory.size() >= kMaxRttHistory) rttHistory.pop_front();
    rttHistory.push_back(value);
    historyFailures_.push(failed, kMaxRttHistory);
    return std::vector<int32_t>(rttHistory.begin(), rttHistory.end());
}

void InterfaceInfo::clearRttHistory() {
    MutexLock g(historyLock_);
    rttHistory.clear();
    historyFailures_.clear();
}

size_t InterfaceInfo::rttHistorySize() const {
    MutexLock g(historyLock_);
    return rttHistory.size();
}

std::vector<int32_t> InterfaceInfo::rttHistorySnapshot() const {
    MutexLock g(historyLock_);
    return std::vector<int32_t>(rttHistory.begin(), rttHistory.end());
}

int InterfaceInfo::historyFailurePercent() const {
    MutexLock g(historyLock_);
    return historyFailures_.percent();
}

InterfaceInfo* findInterface(const InterfaceMap& map, const std::string& name) {
    for (const auto& entry : map) {
        if (entry.second->name == name) return entry.second;
    }
    return nullptr;
}

}  // namespace probemond
