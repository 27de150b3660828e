// UIDs arrive as text from binder clients and end up in shell command lines.
#pragma once

namespace probemond {

// Decimal text of a valid UID: 1 to 10 digits, no sign, no spaces, no
// leading zero, value below 4294967295 ((uid_t)-1 means "no UID").
bool isValidUidText(const char* text);

}  // namespace probemond
