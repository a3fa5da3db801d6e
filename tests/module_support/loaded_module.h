// Test-side access to companion modules: load one by file name the way the library does, find
// the file a loaded module came from, and list what a module exports.
#pragma once

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
#include <link.h>
#endif

#include "tests/common/export_table.h"

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

inline std::set<std::string> loaded_module::exported_names() const {
#if defined(_WIN32)
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(static_cast<HMODULE>(handle_), path, MAX_PATH);
    return kv::testing::read_module_file(std::string(path, length)).exports;
#else
    link_map* map = nullptr;
    if (dlinfo(handle_, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr) {
        throw std::runtime_error("dlinfo failed");
    }
    return kv::testing::read_module_file(map->l_name).exports;
#endif
}

}  // namespace test
}  // namespace kv
