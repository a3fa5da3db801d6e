// The AVX-512 layer under the vector pipeline: four 128-bit lanes per vector. Included inside
// namespace kv::vector::avx512 after vector_common.h; built only with -mavx512f -mavx512dq
// -mavx512bw. No 128- or 256-bit EVEX forms (AVX512VL) are used; the compiler may use AVX2 forms,
// which those flags imply and initialize checks.

using vi = __m512i;
using vf = __m512;
using shift_count_register = __m128i;

constexpr int lane_count = 4;
// Word permutes across lanes (AVX512BW): the 16-bit interleaved layouts use them.
constexpr bool cross_lane_word_permutes = true;
constexpr size_t vector_bytes = 64;

KV_VECTOR_INLINE vi zero_i() {
    return _mm512_setzero_si512();
}
KV_VECTOR_INLINE vi splat_i(int32_t value) {
    return _mm512_set1_epi32(value);
}
KV_VECTOR_INLINE vf splat_f(float value) {
    return _mm512_set1_ps(value);
}
KV_VECTOR_INLINE vi lane_constant(const lane_bytes& bytes) {
    return _mm512_broadcast_i32x4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes.data())));
}

// One whole vector; a streaming store needs a vector-aligned address.
KV_VECTOR_INLINE vi load_vector(const void* p) {
    return _mm512_loadu_si512(p);
}
KV_VECTOR_INLINE void store_vector(void* p, vi v, bool stream) {
    if (stream) {
        _mm512_stream_si512(static_cast<__m512i*>(p), v);
    } else {
        _mm512_storeu_si512(p, v);
    }
}

// Register r receives chunk S * k + r in lane k: a load and three insertions. (Merge-masked
// broadcast loads, which keep the shuffle unit free, stalled on data beyond the near caches.)
template <int S>
KV_VECTOR_INLINE void load_chunks(const void* source, vi (&registers)[S]) {
    const __m128i* p = static_cast<const __m128i*>(source);
    if constexpr (S == 1) {
        registers[0] = load_vector(p);
    } else {
        for (int r = 0; r < S; ++r) {
            vi v = _mm512_castsi128_si512(_mm_loadu_si128(p + r));
            v = _mm512_inserti32x4(v, _mm_loadu_si128(p + S + r), 1);
            v = _mm512_inserti32x4(v, _mm_loadu_si128(p + 2 * S + r), 2);
            registers[r] = _mm512_inserti32x4(v, _mm_loadu_si128(p + 3 * S + r), 3);
        }
    }
}

// Contiguous vector T holds chunks 4T .. 4T + 3; chunk c sits in register c % S, lane c / S. The
// lanes from the first two registers met are picked by one two-source permute, any from a third
// or fourth register are merged in under a mask.
template <int S, int T>
struct contiguous_plan {
    static constexpr int reg(int j) { return (4 * T + j) % S; }
    static constexpr int lane(int j) { return (4 * T + j) / S; }
    static constexpr int first = reg(0);
    static constexpr int second_of() {
        for (int j = 0; j < 4; ++j) {
            if (reg(j) != first) return reg(j);
        }
        return first;
    }
    static constexpr int second = second_of();
    // Qword index vector element for lane j of the two-source permute (don't care: 0).
    static constexpr long long pair_index(int q) {
        const int j = q / 2;
        if (reg(j) == first) return 2 * lane(j) + q % 2;
        if (reg(j) == second) return 8 + 2 * lane(j) + q % 2;
        return 0;
    }
    static constexpr long long single_index(int q) { return 2 * lane(q / 2) + q % 2; }
    static constexpr unsigned mask_for(int r) {
        unsigned m = 0;
        for (int j = 0; j < 4; ++j) {
            if (reg(j) == r && r != first && r != second) m |= 3u << (2 * j);
        }
        return m;
    }
};

