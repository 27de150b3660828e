// The composition root: the one place that builds the daemon's process-wide
// objects and the shipping adapters, and hands each the references it needs.
#pragma once

#include "daemon/KestNetworkProbeMond.h"

namespace probemond {

// Builds, in this order, the iptables manager (its chain tree) on the popen
// runner and the kernel socket killer, the ip-rule manager, and the interface
// manager (its records and chains), then starts the ten ping workers and the
// watcher that restores the hooks after a netd restart. Returns
// the binder service built on them, not yet registered. Called once, from
// main, before any other thread exists; nothing built here is ever destroyed,
// since detached threads use it until the process ends.
android::sp<android::KestNetworkProbeMond> buildProcess();

}  // namespace probemond
