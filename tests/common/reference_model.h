// An independent model of the pixel pipeline and the buffer layouts, written from the rules and
// not from the kernels. Every test that checks pixels compares against it.
#pragma once

#include <cstdint>

#include "kernels/transform_request.h"

namespace kv {
namespace reference {

// The rounding step alone: widen, add 0.5 in double, truncate; NaN and out of range give INT32_MIN.
int32_t round_to_int32(float sum);

// Element place of a channel (0 blue, 1 green, 2 red, 3 fourth) of pixel i in a frame of n pixels.
// Formats other than 1 and 2 are planes, as the dispatch tree reads them.
uint64_t element_place(int32_t format, int channel, uint64_t i, uint64_t n, bool fourth_channel);

// What a transform of this record from start_index stores: writes into the record's output buffer
// exactly the elements of pixels start_index .. pixel_count-1. Flags are on when non-zero; the
// matrix is read through the processor.
void run_request(const transform_request& request, int output_width, int32_t start_index);

}  // namespace reference
}  // namespace kv
