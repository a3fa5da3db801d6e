// The public exports end to end with the real vector modules beside the library: a processor
// forced to each tier stores exactly what a scalar-only processor with the same settings stores,
// and what the reference model says, for all four exports, every layout and random settings.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include "tests/common/tiers.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

struct tier_case {
    int32_t tier;
    const char* suffix;
    kv::vector::instruction_set set;
};

const tier_case tiers[] = {{KV_TIER_SSE, "sse", kv::vector::instruction_set::sse41},
                           {KV_TIER_AVX2, "avx2", kv::vector::instruction_set::avx2},
                           {KV_TIER_AVX512, "avx512", kv::vector::instruction_set::avx512}};

class RealVectorModules : public ::testing::TestWithParam<tier_case> {
  protected:
    void SetUp() override {
        KV_SKIP_MISSING_TIER(GetParam().suffix);
        ASSERT_EQ(kv_color_processing_module_initialize(), KV_STATUS_SUCCESS);
    }
    void TearDown() override {
        if (!IsSkipped()) {
            EXPECT_EQ(kv_color_processing_module_terminate(), KV_STATUS_SUCCESS);
        }
    }
};

// The library found the real module by its name through the search path.
TEST_P(RealVectorModules, ModuleIsLoadedWithTheProcessor) {
    kv_color_processor_handle p = kv_color_create_color_processor_test(16, 16, GetParam().tier);
    ASSERT_NE(p, nullptr);
    const std::string file =
        std::string("kelvane_qor_color_processing_vector_") + GetParam().suffix;
#if defined(_WIN32)
    EXPECT_NE(GetModuleHandleA((file + ".dll").c_str()), nullptr) << file << " is not loaded";
#else
    void* handle = dlopen((file + ".so").c_str(), RTLD_NOW | RTLD_NOLOAD);
    EXPECT_NE(handle, nullptr) << file << " is not loaded";
    if (handle != nullptr) dlclose(handle);
#endif
    EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
}

// Two processors with identical settings, one of the tier under test and one scalar only.
struct processor_pair {
    kv_color_processor_handle vector = nullptr, scalar = nullptr;
    uint8_t input_on[3] = {0, 0, 0}, output_on[3] = {0, 0, 0};

    processor_pair(int32_t tier, int32_t output_depth, std::mt19937& random) {
        vector = kv_color_create_color_processor_test(16, output_depth, tier);
        scalar = kv_color_create_color_processor_test(16, output_depth, KV_TIER_SCALAR);
        uint32_t* (*const getters[])(kv_color_processor_handle) = {
            kv_color_get_blue_input_LUT,   kv_color_get_green_input_LUT,
            kv_color_get_red_input_LUT,    kv_color_get_blue_output_LUT,
            kv_color_get_green_output_LUT, kv_color_get_red_output_LUT};
        for (int t = 0; t < 6; ++t) {
            const uint32_t entries = 1u << (t < 3 ? 16 : output_depth);
            uint32_t* a = getters[t](vector);
            uint32_t* b = getters[t](scalar);
            const bool smooth = random() % 2 == 0;
            for (uint32_t i = 0; i < entries; ++i) {
                a[i] = b[i] = smooth ? (i * 3 / 4) | (static_cast<uint32_t>(random()) << 20)
                                     : static_cast<uint32_t>(random());
            }
        }
        for (int c = 0; c < 3; ++c) {
            input_on[c] = static_cast<uint8_t>(random() % 3 == 0);
            output_on[c] = static_cast<uint8_t>(random() % 3 == 0);
        }
        std::uniform_real_distribution<float> coefficient(-0.5f, 1.5f);
        float m[9];
        for (float& v : m) v = coefficient(random);
        for (kv_color_processor_handle p : {vector, scalar}) {
            kv_color_enable_input_LUTs(p, input_on[0], input_on[1], input_on[2]);
            kv_color_enable_output_LUTs(p, output_on[0], output_on[1], output_on[2]);
            kv_color_append_matrix(p, m);
        }
    }
    ~processor_pair() {
        kv_color_destroy_color_processor(vector);
        kv_color_destroy_color_processor(scalar);
    }
};

TEST_P(RealVectorModules, EveryExportMatchesTheScalarPathAndTheReference) {
    std::mt19937 random(20241121u + static_cast<uint32_t>(GetParam().tier));
    for (int round = 0; round < 160; ++round) {
        const int32_t output_depth = 8 + static_cast<int32_t>(random() % 9);
        processor_pair pair(GetParam().tier, output_depth, random);
        ASSERT_NE(pair.vector, nullptr);
        ASSERT_NE(pair.scalar, nullptr);

        const transform_export e = all_exports[round % 4];
        const int32_t pixels = round % 5 == 0 ? static_cast<int32_t>(random() % 5000)
                                              : static_cast<int32_t>(random() % 200);
        const uint32_t seed = static_cast<uint32_t>(random());
        frame_buffers on_vector(e, pixels, seed), on_scalar(e, pixels, seed);
        frame_arguments a;
        a.input_format = static_cast<int32_t>(random() % 4) - 1;
        a.output_format = static_cast<int32_t>(random() % 4) - 1;
        a.pixel_count = pixels;
        const uint16_t limit = static_cast<uint16_t>((1u << output_depth) - 1);
        for (int c = 0; c < 3; ++c) {
            uint16_t x = static_cast<uint16_t>(random()), y = static_cast<uint16_t>(random());
            if (pair.output_on[c]) x %= limit + 1, y %= limit + 1;
            a.minimum[c] = std::min(x, y);
            a.maximum[c] = std::max(x, y);
            a.shift[c] = static_cast<int32_t>(random() % 31) - 15;
        }
        SCOPED_TRACE("round " + std::to_string(round) + ", " + name_of(e) + ", " +
                     std::to_string(pixels) + " pixels, formats " + std::to_string(a.input_format) +
                     " -> " + std::to_string(a.output_format));

        const std::vector<uint8_t> before = on_vector.output_copy();
        a.handle = pair.vector;
        a.input = on_vector.input();
        a.output = on_vector.output();
        ASSERT_EQ(run_transform(e, a), KV_STATUS_SUCCESS);
        a.handle = pair.scalar;
        a.input = on_scalar.input();
        a.output = on_scalar.output();
        ASSERT_EQ(run_transform(e, a), KV_STATUS_SUCCESS);

        EXPECT_EQ(on_vector.output_copy(), on_scalar.output_copy());
        EXPECT_EQ(on_vector.output_copy(),
                  expected_output(e, a, pair.input_on, pair.output_on, before, 0));
        EXPECT_TRUE(on_vector.guards_intact());
        if (HasFailure()) break;
    }
}

INSTANTIATE_TEST_SUITE_P(Tiers, RealVectorModules, ::testing::ValuesIn(tiers),
                         [](const ::testing::TestParamInfo<tier_case>& info) {
                             return std::string(info.param.suffix);
                         });

}  // namespace
}  // namespace kv_test
