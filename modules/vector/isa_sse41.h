// The SSE4.1 layer under the vector pipeline: one 128-bit lane per vector. Included inside
// namespace kv::vector::sse41 after vector_common.h; built only with -msse4.1.

using vi = __m128i;
using vf = __m128;
using shift_count_register = __m128i;

constexpr int lane_count = 1;
// Word permutes across lanes: not in this set.
constexpr bool cross_lane_word_permutes = false;
constexpr size_t vector_bytes = 16;

KV_VECTOR_INLINE vi zero_i() {
    return _mm_setzero_si128();
}
KV_VECTOR_INLINE vi splat_i(int32_t value) {
    return _mm_set1_epi32(value);
}
KV_VECTOR_INLINE vf splat_f(float value) {
    return _mm_set1_ps(value);
}
KV_VECTOR_INLINE vi lane_constant(const lane_bytes& bytes) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes.data()));
}

// One whole vector; a streaming store needs a vector-aligned address.
KV_VECTOR_INLINE vi load_vector(const void* p) {
    return _mm_loadu_si128(static_cast<const __m128i*>(p));
}
KV_VECTOR_INLINE void store_vector(void* p, vi v, bool stream) {
    if (stream) {
        _mm_stream_si128(static_cast<__m128i*>(p), v);
    } else {
        _mm_storeu_si128(static_cast<__m128i*>(p), v);
    }
}

// Register r receives chunk S * k + r for lane k: with one lane, simply the next S chunks.
template <int S>
KV_VECTOR_INLINE void load_chunks(const void* source, vi (&registers)[S]) {
    const __m128i* p = static_cast<const __m128i*>(source);
    for (int r = 0; r < S; ++r) registers[r] = load_vector(p + r);
}

template <int S>
KV_VECTOR_INLINE void store_chunks(void* destination, const vi (&registers)[S], bool stream) {
    __m128i* p = static_cast<__m128i*>(destination);
    for (int r = 0; r < S; ++r) store_vector(p + r, registers[r], stream);
}

KV_VECTOR_INLINE void store_fence() {
    _mm_sfence();
}

// Integer operations, lane by lane.
KV_VECTOR_INLINE vi and_i(vi a, vi b) {
    return _mm_and_si128(a, b);
}
template <unsigned Mask>  // 16-bit element p from b where bit p is set
KV_VECTOR_INLINE vi blend16(vi a, vi b) {
    return _mm_blend_epi16(a, b, Mask);
}
template <unsigned Mask>  // byte p from b where bit p is set
KV_VECTOR_INLINE vi blend8(vi a, vi b) {
    const vi select = _mm_setr_epi8(
        (Mask & 0x1) ? -1 : 0, (Mask & 0x2) ? -1 : 0, (Mask & 0x4) ? -1 : 0, (Mask & 0x8) ? -1 : 0,
        (Mask & 0x10) ? -1 : 0, (Mask & 0x20) ? -1 : 0, (Mask & 0x40) ? -1 : 0,
        (Mask & 0x80) ? -1 : 0, (Mask & 0x100) ? -1 : 0, (Mask & 0x200) ? -1 : 0,
        (Mask & 0x400) ? -1 : 0, (Mask & 0x800) ? -1 : 0, (Mask & 0x1000) ? -1 : 0,
        (Mask & 0x2000) ? -1 : 0, (Mask & 0x4000) ? -1 : 0, (Mask & 0x8000) ? -1 : 0);
    return _mm_blendv_epi8(a, b, select);
}
KV_VECTOR_INLINE vi shuffle_bytes(vi a, vi table) {
    return _mm_shuffle_epi8(a, table);
}
KV_VECTOR_INLINE vi unpack_low_16(vi a, vi b) {
    return _mm_unpacklo_epi16(a, b);
}
KV_VECTOR_INLINE vi unpack_high_16(vi a, vi b) {
    return _mm_unpackhi_epi16(a, b);
}
KV_VECTOR_INLINE vi unpack_low_32(vi a, vi b) {
    return _mm_unpacklo_epi32(a, b);
}
KV_VECTOR_INLINE vi unpack_high_32(vi a, vi b) {
    return _mm_unpackhi_epi32(a, b);
}
KV_VECTOR_INLINE vi pack_32_to_16(vi a, vi b) {
    return _mm_packus_epi32(a, b);
}  // saturates
KV_VECTOR_INLINE vi pack_16_to_8(vi a, vi b) {
    return _mm_packus_epi16(a, b);
}  // saturates
template <int Count>
KV_VECTOR_INLINE vi shift_left_32(vi a) {
    return _mm_slli_epi32(a, Count);
}
template <int Count>
KV_VECTOR_INLINE vi shift_right_32(vi a) {
    return _mm_srli_epi32(a, Count);
}
KV_VECTOR_INLINE vi min_32(vi a, vi b) {
    return _mm_min_epi32(a, b);
}
KV_VECTOR_INLINE vi max_32(vi a, vi b) {
    return _mm_max_epi32(a, b);
}
KV_VECTOR_INLINE vi add_32(vi a, vi b) {
    return _mm_add_epi32(a, b);
}
KV_VECTOR_INLINE vi max_u16(vi a, vi b) {
    return _mm_max_epu16(a, b);
}
KV_VECTOR_INLINE shift_count_register shift_count_of(uint32_t count) {
    return _mm_cvtsi32_si128(int(count));
}
KV_VECTOR_INLINE vi shift_left_32(vi a, shift_count_register count) {
    return _mm_sll_epi32(a, count);
}
KV_VECTOR_INLINE vi shift_right_arithmetic_32(vi a, shift_count_register count) {
    return _mm_sra_epi32(a, count);
}

