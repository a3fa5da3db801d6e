// Every one of the 62,208 kernels, reached through the dispatch entries, against the reference
// model: random elements, matrices (with the arithmetic corners), LUT contents, bounds, flag
// bytes, planar format values, disabled LUTs without tables, frame lengths and start indices,
// with the output against a fence page, noise around it and the pixels below start_index checked
// untouched.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "kernels/dispatch.h"
#include "tests/common/frames.h"
#include "tests/common/reference_model.h"

namespace kv {
namespace {

// The whole space walked with a mixed-radix counter of its own, independent of the kernels'
// encoding: width, input format, six LUT flags, three shift signs, fourth element, output format.
TEST(ExhaustiveKernels, EveryCoordinateMatchesTheReferenceModel) {
    const uint32_t seed = 7;
    std::mt19937 rng(seed);
    size_t failures = 0;
    for (uint32_t point = 0; point < 2 * 3 * 64 * 27 * 2 * 3; ++point) {
        uint32_t rest = point;
        const auto digit = [&rest](uint32_t radix) {
            const uint32_t d = rest % radix;
            rest /= radix;
            return static_cast<int>(d);
        };
        const int w = digit(2), in = digit(3), LUTs = digit(64), shifts = digit(27);
        const int fourth = digit(2), out = digit(3);
        testing::frame_settings s;
        s.width = w ? 16 : 8;
        // Any format other than 1 and 2 means planes.
        const int32_t planar[] = {0, -1, 3, INT32_MIN, INT32_MAX};
        s.input_format = in == 0 ? planar[rng() % 5] : in;
        s.output_format = out == 0 ? planar[rng() % 5] : out;
        s.fourth_channel = fourth;
        const uint8_t on_bytes[] = {1, 2, 128, 255};
        s.enabled_byte = on_bytes[rng() % 4];
        for (float& m : s.matrix) m = testing::random_matrix_value(rng);
        int sign = shifts;
        for (int c = 0; c < 3; ++c, sign /= 3) {
            if ((LUTs >> c) & 1) s.input_LUT[c] = testing::table_pool(int(rng() % 6)).data();
            if ((LUTs >> (c + 3)) & 1) s.output_LUT[c] = testing::table_pool(int(rng() % 6)).data();
            uint16_t a = static_cast<uint16_t>(rng()), b = static_cast<uint16_t>(rng());
            if (rng() % 3 == 0)
                a = static_cast<uint16_t>(a & 0xFF), b = static_cast<uint16_t>(b & 0xFFF);
            s.minimum[c] = std::min(a, b);
            s.maximum[c] = std::max(a, b);
            const int32_t distance = 1 + static_cast<int32_t>(rng() % 15);
            s.shift_distance[c] = sign % 3 == 0 ? 0 : sign % 3 == 1 ? distance : -distance;
        }
        const int32_t n = 1 + static_cast<int32_t>(rng() % 9);
        const int32_t start = rng() % 4 == 0 ? static_cast<int32_t>(rng() % (n + 1)) : 0;
        std::vector<uint16_t> input = testing::random_input(n, rng);
        const std::vector<uint16_t> input_before = input;
        color_correction_head matrix{};
        std::copy(s.matrix, s.matrix + 9, matrix.matrix);

        const size_t bytes = testing::output_bytes(s.width, s.fourth_channel, n);
        const uint64_t noise = rng();
        const size_t misalign = 2 * (rng() % 4);
        testing::guarded_buffer actual(bytes, noise, misalign), expected(bytes, noise, misalign);
        reference::run_request(testing::make_request(s, input.data(), n, expected.data(), &matrix),
                               s.width, start);
        const transform_request r =
            testing::make_request(s, input.data(), n, actual.data(), &matrix);
        s.width == 8 ? dispatch_kernel_8(&r, start) : dispatch_kernel_16(&r, start);

        if ((actual.copy() != expected.copy() || !actual.guards_intact() ||
             input != input_before) &&
            ++failures <= 5) {
            ADD_FAILURE() << "seed " << seed << ", width " << s.width << " in " << s.input_format
                          << " out " << s.output_format << " fourth " << fourth << " LUT flags "
                          << LUTs << " shifts " << shifts << " n " << n << " start " << start;
        }
    }
    EXPECT_EQ(failures, 0u);
}

}  // namespace
}  // namespace kv
