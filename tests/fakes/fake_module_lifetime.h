// Records "load" when a fake module is mapped and "unload" when it is released, so tests see
// exactly when the library loads and releases each module.
#pragma once

#include "tests/fakes/journal.h"

namespace kv_fake {

struct module_lifetime {
    const char* module;
    explicit module_lifetime(const char* name) : module(name) { kv_journal_record(module, "load"); }
    ~module_lifetime() { kv_journal_record(module, "unload"); }
};

}  // namespace kv_fake
