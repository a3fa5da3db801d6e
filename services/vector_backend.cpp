// Loading and releasing a vector module.
#include "services/vector_backend.h"

#include "services/symbol_slots.h"

namespace kv {

vector_backend::vector_backend(const module_names& names)
    : module(nullptr),
      failed(0),
      initialize(nullptr),
      transform_8_bit_output(nullptr),
      transform_16_bit_output(nullptr),
      terminate(nullptr) {
    module = platform::load_module(names.base_name);
    if (module == nullptr) {
        failed = 1;
        return;
    }
    // Terminate is asked for last, so a module that lacks any name is never terminated.
    const symbol_slot slots[] = {
        slot_for(names.entries[VECTOR_INITIALIZE], &initialize),
        slot_for(names.entries[VECTOR_TRANSFORM_8_BIT_OUTPUT], &transform_8_bit_output),
        slot_for(names.entries[VECTOR_TRANSFORM_16_BIT_OUTPUT], &transform_16_bit_output),
        slot_for(names.entries[VECTOR_TERMINATE], &terminate),
    };
    if (!fill_slots(module, slots)) {
        failed = 1;
        return;
    }
    if (initialize() != 0) {
        failed = 1;
    }
}

vector_backend::~vector_backend() {
    // A module that refused in its initialize is terminated all the same.
    if (terminate != nullptr) {
        terminate();
    }
    initialize = nullptr;
    transform_8_bit_output = nullptr;
    transform_16_bit_output = nullptr;
    terminate = nullptr;
    if (module != nullptr) {
        platform::release_module(module);
        module = nullptr;
    }
}

}  // namespace kv
