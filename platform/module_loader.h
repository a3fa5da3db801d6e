// Run-time modules by file name: the base name plus this platform's suffix, loaded with no path so
// the platform's search order decides which file is found.
#pragma once

namespace kv {
namespace platform {

using module_handle = void*;

// ".so" or ".dll"; companion modules never carry a "lib" prefix.
extern const char* const module_suffix;

// Loads `base_name` + module_suffix. Returns NULL when the module cannot be loaded. Throws
// std::bad_alloc when the file name cannot be formed.
module_handle load_module(const char* base_name);

// The address of the export `name`, or NULL when the module has none.
void* module_symbol(module_handle module, const char* name);

void release_module(module_handle module);

// Whether `base_name` + module_suffix is loaded into the process at the moment, without loading
// it. Only the tests ask this, to see what the library has loaded and released.
bool module_is_loaded(const char* base_name);

}  // namespace platform
}  // namespace kv
