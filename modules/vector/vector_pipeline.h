// The one vector pipeline: the stages of kernels/pixel_pipeline.h over whole vectors, written
// against the thin instruction-set layer (isa_*.h) and included once per instruction set inside a
// namespace named for it, after vector_common.h and that set's layer.
//
// Block layout. A vector is cut into 128-bit lanes, and a block gives each lane a run of
// consecutive pixels: 8 for 16-bit output, 16 for 8-bit output, so that one lane of output
// elements is whole pixels. Lane k of a block holds pixels P*k .. P*k+P-1. Each channel's 32-bit
// values are Q = P/4 vectors, vector q holding pixels P*k+4q .. P*k+4q+3 in lane k. All data
// movement (deinterleave, narrowing, interleave) then stays inside lanes, the same code on one,
// two or four lanes, and only the layer's chunk loads and stores know where the lanes go.
//
// Exactness. Every stage is the scalar one, lane by lane: products and sums are separate
// single-precision multiplies and adds, (R term + G term) + B term, never fused. Rounding differs
// in form only. The scalar rule is cvttsd2si(double(sum) + 0.5), then the clamp to [min, max]
// within [0, 65535]. The vector form stays in single precision: cvttps2dq(sum + h) with
// h = 0.49999997 = 0.5 - 2^-25, and it gives the same clamped value for every float sum:
//   - 0 <= sum < 2^23, sum = k + f: if f >= 0.5, sum + h is at least k + 1 - 2^-25 and rounds to
//     k + 1 or more (the one tie, 1 - 2^-25 for sum = 0.5, goes to the even 1.0); if f < 0.5, it
//     lies at least ulp(sum) + 2^-25 below k + 1, more than half an ulp of the result, and stays
//     below. Either way the truncation is floor(sum + 0.5), the scalar result. (With 0.5 itself
//     the float just below 0.5 would round up to 1.)
//   - 2^23 <= sum < 2^31: both results are at least 2^23, above every max.
//   - sum >= 2^31, +infinity and NaN give -2^31 on both sides, negative sums 0 or less: all
//     below or at every min.
// The tests check this identity for all 2^32 floats.
//
// Narrowing keeps the low 8 or 16 bits and never saturates: values are masked before the
// saturating packs, or their low bits picked with blends and shuffles. The one place a pack's
// saturation is used on purpose is as the clamp itself, for bounds 0 and 65535 (see
// process_block).

template <int Width>
constexpr int lane_pixels = Width == 8 ? 16 : 8;

template <int Width>
constexpr ptrdiff_t block_pixels = lane_count* lane_pixels<Width>;

// What a call reads from its record once, held in registers across the loop.
struct call_constants {
    vf matrix[9];
    vi minimum[3], maximum[3];  // blue, green, red
    shift_count_register left[3], right[3];
    const uint32_t* input_LUT[3];
    const uint32_t* output_LUT[3];
    bool input_LUT_on[3], output_LUT_on[3];
    bool full_range;  // every channel's bounds are 0 and 65535
};

// ---------------------------------------------------------------------------------------------
// Load: three channels of 32-bit values from the input layout.
// ---------------------------------------------------------------------------------------------

// One slot of an interleaved group of three chunks, widened: pixels 0-3 and 4-7 of the lane.
template <int Slot>
KV_VECTOR_INLINE void deinterleave_slot(const vi* chunks, vi& low, vi& high) {
    static constexpr lane_bytes first_four = widen_pixels_16(Slot, 0);
    static constexpr lane_bytes last_four = widen_pixels_16(Slot, 4);
    const vi gathered = blend16<gather_mask_16(Slot, 2)>(
        blend16<gather_mask_16(Slot, 1)>(chunks[0], chunks[1]), chunks[2]);
    low = shuffle_bytes(gathered, lane_constant(first_four));
    high = shuffle_bytes(gathered, lane_constant(last_four));
}

