// The folder the logging module was loaded from: the module's one platform-specific spot.
#include "modules/logger/log_settings.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace kv {
namespace logger {

namespace {
const char anchor = 0;  // any address inside this module identifies it
}  // namespace

std::string module_directory() {
    std::string path;
#if defined(_WIN32)
    HMODULE module = nullptr;
    if (!GetModuleHandleExA(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            &anchor, &module)) {
        return {};
    }
    char buffer[MAX_PATH];
    const DWORD length = GetModuleFileNameA(module, buffer, MAX_PATH);
    if (length == 0 || length == MAX_PATH) {
        return {};  // failed, or truncated
    }
    path.assign(buffer, length);
#else
    Dl_info info{};
    if (dladdr(&anchor, &info) == 0 || info.dli_fname == nullptr) {
        return {};
    }
    path = info.dli_fname;
#endif
    const std::size_t separator = path.find_last_of("/\\");
    return separator == std::string::npos ? std::string() : path.substr(0, separator + 1);
}

}  // namespace logger
}  // namespace kv
