/* kelvane_qor_LUT: the module that makes and owns the look-up tables of the color processing
 * library. The library loads it by file name ("kelvane_qor_LUT.so" / "kelvane_qor_LUT.dll") and
 * finds these six functions by name; hosts and tests may also link it or load it themselves.
 *
 * Tables hold 32-bit entries. Every table starts zero-filled, its data is aligned to 64 bytes and
 * padded with zero entries to a whole number of 64-byte lines (a multiple of 16 entries), so a
 * full vector load that starts inside the table never leaves its memory.
 *
 * All functions are safe to call from several threads at once. A table's own entries are plain
 * memory: writing them while another thread reads them is the caller's affair, and so is using a
 * table while another thread destroys it. */
#ifndef KELVANE_QOR_LUT_H
#define KELVANE_QOR_LUT_H

#include <stdint.h>

/* Windows hosts that link the module import its functions (so that a function's address is the
 * module's own); the module's build defines KV_LUT_BUILD and exports them through its .def file. */
#if defined(_WIN32) && !defined(KV_LUT_BUILD)
#define KV_LUT_API __declspec(dllimport)
#else
#define KV_LUT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The largest table: one entry for every 16-bit value. */
#define KV_LUT_MAX_ENTRY_COUNT 65536

/* Failure result of the functions that return int32_t. */
#define KV_LUT_BAD_ARGUMENT (-1)

/* Initialisation and termination hold nothing: the module works without them and they may be
 * called any number of times in any order (the library initialises on every load and terminates
 * once). Termination does not touch live tables, which keep working, and tables may be created
 * after it. Both return 0. */
KV_LUT_API int32_t kv_LUT_module_initialize(void);
KV_LUT_API int32_t kv_LUT_module_terminate(void);

/* Creates a zero-filled table with room for `entry_count` 32-bit entries, 1 to
 * KV_LUT_MAX_ENTRY_COUNT, and returns its handle; NULL for a count out of that range.
 * `avx2_flag` (the library passes 1 for a processor of the AVX2 tier) changes nothing: the common
 * alignment and padding already suit every vector width.
 * Out of memory: throws std::bad_alloc from C++ (nothing is left allocated). */
KV_LUT_API void* kv_create_LUT_test(int32_t entry_count, int32_t avx2_flag);

/* The address of the table's first entry: the same for the whole life of the handle. NULL for a
 * NULL handle or one that is not a live table of this module. */
KV_LUT_API uint32_t* kv_get_LUT_data(void* handle);

/* Frees the table. Returns 0, or KV_LUT_BAD_ARGUMENT (nothing freed) for a NULL handle or one that
 * is not a live table of this module, such as a handle destroyed before. */
KV_LUT_API int32_t kv_destroy_LUT(void* handle);

/* Maps `count` 16-bit values from `source` through the table of `handle` into `destination`:
 * destination[i] = low 16 bits of table[source[i]]. A value at or beyond the table's entry count
 * reads the last entry. `source` and `destination` may be the same buffer; other overlaps are not
 * supported. Returns 0, or KV_LUT_BAD_ARGUMENT, writing nothing, for a NULL or unknown handle, a
 * negative count, or a NULL buffer with a count above 0. */
KV_LUT_API int32_t kv_LUT_transform_16(void* handle, const uint16_t* source, uint16_t* destination,
                                       int32_t count);

#ifdef __cplusplus
}
#endif

#endif /* KELVANE_QOR_LUT_H */
