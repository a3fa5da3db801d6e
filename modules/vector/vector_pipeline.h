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
    bool full_range;   // every channel's bounds are 0 and 65535
    uint32_t gathers;  // gather_use bits: which lookups gather, as initialize chose
};

// One table lookup a 32-bit index, by gather or by scalar loads.
KV_VECTOR_INLINE vi look_up(vi index, const uint32_t* table, bool gather) {
    if constexpr (has_gather) {
        if (gather) return gather_lookup(index, table);
    }
    (void)gather;
    return load_lookup(index, table);
}

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

// Gather says how the lookups go, a constant of the loop: a test per lookup measured slower.
template <bool Gather, int Q>
KV_VECTOR_INLINE void input_LUT_stage(const call_constants& k, vi (&v)[3][Q]) {
    const vi low_16 = splat_i(0xFFFF);
    constexpr bool gather = Gather;
    for (int c = 0; c < 3; ++c) {
        if (!k.input_LUT_on[c]) continue;
        for (int q = 0; q < Q; ++q) {
            v[c][q] = and_i(look_up(v[c][q], k.input_LUT[c], gather), low_16);
        }
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

template <bool Gather, int Q>
KV_VECTOR_INLINE void output_LUT_stage(const call_constants& k, vi (&v)[3][Q]) {
    constexpr bool gather = Gather;
    for (int c = 0; c < 3; ++c) {
        if (!k.output_LUT_on[c]) continue;
        for (int q = 0; q < Q; ++q) v[c][q] = look_up(v[c][q], k.output_LUT[c], gather);
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

template <int Width, uint32_t Code, bool Gather>
KV_VECTOR_INLINE void process_block(const transform_request& r, const call_constants& k,
                                    ptrdiff_t i, bool stream) {
    constexpr loop_settings s = loop_settings::decode(Width, Code);
    constexpr int Q = lane_pixels<Width> / 4;
    const ptrdiff_t n = r.pixel_count;
    vi v[3][Q];
    load_block<s.input_layout, Q>(r.input_buffer, i, n, v);
    if constexpr (s.input_LUTs) input_LUT_stage<Gather>(k, v);
    // Values go straight to the store (no LUT, no shift): the clamp keeps them in [0, 65535].
    constexpr bool in_range = !s.output_LUTs && !s.shifts;
    // Stores whose narrowing starts with a saturating pack clamp to [0, 65535] by themselves.
    constexpr bool packing_store = in_range && (s.output_layout == PLANES || !s.fourth_channel);
    if (packing_store && k.full_range) {
        matrix_stage<false>(k, v);
    } else {
        matrix_stage<true>(k, v);
    }
    if constexpr (s.output_LUTs) output_LUT_stage<Gather>(k, v);
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
template <int Width, uint32_t Code, bool Gather>
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
        process_block<Width, Code, Gather>(r, k, i, streaming_block);
        if (i == last) break;
        i = i < aligned ? aligned : i + block;
        streaming_block = stream && i <= last;
        if (i > last) i = last;
    }
    if (stream) store_fence();
    return r.pixel_count;
}

using run_function = int32_t (*)(const transform_request&, const call_constants&, bool);

// Loops with a LUT stage come in two kinds, gathering or loading; the others in one.
template <uint32_t Code>
constexpr bool has_LUT_stage(int width) {
    return loop_settings::decode(width, Code).input_LUTs ||
           loop_settings::decode(width, Code).output_LUTs;
}

template <int Width, bool Gather, uint32_t... Code>
constexpr std::array<run_function, sizeof...(Code)> make_run_table(
    std::integer_sequence<uint32_t, Code...>) {
    return {&run < Width, Code, has_gather && Gather && has_LUT_stage<Code>(Width) > ...};
}

// Indexed by gathering, then by the settings' code.
template <int Width>
constexpr std::array<std::array<run_function, loop_settings::count_per_width>, 2> run_table = {
    make_run_table<Width, false>(
        std::make_integer_sequence<uint32_t, loop_settings::count_per_width>()),
    make_run_table<Width, true>(
        std::make_integer_sequence<uint32_t, loop_settings::count_per_width>())};

// ---------------------------------------------------------------------------------------------
// Separable frames: with zeros (of either sign) off the matrix diagonal, a channel's stored
// element depends on that channel's element alone. A table per channel, element -> stored
// element, built through the stages above, then turns the frame into one lookup an element.
//
// Exactness: in channel c's row the diagonal product x = m * factor is summed with two products of
// a zero entry and a finite factor, which are zeros. x + zero is x unless x is itself a zero, and
// any zero sum rounds to 0; so the rounded sum is the same whatever the other two factors are,
// and the builder forms the row in its full order with the channel's own factor in all three
// places. NaN and infinite diagonal entries pass through as in the full formula.
//
// Reads: an input LUT may hold fewer than 2^16 entries, and only the elements present in the
// frame are sure to be inside it. The frame goes in chunks; before each, the tables are extended
// up to the largest element of each channel met so far, never further (the last block of entries
// repeats that element). Output LUT indices are clamped values, inside [min, max] as always.
// Tables live on the heap for one call only: the host may change LUTs or the matrix between calls.
// ---------------------------------------------------------------------------------------------

template <int Width>
using stored_element = std::conditional_t<Width == 8, uint8_t, uint16_t>;

// Entries a channel's table is apart from the next: room for a gather's 4-byte read at the last
// entry and for the builder's whole blocks.
constexpr ptrdiff_t table_stride = 65536 + 64;
constexpr ptrdiff_t separable_chunk_pixels = 8192;

// The entries that value q of a block holds in each lane: the order in which the narrowing of the
// ordinary path leaves values contiguous (lane k: entries P*k + 4q .. P*k + 4q + 3).
template <int Width>
constexpr auto block_entry_offsets() {
    constexpr int P = lane_pixels<Width>, Q = P / 4;
    std::array<std::array<int32_t, 4 * lane_count>, Q> offsets{};
    for (int q = 0; q < Q; ++q) {
        for (int k = 0; k < lane_count; ++k) {
            for (int j = 0; j < 4; ++j) offsets[q][4 * k + j] = P * k + 4 * q + j;
        }
    }
    return offsets;
}

// Entries [built, end) of channel c's table (whole blocks from the one holding `built`, a little
// beyond `end` so that a gather's 4-byte read there finds written bytes). Only entries up to
// end - 1 are looked up in the input LUT.
template <int Width>
void extend_table(const call_constants& k, int c, stored_element<Width>* table, uint32_t built,
                  uint32_t end) {
    constexpr int Q = lane_pixels<Width> / 4;
    constexpr uint32_t block = uint32_t(block_pixels<Width>);
    alignas(64) static constexpr auto offsets = block_entry_offsets<Width>();
    const int row = 2 - c;  // red is row 0, blue row 2
    const vf a = k.matrix[3 * row], b = k.matrix[3 * row + 1], d = k.matrix[3 * row + 2];
    const vi last = splat_i(int32_t(end - 1)), low_16 = splat_i(0xFFFF);
    const bool gather_in = (k.gathers & gather_LUT_stages) != 0, gather_out = gather_in;
    for (uint32_t e = built / block * block; e < end + 3; e += block) {
        vi v[Q];
        for (int q = 0; q < Q; ++q) {
            vi x =
                min_32(add_32(splat_i(int32_t(e)), load_vector(offsets[size_t(q)].data())), last);
            if (k.input_LUT_on[c]) x = and_i(look_up(x, k.input_LUT[c], gather_in), low_16);
            const vf f = to_float(x);
            x = round_for_clamp(add(add(mul(a, f), mul(b, f)), mul(d, f)));
            x = max_32(min_32(x, k.maximum[c]), k.minimum[c]);
            if (k.output_LUT_on[c]) x = look_up(x, k.output_LUT[c], gather_out);
            v[q] = shift_right_arithmetic_32(shift_left_32(x, k.left[c]), k.right[c]);
        }
        if constexpr (Width == 16) {
            store_vector(table + e, narrow_to_16<false>(v[0], v[1]), false);
        } else {
            store_vector(table + e, narrow_to_8<false>(v), false);
        }
    }
}

// The largest element of each channel (blue, green, red) among `count` pixels from `first`.
template <int Layout>
void channel_maxima(const uint16_t* in, ptrdiff_t n, ptrdiff_t first, ptrdiff_t count,
                    uint32_t (&maximum)[3]) {
    constexpr ptrdiff_t V = ptrdiff_t(vector_bytes / 2);  // elements a vector
    alignas(64) uint16_t lanes[V];
    if constexpr (Layout == PLANES) {
        for (int c = 0; c < 3; ++c) {
            const uint16_t* p = in + c * n + first;
            vi top = zero_i();
            ptrdiff_t i = 0;
            for (; i + V <= count; i += V) top = max_u16(top, load_vector(p + i));
            store_vector(lanes, top, false);
            uint32_t m = 0;
            for (ptrdiff_t w = 0; w < V; ++w) m = lanes[w] > m ? lanes[w] : m;
            for (; i < count; ++i) m = p[i] > m ? p[i] : m;
            maximum[c] = m;
        }
    } else {
        // Three vectors hold a whole number of pixels, so element w of vector j is always slot
        // (V * j + w) % 3.
        const uint16_t* p = in + 3 * first;
        const ptrdiff_t elements = 3 * count;
        vi top[3] = {zero_i(), zero_i(), zero_i()};
        ptrdiff_t i = 0;
        for (; i + 3 * V <= elements; i += 3 * V) {
            for (int j = 0; j < 3; ++j) top[j] = max_u16(top[j], load_vector(p + i + V * j));
        }
        uint32_t slot_maximum[3] = {0, 0, 0};
        for (int j = 0; j < 3; ++j) {
            store_vector(lanes, top[j], false);
            for (ptrdiff_t w = 0; w < V; ++w) {
                uint32_t& m = slot_maximum[(V * j + w) % 3];
                m = lanes[w] > m ? lanes[w] : m;
            }
        }
        for (; i < elements; ++i) {
            uint32_t& m = slot_maximum[i % 3];
            m = p[i] > m ? p[i] : m;
        }
        for (int c = 0; c < 3; ++c) maximum[c] = slot_maximum[slot_of(Layout, c)];
    }
}

// Where a channel's elements of a chunk are: the first one and the distance between pixels.
template <class Element>
struct channel_places {
    Element* first[4];  // blue, green, red, fourth (output only)
    ptrdiff_t step;
};

template <class Element>
channel_places<Element> places_of(Element* base, int layout, ptrdiff_t n, ptrdiff_t pixel,
                                  int elements) {
    channel_places<Element> p;
    p.step = layout == PLANES ? 1 : elements;
    for (int c = 0; c < elements; ++c) {
        const int slot = c == 3 ? 3 : slot_of(layout, c);
        p.first[c] = layout == PLANES ? base + c * n + pixel : base + elements * pixel + slot;
    }
    return p;
}

// One scalar load of the table an element: any layouts.
template <bool Fourth, class Element>
void apply_by_loads(const channel_places<const uint16_t>& in, const channel_places<Element>& out,
                    const Element* tables, ptrdiff_t count) {
    const Element* const blue = tables;
    const Element* const green = tables + table_stride;
    const Element* const red = tables + 2 * table_stride;
    for (ptrdiff_t i = 0; i < count; ++i) {
        const ptrdiff_t from = i * in.step, to = i * out.step;
        out.first[0][to] = blue[in.first[0][from]];
        out.first[1][to] = green[in.first[1][from]];
        out.first[2][to] = red[in.first[2][from]];
        if constexpr (Fourth) out.first[3][to] = 0;
    }
}

// Gathers, for input and output of one layout without a fourth element: the elements stay where
// they are, each vector's indices offset to its channel's table. Returns the pixels done (whole
// vectors); the caller finishes the rest.
template <int Width>
ptrdiff_t apply_by_gather(const uint16_t* in, stored_element<Width>* out, int layout, ptrdiff_t n,
                          ptrdiff_t first, ptrdiff_t count, const stored_element<Width>* tables) {
    if constexpr (has_gather) {
        constexpr int scale = int(sizeof(stored_element<Width>));
        constexpr ptrdiff_t V = ptrdiff_t(vector_bytes / 4);  // elements a gather
        const ptrdiff_t done = count / V * V;
        if (layout == PLANES) {
            for (int c = 0; c < 3; ++c) {
                const vi offset = splat_i(int32_t(c * table_stride));
                const uint16_t* p = in + c * n + first;
                stored_element<Width>* o = out + c * n + first;
                for (ptrdiff_t i = 0; i < done; i += V) {
                    store_narrow<Width>(
                        o + i, gather_scaled<scale>(add_32(load_widen_16(p + i), offset), tables));
                }
            }
        } else {
            // Element w of the three vectors of a group is slot (V * j + w) % 3.
            alignas(64) int32_t offsets[3][V];
            for (int j = 0; j < 3; ++j) {
                for (ptrdiff_t w = 0; w < V; ++w) {
                    const int slot = int((V * j + w) % 3);
                    offsets[j][w] = int32_t(slot_of(layout, slot) * table_stride);
                }
            }
            const vi offset[3] = {load_vector(offsets[0]), load_vector(offsets[1]),
                                  load_vector(offsets[2])};
            const uint16_t* p = in + 3 * first;
            stored_element<Width>* o = out + 3 * first;
            for (ptrdiff_t i = 0; i < 3 * done; i += 3 * V) {
                for (int j = 0; j < 3; ++j) {
                    const ptrdiff_t at = i + V * j;
                    store_narrow<Width>(
                        o + at,
                        gather_scaled<scale>(add_32(load_widen_16(p + at), offset[j]), tables));
                }
            }
        }
        return done;
    } else {
        (void)in, (void)out, (void)layout, (void)n, (void)first, (void)count, (void)tables;
        return 0;
    }
}

// The whole frame through the tables; -1 when the tables' memory cannot be had, and the ordinary
// path does the frame.
template <int Width>
int32_t run_separable(const transform_request& r, const call_constants& k, const loop_settings& s) {
    using element = stored_element<Width>;
    void* const memory = std::malloc(size_t(3 * table_stride) * sizeof(element) + 64);
    if (memory == nullptr) return -1;
    element* const tables =
        reinterpret_cast<element*>((reinterpret_cast<uintptr_t>(memory) + 63) / 64 * 64);
    const ptrdiff_t n = r.pixel_count;
    const int elements = s.fourth_channel ? 4 : 3;
    const bool by_gather = has_gather && (k.gathers & gather_separable) != 0 &&
                           s.input_layout == s.output_layout && !s.fourth_channel;
    element* const out = static_cast<element*>(r.output_buffer);
    uint32_t built[3] = {0, 0, 0};
    for (ptrdiff_t first = 0; first < n; first += separable_chunk_pixels) {
        const ptrdiff_t count =
            n - first < separable_chunk_pixels ? n - first : separable_chunk_pixels;
        uint32_t maximum[3];
        if (s.input_layout == PLANES) {
            channel_maxima<PLANES>(r.input_buffer, n, first, count, maximum);
        } else if (s.input_layout == BGR) {
            channel_maxima<BGR>(r.input_buffer, n, first, count, maximum);
        } else {
            channel_maxima<RGB>(r.input_buffer, n, first, count, maximum);
        }
        for (int c = 0; c < 3; ++c) {
            if (maximum[c] < built[c]) continue;
            extend_table<Width>(k, c, tables + c * table_stride, built[c], maximum[c] + 1);
            built[c] = maximum[c] + 1;
        }
        ptrdiff_t done = 0;
        if (by_gather) {
            done = apply_by_gather<Width>(r.input_buffer, out, s.input_layout, n, first, count,
                                          tables);
        }
        const auto in = places_of(r.input_buffer, s.input_layout, n, first + done, 3);
        const auto to = places_of(out, s.output_layout, n, first + done, elements);
        if (s.fourth_channel) {
            apply_by_loads<true>(in, to, tables, count - done);
        } else {
            apply_by_loads<false>(in, to, tables, count - done);
        }
    }
    std::free(memory);
    return r.pixel_count;
}

// Zeros of either sign off the diagonal (NaN compares unequal and keeps the full path).
inline bool separable_matrix(const float* m) {
    return m[1] == 0.0f && m[2] == 0.0f && m[3] == 0.0f && m[5] == 0.0f && m[6] == 0.0f &&
           m[7] == 0.0f;
}

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
    // Read once, as the scalar kernels do: a matrix written during the call changes nothing in it.
    float matrix[9];
    for (int i = 0; i < 9; ++i) matrix[i] = matrix_of(r.processor)[i];
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
    k.gathers = gather_uses.load(std::memory_order_relaxed);
    if (r.pixel_count >= separable_minimum_pixels.load(std::memory_order_relaxed) &&
        separable_matrix(matrix)) {
        const int32_t done = run_separable<Width>(r, k, s);
        if (done >= 0) return done;
    }
    const bool large =
        input_bytes + output_bytes > streaming_threshold_bytes.load(std::memory_order_relaxed);
    return run_table<Width>[(k.gathers & gather_LUT_stages) != 0 ? 1 : 0][s.encode()](r, k, large);
}
