// The platform layer as the library uses it: source base names and module loading by base name.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/module_loader.h"
#include "platform/source_name.h"
#include "tests/suite/test_support.h"

#if !defined(_WIN32)
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace kv_test {
namespace {

// Paths as the compilers give them: backslashes from MSVC, slashes from GCC and Clang, both
// from a MinGW build given a relative path; and the base name of each.
const char* const base_name_cases[][2] = {
    {"C:\\src\\kelvane_qor_color_processing_suite\\color_correction.cpp", "color_correction.cpp"},
    {"\\\\server\\share\\kelvane_qor_color_processing.cpp", "kelvane_qor_color_processing.cpp"},
    {"/work/kelvane_qor_color_processing_suite/color_correction.cpp", "color_correction.cpp"},
    {"..\\..\\kelvane_qor_color_processing_suite/color_correction.cpp", "color_correction.cpp"},
    {"../suite\\kelvane_qor_color_processing.cpp", "kelvane_qor_color_processing.cpp"},
    {"color_correction.cpp", "color_correction.cpp"},
    {"C:color_correction.cpp", "C:color_correction.cpp"},
    {"folder\\", ""},
    {"", ""},
};

TEST(UnitPlatform, SourceBaseNameIsTheTextAfterTheLastSeparator) {
    for (const auto& c : base_name_cases) {
        EXPECT_STREQ(kv::platform::source_base_name(c[0]), c[1]) << c[0];
    }
    // The result points into the path itself: log calls pass it without a copy.
    const char* path = "a\\b\\c.cpp";
    EXPECT_EQ(kv::platform::source_base_name(path), path + 4);
    static_assert(kv::platform::source_base_name("x\\y.cpp")[0] == 'y', "usable at compile time");
}

class UnitPlatformLoader : public library_test {};

TEST_F(UnitPlatformLoader, LoadsByBaseNameAndReleases) {
    const char* base = "kelvane_qor_color_processing_vector_sse";
    kv::platform::module_handle module = kv::platform::load_module(base);
    ASSERT_NE(module, nullptr) << base << kv::platform::module_suffix;
    EXPECT_TRUE(kv::platform::module_is_loaded(base));
    kv::platform::release_module(module);
    EXPECT_FALSE(kv::platform::module_is_loaded(base));
    EXPECT_EQ(sequence({"sse"}), (std::vector<std::string>{"sse.load", "sse.unload"}));
    // The suffix is the loader's to add, once: a name that carries one is not found.
    for (const char* missing :
         {"kelvane_qor_no_such_module", "kelvane_qor_LUT.dll", "kelvane_qor_LUT.so"}) {
        EXPECT_EQ(kv::platform::load_module(missing), nullptr) << missing;
        EXPECT_FALSE(kv::platform::module_is_loaded(missing)) << missing;
    }
}

#if !defined(_WIN32)
// The search the loader walks itself: LD_LIBRARY_PATH folder by folder, passing over what ld.so
// passes over (nothing there, a FIFO, an ELF object of another class), stopping at the first file
// that could be a module for this machine even when it then fails to load.
TEST_F(UnitPlatformLoader, SearchPassesOverWhatTheDynamicLoaderPassesOver) {
    namespace fs = std::filesystem;
    const char* base = "kv_search_probe";
    const fs::path root = fs::temp_directory_path() / ("kv_search_" + std::to_string(getpid()));
    fs::remove_all(root);
    for (const char* folder : {"other", "fifo", "broken", "good"}) {
        fs::create_directories(root / folder);
    }
    kv::platform::module_handle real = kv::platform::load_module("kelvane_qor_LUT");
    ASSERT_NE(real, nullptr);
    const std::string real_path = kv::platform::module_path(real);
    kv::platform::release_module(real);
    const std::string file = std::string(base) + kv::platform::module_suffix;
    fs::copy_file(real_path, root / "good" / file);
    fs::copy_file(real_path, root / "other" / file);
    {
        std::fstream other(root / "other" / file, std::ios::in | std::ios::out | std::ios::binary);
        other.seekp(4);  // EI_CLASS
        other.put(1);    // ELFCLASS32
    }
    std::ofstream(root / "broken" / file) << "not a module";
    ASSERT_EQ(mkfifo((root / "fifo" / file).c_str(), 0600), 0);

    // LD_LIBRARY_PATH, an empty entry in the last, and whether the search ends in "good".
    const std::string r = root.string() + "/";
    const struct {
        std::string value;
        bool found_in_good;
    } cases[] = {
        {r + "missing:" + r + "fifo:" + r + "other:" + r + "good", true},
        {r + "other:" + r + "broken:" + r + "good", false},
        {r + "missing::" + r + "fifo", false},
    };
    const char* saved = std::getenv("LD_LIBRARY_PATH");
    const std::string saved_value = saved != nullptr ? saved : "";
    for (const auto& c : cases) {
        const std::string& value = c.value;
        setenv("LD_LIBRARY_PATH", value.c_str(), 1);
        kv::platform::module_handle module = kv::platform::load_module(base);
        EXPECT_EQ(module != nullptr, c.found_in_good) << value;
        if (module != nullptr) {
            EXPECT_EQ(fs::path(kv::platform::module_path(module)), root / "good" / file);
            kv::platform::release_module(module);
        } else {
            EXPECT_NE(kv::platform::last_error(), "") << value;
        }
    }
    setenv("LD_LIBRARY_PATH", saved_value.c_str(), 1);
    fs::remove_all(root);
}
#endif

}  // namespace
}  // namespace kv_test
