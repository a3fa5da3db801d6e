// The modules as the library meets them: exactly four exports each (read from the ELF or PE
// file), an initialize that accepts on a processor with the module's set, and a module that keeps
// working across several initialize/terminate pairs, as one module serves many processors.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tests/common/export_table.h"
#include "tests/vector/vector_test_support.h"

namespace kv {
namespace testing {
namespace {

class ModuleInterface : public ::testing::TestWithParam<tier_index> {};

// Checked on every machine: the export list does not depend on the processor.
TEST_P(ModuleInterface, ExportsExactlyItsFourNames) {
#if defined(_WIN32)
    const char* extension = ".dll";
#else
    const char* extension = ".so";
#endif
    const std::string suffix = module_for(GetParam()).suffix;
    const std::string path = std::string(KV_VECTOR_MODULE_DIRECTORY) +
                             "/kelvane_qor_color_processing_vector_" + suffix + extension;
    const std::set<std::string> expected = {
        "kv_color_processing_vector_" + suffix + "_module_initialize",
        "kv_color_processing_transform_8_bit_output_vector_" + suffix,
        "kv_color_processing_transform_16_bit_output_vector_" + suffix,
        "kv_color_processing_vector_" + suffix + "_module_terminate",
    };
    EXPECT_EQ(read_module_file(path).exports, expected) << path;
}

class ModuleLifecycle : public tier_test {};

// One processor's terminate must not spoil the module for another processor still using it.
TEST_P(ModuleLifecycle, WorksAcrossRepeatedInitializeAndTerminate) {
    const vector_module& m = module();
    std::mt19937 rng(31);
    frame_settings s = random_settings(12345, rng);
    const frame f(s, random_input(1000, rng), 12);
    const std::vector<uint8_t> expected = f.run_reference();
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(m.initialize(), 0);
        EXPECT_EQ(m.initialize(), 0);
        m.terminate();
        EXPECT_EQ(f.run_routed(m), expected) << "round " << round;
    }
}

INSTANTIATE_TEST_SUITE_P(Tiers, ModuleInterface, ::testing::Values(SSE, AVX2, AVX512), tier_name);
KV_INSTANTIATE_FOR_TIERS(ModuleLifecycle);

}  // namespace
}  // namespace testing
}  // namespace kv
