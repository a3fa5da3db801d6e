// The pixel rules on literal values worked out by hand: each case runs through the reference model
// and through the kernels, and both must store exactly the expected elements.
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "kernels/pixel_pipeline.h"
#include "tests/kernels/kernel_test_support.h"

namespace kv {
namespace {

constexpr float identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
const float nan_value = std::numeric_limits<float>::quiet_NaN();
const float infinity = std::numeric_limits<float>::infinity();

float bits_to_float(uint32_t bits) {
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

struct LUT_entry {
    int table;  // 0..2 input blue, green, red; 3..5 output blue, green, red
    uint32_t index;
    uint32_t value;
};

struct pixel_case {
    std::string name;
    int output_width;
    bool fourth_channel;
    float matrix[9];
    uint16_t element[3];  // blue, green, red
    bool LUT_on[6];       // input b, g, r; output b, g, r
    std::vector<LUT_entry> entries;
    uint16_t minimum[3];
    uint16_t maximum[3];
    int32_t shift[3];
    std::vector<uint32_t> expected;  // stored elements in BGR interleaved order
};

// The row that computes red, fed by R = 1 (and G = B = 1 where a case needs them).
pixel_case red_sum(std::string name, float m0, float m1, float m2, uint16_t lo, uint16_t hi,
                   uint32_t expected_red) {
    return {name,
            16,
            false,
            {m0, m1, m2, 0, 1, 0, 0, 0, 1},
            {1, 1, 1},
            {},
            {},
            {0, 0, lo},
            {0xFFFF, 0xFFFF, hi},
            {0, 0, 0},
            {1, 1, expected_red}};
}

std::vector<pixel_case> cases() {
    const float worked[9] = {1.5f, -0.25f, 0.1f, 0.25f, 0.5f, 0.25f, -2.0f, 0.0f, 1.0f};
    const std::vector<LUT_entry> worked_tables = {{0, 1000, 0x00010064}, {1, 2000, 0x000000C8},
                                                  {2, 3000, 0x0000012D}, {3, 0, 7},
                                                  {4, 200, 0x000000FF},  {5, 412, 0x00001234}};
    std::vector<pixel_case> all;
    for (int width : {16, 8}) {
        for (bool fourth : {false, true}) {
            pixel_case c{"worked pixel",
                         width,
                         fourth,
                         {},
                         {1000, 2000, 3000},
                         {true, true, true, true, true, true},
                         worked_tables,
                         {0, 0, 0},
                         {4095, 4095, 4095},
                         {0, -1, 2},
                         {}};
            std::memcpy(c.matrix, worked, sizeof worked);
            c.expected = width == 16 ? std::vector<uint32_t>{0x0007, 0x007F, 0x48D0}
                                     : std::vector<uint32_t>{0x07, 0x7F, 0xD0};
            if (fourth) c.expected.push_back(0);
            c.name += " w" + std::to_string(width) + (fourth ? " fourth" : "");
            all.push_back(c);
        }
    }
    auto plain = [](std::string name, int width, uint16_t b, uint16_t g, uint16_t r,
                    std::vector<uint32_t> expected) {
        pixel_case c{
            name,      width,   false, {}, {b, g, r}, {}, {}, {0, 0, 0}, {0xFFFF, 0xFFFF, 0xFFFF},
            {0, 0, 0}, expected};
        std::memcpy(c.matrix, identity, sizeof identity);
        return c;
    };
    all.push_back(plain("identity keeps 16-bit elements", 16, 0, 1234, 65535, {0, 1234, 65535}));
    all.push_back(plain("narrowing cuts, never saturates", 8, 300, 255, 256, {44, 255, 0}));

    all.push_back(red_sum("0.5 rounds up", 0.5f, 0, 0, 0, 0xFFFF, 1));
    all.push_back(red_sum("1.5 rounds up", 1.5f, 0, 0, 0, 0xFFFF, 2));
    all.push_back(red_sum("2.5 rounds up, not to even", 2.5f, 0, 0, 0, 0xFFFF, 3));
    all.push_back(red_sum("largest float below 0.5 rounds to 0", bits_to_float(0x3EFFFFFF), 0, 0, 0,
                          0xFFFF, 0));
    all.push_back(red_sum("-0.4 rounds to 0", -0.4f, 0, 0, 0, 0xFFFF, 0));
    all.push_back(red_sum("-0.7 rounds to 0", -0.7f, 0, 0, 0, 0xFFFF, 0));
    all.push_back(red_sum("negative sums clamp to the minimum", -1.7f, 0, 0, 3, 0xFFFF, 3));
    all.push_back(red_sum("(R + G) + B grouping", 16777216.0f, 1.0f, -16777216.0f, 0, 0xFFFF, 0));
    all.push_back(
        red_sum("largest float below 2^31 goes to the maximum", 2147483520.0f, 0, 0, 7, 100, 100));
    all.push_back(red_sum("2^31 folds to the minimum", 2147483648.0f, 0, 0, 7, 100, 7));
    all.push_back(red_sum("infinity folds to the minimum", infinity, 0, 0, 7, 100, 7));
    all.push_back(red_sum("-infinity folds to the minimum", -infinity, 0, 0, 7, 100, 7));
    all.push_back(red_sum("NaN folds to the minimum", nan_value, 0, 0, 7, 100, 7));
    all.push_back(
        red_sum("a NaN anywhere in the row poisons the sum", 0.0f, nan_value, 0, 7, 100, 7));
    all.push_back(red_sum("subnormal products vanish in the rounding", 1e-40f, 0, 0, 0, 0xFFFF, 0));

    {
        pixel_case c = plain("output LUT 0x100 narrows to 0 at 8 bits", 8, 0, 0, 5, {0, 0, 0});
        c.LUT_on[5] = true;
        c.entries = {{5, 5, 0x100}};
        all.push_back(c);
        c.name = "output LUT 0x100 shifted right by 1 stores 0x80";
        c.shift[2] = -1;
        c.expected = {0, 0, 0x80};
        all.push_back(c);
    }
    {
        pixel_case c = plain("left shift loses bits at 8 bits", 8, 0x40, 0, 0, {0, 0, 0});
        c.shift[0] = 2;
        all.push_back(c);
    }
    {
        pixel_case c = plain("LUT bits above the element reach it through a right shift", 16, 9, 0,
                             0, {0x1234, 0, 0});
        c.LUT_on[3] = true;
        c.entries = {{3, 9, 0x00012345}};
        c.shift[0] = -4;
        all.push_back(c);
    }
    {
        pixel_case c = plain("three shift signs in one pixel", 16, 0x0100, 0x0100, 0x0100,
                             {0x0400, 0x0100, 0x0080});
        c.shift[0] = 2;
        c.shift[1] = 0;
        c.shift[2] = -1;
        all.push_back(c);
    }
    {
        pixel_case c =
            plain("an unfilled input LUT maps its channel to 0", 16, 77, 88, 99, {77, 0, 99});
        c.LUT_on[1] = true;
        all.push_back(c);
    }
    {
        pixel_case c =
            plain("the high half of an input LUT entry is ignored", 16, 5, 0, 0, {0x1234, 0, 0});
        c.LUT_on[0] = true;
        c.entries = {{0, 5, 0xFFFF1234}};
        all.push_back(c);
    }
    {
        pixel_case c = plain("the output LUT is applied at the clamped bounds", 16, 0, 500, 60000,
                             {11, 22, 33});
        for (int t = 3; t < 6; ++t) c.LUT_on[t] = true;
        c.minimum[0] = 4;
        c.maximum[2] = 1000;
        c.entries = {{3, 4, 11}, {4, 500, 22}, {5, 1000, 33}};
        all.push_back(c);
    }
    return all;
}

class PixelRules : public ::testing::TestWithParam<pixel_case> {};

TEST_P(PixelRules, ModelAndKernelsStoreTheWorkedValues) {
    const pixel_case& c = GetParam();
    std::vector<std::vector<uint32_t>> tables(6, std::vector<uint32_t>(65536, 0));
    for (const LUT_entry& e : c.entries) tables[e.table][e.index] = e.value;

    color_correction_head matrix{};
    std::memcpy(matrix.matrix, c.matrix, sizeof matrix.matrix);
    const uint16_t input[3] = {c.element[0], c.element[1], c.element[2]};

    transform_request r = testing::blank_request();
    r.input_buffer = input;
    r.processor = reinterpret_cast<const color_correction*>(&matrix);
    r.fourth_channel = c.fourth_channel;
    r.pixel_count = 1;
    const uint32_t** LUT[6] = {&r.blue_input_LUT,  &r.green_input_LUT,  &r.red_input_LUT,
                               &r.blue_output_LUT, &r.green_output_LUT, &r.red_output_LUT};
    uint8_t* flag[6] = {&r.blue_input_LUT_enabled,   &r.green_input_LUT_enabled,
                        &r.red_input_LUT_enabled,    &r.blue_output_LUT_enabled,
                        &r.green_output_LUT_enabled, &r.red_output_LUT_enabled};
    for (int t = 0; t < 6; ++t) {
        *LUT[t] = tables[t].data();
        *flag[t] = c.LUT_on[t];
    }
    r.blue_output_min = c.minimum[0];
    r.green_output_min = c.minimum[1];
    r.red_output_min = c.minimum[2];
    r.blue_output_max = c.maximum[0];
    r.green_output_max = c.maximum[1];
    r.red_output_max = c.maximum[2];
    r.blue_shift_distance = c.shift[0];
    r.green_shift_distance = c.shift[1];
    r.red_shift_distance = c.shift[2];

    for (const bool through_kernels : {false, true}) {
        uint16_t out16[4] = {0xEEEE, 0xEEEE, 0xEEEE, 0xEEEE};
        uint8_t out8[4] = {0xEE, 0xEE, 0xEE, 0xEE};
        r.output_buffer = c.output_width == 16 ? static_cast<void*>(out16) : out8;
        if (through_kernels) {
            testing::dispatch(c.output_width, r, 0);
        } else {
            reference::run_request(r, c.output_width, 0);
        }
        std::vector<uint32_t> stored;
        for (size_t e = 0; e < c.expected.size(); ++e)
            stored.push_back(c.output_width == 16 ? out16[e] : out8[e]);
        EXPECT_EQ(stored, c.expected) << (through_kernels ? "kernels" : "reference model");
        if (!c.fourth_channel) {
            EXPECT_EQ(c.output_width == 16 ? out16[3] : out8[3],
                      c.output_width == 16 ? 0xEEEEu : 0xEEu)
                << "a three-element pixel stored a fourth element";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, PixelRules, ::testing::ValuesIn(cases()),
                         [](const ::testing::TestParamInfo<pixel_case>& info) {
                             std::string name;
                             for (char ch : info.param.name)
                                 name += std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
                             return name + "_" + std::to_string(info.index);
                         });

TEST(RoundingStep, ValuesBeforeTheClamp) {
    struct {
        float sum;
        int32_t rounded;
    } const rows[] = {
        {0.5f, 1},
        {-1.7f, -1},
        {-0.4f, 0},
        {bits_to_float(0x3EFFFFFF), 0},
        {2147483520.0f, 2147483520},
        {2147483648.0f, INT32_MIN},
        {-2147483648.0f, -2147483647},
        {-3.0e9f, INT32_MIN},
        {infinity, INT32_MIN},
        {-infinity, INT32_MIN},
        {nan_value, INT32_MIN},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(reference::round_to_int32(row.sum), row.rounded) << row.sum;
        EXPECT_EQ(round_sum(row.sum), row.rounded) << row.sum;
    }
}

}  // namespace
}  // namespace kv
