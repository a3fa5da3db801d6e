// ICC matrix-shaper profiles through LittleCMS: reading one into an rgb_space, and the profile
// bytes of a space for embedding in an output.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "color/rgb_space.h"

namespace kv_color {

// Larger profiles are refused before LittleCMS sees them: a matrix-shaper profile with three
// sampled curves of 65,536 entries takes under 400 KiB.
constexpr uint64_t max_profile_bytes = uint64_t(4) << 20;

// An RGB display, input or colour-space profile with XYZ connection space, colorant and TRC tags
// and no LUT-based tags. Anything else throws color_error (profile_refused) saying which and why;
// `label` names the profile in messages.
rgb_space read_icc_profile(const uint8_t* bytes, size_t size, const std::string& label);

// The profile's own bytes, or for a named space a v4 profile that LittleCMS makes from its
// primaries (adapted to D50 by Bradford), white and parametric curves.
std::vector<uint8_t> icc_bytes(const rgb_space& space);

}  // namespace kv_color
