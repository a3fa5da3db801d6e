// Escaping outside text for messages.
#include "color/color_error.h"

namespace kv_color {

std::string escaped(const std::string& text, size_t limit) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : text) {
        if (out.size() >= limit) {
            out += "...";
            break;
        }
        if (c < 0x20 || c > 0x7e || c == '\\') {
            out += "\\x";
            out += digits[c >> 4];
            out += digits[c & 15];
        } else {
            out += char(c);
        }
    }
    return out;
}

}  // namespace kv_color
