// The modules as the library meets them: exactly four exports each (read from the ELF or PE
// file), an initialize that accepts on a processor with the module's set, and a module that keeps
// working across several initialize/terminate pairs, as one module serves many processors.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "tests/vector/vector_test_support.h"

namespace kv {
namespace testing {
namespace {

template <typename T>
T read_at(const std::string& image, size_t offset) {
    T value{};
    if (offset + sizeof(T) <= image.size()) std::memcpy(&value, image.data() + offset, sizeof(T));
    return value;
}

// The defined, global dynamic symbols of a 64-bit ELF shared object (offsets of the ELF64
// header, section header and symbol records; the .dynsym section has type 11).
std::set<std::string> elf_exports(const std::string& image) {
    std::set<std::string> names;
    const uint64_t section_table = read_at<uint64_t>(image, 0x28);
    const uint16_t section_count = read_at<uint16_t>(image, 0x3C);
    for (uint16_t i = 0; i < section_count; ++i) {
        const size_t section = section_table + 64u * i;
        if (read_at<uint32_t>(image, section + 4) != 11) continue;
        const uint64_t symbols = read_at<uint64_t>(image, section + 24);
        const uint64_t size = read_at<uint64_t>(image, section + 32);
        const uint32_t link = read_at<uint32_t>(image, section + 40);
        const uint64_t strings = read_at<uint64_t>(image, section_table + 64u * link + 24);
        for (uint64_t symbol = symbols; symbol + 24 <= symbols + size; symbol += 24) {
            const uint32_t name = read_at<uint32_t>(image, symbol);
            const uint8_t binding = read_at<uint8_t>(image, symbol + 4) >> 4;
            const uint16_t section_index = read_at<uint16_t>(image, symbol + 6);
            if (name == 0 || binding == 0 || section_index == 0) continue;  // local or undefined
            if (strings + name < image.size()) names.insert(image.c_str() + strings + name);
        }
    }
    return names;
}

// The names in the export directory of a 64-bit PE file (a DLL).
std::set<std::string> pe_exports(const std::string& image) {
    std::set<std::string> names;
    const uint32_t pe = read_at<uint32_t>(image, 0x3C);
    const uint16_t section_count = read_at<uint16_t>(image, pe + 6);
    const uint16_t optional_size = read_at<uint16_t>(image, pe + 20);
    const size_t optional = pe + 24;
    const uint32_t export_rva = read_at<uint32_t>(image, optional + 112);  // data directory 0
    auto file_offset = [&](uint32_t rva) -> size_t {
        for (uint16_t i = 0; i < section_count; ++i) {
            const size_t section = optional + optional_size + 40u * i;
            const uint32_t virtual_address = read_at<uint32_t>(image, section + 12);
            const uint32_t raw_size = read_at<uint32_t>(image, section + 16);
            const uint32_t raw_offset = read_at<uint32_t>(image, section + 20);
            if (rva >= virtual_address && rva < virtual_address + raw_size) {
                return raw_offset + (rva - virtual_address);
            }
        }
        return image.size();
    };
    if (export_rva == 0) return names;
    const size_t directory = file_offset(export_rva);
    const uint32_t name_count = read_at<uint32_t>(image, directory + 24);
    const size_t name_table = file_offset(read_at<uint32_t>(image, directory + 32));
    for (uint32_t n = 0; n < name_count; ++n) {
        const size_t name = file_offset(read_at<uint32_t>(image, name_table + 4 * n));
        if (name < image.size()) names.insert(image.c_str() + name);
    }
    return names;
}

// What a module file exports, ELF or PE.
std::set<std::string> exported_names(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string image((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
    if (image.compare(0, 4,
                      "\x7f"
                      "ELF") == 0)
        return elf_exports(image);
    if (image.compare(0, 2, "MZ") == 0) return pe_exports(image);
    return {};
}

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
    EXPECT_EQ(exported_names(path), expected) << path;
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
