// Finding the daemon's service, and saying why when it cannot be found.
#pragma once

#include <string>

#include <binder/IBinder.h>

namespace probemond::ctl {

// The service, or null with *error saying why, as probemonctl prints it.
android::sp<android::IBinder> findService(std::string* error);

}  // namespace probemond::ctl