// With word permutes across lanes, 16-bit output: the slot's 32 words from three plain loads,
// then widened in lanes (see word_of_pixel for the order). V is vi; a template so that the
// permutes are looked up only in layers that have them.
template <int Slot, class V>
KV_VECTOR_INLINE void deinterleave_slot_across_lanes(const V (&words)[3], V& low, V& high) {
    static constexpr word_indices first_two = slot_words_from_first_two(Slot);
    static constexpr word_indices third = slot_words_from_third(Slot);
    const V in_order = permute_words_into(permute_words(words[0], first_two, words[1]),
                                          slot_words_third_mask(Slot), third, words[2]);
    low = and_i(in_order, splat_i(0xFFFF));
    high = shift_right_32<16>(in_order);
}

template <int Layout, int Q>
KV_VECTOR_INLINE void load_block(const uint16_t* in, ptrdiff_t i, ptrdiff_t n, vi (&v)[3][Q]) {
    constexpr int groups = Q / 2;  // 8-pixel groups per lane
    constexpr int blue = slot_of(Layout, 0), red = slot_of(Layout, 2);
    if constexpr (Layout == PLANES) {
        for (int c = 0; c < 3; ++c) {
            vi x[groups];
            load_chunks<groups>(in + c * n + i, x);
            for (int g = 0; g < groups; ++g) {
                v[c][2 * g] = unpack_low_16(x[g], zero_i());
                v[c][2 * g + 1] = unpack_high_16(x[g], zero_i());
            }
        }
    } else if constexpr (cross_lane_word_permutes && Q == 2) {
        const uint16_t* p = in + 3 * i;
        const vi x[3] = {load_vector(p), load_vector(p + 32), load_vector(p + 64)};
        deinterleave_slot_across_lanes<blue>(x, v[0][0], v[0][1]);
        deinterleave_slot_across_lanes<1>(x, v[1][0], v[1][1]);
        deinterleave_slot_across_lanes<red>(x, v[2][0], v[2][1]);
    } else {
        vi x[3 * groups];
        load_chunks<3 * groups>(in + 3 * i, x);
        for (int g = 0; g < groups; ++g) {
            deinterleave_slot<blue>(x + 3 * g, v[0][2 * g], v[0][2 * g + 1]);
            deinterleave_slot<1>(x + 3 * g, v[1][2 * g], v[1][2 * g + 1]);
            deinterleave_slot<red>(x + 3 * g, v[2][2 * g], v[2][2 * g + 1]);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Arithmetic stages.
// ---------------------------------------------------------------------------------------------

template <int Q>
KV_VECTOR_INLINE void input_LUT_stage(const call_constants& k, vi (&v)[3][Q]) {
    const vi low_16 = splat_i(0xFFFF);
    for (int c = 0; c < 3; ++c) {
        if (!k.input_LUT_on[c]) continue;
        for (int q = 0; q < Q; ++q) v[c][q] = and_i(lookup(v[c][q], k.input_LUT[c]), low_16);
    }
}

// The rounded sum as the clamp sees it (see the top of this file).
KV_VECTOR_INLINE vi round_for_clamp(vf sum) {
    return truncate_to_int32(add(sum, splat_f(0.49999997f)));
}

// Clamp says whether to clamp here; without it the values are left for a store whose saturating
// packs clamp to [0, 65535] on their own, which is exact only for bounds 0 and 65535.
template <bool Clamp, int Q>
KV_VECTOR_INLINE void matrix_stage(const call_constants& k, vi (&v)[3][Q]) {
    const vf* m = k.matrix;
    for (int q = 0; q < Q; ++q) {
        const vf R = to_float(v[2][q]), G = to_float(v[1][q]), B = to_float(v[0][q]);
        const vf red = add(add(mul(m[0], R), mul(m[1], G)), mul(m[2], B));
        const vf green = add(add(mul(m[3], R), mul(m[4], G)), mul(m[5], B));
        const vf blue = add(add(mul(m[6], R), mul(m[7], G)), mul(m[8], B));
        v[0][q] = round_for_clamp(blue);
        v[1][q] = round_for_clamp(green);
        v[2][q] = round_for_clamp(red);
        if constexpr (Clamp) {
            // Upper bound first: with crossed bounds the minimum wins, as in the scalar kernels.
            for (int c = 0; c < 3; ++c)
                v[c][q] = max_32(min_32(v[c][q], k.maximum[c]), k.minimum[c]);
        }
    }
}

template <int Q>
KV_VECTOR_INLINE void output_LUT_stage(const call_constants& k, vi (&v)[3][Q]) {
    for (int c = 0; c < 3; ++c) {
        if (!k.output_LUT_on[c]) continue;
        for (int q = 0; q < Q; ++q) v[c][q] = lookup(v[c][q], k.output_LUT[c]);
    }
}

// Left by one count, then right (arithmetic) by the other; a channel without a shift has both 0.
template <int Q>
KV_VECTOR_INLINE void shift_stage(const call_constants& k, vi (&v)[3][Q]) {
    for (int c = 0; c < 3; ++c) {
        for (int q = 0; q < Q; ++q) {
            v[c][q] = shift_right_arithmetic_32(shift_left_32(v[c][q], k.left[c]), k.right[c]);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Narrowing: the low 16 or 8 bits of each value, in pixel order within the lane. InRange says no
// output LUT or shift came after the clamp: the values lie in [0, 65535], or, where the clamp was
// left out for bounds 0 and 65535, the saturating pack clips them exactly as the clamp would.
// ---------------------------------------------------------------------------------------------

template <bool InRange>
KV_VECTOR_INLINE vi narrow_to_16(vi low, vi high) {
    if constexpr (!InRange) {
        low = blend16<0xAA>(low, zero_i());  // clear the upper half of every 32-bit value
        high = blend16<0xAA>(high, zero_i());
    }
    return pack_32_to_16(low, high);
}

template <bool InRange>
KV_VECTOR_INLINE vi narrow_to_8(const vi (&q)[4]) {
    if constexpr (InRange) {
        const vi low_8 = splat_i(0x00FF00FF);  // the low byte of each 16-bit value
        return pack_16_to_8(and_i(pack_32_to_16(q[0], q[1]), low_8),
                            and_i(pack_32_to_16(q[2], q[3]), low_8));
    } else {
        const vi low_8 = splat_i(0xFF);
        return pack_16_to_8(pack_32_to_16(and_i(q[0], low_8), and_i(q[1], low_8)),
                            pack_32_to_16(and_i(q[2], low_8), and_i(q[3], low_8)));
    }
}

// ---------------------------------------------------------------------------------------------
// Store: the channels at the places of the output layout.
// ---------------------------------------------------------------------------------------------

// Three slots of narrowed pixels in order -> three chunks of interleaved elements. Pixel i of a
// slot first moves to the position it takes in its chunk, then each chunk picks its slots.
template <int Bits>
KV_VECTOR_INLINE void interleave_three(const vi (&slot)[3], vi (&chunk)[3]) {
    constexpr auto scatter = Bits == 16 ? scatter_pixels_16 : scatter_pixels_8;
    static constexpr lane_bytes to_place[3] = {scatter(0), scatter(1), scatter(2)};
    const vi placed[3] = {shuffle_bytes(slot[0], lane_constant(to_place[0])),
                          shuffle_bytes(slot[1], lane_constant(to_place[1])),
                          shuffle_bytes(slot[2], lane_constant(to_place[2]))};
    if constexpr (Bits == 16) {
        chunk[0] = blend16<gather_mask_16(2, 0)>(
            blend16<gather_mask_16(1, 0)>(placed[0], placed[1]), placed[2]);
        chunk[1] = blend16<gather_mask_16(2, 1)>(
            blend16<gather_mask_16(1, 1)>(placed[0], placed[1]), placed[2]);
        chunk[2] = blend16<gather_mask_16(2, 2)>(
            blend16<gather_mask_16(1, 2)>(placed[0], placed[1]), placed[2]);
    } else {
        chunk[0] = blend8<gather_mask_8(2, 0)>(blend8<gather_mask_8(1, 0)>(placed[0], placed[1]),
                                               placed[2]);
        chunk[1] = blend8<gather_mask_8(2, 1)>(blend8<gather_mask_8(1, 1)>(placed[0], placed[1]),
                                               placed[2]);
        chunk[2] = blend8<gather_mask_8(2, 2)>(blend8<gather_mask_8(1, 2)>(placed[0], placed[1]),
                                               placed[2]);
    }
}

// With word permutes across lanes: three slots of 32 words (packed: in pixel order, else in the
// order of word_of_pixel) -> the three vectors of interleaved words, in memory order, ready for
// whole (and streaming) stores.
template <bool Packed, class V>
KV_VECTOR_INLINE void interleave_three_across_lanes(const V (&slot)[3], V (&out)[3]) {
    static constexpr word_indices first_two[3] = {chunk_words_from_first_two(0, Packed),
                                                  chunk_words_from_first_two(1, Packed),
                                                  chunk_words_from_first_two(2, Packed)};
    static constexpr word_indices third[3] = {chunk_words_from_third(0, Packed),
                                              chunk_words_from_third(1, Packed),
                                              chunk_words_from_third(2, Packed)};
    for (int j = 0; j < 3; ++j) {
        out[j] = permute_words_into(permute_words(slot[0], first_two[j], slot[1]),
                                    chunk_words_third_mask(j), third[j], slot[2]);
    }
}

template <int Width, int Layout, bool Fourth, bool InRange, int Q>
KV_VECTOR_INLINE void store_block(void* out, ptrdiff_t i, ptrdiff_t n, const vi (&v)[3][Q],
                                  bool stream) {
    using element = std::conditional_t<Width == 8, uint8_t, uint16_t>;
    element* const o = static_cast<element*>(out);
    constexpr int blue = slot_of(Layout, 0), red = slot_of(Layout, 2);

    if constexpr (Layout == PLANES) {
        for (int c = 0; c < 3; ++c) {
            vi plane[1];
            if constexpr (Width == 16) {
                plane[0] = narrow_to_16<InRange>(v[c][0], v[c][1]);
            } else {
                plane[0] = narrow_to_8<InRange>(v[c]);
            }
            store_chunks<1>(o + c * n + i, plane, stream);
        }
        if constexpr (Fourth) {
            const vi zero[1] = {zero_i()};
            store_chunks<1>(o + 3 * n + i, zero, stream);
        }
    } else if constexpr (!Fourth) {
        vi slot[3], chunk[3];
        for (int c = 0; c < 3; ++c) {
            const int s = c == 0 ? blue : c == 2 ? red : 1;
            if constexpr (cross_lane_word_permutes && Width == 16 && !InRange) {
                // Low halves of pixels 0-3 and 4-7 side by side: the order of word_of_pixel.
                slot[s] = blend16<0xAA>(v[c][0], shift_left_32<16>(v[c][1]));
            } else if constexpr (Width == 16) {
                slot[s] = narrow_to_16<InRange>(v[c][0], v[c][1]);
            } else {
                slot[s] = narrow_to_8<InRange>(v[c]);
            }
        }
        if constexpr (cross_lane_word_permutes && Width == 16) {
            interleave_three_across_lanes<InRange>(slot, chunk);
            for (int j = 0; j < 3; ++j) store_vector(o + 3 * i + 32 * j, chunk[j], stream);
        } else {
            interleave_three<Width>(slot, chunk);
            store_chunks<3>(o + 3 * i, chunk, stream);
        }
    } else if constexpr (Width == 16) {
        // Per 32-bit value: slots 0 and 1 as one pair of halves, slot 2 and the zero as another;
        // two of each interleaved give two pixels a chunk.
        const vi(&first)[Q] = v[blue == 0 ? 0 : 2];
        const vi(&third)[Q] = v[blue == 0 ? 2 : 0];
        vi chunk[4];
        for (int q = 0; q < 2; ++q) {
            const vi pair = blend16<0xAA>(first[q], shift_left_32<16>(v[1][q]));  // s0 s1 | ...
            const vi rest = blend16<0xAA>(third[q], zero_i());                    // s2 0  | ...
            chunk[2 * q] = unpack_low_32(pair, rest);       // pixel 4q, pixel 4q+1
            chunk[2 * q + 1] = unpack_high_32(pair, rest);  // pixel 4q+2, pixel 4q+3
        }
        store_chunks<4>(o + 4 * i, chunk, stream);
    } else {
        // One 32-bit value a pixel: slot bytes 0, 1, 2 and a zero byte 3.
        const vi(&first)[Q] = v[blue == 0 ? 0 : 2];
        const vi(&third)[Q] = v[blue == 0 ? 2 : 0];
        vi chunk[4];
        for (int q = 0; q < 4; ++q) {
            vi pixel = blend8<0x2222>(first[q], shift_left_32<8>(v[1][q]));
            pixel = blend8<0x4444>(pixel, shift_left_32<16>(third[q]));
            chunk[q] = blend8<0x8888>(pixel, zero_i());
        }
        store_chunks<4>(o + 4 * i, chunk, stream);
    }
}

// ---------------------------------------------------------------------------------------------
// The loop of one specialisation.
// ---------------------------------------------------------------------------------------------

template <int Width, uint32_t Code>
KV_VECTOR_INLINE void process_block(const transform_request& r, const call_constants& k,
                                    ptrdiff_t i, bool stream) {
    constexpr loop_settings s = loop_settings::decode(Width, Code);
    constexpr int Q = lane_pixels<Width> / 4;
    const ptrdiff_t n = r.pixel_count;
    vi v[3][Q];
    load_block<s.input_layout, Q>(r.input_buffer, i, n, v);
    if constexpr (s.input_LUTs) input_LUT_stage(k, v);
    // Values go straight to the store (no LUT, no shift): the clamp keeps them in [0, 65535].
    constexpr bool in_range = !s.output_LUTs && !s.shifts;
    // Stores whose narrowing starts with a saturating pack clamp to [0, 65535] by themselves.
    constexpr bool packing_store = in_range && (s.output_layout == PLANES || !s.fourth_channel);
    if (packing_store && k.full_range) {
        matrix_stage<false>(k, v);
    } else {
        matrix_stage<true>(k, v);
    }
    if constexpr (s.output_LUTs) output_LUT_stage(k, v);
    if constexpr (s.shifts) shift_stage(k, v);
    store_block<Width, s.output_layout, s.fourth_channel, in_range>(r.output_buffer, i, n, v,
                                                                    stream);
}

// The first pixel, below one block, from which every store of a block lands on a vector
// boundary (all planes at once for planar output), or -1 if there is none.
template <int Width>
KV_VECTOR_INLINE ptrdiff_t aligned_start(const transform_request& r, bool planes, int elements) {
    const uintptr_t base = reinterpret_cast<uintptr_t>(r.output_buffer);
    const uintptr_t bytes = Width / 8;
    const uintptr_t plane = planes ? uintptr_t(r.pixel_count) * bytes : 0;
    const uintptr_t pixel = planes ? bytes : bytes * uintptr_t(elements);
    const int planes_to_check = planes ? elements : 1;
    for (ptrdiff_t h = 0; h < block_pixels<Width>; ++h) {
        bool aligned = true;
        for (int c = 0; c < planes_to_check; ++c) {
            aligned = aligned && (base + c * plane + uintptr_t(h) * pixel) % vector_bytes == 0;
        }
        if (aligned) return h;
    }
    return -1;
}

// Blocks at 0, then from the first aligned pixel on in steps of a block, and a last one ending
// at the last pixel: the overlaps are written twice with the same values, and the call does the
// whole frame. Non-temporal stores only for the aligned blocks of a large frame. One call site
// keeps one copy of the loop body.
template <int Width, uint32_t Code>
int32_t run(const transform_request& r, const call_constants& constants, bool large) {
    constexpr loop_settings s = loop_settings::decode(Width, Code);
    constexpr ptrdiff_t block = block_pixels<Width>;
    const call_constants k = constants;
    const ptrdiff_t last = ptrdiff_t(r.pixel_count) - block;
    const ptrdiff_t found =
        aligned_start<Width>(r, s.output_layout == PLANES, s.fourth_channel ? 4 : 3);
    // Streaming stores pay off only where each one fills a cache line: the 16- and 32-byte ones
    // measured slower than plain stores in the (compute-bound) SSE and AVX2 loops.
    constexpr bool line_sized_stores = vector_bytes == 64;
    const bool stream = line_sized_stores && large && found >= 0;
    const ptrdiff_t aligned = found > 0 ? found : 0;
    ptrdiff_t i = 0;
    bool streaming_block = stream && aligned == 0;
    for (;;) {
        process_block<Width, Code>(r, k, i, streaming_block);
        if (i == last) break;
        i = i < aligned ? aligned : i + block;
        streaming_block = stream && i <= last;
        if (i > last) i = last;
    }
    if (stream) store_fence();
    return r.pixel_count;
}

using run_function = int32_t (*)(const transform_request&, const call_constants&, bool);

template <int Width, uint32_t... Code>
constexpr std::array<run_function, sizeof...(Code)> make_run_table(
    std::integer_sequence<uint32_t, Code...>) {
    return {&run<Width, Code>...};
}

template <int Width>
constexpr std::array<run_function, loop_settings::count_per_width> run_table =
    make_run_table<Width>(std::make_integer_sequence<uint32_t, loop_settings::count_per_width>());

// ---------------------------------------------------------------------------------------------
// The entry: checks that decide whether to take the frame, the call's constants, the loop.
// ---------------------------------------------------------------------------------------------

template <int Width>
int32_t transform(const transform_request* request) {
    const transform_request& r = *request;
    // Shorter frames (and counts of 0 or below) are the scalar kernels' alone.
    if (r.pixel_count < block_pixels<Width>) return 0;
    const uint64_t n = uint64_t(r.pixel_count);
    const uint64_t input_bytes = 6 * n;
    const uint64_t output_bytes = n * (r.fourth_channel != 0 ? 4 : 3) * (Width / 8);
    if (buffers_overlap(r.input_buffer, input_bytes, r.output_buffer, output_bytes)) return 0;

    call_constants k;
    const float* matrix = matrix_of(r.processor);
    for (int i = 0; i < 9; ++i) k.matrix[i] = splat_f(matrix[i]);
    const uint16_t minimum[3] = {r.blue_output_min, r.green_output_min, r.red_output_min};
    const uint16_t maximum[3] = {r.blue_output_max, r.green_output_max, r.red_output_max};
    const int32_t distance[3] = {r.blue_shift_distance, r.green_shift_distance,
                                 r.red_shift_distance};
    const uint32_t* const input_LUT[3] = {r.blue_input_LUT, r.green_input_LUT, r.red_input_LUT};
    const uint32_t* const output_LUT[3] = {r.blue_output_LUT, r.green_output_LUT, r.red_output_LUT};
    const uint8_t input_on[3] = {r.blue_input_LUT_enabled, r.green_input_LUT_enabled,
                                 r.red_input_LUT_enabled};
    const uint8_t output_on[3] = {r.blue_output_LUT_enabled, r.green_output_LUT_enabled,
                                  r.red_output_LUT_enabled};
    loop_settings s{};
    s.output_width = Width;
    s.input_layout = layout_of(r.input_format);
    s.output_layout = layout_of(r.output_format);
    s.fourth_channel = r.fourth_channel != 0;
    k.full_range = true;
    for (int c = 0; c < 3; ++c) {
        k.full_range = k.full_range && minimum[c] == 0 && maximum[c] == 0xFFFF;
        k.minimum[c] = splat_i(minimum[c]);
        k.maximum[c] = splat_i(maximum[c]);
        // A positive distance shifts left, a negative one right by its negation, modulo 32.
        const uint32_t bits = uint32_t(distance[c]);
        k.left[c] = shift_count_of(distance[c] > 0 ? bits & 31u : 0u);
        k.right[c] = shift_count_of(distance[c] < 0 ? (0u - bits) & 31u : 0u);
        s.shifts = s.shifts || distance[c] != 0;
        k.input_LUT[c] = input_LUT[c];
        k.output_LUT[c] = output_LUT[c];
        k.input_LUT_on[c] = input_on[c] != 0;
        k.output_LUT_on[c] = output_on[c] != 0;
        s.input_LUTs = s.input_LUTs || input_on[c] != 0;
        s.output_LUTs = s.output_LUTs || output_on[c] != 0;
    }
    const bool large =
        input_bytes + output_bytes > streaming_threshold_bytes.load(std::memory_order_relaxed);
    return run_table<Width>[s.encode()](r, k, large);
}
