// The worked pixel cases (tests/common/pixel_cases.h) through the reference model and the scalar
// kernels: both must store exactly the expected elements and nothing past the pixel.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <limits>

#include "kernels/dispatch.h"
#include "kernels/pixel_pipeline.h"
#include "tests/common/pixel_cases.h"
#include "tests/common/reference_model.h"

namespace kv {
namespace {

using testing::pixel_case;

class PixelRules : public ::testing::TestWithParam<pixel_case> {};

TEST_P(PixelRules, ModelAndKernelsStoreTheWorkedValues) {
    const pixel_case& c = GetParam();
    testing::case_tables tables;
    const testing::frame_settings s = tables.settings(c);
    color_correction_head matrix{};
    std::memcpy(matrix.matrix, c.matrix, sizeof matrix.matrix);
    for (const bool through_kernels : {false, true}) {
        uint16_t out16[5] = {0xEEEE, 0xEEEE, 0xEEEE, 0xEEEE, 0xEEEE};
        uint8_t out8[5] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
        void* out = c.width == 16 ? static_cast<void*>(out16) : out8;
        const transform_request r = testing::make_request(s, c.element, 1, out, &matrix);
        if (!through_kernels) {
            reference::run_request(r, c.width, 0);
        } else if (c.width == 8) {
            dispatch_kernel_8(&r, 0);
        } else {
            dispatch_kernel_16(&r, 0);
        }
        const auto stored = [&](int e) { return c.width == 16 ? uint32_t{out16[e]} : out8[e]; };
        const uint32_t sentinel = c.width == 16 ? 0xEEEE : 0xEE;
        const char* path = through_kernels ? "kernels" : "reference model";
        for (int e = 0; e < 3; ++e)
            EXPECT_EQ(stored(e), c.expected[e]) << path << ", element " << e;
        EXPECT_EQ(stored(3), c.fourth ? 0u : sentinel) << path << ", the fourth element";
        EXPECT_EQ(stored(4), sentinel) << path << " wrote past the pixel";
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, PixelRules, ::testing::ValuesIn(testing::pixel_cases()),
                         [](const ::testing::TestParamInfo<pixel_case>& info) {
                             std::string name;
                             for (char ch : info.param.name)
                                 name += std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
                             return name + "_" + std::to_string(info.index);
                         });

TEST(RoundingStep, ValuesBeforeTheClamp) {
    const float inf = std::numeric_limits<float>::infinity();
    struct {
        float sum;
        int32_t rounded;
    } const rows[] = {
        {0.5f, 1},
        {-1.7f, -1},
        {-0.4f, 0},
        {0.49999997f, 0},
        {2147483520.0f, 2147483520},
        {2147483648.0f, INT32_MIN},
        {-2147483648.0f, -2147483647},
        {-3.0e9f, INT32_MIN},
        {inf, INT32_MIN},
        {-inf, INT32_MIN},
        {std::numeric_limits<float>::quiet_NaN(), INT32_MIN},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(reference::round_to_int32(row.sum), row.rounded) << row.sum;
        EXPECT_EQ(round_sum(row.sum), row.rounded) << row.sum;
    }
}

}  // namespace
}  // namespace kv
