// Strict number parsing for options and files: the whole text must be the number.
#pragma once

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace kv_tool {

inline bool parse_double(const std::string& text, double* value) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size() || errno == ERANGE || !std::isfinite(v)) return false;
    *value = v;
    return true;
}

inline bool parse_integer(const std::string& text, int64_t low, int64_t high, int64_t* value) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (end != text.c_str() + text.size() || errno == ERANGE || v < low || v > high) return false;
    *value = v;
    return true;
}

}  // namespace kv_tool
