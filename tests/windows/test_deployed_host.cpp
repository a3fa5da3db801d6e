// A host deployed as on a customer's machine: the program, the library and the five companion
// modules in one folder, a logger configuration beside them, and decoy copies of the modules on
// PATH. Windows searches the program's folder first, so every module must come from there. Random
// frames through every tier: tests/common/public_api_frames.cpp.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/module_loader.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

using namespace kv::platform;

// The library and the companion modules the build deployed (the vector modules once they exist),
// all loaded by the time a processor stands.
const char* const deployed_modules[] = {
    "kelvane_qor_color_processing",
    "kelvane_qor_LUT",
    "kelvane_qor_logger",
    "kelvane_qor_color_processing_vector_sse",
    "kelvane_qor_color_processing_vector_avx2",
    "kelvane_qor_color_processing_vector_avx512",
};
constexpr size_t deployed_count = 3 + KV_DEPLOYED_VECTOR_MODULES;

// The log file that kelvane_qor_logger.cfg beside the modules names.
std::string log_text() {
    std::ifstream in(calling_module_directory() + "kelvane_qor.log", std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

size_t count_of(const std::string& text, const std::string& fragment) {
    size_t count = 0;
    for (size_t at = text.find(fragment); at != std::string::npos;
         at = text.find(fragment, at + 1)) {
        ++count;
    }
    return count;
}

class DeployedHost : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(kv_color_processing_module_initialize(), 0); }
    void TearDown() override { EXPECT_EQ(kv_color_processing_module_terminate(), 0); }
};

TEST_F(DeployedHost, EveryModuleComesFromTheProgramsFolder) {
    kv_color_processor_handle p = kv_color_create_color_processor(8, 8);
    ASSERT_NE(p, nullptr);
    for (size_t i = 0; i < deployed_count; ++i) {
        const char* base = deployed_modules[i];
        ASSERT_TRUE(module_is_loaded(base)) << base << " is not loaded";
        // Loading a module of a name already loaded gives that module.
        const module_handle module = load_module(base);
        const std::string path = module_path(module);
        release_module(module);
        EXPECT_EQ(path.substr(0, path.find_last_of('\\') + 1), calling_module_directory()) << base;
    }
    EXPECT_EQ(kv_color_destroy_color_processor(p), 0);
}

TEST_F(DeployedHost, TheLoggerWritesWhereItsConfigurationSays) {
    const size_t lines_before = count_of(log_text(), "microseconds.");
    kv_color_processor_handle p = kv_color_create_color_processor(0, 0);
    ASSERT_NE(p, nullptr);
    uint16_t input[3] = {1, 2, 3};
    uint8_t output[3] = {};
    ASSERT_EQ(kv_color_transform_48_to_24(p, input, KV_FORMAT_BGR_INTERLEAVED, 0, 255, 0, 255, 0,
                                          255, 0, 0, 0, output, KV_FORMAT_BGR_INTERLEAVED, 1),
              0);
    EXPECT_EQ(kv_color_clear_matrix(nullptr), KV_STATUS_NULL_HANDLE);
    EXPECT_EQ(kv_color_destroy_color_processor(p), 0);
    const std::string log = log_text();
    EXPECT_EQ(count_of(log, "microseconds."), lines_before + 1) << log;
    EXPECT_NE(log.find("Creating a color processor instance!"), std::string::npos);
    EXPECT_NE(log.find("kelvane_qor_color_processing.cpp:"), std::string::npos)
        << "log lines name the source file by its base name";
    EXPECT_NE(
        log.find("kv_color_clear_matrix: ERROR:  The specified color processor handle is NULL!"),
        std::string::npos);
}

// A host that ends without terminate: the library's at-exit function closes the log while the
// process goes down, after Windows has already detached the logging module, which was loaded
// after the library.
[[noreturn]] void initialize_transform_and_exit() {
    if (kv_color_processing_module_initialize() != 0) std::exit(1);
    kv_color_processor_handle p = kv_color_create_color_processor(0, 0);
    uint16_t input[3] = {1, 2, 3};
    uint16_t output[3] = {};
    if (kv_color_transform_48_to_48(p, input, KV_FORMAT_BGR_INTERLEAVED, 0, 65535, 0, 65535, 0,
                                    65535, 0, 0, 0, output, KV_FORMAT_BGR_INTERLEAVED, 1) != 0) {
        std::exit(2);
    }
    std::exit(0);
}

TEST(DeployedHostExit, EndingWithoutTerminateIsClean) {
    const size_t lines_before = count_of(log_text(), "microseconds.");
    EXPECT_EXIT(initialize_transform_and_exit(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(count_of(log_text(), "microseconds."), lines_before + 1)
        << "the timing line of the process that ended";
}

}  // namespace
}  // namespace kv_test
