// The test program links the library's objects directly, so it plays the load hook itself, as the
// first thing of its start-up.
#include "platform/module_hooks.h"

namespace {

struct module_load {
    module_load() { kv::on_module_load(); }
} load_hook;

}  // namespace
