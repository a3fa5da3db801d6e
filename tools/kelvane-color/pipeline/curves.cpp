// Curves and .cube files for the LUT stages.
#include "pipeline/curves.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <sstream>

#include "cli/numbers.h"
#include "cli/tool_error.h"
#include "pipeline/file_access.h"

namespace kv_tool {
namespace {

tool_error cube_error(const std::string& name, size_t line, const std::string& message) {
    return tool_error(EXIT_FILE, name + ":" + std::to_string(line) + ": " + message);
}

// Reads exactly `count` numbers from the rest of a line.
template <size_t N>
std::array<double, N> cube_numbers(const std::string& name, size_t line, std::istringstream& in,
                                   const char* what) {
    std::array<double, N> values{};
    std::vector<std::string> words;
    std::string word;
    while (in >> word) words.push_back(word);
    if (words.size() != N) {
        throw cube_error(name, line,
                         std::string(what) + ": expected " + std::to_string(N) + " numbers, got " +
                             std::to_string(words.size()));
    }
    for (size_t i = 0; i < N; ++i) {
        if (!parse_double(words[i], &values[i])) {
            throw cube_error(name, line,
                             std::string(what) + ": " + excerpt(words[i]) + " is not a number");
        }
    }
    return values;
}

bool has_cube_extension(const std::string& text) {
    if (text.size() < 5) return false;
    std::string tail = text.substr(text.size() - 5);
    for (char& c : tail) c = char(std::tolower(static_cast<unsigned char>(c)));
    return tail == ".cube";
}

double srgb_encode(double x) {
    return x <= 0.0031308 ? 12.92 * x : 1.055 * std::pow(x, 1.0 / 2.4) - 0.055;
}
double srgb_decode(double x) {
    return x <= 0.04045 ? x / 12.92 : std::pow((x + 0.055) / 1.055, 2.4);
}

double cube_at(const cube_LUT& cube, int column, double x) {
    const double low = cube.domain_min[column], high = cube.domain_max[column];
    const double last = double(cube.entries.size() - 1);
    const double position = std::clamp((x - low) / (high - low) * last, 0.0, last);
    const size_t below = std::min(size_t(position), cube.entries.size() - 2);
    const double fraction = position - double(below);
    return cube.entries[below][column] * (1.0 - fraction) +
           cube.entries[below + 1][column] * fraction;
}

}  // namespace

namespace {

// One line of a .cube file into `cube`; `declared` is the LUT_1D_SIZE seen so far, 0 for none.
void read_cube_line(const std::string& name, size_t line_number, std::string line, cube_LUT& cube,
                    size_t& declared) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.rfind("TITLE", 0) != 0) line = line.substr(0, line.find('#'));  // comments
    std::istringstream in(line);
    std::string keyword;
    if (!(in >> keyword)) return;
    if (keyword == "TITLE") {
        std::getline(in, cube.title);
        const size_t first = cube.title.find('"'), last = cube.title.rfind('"');
        if (first != std::string::npos && last > first) {
            cube.title = cube.title.substr(first + 1, last - first - 1);
        }
    } else if (keyword == "LUT_1D_SIZE") {
        const double size = cube_numbers<1>(name, line_number, in, "LUT_1D_SIZE")[0];
        if (declared != 0) throw cube_error(name, line_number, "LUT_1D_SIZE given twice");
        if (!(size >= 2 && size <= 65536) || size != std::floor(size)) {
            throw cube_error(name, line_number,
                             "LUT_1D_SIZE must be a whole number from 2 "
                             "to 65536");
        }
        declared = size_t(size);
    } else if (keyword == "LUT_3D_SIZE") {
        throw cube_error(name, line_number, "a 3D LUT; kelvane-color applies 1D LUTs only");
    } else if (keyword == "DOMAIN_MIN" || keyword == "DOMAIN_MAX") {
        const bool is_min = keyword == "DOMAIN_MIN";
        (is_min ? cube.domain_min : cube.domain_max) =
            cube_numbers<3>(name, line_number, in, keyword.c_str());
    } else if (keyword == "LUT_1D_INPUT_RANGE") {
        const auto range = cube_numbers<2>(name, line_number, in, "LUT_1D_INPUT_RANGE");
        cube.domain_min.fill(range[0]);
        cube.domain_max.fill(range[1]);
    } else if (std::isalpha(static_cast<unsigned char>(keyword[0]))) {
        throw cube_error(name, line_number, "unknown keyword " + excerpt(keyword));
    } else {
        if (declared == 0) throw cube_error(name, line_number, "data before LUT_1D_SIZE");
        if (cube.entries.size() == declared) {
            throw cube_error(
                name, line_number,
                "more than the " + std::to_string(declared) + " entries LUT_1D_SIZE gives");
        }
        std::istringstream whole(line);
        cube.entries.push_back(cube_numbers<3>(name, line_number, whole, "entry"));
    }
}

}  // namespace

