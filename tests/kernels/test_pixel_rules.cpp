// The worked pixel cases (tests/common/pixel_cases.h) through the reference model and the scalar
// kernels: both must store exactly the expected elements and nothing past the pixel.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>

#include "kernels/dispatch.h"
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

}  // namespace
}  // namespace kv
