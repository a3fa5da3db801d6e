// Definitions of the level 3 and level 4 selectors. Only the kernel units include this: each
// instantiates one level 3 selector, and with it 12 level 4 selectors and 648 kernels.
#pragma once

#include "kernels/dispatch_tree.h"

namespace kv {
namespace tree {

// ---- level 4 -------------------------------------------------------------------------------

template <uint32_t Code>
inline void by_output_format(const pixel_format& output_format, const transform_request* request,
                             int32_t start_index) {
    switch (output_format) {
        case FORMAT_BGR_INTERLEAVED:
            return pixel_kernel<settle(Code, 3, 1)>(request, start_index);
        case FORMAT_RGB_INTERLEAVED:
            return pixel_kernel<settle(Code, 3, 2)>(request, start_index);
        default:
            return pixel_kernel<settle(Code, 3, 0)>(request, start_index);
    }
}

template <uint32_t Code>
inline void by_fourth_channel(const uint8_t& fourth_channel, const pixel_format& output_format,
                              const transform_request* request, int32_t start_index) {
    if (fourth_channel != 0)
        return by_output_format<settle(Code, 2, 1)>(output_format, request, start_index);
    return by_output_format<settle(Code, 2, 0)>(output_format, request, start_index);
}

template <uint32_t Code>
inline void by_red_shift(const shift_sign& red_shift_sign, const uint8_t& fourth_channel,
                         const pixel_format& output_format, const transform_request* request,
                         int32_t start_index) {
    switch (red_shift_sign) {
        case SHIFT_LEFT:
            return by_fourth_channel<settle(Code, 3, 1)>(fourth_channel, output_format, request,
                                                         start_index);
        case SHIFT_RIGHT:
            return by_fourth_channel<settle(Code, 3, 2)>(fourth_channel, output_format, request,
                                                         start_index);
        default:
            return by_fourth_channel<settle(Code, 3, 0)>(fourth_channel, output_format, request,
                                                         start_index);
    }
}

template <uint32_t Code>
void selector(shift_sign green_shift_sign, const shift_sign& red_shift_sign,
              const uint8_t& fourth_channel, const pixel_format& output_format,
              const transform_request* request, const int32_t& start_index) {
    const int32_t start = start_index;
    switch (green_shift_sign) {
        case SHIFT_LEFT:
            return by_red_shift<settle(Code, 3, 1)>(red_shift_sign, fourth_channel, output_format,
                                                    request, start);
        case SHIFT_RIGHT:
            return by_red_shift<settle(Code, 3, 2)>(red_shift_sign, fourth_channel, output_format,
                                                    request, start);
        default:
            return by_red_shift<settle(Code, 3, 0)>(red_shift_sign, fourth_channel, output_format,
                                                    request, start);
    }
}

// ---- level 3 -------------------------------------------------------------------------------

template <uint32_t Code>
inline void by_blue_shift(const shift_sign& blue_shift_sign, const shift_sign& green_shift_sign,
                          const shift_sign& red_shift_sign, const uint8_t& fourth_channel,
                          const pixel_format& output_format, const transform_request* request,
                          const int32_t& start_index) {
    switch (blue_shift_sign) {
        case SHIFT_LEFT:
            return selector<settle(Code, 3, 1)>(green_shift_sign, red_shift_sign, fourth_channel,
                                                output_format, request, start_index);
        case SHIFT_RIGHT:
            return selector<settle(Code, 3, 2)>(green_shift_sign, red_shift_sign, fourth_channel,
                                                output_format, request, start_index);
        default:
            return selector<settle(Code, 3, 0)>(green_shift_sign, red_shift_sign, fourth_channel,
                                                output_format, request, start_index);
    }
}

template <uint32_t Code>
inline void by_red_output(const uint8_t& red_output_LUT_enabled, const shift_sign& blue_shift_sign,
                          const shift_sign& green_shift_sign, const shift_sign& red_shift_sign,
                          const uint8_t& fourth_channel, const pixel_format& output_format,
                          const transform_request* request, const int32_t& start_index) {
    if (red_output_LUT_enabled != 0) {
        return by_blue_shift<settle(Code, 2, 1)>(blue_shift_sign, green_shift_sign, red_shift_sign,
                                                 fourth_channel, output_format, request,
                                                 start_index);
    }
    return by_blue_shift<settle(Code, 2, 0)>(blue_shift_sign, green_shift_sign, red_shift_sign,
                                             fourth_channel, output_format, request, start_index);
}

template <uint32_t Code>
void selector(uint8_t green_output_LUT_enabled, const uint8_t& red_output_LUT_enabled,
              const shift_sign& blue_shift_sign, const shift_sign& green_shift_sign,
              const shift_sign& red_shift_sign, const uint8_t& fourth_channel,
              const pixel_format& output_format, const transform_request* request,
              const int32_t& start_index) {
    if (green_output_LUT_enabled != 0) {
        return by_red_output<settle(Code, 2, 1)>(red_output_LUT_enabled, blue_shift_sign,
                                                 green_shift_sign, red_shift_sign, fourth_channel,
                                                 output_format, request, start_index);
    }
    return by_red_output<settle(Code, 2, 0)>(red_output_LUT_enabled, blue_shift_sign,
                                             green_shift_sign, red_shift_sign, fourth_channel,
                                             output_format, request, start_index);
}

}  // namespace tree
}  // namespace kv
