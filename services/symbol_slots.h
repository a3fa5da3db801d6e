// Fills a table of function addresses from one list of {name, slot} pairs, in the list's order.
#pragma once

#include <cstddef>
#include <cstring>

#include "platform/module_loader.h"

namespace kv {

struct symbol_slot {
    const char* name;
    void* field;  // address of a function-pointer field of the table being filled
};

// Makes the slot for a function-pointer field. Function and data pointers have one size and one
// representation on every platform the library runs on; memcpy keeps the store free of aliasing.
template <typename Function>
symbol_slot slot_for(const char* name, Function* field) {
    static_assert(sizeof(Function) == sizeof(void*), "function addresses are pointer-sized");
    return symbol_slot{name, field};
}

// Each lookup is stored in its field before it is tested; the first name the module lacks ends
// the walk, and the fields behind it are left as they were. Returns whether every name was found.
template <std::size_t N>
bool fill_slots(platform::module_handle module, const symbol_slot (&slots)[N]) {
    for (const symbol_slot& slot : slots) {
        void* address = platform::module_symbol(module, slot.name);
        std::memcpy(slot.field, &address, sizeof address);
        if (address == nullptr) {
            return false;
        }
    }
    return true;
}

}  // namespace kv
