// The module-wide state of the library. `module_logger` being non-NULL is the only mark that the
// module is initialised. None of it is atomic: hosts do not initialise or terminate while any
// other call is under way.
#pragma once

#include <cstdint>
#include <mutex>

#include "services/logger_adapter.h"

namespace kv {

extern logger_adapter* module_logger;
extern int32_t module_reference_count;

// Built when the module is loaded and destroyed by the at-exit function. Guards the reference
// count and the adapter's creation and destruction, and nothing else.
std::mutex& module_mutex();

// Runs when the module is unloaded: destroys the mutex, then any adapter left over.
void module_at_exit();

}  // namespace kv
