/* The C interface of the colour layer: sets up color processors from named RGB spaces, ICC
 * matrix-shaper profiles and CLF/CTF process lists. Plain C, ctypes-friendly: opaque pointers,
 * int32 statuses, sizes as size_t, text as NUL-terminated UTF-8, and a per-thread message.
 *
 *   kv_color_space *srgb, *p3;  kv_color_conversion* c;  kv_color_processor_handle p;
 *   kv_color_space_named("srgb", &srgb);  kv_color_space_named("display-p3", &p3);
 *   if (kv_color_conversion_between(srgb, p3, 16, &c) != KV_COLOR_LAYER_OK)
 *       fprintf(stderr, "%s\n", kv_color_layer_message());
 *   kv_color_conversion_create_processor(c, &p);     (after kv_color_processing_module_initialize)
 *   kv_color_conversion_frame_settings(c, &settings); then kv_color_transform_48_to_48(p, ...)
 *
 * Every function that can fail returns a status and leaves a message for the calling thread,
 * read with kv_color_layer_message() until the thread's next call into this layer. Output
 * pointers are written only on success. Every list of three runs blue, green, red; the matrix
 * alone runs red, green, blue. */
#ifndef KELVANE_QOR_COLOR_H
#define KELVANE_QOR_COLOR_H

#include <stddef.h>
#include <stdint.h>

#include "kelvane_qor_color_processing.h"

#if defined(_WIN32)
#if defined(KV_COLOR_LAYER_BUILD)
#define KV_COLOR_LAYER_API __declspec(dllexport)
#else
#define KV_COLOR_LAYER_API __declspec(dllimport)
#endif
#else
#define KV_COLOR_LAYER_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t kv_color_layer_status;
enum {
    KV_COLOR_LAYER_OK = 0,
    KV_COLOR_LAYER_INVALID_ARGUMENT = 1,     /* unknown name, depth not 8 or 16, NULL pointer */
    KV_COLOR_LAYER_UNREADABLE_FILE = 2,      /* cannot open or read, not a regular file, too big */
    KV_COLOR_LAYER_PROFILE_REFUSED = 3,      /* damaged, or not an RGB matrix-shaper profile */
    KV_COLOR_LAYER_PROCESS_LIST_REFUSED = 4, /* malformed, or needs more than one processor */
    KV_COLOR_LAYER_LIBRARY_FAILED = 5,       /* the processing library refused a call */
    KV_COLOR_LAYER_OUT_OF_MEMORY = 6,
    KV_COLOR_LAYER_INTERNAL = 7
};

/* The calling thread's message from its last call: "" after a success. Control bytes of names
 * and file contents are escaped as \xNN. */
KV_COLOR_LAYER_API const char* kv_color_layer_message(void);
/* "KV_COLOR_LAYER_PROFILE_REFUSED" and so on; NULL for another number. */
KV_COLOR_LAYER_API const char* kv_color_layer_status_name(kv_color_layer_status status);

/* A source or destination description. */
typedef struct kv_color_space kv_color_space;

/* The named spaces, index 0 upwards; NULL past the last. */
KV_COLOR_LAYER_API const char* kv_color_space_name(int32_t index);
/* "srgb", "display-p3", "rec709", "rec2020", "adobe-rgb", "prophoto", "dci-p3" and each with
 * "linear-" in front. */
KV_COLOR_LAYER_API kv_color_layer_status kv_color_space_named(const char* name,
                                                              kv_color_space** space);
/* An ICC RGB matrix-shaper profile, v2 or v4, from `size` bytes; `label` (may be NULL) names it
 * in messages. The bytes are copied. */
KV_COLOR_LAYER_API kv_color_layer_status kv_color_space_from_icc(const void* bytes, size_t size,
                                                                 const char* label,
                                                                 kv_color_space** space);
KV_COLOR_LAYER_API kv_color_layer_status kv_color_space_from_icc_file(const char* path,
                                                                      kv_color_space** space);
/* The ICC bytes of the space, to embed in an output: a profile's own bytes, or one made for a
 * named space. Writes *size always; copies into `buffer` when `capacity` >= *size (call with
 * capacity 0 first to learn the size). */
