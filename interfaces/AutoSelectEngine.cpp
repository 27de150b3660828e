#include "interfaces/AutoSelectEngine.h"

#include <algorithm>
#include <climits>
#include <string>

#include "common/Log.h"
#include "common/Properties.h"

namespace probemond {

namespace {

const char* nameOf(const InterfaceInfo* info) { return info ? info->name.c_str() : ""; }

}  // namespace

AutoSelectEngine::AutoSelectEngine(const InterfaceMap& ifaceMap, AutoSelectNotifier& notifier,
                                   SteeringControl& steering)
    : ifaceMap_(ifaceMap), notifier_(notifier), steering_(steering) {}

Candidates AutoSelectEngine::restartOn(Selection& selection, const char* ifaces) {
    stop();
    Candidates autoSelectIfaces;
    {
        AbandonableLock lock(selection.ifaceMutex);
        // One pass over the text: a parcel holds over 100,000 commas.
        const std::string list = ifaces ? ifaces : "";
        for (size_t start = 0, comma; (comma = list.find(',', start)) != std::string::npos;
             start = comma + 1) {
            const auto found = ifaceMap_.find(list.substr(start, comma - start));
            if (found == ifaceMap_.end()) continue;
            InterfaceInfo* info = found->second;
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
    }
    isAutoSelectEnabled = true;
    return autoSelectIfaces;
}

void AutoSelectEngine::stop() {
    for (const auto& entry : ifaceMap_) entry.second->isControlByAutoSelect = false;
    isAutoSelectEnabled = false;
    steering_.clearAutoChoice();
    notifier_.notify("");
}

void AutoSelectEngine::begin(Selection& selection, const Candidates& ifaces) {
    for (InterfaceInfo* info : ifaces) info->clearRttHistory();
    InterfaceInfo* user = selection.user();
    selection.setAuto(user);
    notifier_.notify(nameOf(user));
    LOGD("Auto select thread %ld is started", threadId());
}

bool AutoSelectEngine::decide(Selection& selection, const Candidates& ifaces) {
    InterfaceInfo* chosen = switchInterface(selection, ifaces, readDebugFlag(kRttDebugProperty));
    if (chosen == nullptr) return false;
    LOGD("Switch to %s", chosen->name.c_str());
    steering_.steerToAutoChoice(chosen->name.c_str());
    // Hysteresis: the next decision waits for fresh results.
    for (InterfaceInfo* info : ifaces) info->clearRttHistory();
    return true;
}

void AutoSelectEngine::end(Selection& selection) {
    isAutoSelectForcePing = false;
    InterfaceInfo* autoIface = selection.autoChoice();
    InterfaceInfo* userIface = selection.user();
    if (autoIface != userIface) {
        LOGD("Auto (%s) is NOT equal to User (%s)", nameOf(autoIface), nameOf(userIface));
        // The steered apps reconnect over the user's interface.
        steering_.resetSteeredSockets();
    }
    selection.setAuto(nullptr);
    LOGD("Auto select thread %ld is stopped", threadId());
}

InterfaceInfo* AutoSelectEngine::switchInterface(Selection& selection, const Candidates& ifaces,
                                                 bool debug) {
    InterfaceInfo* curr = selection.autoChoice();
    isAutoSelectForcePing = false;
    // Nothing to compare against (no selection yet): stay put.
    if (curr == nullptr) return nullptr;

    const RttMedian current = curr->median();
    if (current.historySize < kHistoryMinimum) {
        if (debug) {
            LOGD("Could not make switch decision because the rtt history on %s is %d/%d.",
                 curr->name.c_str(), static_cast<int>(current.historySize),
                 static_cast<int>(kHistoryMinimum));
        }
        return nullptr;
    }

    Best best;
    if (curr->kind == InterfaceKind::kCellular) {
        if (curr->rtt >= kDataForcePingRtt) isAutoSelectForcePing = true;
        best = getCurrBestIfaceInfo(ifaces);
        // Cellular leaves for any Wi-Fi, never for another cellular link.
        if (best.info == nullptr || best.info->kind != InterfaceKind::kWifi) return nullptr;
    } else {
        if (curr->rtt >= kWifiForcePingRtt) isAutoSelectForcePing = true;
        if (current.mrtt < kWifiLeaveMrtt) return nullptr;
        best = getCurrBestIfaceInfo(ifaces);
        if (best.info == nullptr || best.info == curr || best.mrtt >= kBetterThanMrtt) return nullptr;
    }

    LOGD("%s (%dms) is better than %s (%dms)", best.info->name.c_str(), best.mrtt, curr->name.c_str(),
         current.mrtt);
    selection.switchAuto(*best.info, current.mrtt, best.mrtt);
    notifier_.notify(best.info->name);
    return best.info;
}

AutoSelectEngine::Best AutoSelectEngine::getCurrBestIfaceInfo(const Candidates& ifaces) {
    Best best{nullptr, INT32_MAX};
    for (InterfaceInfo* info : ifaces) {
        const int32_t m = info->median().mrtt;
        // Strictly below: on a tie the record met first keeps its place.
        if (m >= 1 && m < best.mrtt) best = {info, m};
    }
    return best;
}

}  // namespace probemond
