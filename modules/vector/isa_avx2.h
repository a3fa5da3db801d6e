// The AVX2 layer under the vector pipeline: two 128-bit lanes per vector. Included inside
// namespace kv::vector::avx2 after vector_common.h; built only with -mavx2 (no FMA).

using vi = __m256i;
using vf = __m256;
using shift_count_register = __m128i;

constexpr int lane_count = 2;
// Word permutes across lanes: not in this set.
constexpr bool cross_lane_word_permutes = false;
constexpr size_t vector_bytes = 32;

KV_VECTOR_INLINE vi zero_i() {
    return _mm256_setzero_si256();
}
KV_VECTOR_INLINE vi splat_i(int32_t value) {
    return _mm256_set1_epi32(value);
}
KV_VECTOR_INLINE vf splat_f(float value) {
    return _mm256_set1_ps(value);
}
KV_VECTOR_INLINE vi lane_constant(const lane_bytes& bytes) {
    return _mm256_broadcastsi128_si256(
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes.data())));
}

// One whole vector; a streaming store needs a vector-aligned address.
KV_VECTOR_INLINE vi load_vector(const void* p) {
    return _mm256_loadu_si256(static_cast<const __m256i*>(p));
}
KV_VECTOR_INLINE void store_vector(void* p, vi v, bool stream) {
    if (stream) {
        _mm256_stream_si256(static_cast<__m256i*>(p), v);
    } else {
        _mm256_storeu_si256(static_cast<__m256i*>(p), v);
    }
}

// Register r receives chunk r in lane 0 and chunk S + r in lane 1.
template <int S>
KV_VECTOR_INLINE void load_chunks(const void* source, vi (&registers)[S]) {
    const __m128i* p = static_cast<const __m128i*>(source);
    if constexpr (S == 1) {
        registers[0] = load_vector(p);
    } else {
        for (int r = 0; r < S; ++r) {
            registers[r] = _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(p + r)),
                                                   _mm_loadu_si128(p + S + r), 1);
        }
    }
}

// Contiguous vector T holds chunks 2T and 2T + 1; chunk c sits in register c % S, lane c / S.
template <int S, int T>
KV_VECTOR_INLINE vi contiguous_vector(const vi (&registers)[S]) {
    constexpr int low = 2 * T, high = 2 * T + 1;
    // permute2x128 selector: 0/1 lane of the first source, 2/3 lane of the second.
    constexpr int selector = (low / S) | ((2 + high / S) << 4);
    return _mm256_permute2x128_si256(registers[low % S], registers[high % S], selector);
}

template <int S, int... T>
KV_VECTOR_INLINE void store_contiguous(__m256i* p, const vi (&registers)[S], bool stream,
                                       std::integer_sequence<int, T...>) {
    (store_vector(p + T, contiguous_vector<S, T>(registers), stream), ...);
}

template <int S>
KV_VECTOR_INLINE void store_chunks(void* destination, const vi (&registers)[S], bool stream) {
    __m256i* p = static_cast<__m256i*>(destination);
    if constexpr (S == 1) {
        store_vector(p, registers[0], stream);
    } else {
        store_contiguous(p, registers, stream, std::make_integer_sequence<int, S>());
    }
}

KV_VECTOR_INLINE void store_fence() {
    _mm_sfence();
}

