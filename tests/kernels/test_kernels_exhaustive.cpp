// Every one of the 62,208 kernels, reached through the dispatch entries, against the reference
// model: random elements, matrices, LUT contents, bounds, frame lengths and start indices, with
// guard bytes around the output and the pixels below start_index checked untouched.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "tests/kernels/kernel_test_support.h"

namespace kv {
namespace {

using testing::blank_request;
using testing::guarded_output;

struct coordinates {
    int output_width;
    int32_t input_format;
    bool input_LUT[3];  // blue, green, red
    bool output_LUT[3];
    int shift_sign[3];  // 0 none, 1 left, 2 right
    bool fourth_channel;
    int32_t output_format;
};

// Walks the whole space with an odometer of its own, independent of the kernels' encoding.
std::vector<coordinates> whole_space() {
    std::vector<coordinates> space;
    for (int w = 0; w < 2; ++w)
        for (int in = 0; in < 3; ++in)
            for (int lut = 0; lut < 64; ++lut)
                for (int shifts = 0; shifts < 27; ++shifts)
                    for (int fourth = 0; fourth < 2; ++fourth)
                        for (int out = 0; out < 3; ++out) {
                            coordinates c{};
                            c.output_width = w ? 16 : 8;
                            c.input_format = in;
                            for (int ch = 0; ch < 3; ++ch) {
                                c.input_LUT[ch] = (lut >> ch) & 1;
                                c.output_LUT[ch] = (lut >> (ch + 3)) & 1;
                            }
                            c.shift_sign[0] = shifts % 3;
                            c.shift_sign[1] = (shifts / 3) % 3;
                            c.shift_sign[2] = shifts / 9;
                            c.fourth_channel = fourth;
                            c.output_format = out;
                            space.push_back(c);
                        }
    return space;
}

class ExhaustiveKernels : public ::testing::Test {
  protected:
    void SetUp() override {
        std::mt19937 rng(20261121);
        for (auto& table : tables) {
            table.resize(65536);
            for (auto& entry : table) entry = rng();
        }
    }
    std::array<std::vector<uint32_t>, 6> tables;  // input blue, green, red; output blue, green, red
};

uint8_t random_on_byte(std::mt19937& rng) {
    static const uint8_t on[] = {1, 2, 128, 255};
    return on[rng() % 4];
}

int32_t random_distance(std::mt19937& rng, int sign) {
    const int32_t magnitude = 1 + static_cast<int32_t>(rng() % 15);
    return sign == 0 ? 0 : sign == 1 ? magnitude : -magnitude;
}

TEST_F(ExhaustiveKernels, EveryCoordinateMatchesTheReferenceModel) {
    const std::vector<coordinates> space = whole_space();
    ASSERT_EQ(space.size(), 62208u);

    std::mt19937 rng(7);
    size_t failures = 0;
    for (const coordinates& c : space) {
        const int32_t n = 1 + static_cast<int32_t>(rng() % 9);
        const int32_t start_index = (rng() % 4 == 0) ? static_cast<int32_t>(rng() % (n + 1)) : 0;

        color_correction_head matrix{};
        for (float& m : matrix.matrix) m = testing::random_matrix_value(rng);

        std::vector<uint16_t> input(3 * static_cast<size_t>(n));
        for (auto& e : input) e = testing::random_element(rng);
        const std::vector<uint16_t> input_before = input;

        transform_request r = blank_request();
        r.input_buffer = input.data();
        r.input_format = static_cast<pixel_format>(c.input_format);
        r.output_format = static_cast<pixel_format>(c.output_format);
        r.fourth_channel = c.fourth_channel ? random_on_byte(rng) : 0;
        r.pixel_count = n;
        r.processor = reinterpret_cast<const color_correction*>(&matrix);

        uint8_t* in_flags[3] = {&r.blue_input_LUT_enabled, &r.green_input_LUT_enabled,
                                &r.red_input_LUT_enabled};
        uint8_t* out_flags[3] = {&r.blue_output_LUT_enabled, &r.green_output_LUT_enabled,
                                 &r.red_output_LUT_enabled};
        const uint32_t** in_LUTs[3] = {&r.blue_input_LUT, &r.green_input_LUT, &r.red_input_LUT};
        const uint32_t** out_LUTs[3] = {&r.blue_output_LUT, &r.green_output_LUT, &r.red_output_LUT};
        uint16_t* minimum[3] = {&r.blue_output_min, &r.green_output_min, &r.red_output_min};
        uint16_t* maximum[3] = {&r.blue_output_max, &r.green_output_max, &r.red_output_max};
        int32_t* distance[3] = {&r.blue_shift_distance, &r.green_shift_distance,
                                &r.red_shift_distance};
        for (int ch = 0; ch < 3; ++ch) {
            *in_flags[ch] = c.input_LUT[ch] ? random_on_byte(rng) : 0;
            *out_flags[ch] = c.output_LUT[ch] ? random_on_byte(rng) : 0;
            // A disabled LUT's address is never read: leave it NULL half of the time.
            *in_LUTs[ch] = (c.input_LUT[ch] || rng() % 2) ? tables[ch].data() : nullptr;
            *out_LUTs[ch] = (c.output_LUT[ch] || rng() % 2) ? tables[3 + ch].data() : nullptr;
            uint16_t a = static_cast<uint16_t>(rng()), b = static_cast<uint16_t>(rng());
            if (rng() % 3 == 0)
                a = static_cast<uint16_t>(a & 0xFF), b = static_cast<uint16_t>(b & 0xFFF);
            *minimum[ch] = a < b ? a : b;
            *maximum[ch] = a < b ? b : a;
            *distance[ch] = random_distance(rng, c.shift_sign[ch]);
        }

        const size_t bytes = testing::output_bytes(c.output_width, c.fourth_channel, n);
        guarded_output actual(bytes, rng(), 2 * (rng() % 4));
        guarded_output expected = actual;

        transform_request model_request = r;
        model_request.output_buffer = expected.payload();
        reference::run_request(model_request, c.output_width, start_index);

        r.output_buffer = actual.payload();
        testing::dispatch(c.output_width, r, start_index);

        const bool same = actual.bytes == expected.bytes && input == input_before;
        if (!same && ++failures <= 5) {
            ADD_FAILURE() << "width " << c.output_width << " in " << c.input_format << " out "
                          << c.output_format << " fourth " << c.fourth_channel << " LUT in "
                          << c.input_LUT[0] << c.input_LUT[1] << c.input_LUT[2] << " out "
                          << c.output_LUT[0] << c.output_LUT[1] << c.output_LUT[2] << " shifts "
                          << c.shift_sign[0] << c.shift_sign[1] << c.shift_sign[2] << " n " << n
                          << " start " << start_index;
        }
    }
    EXPECT_EQ(failures, 0u);
}

}  // namespace
}  // namespace kv
