// One vector module as a processor holds it: the loaded module, whether it may be used, and its
// four entry points. Loading never fails loudly; the failed flag is its whole outcome.
#pragma once

#include <cstdint>

#include "platform/module_loader.h"
#include "services/module_abi.h"
#include "services/module_contract.h"

namespace kv {

// The three modules' names, by the records of a processor.
inline constexpr const module_names& SSE_BACKEND_NAMES = VECTOR_MODULES[0];
inline constexpr const module_names& AVX2_BACKEND_NAMES = VECTOR_MODULES[1];
inline constexpr const module_names& AVX512_BACKEND_NAMES = VECTOR_MODULES[2];

struct vector_backend {
    platform::module_handle module;
    uint8_t failed;
    abi::vector_initialize_fn initialize;
    abi::vector_transform_fn transform_8_bit_output;
    abi::vector_transform_fn transform_16_bit_output;
    abi::vector_terminate_fn terminate;

    // The loader. Throws std::bad_alloc only while the file name is formed, before anything is
    // loaded.
    explicit vector_backend(const module_names& names);
    // Terminates (if the terminate name was found) and releases the module.
    ~vector_backend();
    vector_backend(const vector_backend&) = delete;
    vector_backend& operator=(const vector_backend&) = delete;
};

}  // namespace kv
