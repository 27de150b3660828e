// The daemon's service as the tools reach it: finding it (and saying why it
// cannot be found) and reading its dump.
#pragma once

#include <string>

#include <binder/IBinder.h>

namespace probemond::ctl {

// The service, or null with *error saying why, as probemonctl prints it.
android::sp<android::IBinder> findService(std::string* error);

// A binder status by its name ("DEAD_OBJECT"), for error lines.
const char* statusName(android::status_t status);

// The service's dump, into *text. False with *error saying why when the
// service cannot be found or the dump fails; *text then holds what arrived.
bool readDump(std::string* text, std::string* error);

}  // namespace probemond::ctl
