// One random public-API frame test, compiled into every program that runs the exports over a set
// of modules: the fake modules (every tier runs the scalar kernels), the real vector modules beside
// the library, and the deployed Windows host. Random processors (LUT depths, contents and flags,
// matrices with the arithmetic corners), exports, layouts, clamps, shifts and lengths; what the
// library stores must be what the reference model says, and nothing outside the frame changes.
// KV_REAL_VECTOR_MODULES makes a tier the machine lacks a skip (or, under KV_REQUIRE_TIERS, a
// failure) rather than a scalar run.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "tests/common/frames.h"
#include "tests/common/tiers.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

class PublicApiFrames : public ::testing::TestWithParam<int32_t> {
  protected:
    void SetUp() override {
#if KV_REAL_VECTOR_MODULES
        const char* names[] = {"sse", "avx2", "avx512"};
        if (GetParam() >= KV_TIER_SSE) KV_SKIP_MISSING_TIER(names[GetParam() - 1]);
#endif
        kv_journal_reset();
        ASSERT_EQ(kv_color_processing_module_initialize(), KV_STATUS_SUCCESS);
        initialized = true;
    }
    void TearDown() override {
        if (initialized) {
            EXPECT_EQ(kv_color_processing_module_terminate(), KV_STATUS_SUCCESS);
        }
    }
    bool initialized = false;
};

TEST_P(PublicApiFrames, MatchTheReferenceModel) {
    const int32_t tier = GetParam();
    const uint32_t seed = 20261123u + static_cast<uint32_t>(tier + 1);
    std::mt19937 random(seed);
    for (int round = 0; round < 64 && !HasFailure(); ++round) {
        const int32_t output_depth = static_cast<int32_t>(random() % 17);
        // Input tables need every entry: random pixels reach all of them.
        kv_color_processor_handle p = kv_color_create_color_processor_test(16, output_depth, tier);
        ASSERT_NE(p, nullptr);
        uint32_t* (*const getters[])(kv_color_processor_handle) = {
            kv_color_get_blue_input_LUT,   kv_color_get_green_input_LUT,
            kv_color_get_red_input_LUT,    kv_color_get_blue_output_LUT,
            kv_color_get_green_output_LUT, kv_color_get_red_output_LUT};
        for (int t = 0; t < 6; ++t) {
            uint32_t* table = getters[t](p);
            const uint32_t entries = 1u << (t < 3 ? 16 : output_depth);
            const bool smooth = random() % 2 == 0;
            for (uint32_t i = 0; i < entries; ++i) {
                table[i] = smooth ? (i * 3 / 4) | (static_cast<uint32_t>(random()) << 20)
                                  : static_cast<uint32_t>(random());
            }
        }
        uint8_t input_on[3], output_on[3];
        for (int c = 0; c < 3; ++c) {
            input_on[c] = random() % 3 == 0;
            output_on[c] = random() % 3 == 0;
        }
        // Any non-zero flag is on.
        ASSERT_EQ(kv_color_enable_input_LUTs(p, input_on[0], input_on[1] * 0x100, input_on[2]),
                  KV_STATUS_SUCCESS);
        ASSERT_EQ(kv_color_enable_output_LUTs(p, output_on[0] ? -1 : 0, output_on[1], output_on[2]),
                  KV_STATUS_SUCCESS);
        for (int appends = static_cast<int>(random() % 3); appends > 0; --appends) {
            float m[9];
            const bool corners = random() % 4 == 0;
            for (float& v : m) {
                v = corners ? kv::testing::random_matrix_value(random)
                            : std::uniform_real_distribution<float>(-0.5f, 1.5f)(random);
            }
            ASSERT_EQ(kv_color_append_matrix(p, m), KV_STATUS_SUCCESS);
        }

        const transform_export e = all_exports[round % 4];
        const int32_t pixels =
            static_cast<int32_t>(round % 5 == 0 ? random() % 5000 : random() % 200);
        frame_buffers buffers(e, pixels, static_cast<uint32_t>(random()));
        frame_arguments a;
        a.handle = p;
        a.input = buffers.input();
        a.input_format = static_cast<int32_t>(random() % 4) - 1;
        a.output = buffers.output();
        a.output_format = static_cast<int32_t>(random() % 4) - 1;
        a.pixel_count = pixels;
        const uint32_t limit = (1u << output_depth) - 1;
        for (int c = 0; c < 3; ++c) {
            uint16_t x = static_cast<uint16_t>(random()), y = static_cast<uint16_t>(random());
            if (output_on[c]) x %= limit + 1, y %= limit + 1;
            a.minimum[c] = std::min(x, y);
            a.maximum[c] = std::max(x, y);
            a.shift[c] = static_cast<int32_t>(random() % 31) - 15;
        }
        SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round) + ", " +
                     name_of(e) + ", " + std::to_string(pixels) + " pixels, formats " +
                     std::to_string(a.input_format) + " -> " + std::to_string(a.output_format));
        const std::vector<uint8_t> before = buffers.output_copy();
        ASSERT_EQ(run_transform(e, a), KV_STATUS_SUCCESS);
        EXPECT_EQ(buffers.output_copy(), expected_output(e, a, input_on, output_on, before, 0));
        EXPECT_TRUE(buffers.guards_intact());
        ASSERT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
    }
}

// -1 stands for the tiers below scalar a test creator may be given.
#if KV_REAL_VECTOR_MODULES
const int32_t tiers_under_test[] = {KV_TIER_SCALAR, KV_TIER_SSE, KV_TIER_AVX2, KV_TIER_AVX512};
#else
const int32_t tiers_under_test[] = {-1, KV_TIER_SCALAR, KV_TIER_SSE, KV_TIER_AVX2, KV_TIER_AVX512};
#endif

std::string tier_name(const ::testing::TestParamInfo<int32_t>& info) {
    static const char* const names[] = {"below_scalar", "scalar", "sse", "avx2", "avx512"};
    return names[info.param + 1];
}

INSTANTIATE_TEST_SUITE_P(Tiers, PublicApiFrames, ::testing::ValuesIn(tiers_under_test), tier_name);

}  // namespace
}  // namespace kv_test
