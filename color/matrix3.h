// 3x3 matrices and colour-science matrices in double: RGB to XYZ from primaries and white,
// Bradford adaptation between whites.
#pragma once

#include <array>

namespace kv_color {

using vec3 = std::array<double, 3>;
using mat3 = std::array<double, 9>;  // by rows

struct chromaticity {
    double x, y;
};

mat3 multiply(const mat3& a, const mat3& b);
vec3 multiply(const mat3& m, const vec3& v);
// Throws color_error (invalid_argument) for a singular matrix; `what` names it.
mat3 inverse(const mat3& m, const char* what);
mat3 diagonal(const vec3& d);

// XYZ of a chromaticity at Y = 1.
vec3 xyz_of(chromaticity c);

// The matrix taking linear RGB (1, 1, 1 = white) to XYZ with Y = 1 at white, from the red, green
// and blue primaries and the white point.
mat3 rgb_to_xyz(const std::array<chromaticity, 3>& primaries, chromaticity white);

// Bradford adaptation of XYZ under `from` to XYZ under `to` (both whites as XYZ).
mat3 bradford(const vec3& from, const vec3& to);

// The ICC profile connection space's white, D50 as ICC states it (0.9642, 1.0, 0.8249).
vec3 d50_white();

}  // namespace kv_color
