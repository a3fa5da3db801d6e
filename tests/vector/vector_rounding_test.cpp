// The identity the vector modules' rounding rests on, for every one of the 2^32 floats: truncating
// sum + 0.49999997 in single precision gives, after any clamp into [0, 65535], what truncating
// double(sum) + 0.5 gives. The scalar form is the definition; the vector form is what the modules
// compute (see modules/vector/vector_pipeline.h).
#include <emmintrin.h>
#include <gtest/gtest.h>

#include <bitset>
#include <cstdint>

namespace {

TEST(RoundingIdentity, HoldsForEveryFloatAfterTheClamp) {
    const __m128 nearly_half = _mm_set1_ps(0.49999997f);
    const __m128d half = _mm_set1_pd(0.5);
    uint64_t differing = 0, first_difference = 0;
    for (uint64_t base = 0; base < (1ull << 32); base += 4) {
        const __m128i bits =
            _mm_add_epi32(_mm_set1_epi32(static_cast<int32_t>(base)), _mm_setr_epi32(0, 1, 2, 3));
        const __m128 sum = _mm_castsi128_ps(bits);
        const __m128i single = _mm_cvttps_epi32(_mm_add_ps(sum, nearly_half));
        // Two floats at a time widened to double, 0.5 added there, truncated.
        const __m128i low = _mm_cvttpd_epi32(_mm_add_pd(_mm_cvtps_pd(sum), half));
        const __m128i high =
            _mm_cvttpd_epi32(_mm_add_pd(_mm_cvtps_pd(_mm_movehl_ps(sum, sum)), half));
        const __m128i twice = _mm_unpacklo_epi64(low, high);
        // Equal, or both at or below 0 (clamped to the minimum), or both at or above 65535.
        const __m128i zero = _mm_setzero_si128(), top = _mm_set1_epi32(65534);
        const __m128i agree = _mm_or_si128(
            _mm_cmpeq_epi32(single, twice),
            _mm_or_si128(_mm_andnot_si128(
                             _mm_cmpgt_epi32(single, zero),
                             _mm_andnot_si128(_mm_cmpgt_epi32(twice, zero), _mm_set1_epi32(-1))),
                         _mm_and_si128(_mm_cmpgt_epi32(single, top), _mm_cmpgt_epi32(twice, top))));
        const int mask = _mm_movemask_ps(_mm_castsi128_ps(agree));
        if (mask != 0xF) {
            const std::bitset<4> disagree(static_cast<unsigned>(~mask & 0xF));
            if (differing == 0) {
                uint64_t lane = 0;
                while (!disagree[lane]) ++lane;
                first_difference = base + lane;
            }
            differing += disagree.count();
        }
    }
    EXPECT_EQ(differing, 0u) << "first at float bits 0x" << std::hex << first_difference;
}

}  // namespace
