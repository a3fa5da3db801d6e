// One reader of a built module's tables, for 64-bit ELF and PE files alike: the names it exports
// and, for ELF, its run path and the libraries it needs. Reads the file, not the loaded image, so
// it also works for a Windows module on Linux.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace kv {
namespace testing {

struct module_file_view {
    std::set<std::string> exports;  // ELF: defined global, weak or unique default-visibility names
    std::vector<std::string> runpath, rpath;  // ELF only
    std::vector<std::string> needed;          // ELF: libraries needed; PE: DLLs imported from
    uint32_t unnamed_exports = 0;             // PE: exports by ordinal only
};

namespace export_table_detail {

class image {
  public:
    explicit image(const std::string& path) : path_(path) {
        std::ifstream in(path, std::ios::binary);
        if (!in) throw std::runtime_error(path + ": cannot open");
        in.seekg(0, std::ios::end);
        const std::streamoff size = in.tellg();
        if (size < 0 || size > (std::streamoff{1} << 30)) {
            throw std::runtime_error(path + ": not a module file of a sensible size");
        }
        in.seekg(0);
        bytes_.resize(static_cast<size_t>(size));
        if (!in.read(bytes_.data(), size)) throw std::runtime_error(path + ": read error");
    }
    template <typename T>
    T at(uint64_t offset) const {
        if (offset > bytes_.size() || sizeof(T) > bytes_.size() - offset) {
            throw std::runtime_error(path_ + ": truncated at offset " + std::to_string(offset));
        }
        T value;
        std::memcpy(&value, bytes_.data() + offset, sizeof value);
        return value;
    }
    std::string text(uint64_t offset) const {
        if (offset >= bytes_.size()) throw std::runtime_error(path_ + ": name outside the file");
        const char* start = bytes_.data() + offset;
        const void* end = std::memchr(start, 0, bytes_.size() - offset);
        if (end == nullptr) throw std::runtime_error(path_ + ": unterminated name");
        return std::string(start, static_cast<const char*>(end));
    }
    bool starts_with(const std::string& magic) const {
        return bytes_.size() >= magic.size() &&
               std::equal(magic.begin(), magic.end(), bytes_.data());
    }

