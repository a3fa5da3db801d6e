// The top of the dispatch tree: the two entries (level 1) and the twelve level 2 selectors. The
// level 3 selectors below them are instantiated in the generated kernel units.
#include "kernels/dispatch.h"

#include "kernels/dispatch_tree.h"

namespace kv {
namespace tree {

template <uint32_t Code>
inline void by_blue_output(const uint8_t& blue_output_LUT_enabled,
                           const uint8_t& green_output_LUT_enabled,
                           const uint8_t& red_output_LUT_enabled, const shift_sign& blue_shift_sign,
                           const shift_sign& green_shift_sign, const shift_sign& red_shift_sign,
                           const uint8_t& fourth_channel, const pixel_format& output_format,
                           const transform_request* request, const int32_t& start_index) {
    if (blue_output_LUT_enabled != 0) {
        return selector<settle(Code, 2, 1)>(green_output_LUT_enabled, red_output_LUT_enabled,
                                            blue_shift_sign, green_shift_sign, red_shift_sign,
                                            fourth_channel, output_format, request, start_index);
    }
    return selector<settle(Code, 2, 0)>(green_output_LUT_enabled, red_output_LUT_enabled,
                                        blue_shift_sign, green_shift_sign, red_shift_sign,
                                        fourth_channel, output_format, request, start_index);
}

template <uint32_t Code>
inline void by_red_input(const uint8_t& red_input_LUT_enabled,
                         const uint8_t& blue_output_LUT_enabled,
                         const uint8_t& green_output_LUT_enabled,
                         const uint8_t& red_output_LUT_enabled, const shift_sign& blue_shift_sign,
                         const shift_sign& green_shift_sign, const shift_sign& red_shift_sign,
                         const uint8_t& fourth_channel, const pixel_format& output_format,
                         const transform_request* request, const int32_t& start_index) {
    if (red_input_LUT_enabled != 0) {
        return by_blue_output<settle(Code, 2, 1)>(blue_output_LUT_enabled, green_output_LUT_enabled,
                                                  red_output_LUT_enabled, blue_shift_sign,
                                                  green_shift_sign, red_shift_sign, fourth_channel,
                                                  output_format, request, start_index);
    }
    return by_blue_output<settle(Code, 2, 0)>(
        blue_output_LUT_enabled, green_output_LUT_enabled, red_output_LUT_enabled, blue_shift_sign,
        green_shift_sign, red_shift_sign, fourth_channel, output_format, request, start_index);
}

template <uint32_t Code>
void selector(uint8_t green_input_LUT_enabled, const uint8_t& red_input_LUT_enabled,
              const uint8_t& blue_output_LUT_enabled, const uint8_t& green_output_LUT_enabled,
              const uint8_t& red_output_LUT_enabled, const shift_sign& blue_shift_sign,
              const shift_sign& green_shift_sign, const shift_sign& red_shift_sign,
              const uint8_t& fourth_channel, const pixel_format& output_format,
              const transform_request* request, const int32_t& start_index) {
    if (green_input_LUT_enabled != 0) {
        return by_red_input<settle(Code, 2, 1)>(
            red_input_LUT_enabled, blue_output_LUT_enabled, green_output_LUT_enabled,
            red_output_LUT_enabled, blue_shift_sign, green_shift_sign, red_shift_sign,
            fourth_channel, output_format, request, start_index);
    }
    return by_red_input<settle(Code, 2, 0)>(red_input_LUT_enabled, blue_output_LUT_enabled,
                                            green_output_LUT_enabled, red_output_LUT_enabled,
                                            blue_shift_sign, green_shift_sign, red_shift_sign,
                                            fourth_channel, output_format, request, start_index);
}

// Level 1, after the input format: the blue input LUT flag picks the level 2 selector.
template <uint32_t Code>
inline void by_blue_input(const transform_request* request, const shift_sign& blue_shift_sign,
                          const shift_sign& green_shift_sign, const shift_sign& red_shift_sign,
                          const int32_t& start_index) {
    const transform_request& r = *request;
    if (r.blue_input_LUT_enabled != 0) {
        return selector<settle(Code, 2, 1)>(
            r.green_input_LUT_enabled, r.red_input_LUT_enabled, r.blue_output_LUT_enabled,
            r.green_output_LUT_enabled, r.red_output_LUT_enabled, blue_shift_sign, green_shift_sign,
            red_shift_sign, r.fourth_channel, r.output_format, request, start_index);
    }
    return selector<settle(Code, 2, 0)>(
        r.green_input_LUT_enabled, r.red_input_LUT_enabled, r.blue_output_LUT_enabled,
        r.green_output_LUT_enabled, r.red_output_LUT_enabled, blue_shift_sign, green_shift_sign,
        red_shift_sign, r.fourth_channel, r.output_format, request, start_index);
}

// Level 1. The signs are worked out once here; they and start_index live in this frame for as long
// as references to them travel down the tree.
template <uint32_t WidthCode>
inline void entry(const transform_request* request, int32_t start_index_argument) {
    const shift_sign red_shift_sign = shift_sign_of(request->red_shift_distance);
    const shift_sign green_shift_sign = shift_sign_of(request->green_shift_distance);
    const shift_sign blue_shift_sign = shift_sign_of(request->blue_shift_distance);
    const int32_t start_index = start_index_argument;

    switch (request->input_format) {
        case FORMAT_BGR_INTERLEAVED:
            return by_blue_input<settle(WidthCode, 3, 1)>(
                request, blue_shift_sign, green_shift_sign, red_shift_sign, start_index);
        case FORMAT_RGB_INTERLEAVED:
            return by_blue_input<settle(WidthCode, 3, 2)>(
                request, blue_shift_sign, green_shift_sign, red_shift_sign, start_index);
        default:
            return by_blue_input<settle(WidthCode, 3, 0)>(
                request, blue_shift_sign, green_shift_sign, red_shift_sign, start_index);
    }
}

}  // namespace tree

void dispatch_kernel_8(const transform_request* request, int32_t start_index) {
    tree::entry<0>(request, start_index);
}

void dispatch_kernel_16(const transform_request* request, int32_t start_index) {
    tree::entry<1>(request, start_index);
}

}  // namespace kv
