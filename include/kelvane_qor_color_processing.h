/* The C interface of the color processing library: nineteen functions over opaque processor
 * handles. Usable from C and C++. Every list of three channels runs blue, green, red; the matrix
 * alone runs red, green, blue. */
#ifndef KELVANE_QOR_COLOR_PROCESSING_H
#define KELVANE_QOR_COLOR_PROCESSING_H

#include <stdint.h>

#if defined(_WIN32)
#if defined(KV_COLOR_PROCESSING_BUILD)
#define KV_COLOR_API __declspec(dllexport)
#else
#define KV_COLOR_API __declspec(dllimport)
#endif
#else
#define KV_COLOR_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A color processor. Only NULL is recognised as a bad handle: a destroyed handle must not be
 * used again. */
typedef struct kv_color_processor* kv_color_processor_handle;

/* Status codes. 6, 7 and 8 are never returned. */
typedef int32_t kv_status;
enum {
    KV_STATUS_SUCCESS = 0,
    /* From a function taking a handle: no initialize is in force. From initialize: the LUT module
     * is missing or incomplete, and yet the module counts as initialised (see there). */
    KV_STATUS_MODULE_NOT_INITIALIZED = 1,
    KV_STATUS_NULL_HANDLE = 2,
    KV_STATUS_NULL_INPUT_BUFFER = 3,
    KV_STATUS_NULL_OUTPUT_BUFFER = 4,
    KV_STATUS_SAME_BUFFER = 5,
    KV_STATUS_INVALID_INPUT_FORMAT = 9,
    KV_STATUS_INVALID_OUTPUT_FORMAT = 10,
    KV_STATUS_INVALID_SHIFT = 11,
    KV_STATUS_INVALID_CLAMP = 12
};

/* Buffer layouts, for input and output alike. With a fourth element per pixel, interleaved
 * layouts carry it last in each pixel and planar layouts carry a fourth plane. */
typedef int32_t kv_pixel_format;
enum {
    KV_FORMAT_BGR_PLANES = 0,      /* all blue, then all green, then all red */
    KV_FORMAT_BGR_INTERLEAVED = 1, /* b g r per pixel */
    KV_FORMAT_RGB_INTERLEAVED = 2  /* r g b per pixel */
};

/* Classes of vector code; kv_color_create_color_processor picks the best the processor has. */
typedef int32_t kv_processor_tier;
enum { KV_TIER_SCALAR = 0, KV_TIER_SSE = 1, KV_TIER_AVX2 = 2, KV_TIER_AVX512 = 3 };

/* Starts the module. The first call, and the first after the count fell back to 0, opens the
 * log; every call adds one to the count and loads the LUT module again. Calls may nest.
 * Returns 0, or 1 when the LUT module is missing or lacks one of its functions. A 1 rolls nothing
 * back: the count is raised and the log stays open, so the call needs its terminate like any
 * other; the functions taking a handle no longer return 1, and the LUT module's table of
 * functions is empty or partly filled. The creators return NULL only while no initialize is in
 * force, so after a 1 they do not: they call through that table, as do the LUT getters, destroy
 * and the transforms, and may crash. After a 1, call only terminate, unless a later initialize
 * returns 0. */
KV_COLOR_API kv_status kv_color_processing_module_initialize(void);

/* Balances one initialize; the last one closes the log. Every call also empties the LUT module's
 * table, whatever the count: after two initializes and one terminate no processor may be created
 * or used until the next initialize. Always 0. Destroy processors first. */
KV_COLOR_API kv_status kv_color_processing_module_terminate(void);

/* A new processor with tables of 2^input_LUT_bit_depth and 2^output_LUT_bit_depth entries (each
 * depth 0 to 16), identity matrix, all LUTs off and zero. NULL on failure (the log says why), or
 * while no initialize is in force (never called, or balanced by terminates). After an initialize
 * that returned 1 it is not NULL but unsafe: see kv_color_processing_module_initialize. */
KV_COLOR_API kv_color_processor_handle
kv_color_create_color_processor(int32_t input_LUT_bit_depth, int32_t output_LUT_bit_depth);

/* The same with the caller's tier instead of the processor's, stored unchecked: for tests and
 * benchmarks that force a path. 0 or less: scalar only; 2: AVX2; 3: AVX-512; other: SSE. */
KV_COLOR_API kv_color_processor_handle kv_color_create_color_processor_test(
    int32_t input_LUT_bit_depth, int32_t output_LUT_bit_depth, kv_processor_tier tier);

/* Destroys the processor and its tables; the LUT pointers handed out die with it. */
KV_COLOR_API kv_status kv_color_destroy_color_processor(kv_color_processor_handle processor);

/* matrix: nine floats by rows (red, green, blue rows and columns). The stored matrix S becomes
 * S x matrix, so the matrix appended last is the first applied to a pixel. Not checked for NULL. */
KV_COLOR_API kv_status kv_color_append_matrix(kv_color_processor_handle processor,
                                              const float* matrix);

