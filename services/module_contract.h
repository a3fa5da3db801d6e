// The run-time contract with the companion modules, written once: each module's file base name
// and the entry points looked up in it, in lookup order. The library, kelvane-color --info and the
// benchmark load by these names, and the vector modules' export lists are generated from this file
// (modules/vector/CMakeLists.txt reads KV_VECTOR_MODULE_NAMES), so a renamed entry point is
// renamed here alone.
#pragma once

#include <cstddef>

namespace kv {

struct module_names {
    const char* base_name;  // the platform layer appends ".so" or ".dll"
    const char* entries[6];
    std::size_t entry_count;
};

// Entry indexes, in lookup order. A lookup walk stops at the first name a module lacks, so the
// order decides which fields a partly complete module leaves set.
enum logger_entry : std::size_t { QOR_GET_LOG, QOR_LOG, QOR_FREE_LOG };
enum LUT_entry : std::size_t {
    LUT_INITIALIZE,
    LUT_CREATE,
    LUT_TRANSFORM_16,
    LUT_GET_DATA,
    LUT_DESTROY,
    LUT_TERMINATE
};
enum vector_entry : std::size_t {
    VECTOR_INITIALIZE,
    VECTOR_TRANSFORM_8_BIT_OUTPUT,
    VECTOR_TRANSFORM_16_BIT_OUTPUT,
    VECTOR_TERMINATE
};

// qor_free_log is looked up at destruction only, apart from the other two.
inline constexpr module_names LOGGER_MODULE = {
    "kelvane_qor_logger", {"qor_get_log", "qor_log", "qor_free_log"}, 3};

inline constexpr module_names LUT_MODULE = {
    "kelvane_qor_LUT",
    {"kv_LUT_module_initialize", "kv_create_LUT_test", "kv_LUT_transform_16", "kv_get_LUT_data",
     "kv_destroy_LUT", "kv_LUT_module_terminate"},
    6};

// The names of the vector module of one instruction set; one entry a line, as the build reads it.
#define KV_VECTOR_MODULE_NAMES(isa)                                      \
    module_names {                                                       \
        "kelvane_qor_color_processing_vector_" #isa,                     \
            {"kv_color_processing_vector_" #isa "_module_initialize",    \
             "kv_color_processing_transform_8_bit_output_vector_" #isa,  \
             "kv_color_processing_transform_16_bit_output_vector_" #isa, \
             "kv_color_processing_vector_" #isa "_module_terminate"},    \
            4                                                            \
    }

// Indexed by tier - 1: SSE, AVX2, AVX-512.
inline constexpr module_names VECTOR_MODULES[3] = {
    KV_VECTOR_MODULE_NAMES(sse), KV_VECTOR_MODULE_NAMES(avx2), KV_VECTOR_MODULE_NAMES(avx512)};

#undef KV_VECTOR_MODULE_NAMES

// The one configuration name the library knows: handed to the logging module, never opened here.
inline constexpr const char* LOGGER_CONFIG_FILE_NAME = "kelvane_qor_logger.cfg";

}  // namespace kv
