// An independent model of the pixel pipeline and the buffer layouts, written from the rules and
// not from the kernels. Every test that checks pixels compares against it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kernels/transform_request.h"

namespace kv {
namespace reference {

// Channel order in the arrays below: blue, green, red.
enum channel_index { BLUE = 0, GREEN = 1, RED = 2 };

struct pipeline_settings {
    float matrix[9];                // by rows, red, green, blue
    const uint32_t* input_LUT[3];   // NULL: that channel's input LUT is off
    const uint32_t* output_LUT[3];  // NULL: off
    uint16_t minimum[3];
    uint16_t maximum[3];
    int32_t shift_distance[3];  // 0: no shift stage
};

// The 32-bit values of one pixel before narrowing, blue, green, red.
struct pixel_result {
    uint32_t value[3];
};

// The rounding step alone: widen, add 0.5 in double, truncate; NaN and out of range give INT32_MIN.
int32_t round_to_int32(float sum);

// One pixel through every stage but the store.
pixel_result run_pixel(const pipeline_settings& settings, uint16_t blue, uint16_t green,
                       uint16_t red);

// Element place of a channel (0 blue, 1 green, 2 red, 3 fourth) of pixel i in a frame of n pixels.
// Formats other than 1 and 2 are planes, as the dispatch tree reads them.
uint64_t element_place(int32_t format, int channel, uint64_t i, uint64_t n, bool fourth_channel);

// Reads the settings out of a transform record as the rules define them: flags non-zero for on,
// matrix through processor.
pipeline_settings settings_from_request(const transform_request& request);

// What a transform of this record from start_index stores: writes into the record's output buffer
// exactly the elements of pixels start_index .. pixel_count-1.
void run_request(const transform_request& request, int output_width, int32_t start_index);

}  // namespace reference
}  // namespace kv