cube_LUT parse_cube(const std::string& name, const std::string& text) {
    cube_LUT cube;
    size_t declared = 0;
    size_t line_number = 0;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) read_cube_line(name, ++line_number, line, cube, declared);
    if (declared == 0) throw cube_error(name, line_number, "no LUT_1D_SIZE line");
    if (cube.entries.size() != declared) {
        throw cube_error(name, line_number,
                         std::to_string(cube.entries.size()) + " entries, but LUT_1D_SIZE gives " +
                             std::to_string(declared));
    }
    for (int c = 0; c < 3; ++c) {
        if (!(cube.domain_max[c] > cube.domain_min[c])) {
            throw cube_error(name, line_number, "the domain maximum must lie above the minimum");
        }
    }
    return cube;
}

cube_LUT load_cube(const std::string& path) {
    // 65536 entries of three long numbers fit many times over; a larger file is no LUT.
    return parse_cube(path, read_small_file(path, max_cube_file, ".cube files"));
}

curve parse_curve(const std::string& curve_text, const std::string& option) {
    curve c;
    c.text = curve_text;
    const size_t colon = curve_text.find(':');
    const std::string name = curve_text.substr(0, colon);
    const std::string argument = colon == std::string::npos ? "" : curve_text.substr(colon + 1);
    const bool takes_argument = name == "gamma" || name == "inverse-gamma" || name == "scale";
    if (has_cube_extension(curve_text)) {
        c.kind = curve_kind::cube;
        c.cube = std::make_shared<const cube_LUT>(load_cube(curve_text));
        return c;
    }
    if (takes_argument && colon == std::string::npos) {
        throw usage_error(option + ": '" + name + "' needs a value, as in " + name + ":2.2");
    }
    if (name == "off" && argument.empty()) {
        c.kind = curve_kind::off;
    } else if (name == "identity" && argument.empty()) {
        c.kind = curve_kind::identity;
    } else if (name == "srgb" && argument.empty()) {
        c.kind = curve_kind::srgb;
    } else if (name == "inverse-srgb" && argument.empty()) {
        c.kind = curve_kind::inverse_srgb;
    } else if (takes_argument) {
        c.kind = name == "gamma"           ? curve_kind::gamma
                 : name == "inverse-gamma" ? curve_kind::inverse_gamma
                                           : curve_kind::scale;
        const bool positive_only = c.kind != curve_kind::scale;
        if (!parse_double(argument, &c.parameter) || !std::isfinite(c.parameter) ||
            c.parameter < 0 || (positive_only && c.parameter == 0)) {
            throw usage_error(option + ": '" + argument + "' is not a " +
                              (positive_only ? "positive" : "non-negative") + " number in '" +
                              curve_text + "'");
        }
    } else {
        throw usage_error(option + ": '" + curve_text +
                          "' is not a curve (identity, srgb, inverse-srgb, gamma:G, "
                          "inverse-gamma:G, scale:K, off) or a .cube file");
    }
    return c;
}

double evaluate(const curve& c, int channel, double x) {
    double y = x;
    switch (c.kind) {
        case curve_kind::off:
        case curve_kind::identity:
            break;
        case curve_kind::gamma:
            y = std::pow(x, 1.0 / c.parameter);
            break;
        case curve_kind::inverse_gamma:
            y = std::pow(x, c.parameter);
            break;
        case curve_kind::srgb:
            y = srgb_encode(x);
            break;
        case curve_kind::inverse_srgb:
            y = srgb_decode(x);
            break;
        case curve_kind::scale:
            y = x * c.parameter;
            break;
        case curve_kind::cube:
            y = cube_at(*c.cube, 2 - channel, x);
            break;  // file order r g b
    }
    return std::clamp(y, 0.0, 1.0);
}

void fill_table(const curve& c, int channel, uint32_t* table, uint32_t entries, uint32_t top) {
    const double last = entries > 1 ? double(entries - 1) : 1.0;
    for (uint32_t i = 0; i < entries; ++i) {
        table[i] = uint32_t(std::lround(evaluate(c, channel, double(i) / last) * top));
    }
}

}  // namespace kv_tool
