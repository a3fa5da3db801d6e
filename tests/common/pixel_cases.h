// The pixel rules on literal values worked out by hand, as one table that every path runs: the
// reference model and the scalar kernels (tests/kernels), and each vector tier over whole blocks
// of the same pixel (tests/vector). Expectations come from the rules, never from a path.
#pragma once

#include <cstdint>
#include <cstring>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "tests/common/frames.h"

namespace kv {
namespace testing {

// Entry i of a table is base + step * i (all 65,536 entries), when the table is on.
struct LUT_line {
    bool on = false;
    uint32_t base = 0;
    uint32_t step = 0;
};

// The frame settings of one pixel, its tables as lines (the settings' own table pointers stay
// unset until case_tables::settings points them at the lines' tables) and what it stores.
struct pixel_case : frame_settings {
    std::string name;
    bool fourth = false;
    uint16_t element[3] = {0, 0, 0};  // blue, green, red
    LUT_line input[3], output[3];
    uint32_t expected[3] = {0, 0, 0};  // stored blue, green, red
};

// The tables a case's settings point at, owned by the caller for the length of the run.
struct case_tables {
    std::vector<uint32_t> table[6];
    frame_settings settings(const pixel_case& c) {
        frame_settings s = c;
        s.fourth_channel = c.fourth;
        for (int t = 0; t < 6; ++t) {
            const LUT_line& line = t < 3 ? c.input[t] : c.output[t - 3];
            table[t].assign(65536, 0);
            for (uint32_t i = 0; i < 65536; ++i) table[t][i] = line.base + line.step * i;
            (t < 3 ? s.input_LUT[t] : s.output_LUT[t - 3]) = line.on ? table[t].data() : nullptr;
        }
        return s;
    }
};

inline void PrintTo(const pixel_case& c, std::ostream* os) {
    *os << c.name;
}

inline std::vector<pixel_case> pixel_cases() {
    constexpr float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::vector<pixel_case> all;
    // A case whose elements pass through unchanged, added to the table to be edited in place.
    auto plain = [&all](const char* name, int width, uint16_t b, uint16_t g,
                        uint16_t r) -> pixel_case& {
        all.emplace_back();
        pixel_case& c = all.back();
        c.name = name;
        c.width = width;
        c.element[0] = b, c.element[1] = g, c.element[2] = r;
        c.expected[0] = b, c.expected[1] = g, c.expected[2] = r;
        return c;
    };
    // The red row fed by R (G and B pass through): sums, rounding, clamping and the fold.
    auto red = [&](const char* name, float m0, float m1, float m2, uint16_t r, uint16_t g,
                   uint16_t b, uint16_t lo, uint16_t hi, uint32_t stored) {
        pixel_case& c = plain(name, 16, b, g, r);
        c.matrix[0] = m0, c.matrix[1] = m1, c.matrix[2] = m2;
        c.minimum[2] = lo, c.maximum[2] = hi;
        c.expected[2] = stored;
    };
    red("0.5 rounds up", 0.5f, 0, 0, 1, 0, 0, 0, 0xFFFF, 1);
    red("1.5 rounds up", 1.5f, 0, 0, 1, 0, 0, 0, 0xFFFF, 2);
    red("2.5 rounds up, not to even", 2.5f, 0, 0, 1, 0, 0, 0, 0xFFFF, 3);
    red("a tie formed by a product", 0.5f, 0, 0, 5, 0, 0, 0, 0xFFFF, 3);
    red("the float below 0.5 rounds to 0", 0.49999997f, 0, 0, 1, 0, 0, 0, 0xFFFF, 0);
    red("-0.4 rounds to 0", -0.4f, 0, 0, 1, 0, 0, 0, 0xFFFF, 0);
    red("-0.7 rounds to 0", -0.7f, 0, 0, 1, 0, 0, 0, 0xFFFF, 0);
    red("negative sums clamp to the minimum", -1.7f, 0, 0, 1, 0, 0, 3, 0xFFFF, 3);
    red("(R + G) + B grouping", 16777216.0f, 1.0f, -16777216.0f, 1, 1, 1, 0, 0xFFFF, 0);
    red("all three terms", 0.25f, 0.5f, 0.125f, 1000, 2000, 4000, 0, 0xFFFF, 1750);
    red("the float below 2^31 goes to the maximum", 2147483520.0f, 0, 0, 1, 0, 0, 7, 100, 100);
    red("2^31 folds to the minimum", 2147483648.0f, 0, 0, 1, 0, 0, 7, 100, 7);
    red("infinity folds to the minimum", inf, 0, 0, 1, 0, 0, 7, 100, 7);
    red("-infinity gives the minimum", -inf, 0, 0, 1, 0, 0, 7, 100, 7);
    red("NaN gives the minimum", nan, 0, 0, 1, 0, 0, 7, 100, 7);
    red("a NaN factor on a zero element poisons the sum", 1, nan, 0, 50, 0, 0, 7, 100, 7);
    red("infinity times a zero element", 1, 0, inf, 50, 0, 0, 7, 100, 7);
    red("a huge product overflows to infinity", 3.0e38f, 0, 0, 65535, 0, 0, 7, 100, 7);
    red("subnormal products vanish", 1e-40f, 0, 0, 65535, 0, 0, 0, 0xFFFF, 0);
    red("negative zero", -0.0f, 0, 0, 1000, 0, 0, 0, 0xFFFF, 0);
    red("just past the largest element", 65535.5f, 0, 0, 1, 0, 0, 0, 0xFFFF, 0xFFFF);
    red("2^23 + 1", 8388609.0f, 0, 0, 1, 0, 0, 0, 0xFFFF, 0xFFFF);
    red("bounds equal", 1, 0, 0, 300, 0, 0, 42, 42, 42);
    red("crossed bounds: the minimum wins", 1, 0, 0, 300, 0, 0, 500, 100, 500);

    plain("identity keeps 16-bit elements", 16, 0, 1234, 65535);
    pixel_case* c = &plain("narrowing cuts, never saturates", 8, 300, 255, 256);
    c->expected[0] = 44, c->expected[2] = 0;
    c = &plain("three shift signs in one pixel", 16, 0x100, 0x100, 0x100);
    c->shift_distance[0] = 2, c->shift_distance[2] = -1;
    c->expected[0] = 0x400, c->expected[2] = 0x80;
    c = &plain("a left shift loses bits at 8 bits", 8, 0x40, 0, 0);
    c->shift_distance[0] = 2;
    c->expected[0] = 0;
    c = &plain("an unfilled input LUT maps its channel to 0", 16, 77, 88, 99);
    c->input[1].on = true;
    c->expected[1] = 0;
    c = &plain("the high half of an input LUT entry is ignored", 16, 5, 0, 0);
    c->input[0] = {true, 0xFFFF1230u, 0};
    c->expected[0] = 0x1230;
    c = &plain("the output LUT is read at the clamped value", 16, 0, 500, 60000);
    for (LUT_line& line : c->output) line = {true, 7, 1};
    c->minimum[0] = 4, c->maximum[2] = 1000;
    c->expected[0] = 11, c->expected[1] = 507, c->expected[2] = 1007;
    // Output LUT entry, shift and narrowing on green, at both widths.
    struct shift_row {
        const char* name;
        uint32_t entry;
        int32_t distance;
        uint32_t stored_16, stored_8;
    };
    const shift_row shift_rows[] = {
        {"LUT bits above the element come down", 0x00012345u, -4, 0x1234, 0x34},
        {"no saturation of a LUT entry", 0x100u, 0, 0x100, 0x00},
        {"right by one", 0x100u, -1, 0x80, 0x80},
        {"left by 15", 0xFFFFu, 15, 0x8000, 0x00},
        {"a right shift is arithmetic", 0x80000000u, -20, 0xF800, 0x00},
        {"right by 31 of a negative entry", 0x80000000u, -31, 0xFFFF, 0xFF},
        {"counts modulo 32: minus 32 shifts nothing", 0x1234u, -32, 0x1234, 0x34},
        {"counts modulo 32: 33 shifts by one", 0x1234u, 33, 0x2468, 0x68},
        {"the most negative distance shifts nothing", 0x1234u, std::numeric_limits<int32_t>::min(),
         0x1234, 0x34},
    };
    for (const shift_row& row : shift_rows) {
        for (int width : {16, 8}) {
            pixel_case& shifted = plain(row.name, width, 9, 3, 9);
            shifted.name += width == 8 ? ", 8 bits" : ", 16 bits";
            shifted.output[1] = {true, row.entry, 0};
            shifted.shift_distance[1] = row.distance;
            shifted.expected[1] = width == 8 ? row.stored_8 : row.stored_16;
        }
    }
    // Every stage at once, at both widths, with and without the fourth element.
    for (int width : {16, 8}) {
        for (bool fourth : {false, true}) {
            pixel_case& w = plain("worked pixel, ", width, 1000, 2000, 3000);
            w.name +=
                std::string(width == 8 ? "8" : "16") + " bits" + (fourth ? ", fourth element" : "");
            w.fourth = fourth;
            const float m[9] = {1.5f, -0.25f, 0.1f, 0.25f, 0.5f, 0.25f, -2.0f, 0.0f, 1.0f};
            std::memcpy(w.matrix, m, sizeof m);
            w.input[0] = {true, 0x00010064, 0};  // 100
            w.input[1] = {true, 0x000000C8, 0};  // 200
            w.input[2] = {true, 0x0000012D, 0};  // 301
            // Red 1.5*301 - 0.25*200 + 0.1*100 = 411.5 -> 412; green 75.25 + 100 + 25 = 200.25
            // -> 200; blue -2*301 + 100 = -502 -> 0. Output LUTs map each to base + index.
            w.output[0] = {true, 7, 0}, w.output[1] = {true, 0x7Fu - 200u, 1};
            w.output[2] = {true, 0x1234u - 412u, 1};
            w.maximum[0] = w.maximum[1] = w.maximum[2] = 4095;
            w.shift_distance[1] = -1, w.shift_distance[2] = 2;
            w.expected[0] = 7;
            w.expected[1] = 0x7F >> 1;
            w.expected[2] = width == 16 ? 0x48D0 : 0xD0;
        }
    }
    return all;
}

}  // namespace testing
}  // namespace kv
