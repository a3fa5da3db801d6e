// The public exports with the real vector modules beside the library: each tier's module is found
// by name through the search path. Random frames through every tier:
// tests/common/public_api_frames.cpp.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#if defined(_WIN32)
#include "platform/windows_api.h"
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

INSTANTIATE_TEST_SUITE_P(Tiers, RealVectorModules, ::testing::ValuesIn(tiers),
                         [](const ::testing::TestParamInfo<tier_case>& info) {
                             return std::string(info.param.suffix);
                         });

}  // namespace
}  // namespace kv_test
