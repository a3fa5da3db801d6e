// The escaping of user text on its way to a terminal.
#include <cstdio>
#include <string>

#include "cli/tool_error.h"

namespace kv_tool {
namespace {

bool continuation(const std::string& text, size_t i) {
    return i < text.size() && (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80;
}

// The bytes of the valid UTF-8 character that starts at `i` and is no control, or 0. The range
// of the second byte excludes overlong forms, surrogates and values above U+10FFFF.
size_t printable_character(const std::string& text, size_t i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x20 && byte < 0x7F) return 1;
    struct lead {
        unsigned char first, last, low, high;  // lead byte range and its second byte's range
        size_t length;
    };
    static const lead leads[] = {
        {0xC2, 0xC2, 0xA0, 0xBF, 2},  // C2 80 to C2 9F are the C1 controls
        {0xC3, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3}, {0xE1, 0xEC, 0x80, 0xBF, 3},
        {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3}, {0xF0, 0xF0, 0x90, 0xBF, 4},
        {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
    };
    for (const lead& l : leads) {
        if (byte < l.first || byte > l.last) continue;
        if (i + 1 >= text.size()) return 0;
        const auto second = static_cast<unsigned char>(text[i + 1]);
        if (second < l.low || second > l.high) return 0;
        for (size_t k = 2; k < l.length; ++k) {
            if (!continuation(text, i + k)) return 0;
        }
        return l.length;
    }
    return 0;
}

}  // namespace

std::string printable(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const size_t length = printable_character(text, i);
        if (length > 0) {
            out.append(text, i, length);
            i += length;
            continue;
        }
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned char>(text[i++]));
        out += escaped;
    }
    return out;
}

}  // namespace kv_tool
