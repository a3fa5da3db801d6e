// What the three vector builds share outside their instruction-set namespaces: the headers the
// per-ISA layer and the pipeline body need (they are included inside a namespace and so include
// nothing themselves), the settings a vector loop is specialised on, and the per-lane shuffle and
// blend patterns of the interleaved layouts, worked out at compile time.
#pragma once

// GCC 12 warns about the _mm512_undefined_*() start values inside its own AVX-512 intrinsics once
// they are inlined (GCC bug 105593); the warning points into the header, so it is silenced there.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif
#include <immintrin.h>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

#include "kernels/transform_request.h"

// The layer's wrappers and the pipeline's stages must fold into one loop body per
// specialisation; left to its own judgement the compiler calls them with the vectors in memory.
#if defined(_MSC_VER)
#define KV_VECTOR_INLINE __forceinline
#else
#define KV_VECTOR_INLINE inline __attribute__((always_inline))
#endif

namespace kv {
namespace vector {

// Set by each module's initialize from the processor's cache sizes: frames whose input and output
// together exceed it are written with non-temporal stores. Until then nothing streams.
extern std::atomic<uint64_t> streaming_threshold_bytes;

// Where table lookups use the gather instruction rather than one scalar load an entry, a bit per
// kind of lookup; set by each module's initialize for the running processor (module_entry.cpp).
// Initialize runs once per color processor, possibly while other threads transform: relaxed
// atomics, each store a whole valid choice.
enum gather_use : uint32_t {
    gather_LUT_stages = 1,  // the input and output LUT stages of the ordinary path
    gather_separable = 2,   // the one lookup an element of the separable path
};
extern std::atomic<uint32_t> gather_uses;

// Frames of at least this many pixels whose matrix has zeros off its diagonal go through one table
// per channel (the separable path of vector_pipeline.h): below it, building the tables costs
// more than it saves.
extern std::atomic<int64_t> separable_minimum_pixels;

// ---------------------------------------------------------------------------------------------
// The settings a vector loop is specialised on, chosen once per call. Everything else (the matrix,
// the bounds, the shift counts, which channels of a LUT set are on, whether the bounds are 0 and
// 65535) is a run-time constant of the call: held in registers, or tested once per block.
// ---------------------------------------------------------------------------------------------

enum layout_kind : int { PLANES = 0, BGR = 1, RGB = 2 };

struct loop_settings {
    int output_width;   // 8 or 16
    int input_layout;   // layout_kind
    int output_layout;  // layout_kind
    bool fourth_channel;
    bool input_LUTs;   // at least one input LUT on
    bool output_LUTs;  // at least one output LUT on
    bool shifts;       // at least one non-zero shift distance

    static constexpr uint32_t count_per_width = 3 * 3 * 2 * 2 * 2 * 2;

    // The code within one width.
    constexpr uint32_t encode() const {
        uint32_t code = uint32_t(input_layout);
        code = code * 3 + uint32_t(output_layout);
        code = code * 2 + uint32_t(fourth_channel);
        code = code * 2 + uint32_t(input_LUTs);
        code = code * 2 + uint32_t(output_LUTs);
        code = code * 2 + uint32_t(shifts);
        return code;
    }

