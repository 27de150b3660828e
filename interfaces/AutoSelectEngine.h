// The auto-select engine: which candidate the steered apps should use, one
// decision at a time, with hysteresis so that the choice does not flap.
// The rules' constants are below. InterfaceManager owns the thread that
// drives the steps and the Selection they act on; each step that changes it
// says that its caller holds it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/ThreadAnnotations.h"
#include "interfaces/InterfaceInfo.h"
#include "interfaces/InterfaceSeams.h"
#include "interfaces/Selection.h"

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
    AutoSelectEngine(const InterfaceMap& ifaceMap, AutoSelectNotifier& notifier,
                     SteeringControl& steering);
    AutoSelectEngine(const AutoSelectEngine&) = delete;
    AutoSelectEngine& operator=(const AutoSelectEngine&) = delete;

    // Stops the running engine and waits until its thread has let the
    // selection go; then makes the listed records the candidates and turns
    // the engine on. The list is comma-terminated (text after the last comma
    // is dropped); unknown names are skipped. Returns the candidates, last
    // listed first, for the thread; at most kMaxCandidates of them, plus
    // interfaces first named past that.
    Candidates restartOn(Selection& selection, const char* ifaces)
            PM_EXCLUDES(selection.ifaceMutex);
    // Turns the engine off; its thread finishes after its current turn.
    void stop();
    bool isEnabled() const { return isAutoSelectEnabled; }
    bool isForcePing() const { return isAutoSelectForcePing; }

    // The thread's work: begin (take over from the user's choice), one
    // decision every kDecisionPeriodUs while enabled, then end (hand back).
    void begin(Selection& selection, const Candidates& ifaces) PM_REQUIRES(selection.ifaceMutex);
    // On a switch also moves the firewall and clears the candidates'
    // histories. True when it switched.
    bool decide(Selection& selection, const Candidates& ifaces) PM_REQUIRES(selection.ifaceMutex);
    void end(Selection& selection) PM_REQUIRES(selection.ifaceMutex);

private:
    struct Best {
        InterfaceInfo* info = nullptr;
        int32_t mrtt = 0;
    };

    // The rule: the record auto-select moved to (the client told), or nullptr.
    // Also raises or clears the force-ping hint.
    InterfaceInfo* switchInterface(Selection& selection, const Candidates& ifaces, bool debug)
            PM_REQUIRES(selection.ifaceMutex);
    // The candidate with the lowest median of at least 1; on a tie the one
    // met first. No record when none qualifies.
    static Best getCurrBestIfaceInfo(const Candidates& ifaces);

    const InterfaceMap& ifaceMap_;
    AutoSelectNotifier& notifier_;
    SteeringControl& steering_;

    std::atomic<bool> isAutoSelectEnabled{false};
    std::atomic<bool> isAutoSelectForcePing{false};
};

}  // namespace probemond
