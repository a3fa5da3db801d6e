// Module loading on Windows (LoadLibraryA) and on POSIX systems (dlopen, with the search order of
// the dynamic loader walked here so that an intercepted dlopen finds the same file).
#include "platform/module_loader.h"

#include <cstring>
#include <string>

#include "platform/windows_api.h"

#if !defined(_WIN32)
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#endif

namespace kv {
namespace platform {

#if defined(_WIN32)
const char* const module_suffix = ".dll";
#else
const char* const module_suffix = ".so";
#endif

namespace {

const char anchor = 0;  // any address inside this module identifies it

std::string file_name_of(const char* base_name) {
    return std::string(base_name) + module_suffix;
}

std::string directory_of(const std::string& path) {
    const std::size_t separator = path.find_last_of("/\\");
    return separator == std::string::npos ? std::string() : path.substr(0, separator + 1);
}

}  // namespace

std::string module_file_in(const std::string& folder, const char* base_name) {
#if defined(_WIN32)
    const char separator = '\\';
#else
    const char separator = '/';
#endif
    return folder + separator + file_name_of(base_name);
}

std::string calling_module_directory() {
    return directory_of(module_path_of(&anchor));
}

#if defined(_WIN32)

module_handle load_module(const char* base_name, const void*) {
    return reinterpret_cast<module_handle>(LoadLibraryA(file_name_of(base_name).c_str()));
}

module_handle load_module_file(const std::string& path) {
    return reinterpret_cast<module_handle>(LoadLibraryA(path.c_str()));
}

void* module_symbol(module_handle module, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

void release_module(module_handle module) {
    FreeLibrary(static_cast<HMODULE>(module));
}

std::string last_error() {
    const DWORD code = GetLastError();
    return code == 0 ? std::string() : "error " + std::to_string(code);
}

std::string module_path(module_handle module) {
    // Paths may exceed MAX_PATH; a result that fills the buffer was cut, so try a larger one.
    for (DWORD size = MAX_PATH; size <= 32768; size *= 4) {
        std::string path(size, '\0');
        const DWORD length = GetModuleFileNameA(static_cast<HMODULE>(module), &path[0], size);
        if (length == 0) {
            return {};
        }
        if (length < size) {
            path.resize(length);
            return path;
        }
    }
    return {};
}

std::string module_path_of(const void* address) {
    HMODULE module = nullptr;
    if (!GetModuleHandleExA(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            static_cast<LPCSTR>(address), &module)) {
        return {};
    }
    return module_path(module);
}

bool module_is_loaded(const char* base_name) {
    return GetModuleHandleA(file_name_of(base_name).c_str()) != nullptr;
}

#else

namespace {

std::string base_name_of(const std::string& path) {
    return path.substr(path.find_last_of('/') + 1);
}

enum class candidate { absent, other_machine, loadable };

// What ld.so would make of the file at `path`: passed over when it cannot be opened or is not a
// regular file, or when it is an ELF object of another class or machine than this module; taken
// otherwise (it may still fail to load, which then decides). Reads at most one ELF header and
// never blocks on a FIFO or device planted under a module's name.
candidate examine(const std::string& path, const ElfW(Ehdr) & own) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return candidate::absent;
    }
    struct stat status;
    ElfW(Ehdr) header;
    bool regular = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    const ssize_t got = regular ? read(fd, &header, sizeof header) : 0;
    close(fd);
    if (!regular) {
        return candidate::absent;
    }
    if (got == static_cast<ssize_t>(sizeof header) &&
        std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
        (header.e_ident[EI_CLASS] != own.e_ident[EI_CLASS] ||
         header.e_ident[EI_DATA] != own.e_ident[EI_DATA] || header.e_machine != own.e_machine)) {
        return candidate::other_machine;
    }
    return candidate::loadable;
}

module_handle open_module(const std::string& path) {
    return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
}

// Tries `folder` + `file`; true when that file decided the search (loaded, or failed to load).
bool try_folder(const std::string& folder, const std::string& file, const ElfW(Ehdr) & own,
                module_handle* result) {
    // A path needs a slash for dlopen to take it as one: the empty folder is "./".
    std::string path = folder.empty() ? std::string("./") : folder;
    if (path.back() != '/') {
        path += '/';
    }
    path += file;
    if (examine(path, own) != candidate::loadable) {
        return false;
    }
    *result = open_module(path);
    return true;
}

}  // namespace

module_handle load_module(const char* base_name, const void* beside) {
    const std::string file = file_name_of(base_name);
    Dl_info self{};
    if (dladdr(beside != nullptr ? beside : &anchor, &self) == 0 || self.dli_fbase == nullptr) {
        return open_module(file);  // nothing to search beside: leave it all to dlopen
    }
    // The module's own ELF header is mapped at its base: the class and machine to look for.
    const auto& own = *static_cast<const ElfW(Ehdr)*>(self.dli_fbase);
    module_handle result = nullptr;
    // ld.so ignores LD_LIBRARY_PATH in a set-user-ID or set-group-ID process; so does this.
    const char* search = getauxval(AT_SECURE) != 0 ? nullptr : std::getenv("LD_LIBRARY_PATH");
    if (search != nullptr) {
        const char* entry = search;
        for (;;) {
            const char* end = std::strpbrk(entry, ":;");  // ld.so takes either separator
            const std::size_t length =
                end != nullptr ? static_cast<std::size_t>(end - entry) : std::strlen(entry);
            if (try_folder(std::string(entry, length), file, own, &result)) {
                return result;
            }
            if (end == nullptr) {
                break;
            }
            entry = end + 1;
        }
    }
    if (self.dli_fname != nullptr) {
        const std::string folder = directory_of(self.dli_fname);
        if (!folder.empty() && try_folder(folder, file, own, &result)) {
            return result;
        }
    }
    return open_module(file);
}

module_handle load_module_file(const std::string& path) {
    return open_module(path);
}

void* module_symbol(module_handle module, const char* name) {
    return dlsym(module, name);
}

void release_module(module_handle module) {
    dlclose(module);
}

std::string last_error() {
    const char* message = dlerror();
    return message != nullptr ? message : "";
}

std::string module_path(module_handle module) {
    link_map* map = nullptr;
    if (module == nullptr || dlinfo(module, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr ||
        map->l_name == nullptr) {
        return {};
    }
    return map->l_name;
}

std::string module_path_of(const void* address) {
    Dl_info info{};
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        return {};
    }
    return info.dli_fname;
}

bool module_is_loaded(const char* base_name) {
    struct search {
        std::string file;
        bool found;
    } wanted{file_name_of(base_name), false};
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) {
            auto* s = static_cast<search*>(data);
            if (info->dlpi_name != nullptr && base_name_of(info->dlpi_name) == s->file) {
                s->found = true;
            }
            return s->found ? 1 : 0;
        },
        &wanted);
    return wanted.found;
}

#endif

}  // namespace platform
}  // namespace kv