template <int S, int T>
KV_VECTOR_INLINE vi contiguous_vector(const vi (&registers)[S]) {
    using plan = contiguous_plan<S, T>;
    const __m512i pair = _mm512_set_epi64(
        plan::pair_index(7), plan::pair_index(6), plan::pair_index(5), plan::pair_index(4),
        plan::pair_index(3), plan::pair_index(2), plan::pair_index(1), plan::pair_index(0));
    vi v = _mm512_permutex2var_epi64(registers[plan::first], pair, registers[plan::second]);
    if constexpr (S > 2) {
        const __m512i single =
            _mm512_set_epi64(plan::single_index(7), plan::single_index(6), plan::single_index(5),
                             plan::single_index(4), plan::single_index(3), plan::single_index(2),
                             plan::single_index(1), plan::single_index(0));
        for (int r = 0; r < S; ++r) {
            const unsigned m = plan::mask_for(r);
            if (m != 0) v = _mm512_mask_permutexvar_epi64(v, __mmask8(m), single, registers[r]);
        }
    }
    return v;
}

template <int S, int... T>
KV_VECTOR_INLINE void store_contiguous(__m512i* p, const vi (&registers)[S], bool stream,
                                       std::integer_sequence<int, T...>) {
    (store_vector(p + T, contiguous_vector<S, T>(registers), stream), ...);
}

template <int S>
KV_VECTOR_INLINE void store_chunks(void* destination, const vi (&registers)[S], bool stream) {
    __m512i* p = static_cast<__m512i*>(destination);
    if constexpr (S == 1) {
        store_vector(p, registers[0], stream);
    } else {
        store_contiguous(p, registers, stream, std::make_integer_sequence<int, S>());
    }
}

KV_VECTOR_INLINE void store_fence() {
    _mm_sfence();
}

// Integer operations, lane by lane; per-lane blend patterns become 32- and 64-bit masks.
KV_VECTOR_INLINE vi and_i(vi a, vi b) {
    return _mm512_and_si512(a, b);
}
template <unsigned Mask>  // 16-bit element p of each lane from b where bit p is set
KV_VECTOR_INLINE vi blend16(vi a, vi b) {
    return _mm512_mask_blend_epi16(__mmask32(Mask * 0x01010101u), a, b);
}
template <unsigned Mask>  // byte p of each lane from b where bit p is set
KV_VECTOR_INLINE vi blend8(vi a, vi b) {
    return _mm512_mask_blend_epi8(__mmask64(Mask * 0x0001000100010001ull), a, b);
}
KV_VECTOR_INLINE vi shuffle_bytes(vi a, vi table) {
    return _mm512_shuffle_epi8(a, table);
}
// Words of a and b (indices 0-31, 32-63) in any order, across lanes.
KV_VECTOR_INLINE vi permute_words(vi a, const word_indices& index, vi b) {
    return _mm512_permutex2var_epi16(a, _mm512_loadu_si512(index.data()), b);
}
// The same for the words in mask, over a (0-31) and b (32-63); the others keep a's word.
KV_VECTOR_INLINE vi permute_words_into(vi a, uint32_t mask, const word_indices& index, vi b) {
    return _mm512_mask_permutex2var_epi16(a, __mmask32(mask), _mm512_loadu_si512(index.data()), b);
}
KV_VECTOR_INLINE vi unpack_low_16(vi a, vi b) {
    return _mm512_unpacklo_epi16(a, b);
}
KV_VECTOR_INLINE vi unpack_high_16(vi a, vi b) {
    return _mm512_unpackhi_epi16(a, b);
}
KV_VECTOR_INLINE vi unpack_low_32(vi a, vi b) {
    return _mm512_unpacklo_epi32(a, b);
}
KV_VECTOR_INLINE vi unpack_high_32(vi a, vi b) {
    return _mm512_unpackhi_epi32(a, b);
}
KV_VECTOR_INLINE vi pack_32_to_16(vi a, vi b) {
    return _mm512_packus_epi32(a, b);
}  // saturates
KV_VECTOR_INLINE vi pack_16_to_8(vi a, vi b) {
    return _mm512_packus_epi16(a, b);
}  // saturates
template <int Count>
KV_VECTOR_INLINE vi shift_left_32(vi a) {
    return _mm512_slli_epi32(a, Count);
}
template <int Count>
KV_VECTOR_INLINE vi shift_right_32(vi a) {
    return _mm512_srli_epi32(a, Count);
}
KV_VECTOR_INLINE vi min_32(vi a, vi b) {
    return _mm512_min_epi32(a, b);
}
KV_VECTOR_INLINE vi max_32(vi a, vi b) {
    return _mm512_max_epi32(a, b);
}
KV_VECTOR_INLINE vi add_32(vi a, vi b) {
    return _mm512_add_epi32(a, b);
}
KV_VECTOR_INLINE vi max_u16(vi a, vi b) {
    return _mm512_max_epu16(a, b);
}
KV_VECTOR_INLINE shift_count_register shift_count_of(uint32_t count) {
    return _mm_cvtsi32_si128(int(count));
}
KV_VECTOR_INLINE vi shift_left_32(vi a, shift_count_register count) {
    return _mm512_sll_epi32(a, count);
}
KV_VECTOR_INLINE vi shift_right_arithmetic_32(vi a, shift_count_register count) {
    return _mm512_sra_epi32(a, count);
}

