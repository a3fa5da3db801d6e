// The one description of the pixel pipeline: the arithmetic of each stage, the pixel layouts and
// the pixel_kernel template that every one of the 62,208 specialised loops is an instance of.
//
// The rules, stated once for the scalar kernels and the vector modules alike:
//
//   read        Three 16-bit elements at the places the input layout gives.
//   input LUT   With the channel's LUT on, the element indexes the table as it stands (no mask,
//               no bound) and the low 16 bits of the 32-bit entry are the input value.
//   to float    Exact: every value from 0 to 65535 is a float.
//   matrix      Per channel, three single-precision products, each rounded to float, summed as
//               (R term + G term) + B term. No fused multiply-add, no wider accumulator.
//   rounding    Widen the float sum to double (exact), add 0.5 in double, truncate towards zero
//               to int32. NaN and every value whose truncation does not fit 32 signed bits give
//               -2147483648 (the x86 cvttsd2si result). Doing the add in double matters: the float
//               just below 0.5 must round to 0.
//   clamp       Upper bound first, then lower bound, signed. -2147483648 is below every minimum, so
//               NaN, infinities and sums of 2^31 or more all fold to the channel's minimum.
//   output LUT  With the LUT on, the clamped value indexes the table; all 32 bits are the value.
//   shift       Left by the distance, or right (arithmetic) by its negation; count modulo 32.
//   narrowing   Keep the low 8 or 16 bits. Never saturate. A fourth element, when present, is 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#if defined(__x86_64__) || defined(_M_X64)
#include <emmintrin.h>
#define KV_X86_64 1
#endif

#include "kernels/transform_request.h"

#if defined(_MSC_VER)
#define KV_NOINLINE __declspec(noinline)
#else
#define KV_NOINLINE __attribute__((noinline))
#endif

namespace kv {

enum shift_sign : int32_t {
    SHIFT_NONE = 0,
    SHIFT_LEFT = 1,
    SHIFT_RIGHT = 2,
};

// ---------------------------------------------------------------------------------------------
// Stage arithmetic
// ---------------------------------------------------------------------------------------------

// Truncation towards zero with -2147483648 for NaN and out-of-range values, branch-free.
inline int32_t truncate_to_int32(double value) {
#if defined(KV_X86_64)
    return _mm_cvttsd_si32(_mm_set_sd(value));
#else
    const bool fits = value > -2147483649.0 && value < 2147483648.0;  // false for NaN
    const int32_t truncated = static_cast<int32_t>(fits ? value : 0.0);
    return fits ? truncated : INT32_MIN;
#endif
}

inline int32_t round_sum(float sum) {
    return truncate_to_int32(static_cast<double>(sum) + 0.5);
}

// One row of the matrix: the R and G terms first, the B term added to their sum.
inline float matrix_row(float m_red, float m_green, float m_blue, float red, float green,
                        float blue) {
    const float red_term = m_red * red;
    const float green_term = m_green * green;
    const float blue_term = m_blue * blue;
    const float partial = red_term + green_term;
    return partial + blue_term;
}

// Upper bound first: with crossed bounds the minimum wins.
inline int32_t clamp_channel(int32_t value, int32_t minimum, int32_t maximum) {
    value = value > maximum ? maximum : value;
    value = value < minimum ? minimum : value;
    return value;
}

inline shift_sign shift_sign_of(int32_t distance) {
    if (distance == 0) return SHIFT_NONE;
    return distance < 1 ? SHIFT_RIGHT : SHIFT_LEFT;
}

// The positive shift count for a distance of the given sign, modulo 32.
template <shift_sign Sign>
inline uint32_t shift_count(int32_t distance) {
    const uint32_t bits = static_cast<uint32_t>(distance);
    return (Sign == SHIFT_RIGHT ? 0u - bits : bits) & 31u;
}

template <shift_sign Sign>
inline uint32_t shift_stage(uint32_t value, uint32_t count) {
    if constexpr (Sign == SHIFT_LEFT) {
        return value << count;
    } else if constexpr (Sign == SHIFT_RIGHT) {
        return static_cast<uint32_t>(static_cast<int32_t>(value) >> count);
    } else {
        return value;
    }
}

// ---------------------------------------------------------------------------------------------
// Layouts: the element places of pixel i in a frame of n pixels with C elements a pixel. Input and
// output share them; offsets are pointer-wide so that 4i and 3n + i never wrap.
// ---------------------------------------------------------------------------------------------

template <pixel_format Format, int C>
struct layout {
    static_assert(Format >= FORMAT_BGR_PLANES && Format <= FORMAT_RGB_INTERLEAVED, "canonical");
    static constexpr bool planes = Format == FORMAT_BGR_PLANES;
    static constexpr bool rgb = Format == FORMAT_RGB_INTERLEAVED;

