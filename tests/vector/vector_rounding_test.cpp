// The vector modules' rounding against the rule, for every float sum that can land in [0, 65535]:
// each binade of non-negative floats below 2^16 (and the subnormals) is one frame whose red sums
// R * u + G * 65536u are exactly the binade's 2^23 floats (u the binade's spacing, G the high
// mantissa bits, R the low 16). What each module stores must be cvttsd2si(double(sum) + 0.5)
// clamped to [0, 65535], the scalar rule. Negative sums, sums past 2^16, infinities and NaN clamp
// or fold on both sides alike; the worked pixel cases check those.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "tests/vector/vector_test_support.h"

namespace kv {
namespace testing {
namespace {

class EveryFloat : public tier_test {};

TEST_P(EveryFloat, RoundsLikeTheScalarRuleBelow65536) {
    constexpr int32_t n = 1 << 23;
    // Planes: blue (zeros), green (the high bits), red (the low 16 bits).
    std::vector<uint16_t> input(3 * static_cast<size_t>(n), 0);
    for (int32_t i = 0; i < n; ++i) {
        input[n + i] = static_cast<uint16_t>(i >> 16);
        input[2 * static_cast<size_t>(n) + i] = static_cast<uint16_t>(i & 0xFFFF);
    }
    std::vector<uint16_t> output(3 * static_cast<size_t>(n));
    uint64_t differing = 0;
    // Exponent -149 stands for the subnormals (mantissas below 2^23 at spacing 2^-149); from
    // -126 on, a binade's mantissas run from 2^23 to 2^24 - 1 at spacing 2^(e - 23).
    for (int e = -127; e <= 15 && differing == 0; ++e) {
        const bool subnormal = e == -127;
        const float spacing = std::ldexp(1.0f, subnormal ? -149 : e - 23);
        const uint32_t top = subnormal ? 0 : 1u << 23;  // the implicit bit, through G
        frame_settings s;
        s.input_format = s.output_format = FORMAT_BGR_PLANES;
        const float matrix[9] = {spacing, 65536 * spacing, 0, 0, 0, 0, 0, 0, 0};
        std::memcpy(s.matrix, matrix, sizeof matrix);
        // G carries the mantissa's high bits, so the implicit bit goes in through the input.
        if (!subnormal) {
            for (int32_t i = 0; i < n; ++i) input[n + i] = static_cast<uint16_t>((i | top) >> 16);
        }
        color_correction_head head;
        std::memcpy(head.matrix, s.matrix, sizeof head.matrix);
        const transform_request r = make_request(s, input.data(), n, output.data(), &head);
        ASSERT_EQ(module().transform(16, r), n) << "exponent " << e;
        const uint16_t* red = output.data() + 2 * static_cast<size_t>(n);
        for (int32_t i = 0; i < n; ++i) {
            const float sum = static_cast<float>(static_cast<uint32_t>(i) | top) * spacing;
            const double rounded = std::trunc(static_cast<double>(sum) + 0.5);
            const uint16_t expected = rounded > 65535 ? 65535 : static_cast<uint16_t>(rounded);
            if (red[i] != expected && differing++ == 0) {
                ADD_FAILURE() << module().suffix << ": sum " << sum << " (exponent " << e
                              << ") stored " << red[i] << ", the rule gives " << expected;
            }
        }
    }
    EXPECT_EQ(differing, 0u);
}

KV_INSTANTIATE_FOR_TIERS(EveryFloat);

}  // namespace
}  // namespace testing
}  // namespace kv
