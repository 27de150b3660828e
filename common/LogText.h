// Client text in log lines: bounded and printable, whatever the client sent.
#pragma once

#include <cstddef>
#include <string>

namespace probemond {

// At most maxChars characters, anything outside printable ASCII as '?', and
// "..." when the text goes on.
inline std::string printableForLog(const char* text, size_t maxChars = 32) {
    if (text == nullptr) return "(null)";
    std::string out;
    size_t i = 0;
    for (; text[i] != '\0' && i < maxChars; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        out += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '?';
    }
    if (text[i] != '\0') out += "...";
    return out;
}

}  // namespace probemond
