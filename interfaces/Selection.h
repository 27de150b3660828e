// The interface the user selected and the one auto-select steers to, read by
// every worker. Their lock is short: never held across a command, a callback
// or a sleep.
#pragma once

#include <string>

#include "common/ThreadAnnotations.h"

namespace probemond {

class Selection {
public:
    std::string user() const PM_EXCLUDES(selectionLock_) {
        MutexLock g(selectionLock_);
        return userSelectIface;
    }
    std::string autoIface() const PM_EXCLUDES(selectionLock_) {
        MutexLock g(selectionLock_);
        return autoSelectIface;
    }
    void setUser(const std::string& name) PM_EXCLUDES(selectionLock_) {
        MutexLock g(selectionLock_);
        userSelectIface = name;
    }
    void setAuto(const std::string& name) PM_EXCLUDES(selectionLock_) {
        MutexLock g(selectionLock_);
        autoSelectIface = name;
    }

private:
    mutable Mutex selectionLock_;
    std::string userSelectIface PM_GUARDED_BY(selectionLock_);
    std::string autoSelectIface PM_GUARDED_BY(selectionLock_);
};

}  // namespace probemond
