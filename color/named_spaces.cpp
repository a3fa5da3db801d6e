// The named RGB spaces: primaries, white and transfer curve of each (docs/color.md states them),
// and a linear variant of each.
#include <cmath>

#include "color/color_error.h"
#include "color/rgb_space.h"

namespace kv_color {
namespace {

enum class curve_kind { srgb, gamma, romm };

struct space_entry {
    const char* name;
    std::array<chromaticity, 3> primaries;  // red, green, blue
    chromaticity white;
    curve_kind curve;
    double gamma;
};

constexpr chromaticity d65{0.3127, 0.3290};
constexpr chromaticity d50{0.3457, 0.3585};
constexpr chromaticity dci_white{0.314, 0.351};
constexpr std::array<chromaticity, 3> bt709{{{0.64, 0.33}, {0.30, 0.60}, {0.15, 0.06}}};
constexpr std::array<chromaticity, 3> p3{{{0.680, 0.320}, {0.265, 0.690}, {0.150, 0.060}}};
constexpr std::array<chromaticity, 3> bt2020{{{0.708, 0.292}, {0.170, 0.797}, {0.131, 0.046}}};
constexpr std::array<chromaticity, 3> adobe{{{0.64, 0.33}, {0.21, 0.71}, {0.15, 0.06}}};
constexpr std::array<chromaticity, 3> romm{{{0.7347, 0.2653}, {0.1596, 0.8404}, {0.0366, 0.0001}}};

const space_entry spaces[] = {
    {"srgb", bt709, d65, curve_kind::srgb, 2.4},
    {"display-p3", p3, d65, curve_kind::srgb, 2.4},
    {"rec709", bt709, d65, curve_kind::gamma, 2.4},
    {"rec2020", bt2020, d65, curve_kind::gamma, 2.4},
    {"adobe-rgb", adobe, d65, curve_kind::gamma, 563.0 / 256.0},
    {"prophoto", romm, d50, curve_kind::romm, 1.8},
    {"dci-p3", p3, dci_white, curve_kind::gamma, 2.6},
};

const char linear_prefix[] = "linear-";

transfer_curve curve_of(const space_entry& e) {
    switch (e.curve) {
        case curve_kind::srgb: {
            // IEC 61966-2-1: ((V + 0.055) / 1.055)^2.4 from 0.04045 up, V / 12.92 below.
            const double q[] = {2.4, 1.0 / 1.055, 0.055 / 1.055, 1.0 / 12.92, 0.04045};
            return transfer_curve::parametric(4, q, e.name);
        }
        case curve_kind::romm: {
            // ROMM RGB: V^1.8 from 1/32 up (16 x 1/512), V / 16 below.
            const double q[] = {1.8, 1.0, 0.0, 1.0 / 16.0, 1.0 / 32.0};
            return transfer_curve::parametric(4, q, e.name);
        }
        default:
            return transfer_curve::gamma(e.gamma);
    }
}

rgb_space space_of(const space_entry& e, bool linear) {
    rgb_space s;
    s.label = linear ? std::string(linear_prefix) + e.name : e.name;
    s.to_xyz = rgb_to_xyz(e.primaries, e.white);
    s.white = xyz_of(e.white);
    const transfer_curve c = linear ? transfer_curve::gamma(1.0) : curve_of(e);
    s.curves = {c, c, c};
    return s;
}

}  // namespace

std::vector<std::string> named_space_names() {
    std::vector<std::string> names;
    for (const space_entry& e : spaces) names.push_back(e.name);
    for (const space_entry& e : spaces) names.push_back(std::string(linear_prefix) + e.name);
    return names;
}

rgb_space named_space(const std::string& name) {
    const bool linear = name.compare(0, sizeof linear_prefix - 1, linear_prefix) == 0;
    const std::string base = linear ? name.substr(sizeof linear_prefix - 1) : name;
    for (const space_entry& e : spaces) {
        if (base == e.name) return space_of(e, linear);
    }
    std::string known;
    for (const std::string& n : named_space_names()) known += (known.empty() ? "" : ", ") + n;
    throw color_error(status::invalid_argument,
                      "unknown colour space '" + escaped(name) + "' (known: " + known + ")");
}

}  // namespace kv_color
