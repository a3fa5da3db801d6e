// A source or destination: linear RGB to XYZ, its white, a transfer curve per channel, and for a
// profile the bytes it was read from.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "color/matrix3.h"
#include "color/transfer_curve.h"

namespace kv_color {

struct rgb_space {
    std::string label;                     // "srgb", "profile sRGB.icc", ... (escaped)
    mat3 to_xyz{};                         // linear RGB to XYZ, Y = 1 at white
    vec3 white{};                          // XYZ of the white; D50 for a profile (its PCS)
    std::array<transfer_curve, 3> curves;  // red, green, blue
    std::vector<uint8_t> icc;              // a profile's own bytes; empty for a named space
};

// The named spaces ("srgb", "display-p3", ..., "linear-srgb", ...). Throws color_error
// (invalid_argument) for another name, listing the names.
rgb_space named_space(const std::string& name);
// Every name named_space knows, in the order of its table.
std::vector<std::string> named_space_names();

}  // namespace kv_color
