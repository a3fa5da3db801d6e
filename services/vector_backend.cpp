// Loading and releasing a vector module.
#include "services/vector_backend.h"

#include "services/symbol_slots.h"

namespace kv {

const vector_backend_names SSE_BACKEND_NAMES = {
    "kelvane_qor_color_processing_vector_sse",
    "kv_color_processing_vector_sse_module_initialize",
    "kv_color_processing_transform_8_bit_output_vector_sse",
    "kv_color_processing_transform_16_bit_output_vector_sse",
    "kv_color_processing_vector_sse_module_terminate",
};

const vector_backend_names AVX2_BACKEND_NAMES = {
    "kelvane_qor_color_processing_vector_avx2",
    "kv_color_processing_vector_avx2_module_initialize",
    "kv_color_processing_transform_8_bit_output_vector_avx2",
    "kv_color_processing_transform_16_bit_output_vector_avx2",
    "kv_color_processing_vector_avx2_module_terminate",
};

const vector_backend_names AVX512_BACKEND_NAMES = {
    "kelvane_qor_color_processing_vector_avx512",
    "kv_color_processing_vector_avx512_module_initialize",
    "kv_color_processing_transform_8_bit_output_vector_avx512",
    "kv_color_processing_transform_16_bit_output_vector_avx512",
    "kv_color_processing_vector_avx512_module_terminate",
};

vector_backend::vector_backend(const vector_backend_names& names)
    : module(nullptr),
      failed(0),
      initialize(nullptr),
      transform_8_bit_output(nullptr),
      transform_16_bit_output(nullptr),
      terminate(nullptr) {
    module = platform::load_module(names.module_base_name);
    if (module == nullptr) {
        failed = 1;
        return;
    }
    // Terminate is asked for last, so a module that lacks any name is never terminated.
    const symbol_slot slots[] = {
        slot_for(names.initialize, &initialize),
        slot_for(names.transform_8_bit_output, &transform_8_bit_output),
        slot_for(names.transform_16_bit_output, &transform_16_bit_output),
        slot_for(names.terminate, &terminate),
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
