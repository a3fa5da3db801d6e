// The load and unload hooks of the main library. The platform calls on_module_load once when the
// module is mapped, before any export can run; the library defines it and, from it, registers its
// at-exit function.
#pragma once

#include <cstdlib>

namespace kv {

// Defined by the library.
void on_module_load();

namespace platform {

// Runs `function` when the module is unloaded or the process ends, whichever comes first: the C
// runtime keeps one such list per DLL or shared object.
inline void register_at_exit(void (*function)()) {
    std::atexit(function);
}

}  // namespace platform
}  // namespace kv
