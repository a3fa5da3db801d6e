// One vector module as a processor holds it: the loaded module, whether it may be used, and its
// four entry points. Loading never fails loudly; the failed flag is its whole outcome.
#pragma once

#include <cstdint>

#include "platform/module_loader.h"
#include "services/module_abi.h"

namespace kv {

struct vector_backend_names {
    const char* module_base_name;
    const char* initialize;
    const char* transform_8_bit_output;
    const char* transform_16_bit_output;
    const char* terminate;
};

extern const vector_backend_names SSE_BACKEND_NAMES;
extern const vector_backend_names AVX2_BACKEND_NAMES;
extern const vector_backend_names AVX512_BACKEND_NAMES;

struct vector_backend {
    platform::module_handle module;
    uint8_t failed;
    abi::vector_initialize_fn initialize;
    abi::vector_transform_fn transform_8_bit_output;
    abi::vector_transform_fn transform_16_bit_output;
    abi::vector_terminate_fn terminate;

    // The loader. Throws std::bad_alloc only while the file name is formed, before anything is
    // loaded.
    explicit vector_backend(const vector_backend_names& names);
    // Terminates (if the terminate name was found) and releases the module.
    ~vector_backend();
    vector_backend(const vector_backend&) = delete;
    vector_backend& operator=(const vector_backend&) = delete;
};

}  // namespace kv
