// Parsers of the values the options take (cli/option_table.cpp); each throws a usage error that
// names the option at fault.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "cli/settings.h"

namespace kv_tool {

// Splits "[CHANNELS=]VALUE": CHANNELS is letters of b, g, r or one of blue, green, red; none
// given means all three. Returns the mask, bit 0 blue.
unsigned split_channels(const std::string& text, const std::string& option, std::string* value);

// Nine numbers by rows, red, green, blue, separated by commas or blanks.
std::array<float, 9> parse_matrix(const std::string& text);

// planes, bgr, rgb or any 32-bit number (the library judges it).
int32_t parse_layout(const std::string& text, const std::string& option);

// scalar, sse, avx2, avx512 or any 32-bit number.
int32_t parse_tier(const std::string& text);

// A whole number from `low` to `high`.
int64_t parse_whole(const std::string& text, const std::string& option, int64_t low, int64_t high);

// [CH=]MIN:MAX, [CH=]N and [CH=]CURVE into the settings' lists of three.
void parse_clamp(const std::string& text, settings* s);
void parse_shift(const std::string& text, settings* s);
void parse_LUT(const std::string& text, const std::string& option, std::array<curve, 3>* LUTs);

}  // namespace kv_tool
