// The platform layer as the library uses it: source base names, the counter, the processor's own
// answers to cpuid and xgetbv, and module loading by base name.
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/counter.h"
#include "platform/cpu_identification.h"
#include "platform/module_loader.h"
#include "platform/source_name.h"
#include "tests/suite/test_support.h"

#if !defined(_WIN32)
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace kv_test {
namespace {

struct base_name_case {
    const char* path;
    const char* base;
};

// Paths as the compilers give them: backslashes from MSVC, slashes from GCC and Clang, both
// from a MinGW build given a relative path.
const base_name_case base_name_cases[] = {
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
    for (const base_name_case& c : base_name_cases) {
        EXPECT_STREQ(kv::platform::source_base_name(c.path), c.base) << c.path;
    }
    // The result points into the path itself: log calls pass it without a copy.
    const char* path = "a\\b\\c.cpp";
    EXPECT_EQ(kv::platform::source_base_name(path), path + 4);
    static_assert(kv::platform::source_base_name("x\\y.cpp")[0] == 'y', "usable at compile time");
}

TEST(UnitPlatform, CounterHasAFrequencyAndNeverRunsBackwards) {
    int64_t frequency = 0;
    ASSERT_TRUE(kv::platform::query_counter_frequency(&frequency));
    EXPECT_GT(frequency, 0);
    int64_t again = 0;
    ASSERT_TRUE(kv::platform::query_counter_frequency(&again));
    EXPECT_EQ(again, frequency) << "the frequency is fixed while the system runs";

    int64_t first = 0;
    ASSERT_TRUE(kv::platform::query_counter(&first));
    EXPECT_GT(first, 0);
    int64_t previous = first;
    int64_t reads = 0;
    // Reads until the count moves; a counter that never moves would time every transform as 0.
    for (; previous == first && reads < 100000000; ++reads) {
        int64_t now = 0;
        ASSERT_TRUE(kv::platform::query_counter(&now));
        ASSERT_GE(now, previous);
        previous = now;
    }
    EXPECT_GT(previous, first) << "the counter did not move in " << reads << " reads";
}

TEST(UnitPlatform, ProcessorIdentificationReadsTheRunningProcessor) {
    using kv::platform::bit;
    const kv::platform::cpuid_registers leaf0 = kv::platform::cpuid(0, 0);
    // The vendor text stands in EBX, EDX, ECX: twelve printable characters when the registers
    // come back in their places.
    char vendor[13] = {};
    std::memcpy(vendor, &leaf0.ebx, 4);
    std::memcpy(vendor + 4, &leaf0.edx, 4);
    std::memcpy(vendor + 8, &leaf0.ecx, 4);
    for (int i = 0; i < 12; ++i) {
        EXPECT_TRUE(std::isprint(static_cast<unsigned char>(vendor[i]))) << vendor;
    }
    ASSERT_GE(leaf0.eax, 1u);
    RecordProperty("vendor", vendor);

    // Every x86-64 processor has SSE and SSE2.
    const kv::platform::cpuid_registers leaf1 = kv::platform::cpuid(1, 0);
    EXPECT_TRUE(bit(leaf1.edx, 25));
    EXPECT_TRUE(bit(leaf1.edx, 26));

    // The sub-leaf reaches the instruction: leaf 0xB gives it back in the low byte of ECX.
    if (leaf0.eax >= 0xB && kv::platform::cpuid(0xB, 0).ebx != 0) {
        for (uint32_t subleaf : {0u, 1u}) {
            EXPECT_EQ(kv::platform::cpuid(0xB, subleaf).ecx & 0xFFu, subleaf);
        }
    }

    // A 64-bit system that offers xgetbv has the x87 and SSE state enabled.
    if (bit(leaf1.ecx, 27)) {
        EXPECT_EQ(kv::platform::xgetbv0() & 0x3u, 0x3u);
    }
}

class UnitPlatformLoader : public library_test {};

TEST_F(UnitPlatformLoader, LoadsByBaseNameAndReleases) {
    const char* base = "kelvane_qor_color_processing_vector_sse";
    ASSERT_FALSE(kv::platform::module_is_loaded(base));
    kv::platform::module_handle module = kv::platform::load_module(base);
    ASSERT_NE(module, nullptr) << base << kv::platform::module_suffix;
    EXPECT_TRUE(kv::platform::module_is_loaded(base));
    EXPECT_EQ(kv_journal_count("sse", "load"), 1u);
    EXPECT_NE(
        kv::platform::module_symbol(module, "kv_color_processing_vector_sse_module_initialize"),
        nullptr);
    EXPECT_EQ(
        kv::platform::module_symbol(module, "kv_color_processing_vector_avx2_module_initialize"),
        nullptr);
    kv::platform::release_module(module);
    EXPECT_FALSE(kv::platform::module_is_loaded(base));
    EXPECT_EQ(kv_journal_count("sse", "unload"), 1u);
}

TEST_F(UnitPlatformLoader, MissingModulesAreNull) {
    // The suffix is the loader's to add, once: a name that carries one is not found.
    for (const char* base :
         {"kelvane_qor_no_such_module", "kelvane_qor_LUT.dll", "kelvane_qor_LUT.so"}) {
        EXPECT_EQ(kv::platform::load_module(base), nullptr) << base;
        EXPECT_FALSE(kv::platform::module_is_loaded(base)) << base;
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

    struct search_case {
        std::string path;  // LD_LIBRARY_PATH, folders of `root`
        bool found_in_good;
    } const cases[] = {
        {"missing:fifo:other:good", true},
        {"other:broken:good", false},
        {"missing::fifo", false},
    };
    const char* saved = std::getenv("LD_LIBRARY_PATH");
    const std::string saved_value = saved != nullptr ? saved : "";
    for (const search_case& c : cases) {
        std::string value;
        for (std::size_t start = 0; start <= c.path.size();) {
            std::size_t end = c.path.find(':', start);
            end = end == std::string::npos ? c.path.size() : end;
            const std::string folder = c.path.substr(start, end - start);
            value += (start == 0 ? "" : ":") + (folder.empty() ? "" : (root / folder).string());
            start = end + 1;
        }
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
