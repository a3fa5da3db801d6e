// 3x3 matrix arithmetic and the colour-science matrices, all in double.
#include "color/matrix3.h"

#include <cmath>

#include "color/color_error.h"

namespace kv_color {

mat3 multiply(const mat3& a, const mat3& b) {
    mat3 r{};
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            r[3 * i + j] = a[3 * i] * b[j] + a[3 * i + 1] * b[3 + j] + a[3 * i + 2] * b[6 + j];
        }
    }
    return r;
}

vec3 multiply(const mat3& m, const vec3& v) {
    return {m[0] * v[0] + m[1] * v[1] + m[2] * v[2], m[3] * v[0] + m[4] * v[1] + m[5] * v[2],
            m[6] * v[0] + m[7] * v[1] + m[8] * v[2]};
}

mat3 inverse(const mat3& m, const char* what) {
    const double c0 = m[4] * m[8] - m[5] * m[7];
    const double c1 = m[5] * m[6] - m[3] * m[8];
    const double c2 = m[3] * m[7] - m[4] * m[6];
    const double det = m[0] * c0 + m[1] * c1 + m[2] * c2;
    const double scale = std::fabs(m[0]) + std::fabs(m[4]) + std::fabs(m[8]) + 1e-300;
    if (!std::isfinite(det) || std::fabs(det) < 1e-12 * scale * scale * scale) {
        throw color_error(status::invalid_argument, std::string(what) +
                                                        " cannot be inverted (its determinant is " +
                                                        std::to_string(det) + ")");
    }
    const double f = 1.0 / det;
    return {c0 * f, (m[2] * m[7] - m[1] * m[8]) * f, (m[1] * m[5] - m[2] * m[4]) * f,
            c1 * f, (m[0] * m[8] - m[2] * m[6]) * f, (m[2] * m[3] - m[0] * m[5]) * f,
            c2 * f, (m[1] * m[6] - m[0] * m[7]) * f, (m[0] * m[4] - m[1] * m[3]) * f};
}

mat3 diagonal(const vec3& d) {
    return {d[0], 0, 0, 0, d[1], 0, 0, 0, d[2]};
}

vec3 xyz_of(chromaticity c) {
    return {c.x / c.y, 1.0, (1.0 - c.x - c.y) / c.y};
}

mat3 rgb_to_xyz(const std::array<chromaticity, 3>& primaries, chromaticity white) {
    mat3 p{};
    for (int k = 0; k < 3; ++k) {
        const vec3 column = xyz_of(primaries[k]);
        for (int row = 0; row < 3; ++row) p[3 * row + k] = column[row];
    }
    const vec3 s = multiply(inverse(p, "the primaries' matrix"), xyz_of(white));
    return multiply(p, diagonal(s));
}

mat3 bradford(const vec3& from, const vec3& to) {
    static const mat3 cone = {0.8951, 0.2664, -0.1614, -0.7502, 1.7135,
                              0.0367, 0.0389, -0.0685, 1.0296};
    const vec3 a = multiply(cone, from);
    const vec3 b = multiply(cone, to);
    const mat3 scale = diagonal({b[0] / a[0], b[1] / a[1], b[2] / a[2]});
    return multiply(inverse(cone, "the Bradford matrix"), multiply(scale, cone));
}

vec3 d50_white() {
    return {0.9642, 1.0, 0.8249};
}

}  // namespace kv_color
