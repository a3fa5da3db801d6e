// The built library as a host finds it: exactly the nineteen exports, its run path, and the
// public header compiled as C.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#if defined(__linux__)
#include <elf.h>
#endif

extern "C" int kv_c_header_round_trip(void);

namespace {

const std::set<std::string> expected_exports = {
    "kv_color_append_matrix",
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
    "kv_color_transform_48_to_64",
};

#if defined(__linux__)

struct dynamic_view {
    std::set<std::string> defined_symbols;  // global, weak or unique, default visibility
    std::vector<std::string> runpath, rpath, needed;
};

template <typename T>
T read_struct(const std::vector<char>& file, uint64_t offset) {
    T value;
    if (offset + sizeof(T) > file.size()) {
        throw std::runtime_error("truncated ELF file");
    }
    std::memcpy(&value, file.data() + offset, sizeof value);
    return value;
}

std::string read_string(const std::vector<char>& file, uint64_t offset) {
    if (offset >= file.size()) {
        throw std::runtime_error("string outside the file");
    }
    return std::string(file.data() + offset);
}

dynamic_view read_dynamic(const char* path) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> file((std::istreambuf_iterator<char>(in)),
                                 std::istreambuf_iterator<char>());
    const auto header = read_struct<Elf64_Ehdr>(file, 0);
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != ELFCLASS64) {
        throw std::runtime_error("not a 64-bit ELF file");
    }
    std::vector<Elf64_Shdr> sections;
    for (unsigned i = 0; i < header.e_shnum; ++i) {
        sections.push_back(
            read_struct<Elf64_Shdr>(file, header.e_shoff + uint64_t{i} * header.e_shentsize));
    }
    dynamic_view view;
    for (const Elf64_Shdr& s : sections) {
        const Elf64_Shdr& strings = sections.at(s.sh_link);
        if (s.sh_type == SHT_DYNSYM) {
            for (uint64_t o = s.sh_offset; o + sizeof(Elf64_Sym) <= s.sh_offset + s.sh_size;
                 o += sizeof(Elf64_Sym)) {
                const auto sym = read_struct<Elf64_Sym>(file, o);
                const unsigned bind = ELF64_ST_BIND(sym.st_info);
                if (sym.st_shndx != SHN_UNDEF && ELF64_ST_VISIBILITY(sym.st_other) == STV_DEFAULT &&
                    (bind == STB_GLOBAL || bind == STB_WEAK || bind == STB_GNU_UNIQUE)) {
                    view.defined_symbols.insert(read_string(file, strings.sh_offset + sym.st_name));
                }
            }
        } else if (s.sh_type == SHT_DYNAMIC) {
            for (uint64_t o = s.sh_offset; o + sizeof(Elf64_Dyn) <= s.sh_offset + s.sh_size;
                 o += sizeof(Elf64_Dyn)) {
                const auto d = read_struct<Elf64_Dyn>(file, o);
                const auto text = [&] {
                    return read_string(file, strings.sh_offset + d.d_un.d_val);
                };
                if (d.d_tag == DT_RUNPATH) {
                    view.runpath.push_back(text());
                } else if (d.d_tag == DT_RPATH) {
                    view.rpath.push_back(text());
                } else if (d.d_tag == DT_NEEDED) {
                    view.needed.push_back(text());
                }
            }
        }
    }
    return view;
}

TEST(ExportTable, ExactlyTheNineteenFunctions) {
    const dynamic_view view = read_dynamic(KV_MAIN_LIBRARY_PATH);
    std::vector<std::string> extra, missing;
    std::set_difference(view.defined_symbols.begin(), view.defined_symbols.end(),
                        expected_exports.begin(), expected_exports.end(),
                        std::back_inserter(extra));
    std::set_difference(expected_exports.begin(), expected_exports.end(),
                        view.defined_symbols.begin(), view.defined_symbols.end(),
                        std::back_inserter(missing));
    EXPECT_TRUE(extra.empty()) << "exported by accident: " << ::testing::PrintToString(extra);
    EXPECT_TRUE(missing.empty()) << "not exported: " << ::testing::PrintToString(missing);
}

TEST(ExportTable, RunPathIsTheLibrarysOwnFolderAndNoModuleIsLinked) {
    const dynamic_view view = read_dynamic(KV_MAIN_LIBRARY_PATH);
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