// Integer operations, lane by lane.
KV_VECTOR_INLINE vi and_i(vi a, vi b) {
    return _mm256_and_si256(a, b);
}
template <unsigned Mask>  // 16-bit element p of each lane from b where bit p is set
KV_VECTOR_INLINE vi blend16(vi a, vi b) {
    return _mm256_blend_epi16(a, b, Mask);
}
template <unsigned Mask>  // byte p of each lane from b where bit p is set
KV_VECTOR_INLINE vi blend8(vi a, vi b) {
    const __m128i select = _mm_setr_epi8(
        (Mask & 0x1) ? -1 : 0, (Mask & 0x2) ? -1 : 0, (Mask & 0x4) ? -1 : 0, (Mask & 0x8) ? -1 : 0,
        (Mask & 0x10) ? -1 : 0, (Mask & 0x20) ? -1 : 0, (Mask & 0x40) ? -1 : 0,
        (Mask & 0x80) ? -1 : 0, (Mask & 0x100) ? -1 : 0, (Mask & 0x200) ? -1 : 0,
        (Mask & 0x400) ? -1 : 0, (Mask & 0x800) ? -1 : 0, (Mask & 0x1000) ? -1 : 0,
        (Mask & 0x2000) ? -1 : 0, (Mask & 0x4000) ? -1 : 0, (Mask & 0x8000) ? -1 : 0);
    return _mm256_blendv_epi8(a, b, _mm256_broadcastsi128_si256(select));
}
KV_VECTOR_INLINE vi shuffle_bytes(vi a, vi table) {
    return _mm256_shuffle_epi8(a, table);
}
KV_VECTOR_INLINE vi unpack_low_16(vi a, vi b) {
    return _mm256_unpacklo_epi16(a, b);
}
KV_VECTOR_INLINE vi unpack_high_16(vi a, vi b) {
    return _mm256_unpackhi_epi16(a, b);
}
KV_VECTOR_INLINE vi unpack_low_32(vi a, vi b) {
    return _mm256_unpacklo_epi32(a, b);
}
KV_VECTOR_INLINE vi unpack_high_32(vi a, vi b) {
    return _mm256_unpackhi_epi32(a, b);
}
KV_VECTOR_INLINE vi pack_32_to_16(vi a, vi b) {
    return _mm256_packus_epi32(a, b);
}  // saturates
KV_VECTOR_INLINE vi pack_16_to_8(vi a, vi b) {
    return _mm256_packus_epi16(a, b);
}  // saturates
template <int Count>
KV_VECTOR_INLINE vi shift_left_32(vi a) {
    return _mm256_slli_epi32(a, Count);
}
template <int Count>
KV_VECTOR_INLINE vi shift_right_32(vi a) {
    return _mm256_srli_epi32(a, Count);
}
KV_VECTOR_INLINE vi min_32(vi a, vi b) {
    return _mm256_min_epi32(a, b);
}
KV_VECTOR_INLINE vi max_32(vi a, vi b) {
    return _mm256_max_epi32(a, b);
}
KV_VECTOR_INLINE vi add_32(vi a, vi b) {
    return _mm256_add_epi32(a, b);
}
KV_VECTOR_INLINE vi max_u16(vi a, vi b) {
    return _mm256_max_epu16(a, b);
}
KV_VECTOR_INLINE shift_count_register shift_count_of(uint32_t count) {
    return _mm_cvtsi32_si128(int(count));
}
KV_VECTOR_INLINE vi shift_left_32(vi a, shift_count_register count) {
    return _mm256_sll_epi32(a, count);
}
KV_VECTOR_INLINE vi shift_right_arithmetic_32(vi a, shift_count_register count) {
    return _mm256_sra_epi32(a, count);
}

// Float operations: separate multiply and add, never fused.
KV_VECTOR_INLINE vf to_float(vi a) {
    return _mm256_cvtepi32_ps(a);
}
KV_VECTOR_INLINE vf mul(vf a, vf b) {
    return _mm256_mul_ps(a, b);
}
KV_VECTOR_INLINE vf add(vf a, vf b) {
    return _mm256_add_ps(a, b);
}

// Truncation towards zero; NaN and values out of the int32 range give -2^31.
KV_VECTOR_INLINE vi truncate_to_int32(vf a) {
    return _mm256_cvttps_epi32(a);
}

// Table lookups: the gather instruction, or one scalar load an entry with the indices and entries
// passing through memory. Which is faster depends on the processor (module_entry.cpp).
constexpr bool has_gather = true;
KV_VECTOR_INLINE vi gather_lookup(vi index, const uint32_t* table) {
    return _mm256_i32gather_epi32(reinterpret_cast<const int*>(table), index, 4);
}
KV_VECTOR_INLINE vi load_lookup(vi index, const uint32_t* table) {
    alignas(32) uint32_t i[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(i), index);
    __m128i low = _mm_cvtsi32_si128(int(table[i[0]]));
    __m128i high = _mm_cvtsi32_si128(int(table[i[4]]));
    low = _mm_insert_epi32(low, int(table[i[1]]), 1);
    high = _mm_insert_epi32(high, int(table[i[5]]), 1);
    low = _mm_insert_epi32(low, int(table[i[2]]), 2);
    high = _mm_insert_epi32(high, int(table[i[6]]), 2);
    low = _mm_insert_epi32(low, int(table[i[3]]), 3);
    high = _mm_insert_epi32(high, int(table[i[7]]), 3);
    return _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
}

// Whole-table work of the separable path, contiguous elements rather than lanes: eight 16-bit
// elements widened, a gather of 4 bytes at Scale-byte entries, and the low Width bits of eight
// values stored.
KV_VECTOR_INLINE vi load_widen_16(const uint16_t* p) {
    return _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}
template <int Scale>
KV_VECTOR_INLINE vi gather_scaled(vi index, const void* base) {
    return _mm256_i32gather_epi32(static_cast<const int*>(base), index, Scale);
}
template <int Width>
KV_VECTOR_INLINE void store_narrow(void* p, vi v) {
    v = _mm256_and_si256(v, _mm256_set1_epi32(Width == 8 ? 0xFF : 0xFFFF));
    const __m128i words =
        _mm_packus_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    if constexpr (Width == 8) {
        _mm_storel_epi64(static_cast<__m128i*>(p), _mm_packus_epi16(words, words));
    } else {
        _mm_storeu_si128(static_cast<__m128i*>(p), words);
    }
}
