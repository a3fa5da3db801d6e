// The per-call transform record and the head of the processor object: a binary contract between
// the library and the separately built vector modules, checked here offset by offset.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

// Any 32-bit value can travel in a record; the dispatch tree sends everything but 1 and 2 to
// planes.
enum pixel_format : int32_t {
    FORMAT_BGR_PLANES = 0,
    FORMAT_BGR_INTERLEAVED = 1,
    FORMAT_RGB_INTERLEAVED = 2,
};

enum processor_tier : int32_t {
    TIER_SCALAR = 0,
    TIER_SSE = 1,
    TIER_AVX2 = 2,
    TIER_AVX512 = 3,
};

// The processor object is defined by the library. All a kernel or a vector module may assume is
// that its first bytes are the nine matrix floats, by rows, red, green, blue.
struct color_correction;

struct color_correction_head {
    float matrix[9];
};

inline const float* matrix_of(const color_correction* processor) {
    return reinterpret_cast<const color_correction_head*>(processor)->matrix;
}

// Lives on the stack of one transform call. The reserved bytes are never written or read: they
// keep whatever the stack held, so nothing may rely on them.
struct transform_request {
    const uint16_t* input_buffer;
    pixel_format input_format;
    uint8_t reserved_12[4];
    const uint32_t* blue_input_LUT;
    uint8_t blue_input_LUT_enabled;
    uint8_t reserved_25[7];
    const uint32_t* green_input_LUT;
    uint8_t green_input_LUT_enabled;
    uint8_t reserved_41[7];
    const uint32_t* red_input_LUT;
    uint8_t red_input_LUT_enabled;
    uint8_t reserved_57[7];
    const color_correction* processor;
    uint16_t blue_output_min;
    uint16_t blue_output_max;
    uint16_t green_output_min;
    uint16_t green_output_max;
    uint16_t red_output_min;
    uint16_t red_output_max;
    uint8_t reserved_84[4];
    const uint32_t* blue_output_LUT;
    uint8_t blue_output_LUT_enabled;
    uint8_t reserved_97[7];
    const uint32_t* green_output_LUT;
    uint8_t green_output_LUT_enabled;
    uint8_t reserved_113[7];
    const uint32_t* red_output_LUT;
    uint8_t red_output_LUT_enabled;
    uint8_t reserved_129[3];
    int32_t blue_shift_distance;
    int32_t green_shift_distance;
    int32_t red_shift_distance;
    void* output_buffer;
    pixel_format output_format;
    uint8_t fourth_channel;
    uint8_t reserved_157[3];
    int32_t pixel_count;
};

static_assert(sizeof(void*) == 8, "the record layout assumes 8-byte pointers");
static_assert(sizeof(pixel_format) == 4 && sizeof(processor_tier) == 4, "32-bit enumerations");
static_assert(offsetof(transform_request, input_buffer) == 0, "layout");
static_assert(offsetof(transform_request, input_format) == 8, "layout");
static_assert(offsetof(transform_request, blue_input_LUT) == 16, "layout");
static_assert(offsetof(transform_request, blue_input_LUT_enabled) == 24, "layout");
static_assert(offsetof(transform_request, green_input_LUT) == 32, "layout");
static_assert(offsetof(transform_request, green_input_LUT_enabled) == 40, "layout");
static_assert(offsetof(transform_request, red_input_LUT) == 48, "layout");
static_assert(offsetof(transform_request, red_input_LUT_enabled) == 56, "layout");
static_assert(offsetof(transform_request, processor) == 64, "layout");
static_assert(offsetof(transform_request, blue_output_min) == 72, "layout");
static_assert(offsetof(transform_request, blue_output_max) == 74, "layout");
static_assert(offsetof(transform_request, green_output_min) == 76, "layout");
static_assert(offsetof(transform_request, green_output_max) == 78, "layout");
static_assert(offsetof(transform_request, red_output_min) == 80, "layout");
static_assert(offsetof(transform_request, red_output_max) == 82, "layout");
static_assert(offsetof(transform_request, blue_output_LUT) == 88, "layout");
static_assert(offsetof(transform_request, blue_output_LUT_enabled) == 96, "layout");
static_assert(offsetof(transform_request, green_output_LUT) == 104, "layout");
static_assert(offsetof(transform_request, green_output_LUT_enabled) == 112, "layout");
static_assert(offsetof(transform_request, red_output_LUT) == 120, "layout");
static_assert(offsetof(transform_request, red_output_LUT_enabled) == 128, "layout");
static_assert(offsetof(transform_request, blue_shift_distance) == 132, "layout");
static_assert(offsetof(transform_request, green_shift_distance) == 136, "layout");
static_assert(offsetof(transform_request, red_shift_distance) == 140, "layout");
static_assert(offsetof(transform_request, output_buffer) == 144, "layout");
static_assert(offsetof(transform_request, output_format) == 152, "layout");
static_assert(offsetof(transform_request, fourth_channel) == 156, "layout");
static_assert(offsetof(transform_request, pixel_count) == 160, "layout");
static_assert(sizeof(transform_request) == 168,
              "the record ends at 164, padded to pointer alignment");

static_assert(offsetof(color_correction_head, matrix) == 0, "layout");
static_assert(sizeof(color_correction_head) == 36, "nine 32-bit floats");

}  // namespace kv
