// Loading and emptying the LUT module's table.
#include "services/LUT_library.h"

#include "services/symbol_slots.h"

namespace kv {

LUT_library_table LUT_library = {};

bool load_LUT_library() {
    LUT_library.module = platform::load_module(LUT_MODULE_BASE_NAME);
    if (LUT_library.module == nullptr) {
        return false;
    }
    const symbol_slot slots[] = {
        slot_for(LUT_MODULE.entries[LUT_INITIALIZE], &LUT_library.initialize),
        slot_for(LUT_MODULE.entries[LUT_CREATE], &LUT_library.create),
        slot_for(LUT_MODULE.entries[LUT_TRANSFORM_16], &LUT_library.transform_16),
        slot_for(LUT_MODULE.entries[LUT_GET_DATA], &LUT_library.get_data),
        slot_for(LUT_MODULE.entries[LUT_DESTROY], &LUT_library.destroy),
        slot_for(LUT_MODULE.entries[LUT_TERMINATE], &LUT_library.terminate),
    };
    if (!fill_slots(LUT_library.module, slots)) {
        return false;
    }
    LUT_library.initialize();
    return true;
}

void unload_LUT_library() {
    if (LUT_library.terminate != nullptr) {
        LUT_library.terminate();
    }
    // The module itself stays loaded for the life of the process: nothing here releases it.
    LUT_library = LUT_library_table{};
}

}  // namespace kv
