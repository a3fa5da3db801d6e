// Test-side access to companion modules: load one by file name the way the library does, find
// the file a loaded module came from, and list what a module exports.
#pragma once

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX  // std::min and std::max stay usable in the tests that include this
#endif
#include <windows.h>
#else
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#endif

namespace kv {
namespace test {

#if defined(_WIN32)
inline constexpr const char* module_suffix = ".dll";
#else
inline constexpr const char* module_suffix = ".so";
#endif

// A module loaded by name (no path: the platform's search order decides) or by path, and
// released again at the end of the scope.
class loaded_module {
  public:
    explicit loaded_module(const std::string& file) {
#if defined(_WIN32)
        handle_ = LoadLibraryA(file.c_str());
#else
        handle_ = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
#endif
    }
    ~loaded_module() {
        if (handle_ != nullptr) {
#if defined(_WIN32)
            FreeLibrary(static_cast<HMODULE>(handle_));
#else
            dlclose(handle_);
#endif
        }
    }
    loaded_module(const loaded_module&) = delete;
    loaded_module& operator=(const loaded_module&) = delete;

    bool loaded() const {
        return handle_ != nullptr;
    }

    template <typename Function>
    Function symbol(const char* name) const {
#if defined(_WIN32)
        // Through void*: GCC warns on a direct cast from FARPROC to another function type.
        return reinterpret_cast<Function>(
            reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle_), name)));
#else
        return reinterpret_cast<Function>(dlsym(handle_, name));
#endif
    }

    // Every name in the module's export table, sorted.
    std::set<std::string> exported_names() const;

  private:
    void* handle_ = nullptr;
};

// The path of the loaded module that holds `address`; empty if none does.
inline std::string module_file_of(const void* address) {
#if defined(_WIN32)
    HMODULE module = nullptr;
    if (!GetModuleHandleExA(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            static_cast<LPCSTR>(address), &module)) {
        return {};
    }
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(module, path, MAX_PATH);
    return std::string(path, length);
#else
    Dl_info info{};
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        return {};
    }
    return info.dli_fname;
#endif
}

#if defined(_WIN32)
inline std::set<std::string> loaded_module::exported_names() const {
    // A loaded image keeps its export directory mapped: read the name table in place.
    const auto* base = static_cast<const unsigned char*>(handle_);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& directory =
        nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    std::set<std::string> names;
    if (directory.Size == 0) {
        return names;
    }
    const auto* exports =
        reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + directory.VirtualAddress);
    const auto* name_offsets = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
    for (DWORD i = 0; i < exports->NumberOfNames; ++i) {
        names.insert(reinterpret_cast<const char*>(base + name_offsets[i]));
    }
    return names;
}
#else
inline std::set<std::string> loaded_module::exported_names() const {
    // Read the file's dynamic symbol table: the defined global and weak symbols are the exports.
    link_map* map = nullptr;
    if (dlinfo(handle_, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr) {
        throw std::runtime_error("dlinfo failed");
    }
    std::ifstream in(map->l_name, std::ios::binary);
    const std::vector<char> file((std::istreambuf_iterator<char>(in)),
                                 std::istreambuf_iterator<char>());
    auto at = [&file](std::size_t offset, std::size_t size) {
        if (offset > file.size() || size > file.size() - offset) {
            throw std::runtime_error("truncated ELF file");
        }
        return file.data() + offset;
    };
    Elf64_Ehdr header;
    std::memcpy(&header, at(0, sizeof header), sizeof header);
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != ELFCLASS64) {
        throw std::runtime_error("not a 64-bit ELF file");
    }
    auto section = [&](std::size_t index) {
        Elf64_Shdr s;
        std::memcpy(&s, at(header.e_shoff + index * header.e_shentsize, sizeof s), sizeof s);
        return s;
    };
    std::set<std::string> names;
    for (std::size_t i = 0; i < header.e_shnum; ++i) {
        const Elf64_Shdr symbols = section(i);
        if (symbols.sh_type != SHT_DYNSYM) {
            continue;
        }
        const Elf64_Shdr strings = section(symbols.sh_link);
        for (std::size_t k = 1; k < symbols.sh_size / sizeof(Elf64_Sym); ++k) {
            Elf64_Sym symbol;
            std::memcpy(&symbol, at(symbols.sh_offset + k * sizeof symbol, sizeof symbol),
                        sizeof symbol);
            const unsigned binding = ELF64_ST_BIND(symbol.st_info);
            if (symbol.st_shndx != SHN_UNDEF && (binding == STB_GLOBAL || binding == STB_WEAK)) {
                names.insert(at(strings.sh_offset + symbol.st_name, 1));
            }
        }
    }
    return names;
}
#endif

}  // namespace test
}  // namespace kv
