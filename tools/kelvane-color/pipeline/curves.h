// Per-channel LUT contents: generated curves (gamma, sRGB, linear scale) and 1D .cube files, and
// how a curve fills a table of the library's 32-bit entries.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kv_tool {

// A 1D .cube file: entries of red, green, blue in [0, 1] over an input domain.
struct cube_LUT {
    std::string title;
    std::array<double, 3> domain_min{0.0, 0.0, 0.0};  // red, green, blue as in the file
    std::array<double, 3> domain_max{1.0, 1.0, 1.0};
    std::vector<std::array<double, 3>> entries;
};

// Parses the text of a .cube file; errors read "<name>:<line>: what".
cube_LUT parse_cube(const std::string& name, const std::string& text);
// Reads a .cube file: a regular file of at most max_cube_file bytes.
constexpr uint64_t max_cube_file = uint64_t(64) << 20;
cube_LUT load_cube(const std::string& path);

enum class curve_kind { off, identity, gamma, inverse_gamma, srgb, inverse_srgb, scale, cube };

struct curve {
    curve_kind kind = curve_kind::off;
    double parameter = 1.0;
    std::shared_ptr<const cube_LUT> cube;
    std::string text;  // as the user wrote it, for messages and reports
};

// "identity", "srgb", "inverse-srgb", "gamma:G", "inverse-gamma:G", "scale:K", "off" or a path
// ending in .cube (loaded here). Errors name `option`.
curve parse_curve(const std::string& curve_text, const std::string& option);

// The curve at x in [0, 1] for a channel (0 blue, 1 green, 2 red), clamped to [0, 1].
double evaluate(const curve& c, int channel, double x);

// Entry i of `entries` gets round(evaluate(i / (entries - 1)) * top).
void fill_table(const curve& c, int channel, uint32_t* table, uint32_t entries, uint32_t top);

}  // namespace kv_tool
