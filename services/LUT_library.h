// The one process-wide table of the LUT module: its handle and its six entry points. Every
// processor reaches its tables through it.
#pragma once

#include "platform/module_loader.h"
#include "services/module_abi.h"
#include "services/module_contract.h"

namespace kv {

constexpr const char* LUT_MODULE_BASE_NAME = LUT_MODULE.base_name;

struct LUT_library_table {
    platform::module_handle module;
    abi::kv_LUT_module_initialize_fn initialize;
    abi::kv_create_LUT_test_fn create;
    abi::kv_get_LUT_data_fn get_data;
    abi::kv_LUT_transform_16_fn transform_16;  // must exist; never called
    abi::kv_destroy_LUT_fn destroy;
    abi::kv_LUT_module_terminate_fn terminate;
};

// Not locked: filled by initialise, emptied by terminate, read by everything else.
extern LUT_library_table LUT_library;

// Loads the module once more (it is never released) and fills the table; true when every entry
// point was found and the module's initialize has run. A load that stops keeps what it found.
bool load_LUT_library();

// Calls the module's terminate if the table holds it, then empties the whole table.
void unload_LUT_library();

}  // namespace kv
