// The top of the dispatch tree: the two entries (level 1) and the twelve level 2 selectors. The
// level 3 selectors below them are instantiated in the generated kernel units.
#include "kernels/dispatch.h"

#include "kernels/dispatch_tree.h"

namespace kv {
namespace tree {

// Level 2: green and red input LUT flags, blue output LUT flag (2 x 2 x 2).
template <uint32_t Code>
void selector(uint8_t green_input_LUT_enabled, const uint8_t& red_input_LUT_enabled,
              const uint8_t& blue_output_LUT_enabled, const uint8_t& green_output_LUT_enabled,
              const uint8_t& red_output_LUT_enabled, const shift_sign& blue_shift_sign,
              const shift_sign& green_shift_sign, const shift_sign& red_shift_sign,
              const uint8_t& fourth_channel, const pixel_format& output_format,
              const transform_request* request, const int32_t& start_index) {
    branch<Code, 2, 2, 2>::go(green_input_LUT_enabled, red_input_LUT_enabled,
                              blue_output_LUT_enabled, green_output_LUT_enabled,
                              red_output_LUT_enabled, blue_shift_sign, green_shift_sign,
                              red_shift_sign, fourth_channel, output_format, request, start_index);
}

// Level 1: input format (3), blue input LUT flag (2). The signs are worked out once here; they
// and start_index live in this frame for as long as references to them travel down the tree, and
// the flags and formats are passed as references into the request itself.
template <uint32_t WidthCode>
inline void entry(const transform_request* request, int32_t start_index_argument) {
    const shift_sign red_shift_sign = shift_sign_of(request->red_shift_distance);
    const shift_sign green_shift_sign = shift_sign_of(request->green_shift_distance);
    const shift_sign blue_shift_sign = shift_sign_of(request->blue_shift_distance);
    const int32_t start_index = start_index_argument;
    const transform_request& r = *request;

    branch<WidthCode, 3, 2>::go(r.input_format, r.blue_input_LUT_enabled, r.green_input_LUT_enabled,
                                r.red_input_LUT_enabled, r.blue_output_LUT_enabled,
                                r.green_output_LUT_enabled, r.red_output_LUT_enabled,
                                blue_shift_sign, green_shift_sign, red_shift_sign, r.fourth_channel,
                                r.output_format, request, start_index);
}

}  // namespace tree

void dispatch_kernel_8(const transform_request* request, int32_t start_index) {
    tree::entry<0>(request, start_index);
}

void dispatch_kernel_16(const transform_request* request, int32_t start_index) {
    tree::entry<1>(request, start_index);
}

}  // namespace kv
