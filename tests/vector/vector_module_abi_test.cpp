// The modules as the library meets them: exactly four exports each, an initialize that accepts on
// a processor with the module's set, and a module that keeps working across several
// initialize/terminate pairs, as one module serves many processors.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>
#include <string>

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#else
#include <elf.h>
#endif

#include "tests/vector/vector_test_support.h"

namespace kv {
namespace testing {
namespace {

#if defined(_WIN32)
// The names in the export table of a loaded module, read in place.
std::set<std::string> exported_names(const void* module) {
    std::set<std::string> names;
    const auto* base = static_cast<const unsigned char*>(module);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& directory =
        nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    if (directory.Size == 0) return names;
    const auto* exports =
        reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + directory.VirtualAddress);
    const auto* name_offsets = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
    for (DWORD i = 0; i < exports->NumberOfNames; ++i) {
        names.insert(reinterpret_cast<const char*>(base + name_offsets[i]));
    }
    return names;
}
#else
// The defined, global dynamic symbols of an ELF shared object.
std::set<std::string> exported_names(const std::string& path) {
    std::set<std::string> names;
    std::ifstream file(path, std::ios::binary);
    const std::string image((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
    if (image.size() < sizeof(Elf64_Ehdr)) return names;
    const char* base = image.data();
    const auto* header = reinterpret_cast<const Elf64_Ehdr*>(base);
    const auto* sections = reinterpret_cast<const Elf64_Shdr*>(base + header->e_shoff);
    for (int i = 0; i < header->e_shnum; ++i) {
        if (sections[i].sh_type != SHT_DYNSYM) continue;
        const char* strings = base + sections[sections[i].sh_link].sh_offset;
        const auto* symbols = reinterpret_cast<const Elf64_Sym*>(base + sections[i].sh_offset);
        const size_t count = sections[i].sh_size / sizeof(Elf64_Sym);
        for (size_t s = 0; s < count; ++s) {
            const Elf64_Sym& symbol = symbols[s];
            if (symbol.st_shndx == SHN_UNDEF || ELF64_ST_BIND(symbol.st_info) == STB_LOCAL)
                continue;
            if (symbol.st_name != 0) names.insert(strings + symbol.st_name);
        }
    }
    return names;
}
#endif

class ModuleInterface : public ::testing::TestWithParam<tier_index> {};

// Checked on every machine: the export list does not depend on the processor.
TEST_P(ModuleInterface, ExportsExactlyItsFourNames) {
    const std::string suffix = module_for(GetParam()).suffix;
    const std::set<std::string> expected = {
        "kv_color_processing_vector_" + suffix + "_module_initialize",
        "kv_color_processing_transform_8_bit_output_vector_" + suffix,
        "kv_color_processing_transform_16_bit_output_vector_" + suffix,
        "kv_color_processing_vector_" + suffix + "_module_terminate",
    };
#if defined(_WIN32)
    const vector_module& m = module_for(GetParam());
    ASSERT_NE(m.handle, nullptr) << m.load_error;
    EXPECT_EQ(exported_names(m.handle), expected) << suffix;
#else
    const std::string path = std::string(KV_VECTOR_MODULE_DIRECTORY) +
                             "/kelvane_qor_color_processing_vector_" + suffix + ".so";
    EXPECT_EQ(exported_names(path), expected) << path;
#endif
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
