#include "interfaces/AutoSelectEngine.h"

#include <algorithm>
#include <climits>

#include "common/Log.h"
#include "common/Properties.h"
#include "interfaces/PingContext.h"

namespace probemond {

AutoSelectEngine::AutoSelectEngine(const InterfaceMap& ifaceMap, Selection& selection,
                                   std::atomic<bool>& rttDebug, AutoSelectNotifier& notifier,
                                   SteeringControl& steering)
    : ifaceMap_(ifaceMap),
      selection_(selection),
      rttDebug_(rttDebug),
      notifier_(notifier),
      steering_(steering) {}

Candidates AutoSelectEngine::enable(const char* ifaces) {
    disable();
    ifaceMutex.lock();
    autoSelectIfaces.clear();
    // One pass over the text: a parcel holds over 100,000 commas.
    const std::string list = ifaces ? ifaces : "";
    for (size_t start = 0, comma; (comma = list.find(',', start)) != std::string::npos;
         start = comma + 1) {
        InterfaceInfo* info = findInterface(ifaceMap_, list.substr(start, comma - start));
        if (info == nullptr) continue;
        if (autoSelectIfaces.size() >= kMaxCandidates) {
            auto listed = std::find(autoSelectIfaces.begin(), autoSelectIfaces.end(), info);
            if (listed != autoSelectIfaces.end()) {
                std::rotate(autoSelectIfaces.begin(), listed, listed + 1);
                continue;
            }
        }
        LOGD("%s Auto select tries to start ping thread on %s", "enableAutoSelect",
             info->name.c_str());
        info->isControlByAutoSelect = true;
        autoSelectIfaces.insert(autoSelectIfaces.begin(), info);
    }
    Candidates candidates = autoSelectIfaces;
    ifaceMutex.unlock();
    isAutoSelectEnabled = true;
    return candidates;
}

void AutoSelectEngine::disable() {
    for (const auto& entry : ifaceMap_) entry.second->isControlByAutoSelect = false;
    isAutoSelectEnabled = false;
    steering_.disableAutoSelect();
    notifier_.notify("");
}

void AutoSelectEngine::begin(const Candidates& ifaces) {
    for (InterfaceInfo* info : ifaces) info->clearRttHistory();
    const std::string user = selection_.user();
    selection_.setAuto(user);
    notifier_.notify(user);
    LOGD("Auto select thread %ld is started", threadId());
}

bool AutoSelectEngine::decide(const Candidates& ifaces) {
    rttDebug_ = readDebugFlag(kRttDebugProperty);
    if (!switchInterface(ifaces)) return false;
    const std::string chosen = selection_.autoIface();
    LOGD("Switch to %s", chosen.c_str());
    steering_.enableAutoSelect(chosen.c_str());
    // Hysteresis: the next decision waits for fresh results.
    for (InterfaceInfo* info : ifaces) info->clearRttHistory();
    return true;
}

void AutoSelectEngine::end() {
    rttDebug_ = false;
    isAutoSelectForcePing = false;
    const std::string autoIface = selection_.autoIface();
    const std::string userIface = selection_.user();
    if (autoIface != userIface) {
        LOGD("Auto (%s) is NOT equal to User (%s)", autoIface.c_str(), userIface.c_str());
        // The steered apps reconnect over the user's interface.
        steering_.killUidSocket();
    }
    selection_.setAuto("");
    LOGD("Auto select thread %ld is stopped", threadId());
}

bool AutoSelectEngine::switchInterface(const Candidates& ifaces) {
    InterfaceInfo* curr = findInterface(ifaceMap_, selection_.autoIface());
    isAutoSelectForcePing = false;
    // Nothing to compare against (no selection yet): stay put.
    if (curr == nullptr) return false;

    const size_t historySize = curr->rttHistorySize();
    if (historySize < kHistoryMinimum) {
        if (rttDebug_) {
            LOGD("Could not make switch decision because the rtt history on %s is %d/%d.",
                 curr->name.c_str(), static_cast<int>(historySize),
                 static_cast<int>(kHistoryMinimum));
        }
        return false;
    }

    const int32_t currMrtt = curr->mrtt;
    InterfaceInfo* best = nullptr;
    if (!curr->isWifi) {
        if (curr->rtt >= kDataForcePingRtt) isAutoSelectForcePing = true;
        best = getCurrBestIfaceInfo(ifaces);
        // Cellular leaves for any Wi-Fi, never for another cellular link.
        if (best == nullptr || !best->isWifi) return false;
    } else {
        if (curr->rtt >= kWifiForcePingRtt) isAutoSelectForcePing = true;
        if (currMrtt < kWifiLeaveMrtt) return false;
        best = getCurrBestIfaceInfo(ifaces);
        if (best == nullptr) return false;
        if (best->name == curr->name) return false;
        if (best->mrtt >= kBetterThanMrtt) return false;
    }

    LOGD("%s (%dms) is better than %s (%dms)", best->name.c_str(), static_cast<int>(best->mrtt),
         curr->name.c_str(), currMrtt);
    selection_.setAuto(best->name);
    switchLog_.record(curr->name, currMrtt, best->name, best->mrtt);
    notifier_.notify(best->name);
    return true;
}

InterfaceInfo* AutoSelectEngine::getCurrBestIfaceInfo(const Candidates& ifaces) const {
    InterfaceInfo* candidate = nullptr;
    int32_t bestMrtt = INT32_MAX;
    for (InterfaceInfo* info : ifaces) {
        const int32_t m = info->mrtt;
        // Strictly below: on a tie the record met first keeps its place.
        if (m >= 1 && m < bestMrtt) {
            candidate = info;
            bestMrtt = m;
        }
    }
    return findInterface(ifaceMap_, candidate ? candidate->name : std::string());
}

}  // namespace probemond
