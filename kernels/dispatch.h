// The two entries of the scalar path, one for each output width. They pick the one pixel_kernel
// of the request's settings and run it from start_index to the end of the frame.
#pragma once

#include <cstdint>

#include "kernels/transform_request.h"

namespace kv {

// The record must be validated and carry its LUT addresses and processor.
void dispatch_kernel_8(const transform_request* request, int32_t start_index);
void dispatch_kernel_16(const transform_request* request, int32_t start_index);

}  // namespace kv
