// Definitions of the level 3 and level 4 selectors. Only the kernel units include this: each
// instantiates one level 3 selector, and with it 12 level 4 selectors and 648 kernels.
#pragma once

#include "kernels/dispatch_tree.h"

namespace kv {
namespace tree {

// Level 4: green and red shift signs (3 x 3), fourth channel (2), output format (3), then the
// kernel, which gets start_index by value.
template <uint32_t Code>
void selector(shift_sign green_shift_sign, const shift_sign& red_shift_sign,
              const uint8_t& fourth_channel, const pixel_format& output_format,
              const transform_request* request, const int32_t& start_index) {
    branch<Code, 3, 3, 2, 3>::go(green_shift_sign, red_shift_sign, fourth_channel, output_format,
                                 request, start_index);
}

// Level 3: green and red output LUT flags (2 x 2), blue shift sign (3).
template <uint32_t Code>
void selector(uint8_t green_output_LUT_enabled, const uint8_t& red_output_LUT_enabled,
              const shift_sign& blue_shift_sign, const shift_sign& green_shift_sign,
              const shift_sign& red_shift_sign, const uint8_t& fourth_channel,
              const pixel_format& output_format, const transform_request* request,
              const int32_t& start_index) {
    branch<Code, 2, 2, 3>::go(green_output_LUT_enabled, red_output_LUT_enabled, blue_shift_sign,
                              green_shift_sign, red_shift_sign, fourth_channel, output_format,
                              request, start_index);
}

}  // namespace tree
}  // namespace kv
