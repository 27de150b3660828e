#include "netctl/UidText.h"

#include <cstddef>
#include <cstdint>

namespace probemond {

bool isValidUidText(const char* text) {
    if (text == nullptr || text[0] == '\0') return false;
    // iptables reads "010" as octal while the socket killer reads it as
    // decimal; refusing leading zeros keeps both meaning the same UID.
    if (text[0] == '0' && text[1] != '\0') return false;
    uint64_t value = 0;
    size_t digits = 0;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') return false;
        if (++digits > 10) return false;
        value = value * 10 + static_cast<uint64_t>(*p - '0');
    }
    return value < 4294967295u;
}

}  // namespace probemond