    static ptrdiff_t blue(ptrdiff_t i, ptrdiff_t) {
        if constexpr (planes) return i;
        return C * i + (rgb ? 2 : 0);
    }
    static ptrdiff_t green(ptrdiff_t i, ptrdiff_t n) {
        if constexpr (planes) return n + i;
        return C * i + 1;
    }
    static ptrdiff_t red(ptrdiff_t i, ptrdiff_t n) {
        if constexpr (planes) return 2 * n + i;
        return C * i + (rgb ? 0 : 2);
    }
    static ptrdiff_t fourth(ptrdiff_t i, ptrdiff_t n) {
        if constexpr (planes) return 3 * n + i;
        return C * i + 3;
    }
};

// ---------------------------------------------------------------------------------------------
// The thirteen settings that name a kernel, packed into one number in the order the dispatch tree
// settles them (mixed radix, first setting most significant). A selector's template argument is
// the prefix settled so far, so every node of the tree has a code of its own.
// ---------------------------------------------------------------------------------------------

struct kernel_coordinates {
    int output_width;  // 8 or 16
    pixel_format input_format;
    bool blue_input_LUT, green_input_LUT, red_input_LUT;
    bool blue_output_LUT, green_output_LUT, red_output_LUT;
    shift_sign blue_shift_sign, green_shift_sign, red_shift_sign;
    bool fourth_channel;
    pixel_format output_format;

    static constexpr int setting_count = 13;
    static constexpr uint32_t radix[setting_count] = {2, 3, 2, 2, 2, 2, 2, 2, 3, 3, 3, 2, 3};

    constexpr uint32_t encode() const {
        const uint32_t digits[setting_count] = {
            output_width == 16 ? 1u : 0u, uint32_t(input_format),   uint32_t(blue_input_LUT),
            uint32_t(green_input_LUT),    uint32_t(red_input_LUT),  uint32_t(blue_output_LUT),
            uint32_t(green_output_LUT),   uint32_t(red_output_LUT), uint32_t(blue_shift_sign),
            uint32_t(green_shift_sign),   uint32_t(red_shift_sign), uint32_t(fourth_channel),
            uint32_t(output_format)};
        uint32_t code = 0;
        for (int s = 0; s < setting_count; ++s) code = code * radix[s] + digits[s];
        return code;
    }

    static constexpr kernel_coordinates decode(uint32_t code) {
        uint32_t digits[setting_count] = {};
        for (int s = setting_count - 1; s >= 0; --s) {
            digits[s] = code % radix[s];
            code /= radix[s];
        }
        return kernel_coordinates{
            digits[0] ? 16 : 8,      pixel_format(digits[1]), digits[2] != 0,
            digits[3] != 0,          digits[4] != 0,          digits[5] != 0,
            digits[6] != 0,          digits[7] != 0,          shift_sign(digits[8]),
            shift_sign(digits[9]),   shift_sign(digits[10]),  digits[11] != 0,
            pixel_format(digits[12])};
    }
};

constexpr uint32_t kernel_count = 62208;

constexpr uint32_t space_size(int settings) {
    uint32_t size = 1;
    for (int s = 0; s < settings; ++s) size *= kernel_coordinates::radix[s];
    return size;
}
static_assert(space_size(kernel_coordinates::setting_count) == kernel_count, "62,208 kernels");

// Appends one more settled setting to a node's code.
constexpr uint32_t settle(uint32_t code, uint32_t radix, uint32_t digit) {
    return code * radix + digit;
}

// ---------------------------------------------------------------------------------------------
// One channel's constants, read from the record once before the loop. Fields a coordinate switches
// off are not read at all.
// ---------------------------------------------------------------------------------------------

template <bool InputLUT, bool OutputLUT, shift_sign Sign>
struct channel {
    const uint32_t* input_LUT = nullptr;
    const uint32_t* output_LUT = nullptr;
    int32_t minimum;
    int32_t maximum;
    uint32_t count = 0;