KV_COLOR_LAYER_API kv_color_layer_status kv_color_space_icc(const kv_color_space* space,
                                                            void* buffer, size_t capacity,
                                                            size_t* size);
/* The space's name in messages; valid while the space lives. */
KV_COLOR_LAYER_API const char* kv_color_space_label(const kv_color_space* space);
KV_COLOR_LAYER_API void kv_color_space_destroy(kv_color_space* space);

/* A processor set-up: matrix, six tables of 65,536 entries, clamps and shifts. */
typedef struct kv_color_conversion kv_color_conversion;

/* From source to destination for output elements of `output_bits` (8 or 16). */
KV_COLOR_LAYER_API kv_color_layer_status
kv_color_conversion_between(const kv_color_space* source, const kv_color_space* destination,
                            int32_t output_bits, kv_color_conversion** conversion);
/* A CLF or CTF process list from `size` bytes of XML; `label` (may be NULL) names it in
 * messages. Input elements are 16-bit codes; the result has `output_bits` bits. */
KV_COLOR_LAYER_API kv_color_layer_status
kv_color_conversion_from_clf(const void* text, size_t size, const char* label, int32_t output_bits,
                             kv_color_conversion** conversion);
KV_COLOR_LAYER_API kv_color_layer_status kv_color_conversion_from_clf_file(
    const char* path, int32_t output_bits, kv_color_conversion** conversion);
KV_COLOR_LAYER_API void kv_color_conversion_destroy(kv_color_conversion* conversion);

/* Creates a processor (16-bit input and output LUTs) and configures it; the module must be
 * initialised. The caller destroys it with kv_color_destroy_color_processor. */
KV_COLOR_LAYER_API kv_color_layer_status kv_color_conversion_create_processor(
    const kv_color_conversion* conversion, kv_color_processor_handle* processor);
/* Configures a processor the caller made; its LUT depths, as given to its creation, must both be
 * 16 (anything else is refused before a table is touched). Replaces matrix, tables and flags. */
KV_COLOR_LAYER_API kv_color_layer_status kv_color_conversion_configure(
    const kv_color_conversion* conversion, kv_color_processor_handle processor,
    int32_t input_LUT_bits, int32_t output_LUT_bits);

/* Clamp limits and shifts to pass to every transform, blue, green, red. */
typedef struct kv_color_frame_settings {
    int32_t blue_minimum, blue_maximum, blue_shift;
    int32_t green_minimum, green_maximum, green_shift;
    int32_t red_minimum, red_maximum, red_shift;
} kv_color_frame_settings;
KV_COLOR_LAYER_API kv_color_layer_status kv_color_conversion_frame_settings(
    const kv_color_conversion* conversion, kv_color_frame_settings* settings);

/* 8 or 16: the output element width the tables are made for (0 for NULL). */
KV_COLOR_LAYER_API int32_t kv_color_conversion_output_bits(const kv_color_conversion* conversion);
/* "srgb to display-p3, 16 bits"; valid while the conversion lives. */
KV_COLOR_LAYER_API const char* kv_color_conversion_description(
    const kv_color_conversion* conversion);
/* The nine matrix elements by rows, red, green, blue, as the processor receives them. */
KV_COLOR_LAYER_API kv_color_layer_status
kv_color_conversion_matrix(const kv_color_conversion* conversion, float* matrix);
/* One table: `output_side` 0 for input LUTs, 1 for output LUTs; `channel` 0 blue, 1 green, 2 red.
 * *enabled is 0 for a LUT the processor leaves off (entries are then not written); otherwise the
 * 65,536 entries go to `entries`, whose `count` must be at least 65536. */
KV_COLOR_LAYER_API kv_color_layer_status
kv_color_conversion_LUT(const kv_color_conversion* conversion, int32_t output_side, int32_t channel,
                        uint32_t* entries, size_t count, int32_t* enabled);

#ifdef __cplusplus
}
#endif

#endif /* KELVANE_QOR_COLOR_H */
