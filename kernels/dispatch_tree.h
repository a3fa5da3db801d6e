// The levels of the dispatch tree. Each selector is a template over the code of the settings
// settled above it, so every node of the tree is a function of its own. It takes the first value
// it examines by value and whatever is still open by reference, and calls exactly one function of
// the next level. Three-way branches name 1 and 2 and send everything else to the arm of 0;
// two-way branches read one byte, zero for off.
#pragma once

#include <cstdint>

#include "kernels/pixel_pipeline.h"

namespace kv {
namespace tree {

// Level 4: settings 1 to 9 are settled; green and red shift signs, fourth channel and output
// format remain (3 x 3 x 2 x 3 = 54 kernels).
template <uint32_t Code>
void selector(shift_sign green_shift_sign, const shift_sign& red_shift_sign,
              const uint8_t& fourth_channel, const pixel_format& output_format,
              const transform_request* request, const int32_t& start_index);

// Level 3: settings 1 to 6 are settled.
template <uint32_t Code>
void selector(uint8_t green_output_LUT_enabled, const uint8_t& red_output_LUT_enabled,
              const shift_sign& blue_shift_sign, const shift_sign& green_shift_sign,
              const shift_sign& red_shift_sign, const uint8_t& fourth_channel,
              const pixel_format& output_format, const transform_request* request,
              const int32_t& start_index);

// Level 2: settings 1 to 3 are settled.
template <uint32_t Code>
void selector(uint8_t green_input_LUT_enabled, const uint8_t& red_input_LUT_enabled,
              const uint8_t& blue_output_LUT_enabled, const uint8_t& green_output_LUT_enabled,
              const uint8_t& red_output_LUT_enabled, const shift_sign& blue_shift_sign,
              const shift_sign& green_shift_sign, const shift_sign& red_shift_sign,
              const uint8_t& fourth_channel, const pixel_format& output_format,
              const transform_request* request, const int32_t& start_index);

// The one branch helper every node is built from. branch<Code, W1, W2, ...>::go(s1, s2, ...,
// rest...) settles s1 (W1 ways), then s2, and so on, each setting appending its digit to Code,
// and then goes on to the next level with the arguments left over: a selector while settings are
// still open, the kernel once only the request and start_index remain. The settings travel by
// reference, so the next selector's references still point where the entry's did.
template <uint32_t Code, uint32_t... Ways>
struct branch {
    template <typename... Open>
    static void go(const Open&... open) {
        if constexpr (sizeof...(Open) == 2) {
            pixel_kernel<Code>(open...);
        } else {
            selector<Code>(open...);
        }
    }
};

template <uint32_t Code, uint32_t Ways, uint32_t... Later>
struct branch<Code, Ways, Later...> {
    static_assert(Ways == 2 || Ways == 3, "two-way or three-way branches");

    template <typename Setting, typename... Open>
    static void go(const Setting& setting, const Open&... open) {
        if constexpr (Ways == 2) {
            // One byte, zero for off.
            if (setting != 0) return branch<settle(Code, 2, 1), Later...>::go(open...);
            return branch<settle(Code, 2, 0), Later...>::go(open...);
        } else {
            // 1 and 2 by name; every other value takes the arm of 0.
            switch (setting) {
                case 1:
                    return branch<settle(Code, 3, 1), Later...>::go(open...);
                case 2:
                    return branch<settle(Code, 3, 2), Later...>::go(open...);
                default:
                    return branch<settle(Code, 3, 0), Later...>::go(open...);
            }
        }
    }
};

}  // namespace tree
}  // namespace kv

// The signature of a level 3 selector, for the explicit instantiations that spread the tree over
// translation units.
#define KV_LEVEL3_SELECTOR_SIGNATURE                                                               \
    (uint8_t, const uint8_t&, const kv::shift_sign&, const kv::shift_sign&, const kv::shift_sign&, \
     const uint8_t&, const kv::pixel_format&, const kv::transform_request*, const int32_t&)
