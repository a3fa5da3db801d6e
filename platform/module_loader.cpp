// Module loading on Windows (LoadLibraryA) and on POSIX systems (dlopen).
#include "platform/module_loader.h"

#include <string>

#if defined(_WIN32)
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace kv {
namespace platform {

#if defined(_WIN32)
const char* const module_suffix = ".dll";
#else
const char* const module_suffix = ".so";
#endif

namespace {

std::string file_name_of(const char* base_name) {
    return std::string(base_name) + module_suffix;
}

}  // namespace

#if defined(_WIN32)

module_handle load_module(const char* base_name) {
    return reinterpret_cast<module_handle>(LoadLibraryA(file_name_of(base_name).c_str()));
}

void* module_symbol(module_handle module, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

void release_module(module_handle module) {
    FreeLibrary(static_cast<HMODULE>(module));
}

bool module_is_loaded(const char* base_name) {
    return GetModuleHandleA(file_name_of(base_name).c_str()) != nullptr;
}

#else

module_handle load_module(const char* base_name) {
    return dlopen(file_name_of(base_name).c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* module_symbol(module_handle module, const char* name) {
    return dlsym(module, name);
}

void release_module(module_handle module) {
    dlclose(module);
}

bool module_is_loaded(const char* base_name) {
    void* module = dlopen(file_name_of(base_name).c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
    if (module == nullptr) {
        return false;
    }
    dlclose(module);
    return true;
}

#endif

}  // namespace platform
}  // namespace kv
