// The auto-select engine: which candidate the steered apps should use, one
// decision at a time, with hysteresis so that the choice does not flap.
// The rules' constants are below; InterfaceManager owns the thread that
// drives the steps.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/ThreadAnnotations.h"
#include "interfaces/InterfaceInfo.h"
#include "interfaces/InterfaceSeams.h"
#include "interfaces/Selection.h"
#include "interfaces/Telemetry.h"

namespace probemond {

// Results the current interface needs in its history before any decision.
inline constexpr size_t kHistoryMinimum = 5;
// Wi-Fi is left only from this median up, and only for a median below
// kBetterThanMrtt; cellular leaves for any better Wi-Fi.
inline constexpr int32_t kWifiLeaveMrtt = 101;
inline constexpr int32_t kBetterThanMrtt = 100;
// A last probe this slow on the current interface makes every candidate probe.
inline constexpr int32_t kDataForcePingRtt = 200;
inline constexpr int32_t kWifiForcePingRtt = 101;
inline constexpr uint32_t kDecisionPeriodUs = 100000;
// A list names each interface once or a few times. Past this many entries
// a repeated name moves its interface to the front instead of standing
// again: the walk meets a record's front-most entry first, so every decision
// stays the same while a list of tens of thousands of repeats stays short.
inline constexpr size_t kMaxCandidates = 64;

using Candidates = std::vector<InterfaceInfo*>;

class AutoSelectEngine {
public:
    // Everything handed in must outlive the engine; `ifaceMap` is fixed.
    AutoSelectEngine(const InterfaceMap& ifaceMap, Selection& selection,
                     std::atomic<bool>& rttDebug, AutoSelectNotifier& notifier,
                     SteeringControl& steering);
    AutoSelectEngine(const AutoSelectEngine&) = delete;
    AutoSelectEngine& operator=(const AutoSelectEngine&) = delete;

    // Taken by manual selection and enable(), held by the engine's thread
    // for its whole life; some paths leave it held on purpose.
    PosixMutex& mutex() PM_RETURN_CAPABILITY(ifaceMutex) { return ifaceMutex; }

    // Stops the running engine, then, under the mutex, makes the listed
    // records the candidates and turns the engine on. The list is
    // comma-terminated (text after the last comma is dropped); unknown names
    // are skipped. Returns the candidates, last listed first, for the thread;
    // at most kMaxCandidates of them, plus interfaces first named past that.
    Candidates enable(const char* ifaces) PM_EXCLUDES(ifaceMutex);
    // Turns the engine off; its thread finishes after its current turn.
    void disable();
    bool isEnabled() const { return isAutoSelectEnabled; }
    bool isForcePing() const { return isAutoSelectForcePing; }
    SwitchHistory switches() const { return switchLog_.snapshot(); }

    // The thread's work: begin, one decision every kDecisionPeriodUs while
    // enabled, then end.
    void begin(const Candidates& ifaces) PM_REQUIRES(ifaceMutex);
    // On a switch also moves the firewall and clears the candidates'
    // histories. True when it switched.
    bool decide(const Candidates& ifaces) PM_REQUIRES(ifaceMutex);
    void end() PM_REQUIRES(ifaceMutex);

    // The rule: true when auto-select moved to a better candidate (and told
    // the client). Also raises or clears the force-ping hint.
    bool switchInterface(const Candidates& ifaces) PM_REQUIRES(ifaceMutex);
    // The candidate with the lowest median of at least 1; on a tie the one
    // met first. nullptr when none qualifies.
    InterfaceInfo* getCurrBestIfaceInfo(const Candidates& ifaces) const;

private:
    const InterfaceMap& ifaceMap_;
    Selection& selection_;
    std::atomic<bool>& rttDebug_;
    AutoSelectNotifier& notifier_;
    SteeringControl& steering_;

    PosixMutex ifaceMutex;
    Candidates autoSelectIfaces PM_GUARDED_BY(ifaceMutex);
    std::atomic<bool> isAutoSelectEnabled{false};
    std::atomic<bool> isAutoSelectForcePing{false};
    SwitchLog switchLog_;
};

}  // namespace probemond