// Float operations: separate multiply and add, never fused.
KV_VECTOR_INLINE vf to_float(vi a) {
    return _mm512_cvtepi32_ps(a);
}
KV_VECTOR_INLINE vf mul(vf a, vf b) {
    return _mm512_mul_ps(a, b);
}
KV_VECTOR_INLINE vf add(vf a, vf b) {
    return _mm512_add_ps(a, b);
}

// Truncation towards zero; NaN and values out of the int32 range give -2^31.
KV_VECTOR_INLINE vi truncate_to_int32(vf a) {
    return _mm512_cvttps_epi32(a);
}

// Table lookups: one 512-bit gather, or one scalar load an entry with the indices and entries
// passing through memory. Which is faster depends on the processor (module_entry.cpp).
constexpr bool has_gather = true;
KV_VECTOR_INLINE vi gather_lookup(vi index, const uint32_t* table) {
    return _mm512_i32gather_epi32(index, table, 4);
}
KV_VECTOR_INLINE vi load_lookup(vi index, const uint32_t* table) {
    alignas(64) uint32_t i[16];
    _mm512_store_si512(i, index);
    __m128i part[4];
    for (int p = 0; p < 4; ++p) {
        __m128i v = _mm_cvtsi32_si128(int(table[i[4 * p]]));
        v = _mm_insert_epi32(v, int(table[i[4 * p + 1]]), 1);
        v = _mm_insert_epi32(v, int(table[i[4 * p + 2]]), 2);
        part[p] = _mm_insert_epi32(v, int(table[i[4 * p + 3]]), 3);
    }
    const vi v = _mm512_castsi128_si512(part[0]);
    return _mm512_inserti32x4(_mm512_inserti32x4(_mm512_inserti32x4(v, part[1], 1), part[2], 2),
                              part[3], 3);
}

// Whole-table work of the separable path, contiguous elements rather than lanes: sixteen 16-bit
// elements widened, a gather of 4 bytes at Scale-byte entries, and the low Width bits of sixteen
// values stored.
KV_VECTOR_INLINE vi load_widen_16(const uint16_t* p) {
    return _mm512_cvtepu16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
}
template <int Scale>
KV_VECTOR_INLINE vi gather_scaled(vi index, const void* base) {
    return _mm512_i32gather_epi32(index, base, Scale);
}
template <int Width>
KV_VECTOR_INLINE void store_narrow(void* p, vi v) {
    if constexpr (Width == 8) {
        _mm_storeu_si128(static_cast<__m128i*>(p), _mm512_cvtepi32_epi8(v));
    } else {
        _mm256_storeu_si256(static_cast<__m256i*>(p), _mm512_cvtepi32_epi16(v));
    }
}
