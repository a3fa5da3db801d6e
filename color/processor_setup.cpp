// Building and applying a processor setup. Linear light passes the engine as a 16-bit value
// between the input tables and the matrix and again before the output tables, so each table is
// computed in double from its curve and rounded once.
#include "color/processor_setup.h"

#include <cfloat>
#include <cmath>
#include <utility>

#include "color/color_error.h"

namespace kv_color {
namespace {

double clamp01(double v) {
    return v > 0.0 ? (v < 1.0 ? v : 1.0) : 0.0;
}

// The same table for channels whose curves agree, computed once.
std::array<std::vector<uint32_t>, 3> tables_for(const std::array<transfer_curve, 3>& curves,
                                                bool inverse, uint32_t top) {
    std::array<std::vector<uint32_t>, 3> rgb;
    for (int c = 0; c < 3; ++c) {
        for (int earlier = 0; earlier < c; ++earlier) {
            if (curves[size_t(c)] == curves[size_t(earlier)]) rgb[size_t(c)] = rgb[size_t(earlier)];
        }
        if (!rgb[size_t(c)].empty()) continue;
        const transfer_curve& curve = curves[size_t(c)];
        rgb[size_t(c)] = inverse ? make_table([&](double y) { return curve.encode(y); }, top)
                                 : make_table([&](double x) { return curve.decode(x); }, top);
    }
    for (auto& table : rgb) {
        if (top == 65535 && is_identity(table)) table.clear();
    }
    return {std::move(rgb[2]), std::move(rgb[1]), std::move(rgb[0])};  // blue, green, red
}

void check(kv_status s, const char* call) {
    if (s != KV_STATUS_SUCCESS) {
        throw color_error(status::library_failed,
                          std::string(call) + " returned status " + std::to_string(s));
    }
}

void fill(uint32_t* (*getter)(kv_color_processor_handle), kv_color_processor_handle p,
          const std::vector<uint32_t>& table, const char* what) {
    if (table.empty()) return;
    uint32_t* data = getter(p);
    if (data == nullptr) {
        throw color_error(status::library_failed,
                          std::string("the library handed out no table for ") + what);
    }
    std::copy(table.begin(), table.end(), data);
}

}  // namespace

void check_output_bits(int bits) {
    if (bits != 8 && bits != 16) {
        throw color_error(status::invalid_argument,
                          "output depth " + std::to_string(bits) + " bits: 8 or 16 are possible");
    }
}

std::vector<uint32_t> make_table(const std::function<double(double)>& f, uint32_t top) {
    std::vector<uint32_t> table(table_entries);
    for (uint32_t i = 0; i < table_entries; ++i) {
        table[i] = uint32_t(std::lround(clamp01(f(double(i) / 65535.0)) * top));
    }
    return table;
}

bool is_identity(const std::vector<uint32_t>& table) {
    for (uint32_t i = 0; i < table.size(); ++i) {
        if (table[i] != i) return false;
    }
    return true;
}

std::array<float, 9> to_float(const mat3& m) {
    std::array<float, 9> f{};
    for (size_t i = 0; i < 9; ++i) {
        if (!(std::fabs(m[i]) <= double(FLT_MAX))) {
            throw color_error(status::invalid_argument, "the conversion's matrix has an element (" +
                                                            std::to_string(m[i]) +
                                                            ") that single precision cannot hold");
        }
        f[i] = float(m[i]);
    }
    return f;
}

processor_setup setup_between(const rgb_space& source, const rgb_space& destination,
                              int output_bits) {
    check_output_bits(output_bits);
    for (int c = 0; c < 3; ++c) {
        destination.curves[size_t(c)].check_rising(destination.label + ", " + "RGB"[c] +
                                                   std::string(" curve"));
    }
    processor_setup s;
    s.output_bits = output_bits;
    mat3 xyz = source.to_xyz;
    if (source.white != destination.white) {
        xyz = multiply(bradford(source.white, destination.white), xyz);
    }
    s.matrix =
        to_float(multiply(inverse(destination.to_xyz, "the destination's RGB to XYZ matrix"), xyz));
    s.input = tables_for(source.curves, false, 65535);
    s.output = tables_for(destination.curves, true, output_bits == 8 ? 255 : 65535);
    s.description =
        source.label + " to " + destination.label + ", " + std::to_string(output_bits) + " bits";
    return s;
}

void apply(const processor_setup& s, kv_color_processor_handle p) {
    check(kv_color_clear_matrix(p), "kv_color_clear_matrix");
    const float m[9] = {s.matrix[0], s.matrix[1], s.matrix[2], s.matrix[3], s.matrix[4],
                        s.matrix[5], s.matrix[6], s.matrix[7], s.matrix[8]};
    check(kv_color_append_matrix(p, m), "kv_color_append_matrix");
    fill(kv_color_get_blue_input_LUT, p, s.input[0], "the blue input LUT");
    fill(kv_color_get_green_input_LUT, p, s.input[1], "the green input LUT");
    fill(kv_color_get_red_input_LUT, p, s.input[2], "the red input LUT");
    fill(kv_color_get_blue_output_LUT, p, s.output[0], "the blue output LUT");
    fill(kv_color_get_green_output_LUT, p, s.output[1], "the green output LUT");
    fill(kv_color_get_red_output_LUT, p, s.output[2], "the red output LUT");
    check(kv_color_enable_input_LUTs(p, !s.input[0].empty(), !s.input[1].empty(),
                                     !s.input[2].empty()),
          "kv_color_enable_input_LUTs");
    check(kv_color_enable_output_LUTs(p, !s.output[0].empty(), !s.output[1].empty(),
                                      !s.output[2].empty()),
          "kv_color_enable_output_LUTs");
}

}  // namespace kv_color
