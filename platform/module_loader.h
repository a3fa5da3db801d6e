// Run-time modules by file name: the base name plus this platform's suffix, loaded with no path so
// the platform's search order decides which file is found. The one place that loads, looks up and
// releases modules, and that tells where a loaded module came from.
#pragma once

#include <string>

namespace kv {
namespace platform {

using module_handle = void*;

// ".so" or ".dll"; companion modules never carry a "lib" prefix.
extern const char* const module_suffix;

// Loads `base_name` + module_suffix as the platform searches for a module the calling module asks
// for. On Windows that is LoadLibraryA's own order. Elsewhere the order is searched here rather
// than left to dlopen, which picks the folders by the address it is called from and so loses the
// caller's RUNPATH when something intercepts it (sanitizers, preloaded libraries):
//   1. each folder of LD_LIBRARY_PATH in turn, split at ':' or ';' (an empty entry is the current
//      folder, as for ld.so; the variable is ignored in a set-user-ID process, as ld.so does);
//   2. the folder of the module that holds `beside` (the calling module when it is NULL);
//   3. the bare name, which leaves the system folders and the cache to dlopen.
// A file that is not a loadable ELF object for this machine (missing, unreadable, 32-bit,
// another architecture) is passed over, as ld.so passes it over; the first that is one decides,
// also when it then fails to load (a missing dependency or symbol), so a broken module is never
// hidden by one found later. Returns NULL when the module cannot be loaded, with the reason in
// last_error(). Throws std::bad_alloc when the file name cannot be formed.
module_handle load_module(const char* base_name, const void* beside = nullptr);

// The path of the module `base_name` in `folder`, with this platform's separator and suffix.
std::string module_file_in(const std::string& folder, const char* base_name);

// Loads the module file at `path` exactly, without any search.
module_handle load_module_file(const std::string& path);

// The address of the export `name`, or NULL when the module has none.
void* module_symbol(module_handle module, const char* name);

void release_module(module_handle module);

// Why the last load or lookup of this thread failed, as the platform words it; "" if it did not.
std::string last_error();

// The file a loaded module was loaded from, or "" when the platform cannot say.
std::string module_path(module_handle module);

// The file of the loaded module that holds `address`, or "" when none does.
std::string module_path_of(const void* address);

// The folder, with its trailing separator, of the module this code is linked into; "" when the
// platform cannot say.
std::string calling_module_directory();

// Whether a module of the file name `base_name` + module_suffix is loaded into the process at the
// moment, from any folder, without loading it. Only the tests ask this, to see what the library
// has loaded and released.
bool module_is_loaded(const char* base_name);

}  // namespace platform
}  // namespace kv
