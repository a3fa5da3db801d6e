// The C entry points of the run-time modules as the library calls them: the logging module, the
// LUT module and the three vector modules. The real modules and the test fakes implement exactly
// these signatures; the library reaches them only by name through the platform loader.
#pragma once

#include <stdint.h>

#include "kernels/transform_request.h"

#if defined(_WIN32)
#define KV_MODULE_EXPORT extern "C" __declspec(dllexport)
#else
#define KV_MODULE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace kv {
namespace abi {

// Logging module "kelvane_qor_logger".
using qor_get_log_fn = void* (*)(const char* module_id, const char* second_id,
                                 const char* config_file_name);
using qor_log_fn = int32_t (*)(void* log_handle, int32_t level, const char* file, int32_t line,
                               const char* function, const char* message);
using qor_free_log_fn = int32_t (*)(const char* module_id, const char* second_id);

// LUT module "kelvane_qor_LUT". A LUT handle is opaque; its table holds 32-bit entries.
using LUT_handle = void*;
using kv_LUT_module_initialize_fn = int32_t (*)();
using kv_create_LUT_test_fn = LUT_handle (*)(int32_t entry_count, int32_t avx2_flag);
using kv_get_LUT_data_fn = uint32_t* (*)(LUT_handle handle);
using kv_destroy_LUT_fn = int32_t (*)(LUT_handle handle);
using kv_LUT_module_terminate_fn = int32_t (*)();
// Maps `count` 16-bit values through the table of `handle` (low 16 bits of each entry), from
// `source` to `destination`; the two may be the same buffer. Returns 0, or -1 for a NULL argument.
// The library itself never calls it.
using kv_LUT_transform_16_fn = int32_t (*)(LUT_handle handle, const uint16_t* source,
                                           uint16_t* destination, int32_t count);

// Vector modules "kelvane_qor_color_processing_vector_{sse,avx2,avx512}".
using vector_initialize_fn = int32_t (*)();                                 // 0 is success
using vector_transform_fn = int32_t (*)(const transform_request* request);  // pixels done from 0
using vector_terminate_fn = void (*)();

}  // namespace abi
}  // namespace kv