    static constexpr loop_settings decode(int width, uint32_t code) {
        loop_settings s{};
        s.output_width = width;
        s.shifts = code % 2 != 0;
        code /= 2;
        s.output_LUTs = code % 2 != 0;
        code /= 2;
        s.input_LUTs = code % 2 != 0;
        code /= 2;
        s.fourth_channel = code % 2 != 0;
        code /= 2;
        s.output_layout = int(code % 3);
        code /= 3;
        s.input_layout = int(code);
        return s;
    }
};
static_assert(loop_settings::decode(8, loop_settings{8, 2, 1, true, false, true, true}.encode())
                      .encode() == loop_settings{8, 2, 1, true, false, true, true}.encode(),
              "round trip");

// Formats other than 1 and 2 are planes, as the scalar dispatch reads them.
inline int layout_of(int32_t format) {
    return format == FORMAT_BGR_INTERLEAVED ? BGR : format == FORMAT_RGB_INTERLEAVED ? RGB : PLANES;
}

// The slot (0, 1, 2 within an interleaved pixel) of channel c (0 blue, 1 green, 2 red).
constexpr int slot_of(int layout, int c) {
    return layout == RGB ? 2 - c : c;
}

// True when the bytes of the two buffers share an address. Overlapping frames are left to the
// scalar kernels, whose pixel-by-pixel order defines what such a call does.
inline bool buffers_overlap(const void* input, uint64_t input_bytes, const void* output,
                            uint64_t output_bytes) {
    const uint64_t in = reinterpret_cast<uintptr_t>(input);
    const uint64_t out = reinterpret_cast<uintptr_t>(output);
    return in < out + output_bytes && out < in + input_bytes;
}

// ---------------------------------------------------------------------------------------------
// Per-lane patterns. A 128-bit lane holds 8 pixels of 16-bit elements or 16 pixels of 8-bit ones;
// an interleaved group of such pixels spans three lanes (chunks). Element e of the group (pixel
// e / 3, slot e % 3) sits in chunk e / k at position e % k, with k elements a chunk. Because 3 is
// prime to k, the positions of one slot across the three chunks are all different, so one blend
// per chunk gathers a slot and one byte shuffle puts its pixels in order.
// ---------------------------------------------------------------------------------------------

using lane_bytes = std::array<uint8_t, 16>;
constexpr uint8_t zero_byte = 0x80;  // a shuffle index that writes 0

// Bit p set: position p of the gathered slot comes from the given chunk (16-bit positions).
constexpr unsigned gather_mask_16(int slot, int chunk) {
    unsigned mask = 0;
    for (int p = 0; p < 8; ++p) {
        if ((8 * chunk + p) % 3 == slot) mask |= 1u << p;
    }
    return mask;
}

// After the blends, position p of slot s holds pixel (8 * chunk(p) + p) / 3. This shuffle puts
// pixels first..first+3 into the 32-bit lanes, zero-extended.
constexpr lane_bytes widen_pixels_16(int slot, int first) {
    lane_bytes t{};
    for (auto& b : t) b = zero_byte;
    for (int p = 0; p < 8; ++p) {
        for (int chunk = 0; chunk < 3; ++chunk) {
            const int e = 8 * chunk + p;
            if (e % 3 != slot) continue;
            const int pixel = e / 3;
            if (pixel < first || pixel >= first + 4) continue;
            t[4 * (pixel - first)] = uint8_t(2 * p);
            t[4 * (pixel - first) + 1] = uint8_t(2 * p + 1);
        }
    }
    return t;
}

// Output side, 16-bit elements: pixel i of a slot moves to position (3i + slot) % 8, the place it
// takes in the chunk it belongs to.
constexpr lane_bytes scatter_pixels_16(int slot) {
    lane_bytes t{};
    for (int i = 0; i < 8; ++i) {
        const int p = (3 * i + slot) % 8;
        t[2 * p] = uint8_t(2 * i);
        t[2 * p + 1] = uint8_t(2 * i + 1);
    }
    return t;
}

// Output side, 8-bit elements: pixel i of a slot moves to position (3i + slot) % 16.
constexpr lane_bytes scatter_pixels_8(int slot) {
    lane_bytes t{};
    for (int i = 0; i < 16; ++i) t[(3 * i + slot) % 16] = uint8_t(i);
    return t;
}

// Bit p set: byte p of the chunk belongs to the given slot (8-bit positions).
constexpr unsigned gather_mask_8(int slot, int chunk) {
    unsigned mask = 0;
    for (int p = 0; p < 16; ++p) {
        if ((16 * chunk + p) % 3 == slot) mask |= 1u << p;
    }
    return mask;
}

// ---------------------------------------------------------------------------------------------
// Cross-lane word permutes (where the layer has them): 32 pixels of 16-bit elements, three
// vectors of 32 interleaved words each. A permute takes words from two vectors, indices 0-31 from
// the first and 32-63 from the second; a third vector is merged in under a mask.
// ---------------------------------------------------------------------------------------------

using word_indices = std::array<uint16_t, 32>;

// Inside the lanes the words of a slot are kept in the order 0 4 1 5 2 6 3 7 (pixels of the lane),
// so that the low and high halves of the 32-bit values are pixels 0-3 and 4-7: widening is then
// a mask and a shift, and narrowing a shift and a blend, none of them a shuffle.
constexpr int pixel_at_word(int p) {
    return 8 * (p / 8) + (p % 8) / 2 + 4 * (p % 2);
}
constexpr int word_of_pixel(int i) {
    return 8 * (i / 8) + 2 * (i % 4) + (i % 8) / 4;
}

// Input: pixel i of a slot is element 3i + slot of the 96; those below 64 from the first two
// vectors, the rest (index 32 + e - 64 over the partial result and the third vector) merged in.
constexpr word_indices slot_words_from_first_two(int slot) {
    word_indices w{};
    for (int p = 0; p < 32; ++p) {
        const int e = 3 * pixel_at_word(p) + slot;
        w[p] = uint16_t(e < 64 ? e : 0);
    }
    return w;
}
constexpr word_indices slot_words_from_third(int slot) {
    word_indices w{};
    for (int p = 0; p < 32; ++p) {
        const int e = 3 * pixel_at_word(p) + slot;
        w[p] = uint16_t(e >= 64 ? e - 32 : 0);
    }
    return w;
}
constexpr uint32_t slot_words_third_mask(int slot) {
    uint32_t mask = 0;
    for (int p = 0; p < 32; ++p) mask |= (3 * pixel_at_word(p) + slot >= 64 ? 1u : 0u) << p;
    return mask;
}

// Output: word p of vector j is element 32j + p, pixel (32j + p) / 3 of slot (32j + p) % 3. The
// slots come in pixel order (packed) or in the order of word_of_pixel (blended). Slots 0 and 1
// first, slot 2 (index 32 + its word over the partial result) merged in.
constexpr int slot_word(int pixel, bool packed) {
    return packed ? pixel : word_of_pixel(pixel);
}
constexpr word_indices chunk_words_from_first_two(int j, bool packed) {
    word_indices w{};
    for (int p = 0; p < 32; ++p) {
        const int e = 32 * j + p, word = slot_word(e / 3, packed);
        w[p] = uint16_t(e % 3 == 0 ? word : e % 3 == 1 ? 32 + word : 0);
    }
    return w;
}
constexpr word_indices chunk_words_from_third(int j, bool packed) {
    word_indices w{};
    for (int p = 0; p < 32; ++p) {
        const int e = 32 * j + p;
        w[p] = uint16_t(e % 3 == 2 ? 32 + slot_word(e / 3, packed) : 0);
    }
    return w;
}
constexpr uint32_t chunk_words_third_mask(int j) {
    uint32_t mask = 0;
    for (int p = 0; p < 32; ++p) mask |= ((32 * j + p) % 3 == 2 ? 1u : 0u) << p;
    return mask;
}

}  // namespace vector
}  // namespace kv
