// The public exports with the real vector modules beside the library: each tier's module is found
// by name through the search path. Random frames through every tier:
// tests/common/public_api_frames.cpp.
#include <gtest/gtest.h>

#include <string>

#include "platform/module_loader.h"
#include "tests/common/tiers.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

const char* const suffixes[] = {"scalar", "sse", "avx2", "avx512"};  // by tier

class RealVectorModules : public ::testing::TestWithParam<int32_t> {};

// The library found the real module by its name through the search path.
TEST_P(RealVectorModules, ModuleIsLoadedWithTheProcessor) {
    const std::string suffix = suffixes[GetParam()];
    KV_SKIP_MISSING_TIER(suffix);
    ASSERT_EQ(kv_color_processing_module_initialize(), KV_STATUS_SUCCESS);
    kv_color_processor_handle p = kv_color_create_color_processor_test(16, 16, GetParam());
    ASSERT_NE(p, nullptr);
    const std::string file = "kelvane_qor_color_processing_vector_" + suffix;
    EXPECT_TRUE(kv::platform::module_is_loaded(file.c_str())) << file << " is not loaded";
    EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
    EXPECT_EQ(kv_color_processing_module_terminate(), KV_STATUS_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Tiers, RealVectorModules,
                         ::testing::Values(KV_TIER_SSE, KV_TIER_AVX2, KV_TIER_AVX512),
                         [](const ::testing::TestParamInfo<int32_t>& info) {
                             return std::string(suffixes[info.param]);
                         });

}  // namespace
}  // namespace kv_test