/* Resets the stored matrix to the identity; LUTs are untouched. */
KV_COLOR_API kv_status kv_color_clear_matrix(kv_color_processor_handle processor);

/* Turns each channel's input (or output) LUT on for a non-zero value, off for zero. */
KV_COLOR_API kv_status kv_color_enable_input_LUTs(kv_color_processor_handle processor, int32_t blue,
                                                  int32_t green, int32_t red);
KV_COLOR_API kv_status kv_color_enable_output_LUTs(kv_color_processor_handle processor,
                                                   int32_t blue, int32_t green, int32_t red);

/* The 32-bit entries of one table, 2^depth of them, for the host to fill; NULL for a NULL handle
 * or an uninitialised module. An input LUT maps a 16-bit channel value through the low 16 bits of
 * its entry; an output LUT maps the clamped matrix result to a 32-bit value before shift and
 * narrowing. A pixel value at or above an enabled input table's size reads past the table. */
KV_COLOR_API uint32_t* kv_color_get_blue_input_LUT(kv_color_processor_handle processor);
KV_COLOR_API uint32_t* kv_color_get_green_input_LUT(kv_color_processor_handle processor);
KV_COLOR_API uint32_t* kv_color_get_red_input_LUT(kv_color_processor_handle processor);
KV_COLOR_API uint32_t* kv_color_get_blue_output_LUT(kv_color_processor_handle processor);
KV_COLOR_API uint32_t* kv_color_get_green_output_LUT(kv_color_processor_handle processor);
KV_COLOR_API uint32_t* kv_color_get_red_output_LUT(kv_color_processor_handle processor);

/* The four transforms take the same fifteen arguments:
 *   input_buffer: 3 x 16-bit elements a pixel in input_format;
 *   *_output_min, *_output_max: clamp limits per channel applied to the matrix result; max must
 *     not lie below min, nor above the last entry of an enabled output LUT;
 *   *_shift_distance: -15 to 15; positive shifts left, negative right, 0 is no shift;
 *   output_buffer: 8-bit (24/32) or 16-bit (48/64) elements in output_format, 3 or 4 a pixel,
 *     a different buffer from input_buffer; the fourth element is written as 0;
 *   pixel_count: pixels to process; 0 or less processes none.
 * Buffer sizes are not checked. A refused request touches neither buffer. */
/* 48-bit pixels to 24-bit (3 x 8) pixels. */
KV_COLOR_API kv_status kv_color_transform_48_to_24(
    kv_color_processor_handle processor, const uint16_t* input_buffer, kv_pixel_format input_format,
    uint16_t blue_output_min, uint16_t blue_output_max, uint16_t green_output_min,
    uint16_t green_output_max, uint16_t red_output_min, uint16_t red_output_max,
    int32_t blue_shift_distance, int32_t green_shift_distance, int32_t red_shift_distance,
    uint8_t* output_buffer, kv_pixel_format output_format, int32_t pixel_count);

/* 48-bit pixels to 32-bit (4 x 8) pixels. */
KV_COLOR_API kv_status kv_color_transform_48_to_32(
    kv_color_processor_handle processor, const uint16_t* input_buffer, kv_pixel_format input_format,
    uint16_t blue_output_min, uint16_t blue_output_max, uint16_t green_output_min,
    uint16_t green_output_max, uint16_t red_output_min, uint16_t red_output_max,
    int32_t blue_shift_distance, int32_t green_shift_distance, int32_t red_shift_distance,
    uint8_t* output_buffer, kv_pixel_format output_format, int32_t pixel_count);

/* 48-bit pixels to 48-bit (3 x 16) pixels. */
KV_COLOR_API kv_status kv_color_transform_48_to_48(
    kv_color_processor_handle processor, const uint16_t* input_buffer, kv_pixel_format input_format,
    uint16_t blue_output_min, uint16_t blue_output_max, uint16_t green_output_min,
    uint16_t green_output_max, uint16_t red_output_min, uint16_t red_output_max,
    int32_t blue_shift_distance, int32_t green_shift_distance, int32_t red_shift_distance,
    uint16_t* output_buffer, kv_pixel_format output_format, int32_t pixel_count);

/* 48-bit pixels to 64-bit (4 x 16) pixels. */
KV_COLOR_API kv_status kv_color_transform_48_to_64(
    kv_color_processor_handle processor, const uint16_t* input_buffer, kv_pixel_format input_format,
    uint16_t blue_output_min, uint16_t blue_output_max, uint16_t green_output_min,
    uint16_t green_output_max, uint16_t red_output_min, uint16_t red_output_max,
    int32_t blue_shift_distance, int32_t green_shift_distance, int32_t red_shift_distance,
    uint16_t* output_buffer, kv_pixel_format output_format, int32_t pixel_count);

#ifdef __cplusplus
}
#endif

#endif /* KELVANE_QOR_COLOR_PROCESSING_H */
