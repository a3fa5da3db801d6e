// The processor object behind a handle: its matrix, its two LUT sets, the tier it was created for
// and its three vector back-ends, with the operations on them and the per-frame transform.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kernels/transform_request.h"
#include "services/module_abi.h"
#include "services/vector_backend.h"

namespace kv {

// One table from the LUT module and whether it takes part in the next frame. Creates its table in
// the constructor and destroys it in the destructor.
struct color_LUT {
    abi::LUT_handle handle;
    uint8_t enabled;

    color_LUT(int32_t entry_count, int32_t avx2_flag);
    ~color_LUT();
    color_LUT(const color_LUT&) = delete;
    color_LUT& operator=(const color_LUT&) = delete;
};

// Blue, green, red. All three tables are created before the first is cleared; they go in the
// reverse order, red first.
struct color_LUT_set {
    color_LUT blue;
    color_LUT green;
    color_LUT red;

    // `avx2_tier`: the processor's tier is exactly TIER_AVX2, which the LUT module is told.
    color_LUT_set(int32_t bit_depth, bool avx2_tier);
};

// The output element a transform form writes.
enum class output_width { bits_8, bits_16 };

struct color_correction {
    // By rows, red, green, blue. Must stay first: kernels and vector modules read it through the
    // request's processor pointer.
    float matrix[9];
    color_LUT_set input_LUTs;
    color_LUT_set output_LUTs;
    int32_t output_LUT_size;  // 1 << output_LUT_bit_depth
    int32_t tier;             // as the creator gave it, unchecked
    vector_backend sse_backend;
    vector_backend avx2_backend;
    vector_backend avx512_backend;

    // Builds the stages in order: identity matrix, input LUTs, output LUTs, output LUT size and
    // tier, then the SSE, AVX2 and AVX-512 back-ends. Depths must already be 0 to 16. An exception
    // from a stage undoes the stages before it, last first.
    color_correction(int32_t input_LUT_bit_depth, int32_t output_LUT_bit_depth, int32_t tier);
    // Back-ends AVX-512, AVX2, SSE, then the output and input LUTs, each set red first.
    ~color_correction() = default;
    color_correction(const color_correction&) = delete;
    color_correction& operator=(const color_correction&) = delete;

    // Validates the request, fills in the LUT addresses, flags and processor, and runs the frame:
    // one vector back-end by tier, then the scalar kernels from where it stopped. Returns a
    // status; writes nothing in the object.
    template <output_width width>
    int32_t transform(transform_request* request) const;
};

static_assert(std::is_standard_layout<color_correction>::value,
              "the matrix at offset 0 is a contract with the kernels and the vector modules");
static_assert(offsetof(color_correction, matrix) == offsetof(color_correction_head, matrix),
              "the matrix must be the first member");
static_assert(sizeof(color_correction::matrix) == sizeof(color_correction_head::matrix),
              "nine floats");

// The identity: all bits zero, then 1.0 on the diagonal.
void reset_matrix(float (&matrix)[9]);

// stored := stored x given, both by rows, in single precision with the terms of each element
// added in column order from +0.0. `given` may overlap `stored`.
void append_matrix(float (&stored)[9], const float* given);

extern template int32_t color_correction::transform<output_width::bits_8>(
    transform_request* request) const;
extern template int32_t color_correction::transform<output_width::bits_16>(
    transform_request* request) const;

}  // namespace kv
