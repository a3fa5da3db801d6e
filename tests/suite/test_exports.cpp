// The built library as a host finds it: exactly the nineteen exports, its run path, and the
// public header compiled as C.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tests/common/export_table.h"

extern "C" int kv_c_header_round_trip(void);

namespace {

const std::set<std::string> expected_exports = {"kv_color_append_matrix",
                                                "kv_color_clear_matrix",
                                                "kv_color_create_color_processor",
                                                "kv_color_create_color_processor_test",
                                                "kv_color_destroy_color_processor",
                                                "kv_color_enable_input_LUTs",
                                                "kv_color_enable_output_LUTs",
                                                "kv_color_get_blue_input_LUT",
                                                "kv_color_get_green_input_LUT",
                                                "kv_color_get_red_input_LUT",
                                                "kv_color_get_blue_output_LUT",
                                                "kv_color_get_green_output_LUT",
                                                "kv_color_get_red_output_LUT",
                                                "kv_color_processing_module_initialize",
                                                "kv_color_processing_module_terminate",
                                                "kv_color_transform_48_to_24",
                                                "kv_color_transform_48_to_32",
                                                "kv_color_transform_48_to_48",
                                                "kv_color_transform_48_to_64"};

#if defined(__linux__)

TEST(ExportTable, ExactlyTheNineteenFunctions) {
    EXPECT_EQ(kv::testing::read_module_file(KV_MAIN_LIBRARY_PATH).exports, expected_exports);
}

TEST(ExportTable, RunPathIsTheLibrarysOwnFolderAndNoModuleIsLinked) {
    const auto view = kv::testing::read_module_file(KV_MAIN_LIBRARY_PATH);
    EXPECT_EQ(view.runpath, std::vector<std::string>{"$ORIGIN"});
    EXPECT_TRUE(view.rpath.empty()) << "RPATH would come before LD_LIBRARY_PATH";
    for (const std::string& needed : view.needed) {
        EXPECT_EQ(needed.find("kelvane_qor"), std::string::npos) << needed;
    }
}

#endif

TEST(PublicHeader, UsableFromC) {
    EXPECT_EQ(kv_c_header_round_trip(), 0);
}

}  // namespace