    channel(const uint32_t* const& in_LUT, const uint32_t* const& out_LUT, uint16_t min,
            uint16_t max, const int32_t& distance)
        : minimum(min), maximum(max) {
        if constexpr (InputLUT) input_LUT = in_LUT;
        if constexpr (OutputLUT) output_LUT = out_LUT;
        if constexpr (Sign != SHIFT_NONE) count = shift_count<Sign>(distance);
    }

    float input(uint16_t element) const {
        if constexpr (InputLUT) {
            return static_cast<float>(static_cast<uint16_t>(input_LUT[element]));
        } else {
            return static_cast<float>(element);
        }
    }

    uint32_t output(float sum) const {
        const int32_t clamped = clamp_channel(round_sum(sum), minimum, maximum);
        uint32_t value = static_cast<uint32_t>(clamped);
        if constexpr (OutputLUT) value = output_LUT[clamped];
        return shift_stage<Sign>(value, count);
    }
};

// ---------------------------------------------------------------------------------------------
// pixel_kernel: the pipeline for one point of the space, over pixels start_index .. pixel_count-1.
// ---------------------------------------------------------------------------------------------

template <uint32_t Code>
KV_NOINLINE void pixel_kernel(const transform_request* request, int32_t start_index) {
    constexpr kernel_coordinates k = kernel_coordinates::decode(Code);
    using element = std::conditional_t<k.output_width == 8, uint8_t, uint16_t>;
    using in_places = layout<k.input_format, 3>;
    using out_places = layout<k.output_format, k.fourth_channel ? 4 : 3>;

    // The matrix is read once per call; a host writing it meanwhile cannot tear this frame.
    const float* const shared = matrix_of(request->processor);
    const float m0 = shared[0], m1 = shared[1], m2 = shared[2];
    const float m3 = shared[3], m4 = shared[4], m5 = shared[5];
    const float m6 = shared[6], m7 = shared[7], m8 = shared[8];

    if (!(start_index < request->pixel_count)) return;

    const channel<k.blue_input_LUT, k.blue_output_LUT, k.blue_shift_sign> blue(
        request->blue_input_LUT, request->blue_output_LUT, request->blue_output_min,
        request->blue_output_max, request->blue_shift_distance);
    const channel<k.green_input_LUT, k.green_output_LUT, k.green_shift_sign> green(
        request->green_input_LUT, request->green_output_LUT, request->green_output_min,
        request->green_output_max, request->green_shift_distance);
    const channel<k.red_input_LUT, k.red_output_LUT, k.red_shift_sign> red(
        request->red_input_LUT, request->red_output_LUT, request->red_output_min,
        request->red_output_max, request->red_shift_distance);

    const uint16_t* const in = request->input_buffer;
    element* const out = static_cast<element*>(request->output_buffer);
    const ptrdiff_t n = request->pixel_count;

    for (ptrdiff_t i = start_index; i < n; ++i) {
        // Every read of the pixel comes before its first store, so overlapping buffers behave
        // the same on every path.
        const float B = blue.input(in[in_places::blue(i, n)]);
        const float G = green.input(in[in_places::green(i, n)]);
        const float R = red.input(in[in_places::red(i, n)]);

        const uint32_t red_value = red.output(matrix_row(m0, m1, m2, R, G, B));
        const uint32_t green_value = green.output(matrix_row(m3, m4, m5, R, G, B));
        const uint32_t blue_value = blue.output(matrix_row(m6, m7, m8, R, G, B));

        out[out_places::blue(i, n)] = static_cast<element>(blue_value);
        out[out_places::green(i, n)] = static_cast<element>(green_value);
        out[out_places::red(i, n)] = static_cast<element>(red_value);
        if constexpr (k.fourth_channel) out[out_places::fourth(i, n)] = 0;
    }
}

}  // namespace kv