// Float operations: separate multiply and add, never fused.
KV_VECTOR_INLINE vf to_float(vi a) {
    return _mm_cvtepi32_ps(a);
}
KV_VECTOR_INLINE vf mul(vf a, vf b) {
    return _mm_mul_ps(a, b);
}
KV_VECTOR_INLINE vf add(vf a, vf b) {
    return _mm_add_ps(a, b);
}

// Truncation towards zero; NaN and values out of the int32 range give -2^31.
KV_VECTOR_INLINE vi truncate_to_int32(vf a) {
    return _mm_cvttps_epi32(a);
}

// Contiguous elements for the separable path: four 16-bit elements widened; the low Width bits of
// four values stored. (Without a gather the pipeline never calls these three and gather_lookup;
// they exist so that the one pipeline body compiles on every layer.)
KV_VECTOR_INLINE vi load_widen_16(const uint16_t* p) {
    return _mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
}
template <int Width>
KV_VECTOR_INLINE void store_narrow(void* p, vi v) {
    v = _mm_and_si128(v, _mm_set1_epi32(Width == 8 ? 0xFF : 0xFFFF));
    const vi words = _mm_packus_epi32(v, v);
    if constexpr (Width == 8) {
        const int bytes = _mm_cvtsi128_si32(_mm_packus_epi16(words, words));
        std::memcpy(p, &bytes, 4);
    } else {
        _mm_storel_epi64(static_cast<__m128i*>(p), words);
    }
}

// Table lookup of four 32-bit entries. SSE4.1 has no gather: the indices go through memory and the
// entries are inserted one by one.
constexpr bool has_gather = false;
KV_VECTOR_INLINE vi load_lookup(vi index, const uint32_t* table) {
    alignas(16) uint32_t i[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(i), index);
    vi v = _mm_cvtsi32_si128(int(table[i[0]]));
    v = _mm_insert_epi32(v, int(table[i[1]]), 1);
    v = _mm_insert_epi32(v, int(table[i[2]]), 2);
    return _mm_insert_epi32(v, int(table[i[3]]), 3);
}
KV_VECTOR_INLINE vi gather_lookup(vi index, const uint32_t* table) {
    return load_lookup(index, table);
}
template <int Scale>
KV_VECTOR_INLINE vi gather_scaled(vi index, const void* base) {
    alignas(16) uint32_t i[4], e[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(i), index);
    for (int j = 0; j < 4; ++j)
        std::memcpy(&e[j], static_cast<const char*>(base) + Scale * i[j], 4);
    return _mm_load_si128(reinterpret_cast<const __m128i*>(e));
}