  private:
    std::string path_;
    std::vector<char> bytes_;
};

// ELF64 offsets: header e_shoff 0x28, e_shentsize 0x3A, e_shnum 0x3C; section sh_type 4,
// sh_offset 24, sh_size 32, sh_link 40; symbol st_name 0, st_info 4, st_other 5, st_shndx 6.
inline module_file_view read_elf(const image& f) {
    constexpr uint32_t dynamic_symbols = 11, dynamic_section = 6;  // section types
    constexpr int64_t needed_tag = 1, rpath_tag = 15, runpath_tag = 29;
    if (f.at<uint8_t>(4) != 2) throw std::runtime_error("not a 64-bit ELF file");
    const uint64_t sections = f.at<uint64_t>(0x28);
    const uint16_t entry_size = f.at<uint16_t>(0x3A), count = f.at<uint16_t>(0x3C);
    auto section = [&](uint32_t i) { return sections + uint64_t{entry_size} * i; };
    module_file_view view;
    for (uint16_t i = 0; i < count; ++i) {
        const uint32_t type = f.at<uint32_t>(section(i) + 4);
        if (type != dynamic_symbols && type != dynamic_section) continue;
        const uint64_t offset = f.at<uint64_t>(section(i) + 24);
        const uint64_t size = f.at<uint64_t>(section(i) + 32);
        const uint64_t strings = f.at<uint64_t>(section(f.at<uint32_t>(section(i) + 40)) + 24);
        if (type == dynamic_symbols) {
            for (uint64_t s = offset + 24; s + 24 <= offset + size; s += 24) {
                const uint8_t binding = f.at<uint8_t>(s + 4) >> 4;  // global 1, weak 2, unique 10
                const bool visible = (f.at<uint8_t>(s + 5) & 3) == 0;
                if (f.at<uint16_t>(s + 6) != 0 && visible &&
                    (binding == 1 || binding == 2 || binding == 10)) {
                    view.exports.insert(f.text(strings + f.at<uint32_t>(s)));
                }
            }
        } else {
            for (uint64_t d = offset; d + 16 <= offset + size; d += 16) {
                const int64_t tag = f.at<int64_t>(d);
                if (tag == needed_tag || tag == rpath_tag || tag == runpath_tag) {
                    const std::string value = f.text(strings + f.at<uint64_t>(d + 8));
                    (tag == needed_tag  ? view.needed
                     : tag == rpath_tag ? view.rpath
                                        : view.runpath)
                        .push_back(value);
                }
            }
        }
    }
    return view;
}

// PE32+: the export and import directories are data directories 0 and 1 of the optional header
// (offsets 112 and 120); they hold addresses relative to the image, mapped to file offsets
// through the sections.
inline module_file_view read_pe(const image& f) {
    const uint32_t pe = f.at<uint32_t>(0x3C);
    if (f.at<uint32_t>(pe) != 0x00004550u || f.at<uint16_t>(pe + 24) != 0x20B) {
        throw std::runtime_error("not a 64-bit PE file");
    }
    const uint16_t section_count = f.at<uint16_t>(pe + 6);
    const uint64_t optional = pe + 24, section_table = optional + f.at<uint16_t>(pe + 20);
    auto file_offset = [&](uint32_t rva) -> uint64_t {
        for (uint16_t i = 0; i < section_count; ++i) {
            const uint64_t s = section_table + 40u * i;
            const uint32_t address = f.at<uint32_t>(s + 12), raw_size = f.at<uint32_t>(s + 16);
            if (rva >= address && rva - address < raw_size) {
                return f.at<uint32_t>(s + 20) + uint64_t{rva - address};
            }
        }
        throw std::runtime_error("address outside every section");
    };
    module_file_view view;
    if (const uint32_t import_rva = f.at<uint32_t>(optional + 120)) {
        // Descriptors of 20 bytes with the DLL's name at 12; an empty one ends the table.
        for (uint64_t d = file_offset(import_rva); f.at<uint32_t>(d + 12) != 0; d += 20) {
            view.needed.push_back(f.text(file_offset(f.at<uint32_t>(d + 12))));
        }
    }
    const uint32_t export_rva = f.at<uint32_t>(optional + 112);
    if (export_rva == 0) return view;
    const uint64_t directory = file_offset(export_rva);
    const uint32_t address_count = f.at<uint32_t>(directory + 20);
    const uint32_t name_count = f.at<uint32_t>(directory + 24);
    view.unnamed_exports = address_count > name_count ? address_count - name_count : 0;
    const uint64_t names = file_offset(f.at<uint32_t>(directory + 32));
    for (uint32_t n = 0; n < name_count; ++n) {
        view.exports.insert(f.text(file_offset(f.at<uint32_t>(names + 4u * n))));
    }
    return view;
}

}  // namespace export_table_detail

// Throws std::runtime_error for a file that is missing, too large, truncated, or neither a 64-bit
// ELF nor a PE file. Header-only, so any test program can include it.
inline module_file_view read_module_file(const std::string& path) {
    const export_table_detail::image f(path);
    try {
        if (f.starts_with("\177ELF")) return export_table_detail::read_elf(f);
        if (f.starts_with("MZ")) return export_table_detail::read_pe(f);
    } catch (const std::runtime_error& e) {
        throw std::runtime_error(path + ": " + e.what());
    }
    throw std::runtime_error(path + ": neither an ELF nor a PE file");
}

// The names an import library (a GNU archive, as MinGW writes them) declares: the "__imp_" symbols
// of its symbol table, the archive's first member, without that prefix.
inline std::set<std::string> read_import_library(const std::string& path) {
    const export_table_detail::image f(path);
    if (!f.starts_with("!<arch>\n/ ")) {
        throw std::runtime_error(path + ": not an archive that starts with its symbol table");
    }
    auto big_endian = [&](uint64_t at) {
        return uint32_t{f.at<uint8_t>(at)} << 24 | uint32_t{f.at<uint8_t>(at + 1)} << 16 |
               uint32_t{f.at<uint8_t>(at + 2)} << 8 | f.at<uint8_t>(at + 3);
    };
    const uint32_t count = big_endian(68);  // after the magic and the 60-byte member header
    std::set<std::string> declared;
    for (uint64_t at = 72 + 4 * uint64_t{count}, n = 0; n < count; ++n) {
        const std::string symbol = f.text(at);
        at += symbol.size() + 1;
        if (symbol.compare(0, 6, "__imp_") == 0) declared.insert(symbol.substr(6));
    }
    return declared;
}

}  // namespace testing
}  // namespace kv
