// Which interface carries the steered apps' traffic: the user's choice and
// auto-select's, the mutex that serialises changing them, and the log of each
// kind of change.
#pragma once

#include <atomic>

#include "common/ThreadAnnotations.h"
#include "interfaces/InterfaceInfo.h"
#include "interfaces/Telemetry.h"

namespace probemond {

class Selection {
public:
    // Taken by manual selection and by enabling auto-select, and held by the
    // auto-select thread for its whole run, sleeps and callbacks included.
    // Manual selection of an unknown name leaves it held for good.
    AbandonableMutex ifaceMutex;

    // Records of the registry, nullptr before the first choice; read without
    // the mutex by every ping worker and the dump.
    InterfaceInfo* user() const { return userSelectIface; }
    InterfaceInfo* autoChoice() const { return autoSelectIface; }
    bool isUserSelectData() const { return isCellular(userSelectIface); }
    bool isAutoSelectData() const { return isCellular(autoSelectIface); }

    // The user's new choice, logged with the one it replaces.
    void setUser(InterfaceInfo& to) PM_REQUIRES(ifaceMutex) {
        InterfaceInfo* from = userSelectIface;
        userSelectIface = &to;
        manualSelections_.record(from ? from->name : "", from ? from->median().mrtt : 0, to.name,
                                 to.median().mrtt);
    }
    // Auto-select's choice as it takes over from the user's or hands back
    // (nullptr); not a switch.
    void setAuto(InterfaceInfo* to) PM_REQUIRES(ifaceMutex) { autoSelectIface = to; }
    // Auto-select moves to a better interface, on the medians it compared.
    void switchAuto(InterfaceInfo& to, int32_t fromMrtt, int32_t toMrtt) PM_REQUIRES(ifaceMutex) {
        InterfaceInfo* from = autoSelectIface;
        autoSelectIface = &to;
        autoSwitches_.record(from ? from->name : "", fromMrtt, to.name, toMrtt);
    }

    SwitchHistory manualSelections() const { return manualSelections_.snapshot(); }
    SwitchHistory autoSwitches() const { return autoSwitches_.snapshot(); }

private:
    static bool isCellular(const InterfaceInfo* info) {
        return info != nullptr && info->kind == InterfaceKind::kCellular;
    }

    std::atomic<InterfaceInfo*> userSelectIface{nullptr};
    std::atomic<InterfaceInfo*> autoSelectIface{nullptr};
    SwitchLog manualSelections_;
    SwitchLog autoSwitches_;
};

}  // namespace probemond
