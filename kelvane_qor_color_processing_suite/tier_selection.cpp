// Tier selection: three groups of bit checks, the first group that passes in full wins. Only the
// AVX-512 group asks the operating system (xgetbv); the others trust the processor's bits.
#include "kelvane_qor_color_processing_suite/tier_selection.h"

#include <initializer_list>

#include "kernels/transform_request.h"

namespace kv {

using platform::bit;

bool passes_tier_checks(const processor_identification& id, int32_t tier) {
    switch (tier) {
        case TIER_AVX512:
            // OSXSAVE, AVX; opmask, upper ZMM and high ZMM state (not the SSE and AVX state);
            // AVX512F, AVX512DQ, AVX512BW.
            return bit(id.leaf1_ecx, 27) && bit(id.leaf1_ecx, 28) && (id.xcr0 & 0xE0u) == 0xE0u &&
                   bit(id.leaf7_ebx, 16) && bit(id.leaf7_ebx, 17) && bit(id.leaf7_ebx, 30);
        case TIER_AVX2:
            return bit(id.leaf7_ebx, 5) && bit(id.leaf1_ecx, 12);  // AVX2, FMA
        case TIER_SSE:
            return bit(id.leaf1_edx, 25) && bit(id.leaf1_edx, 26) &&  // SSE, SSE2
                   bit(id.leaf1_ecx, 19);                             // SSE4.1
        default:
            return false;
    }
}

int32_t select_processor_tier(const processor_identification& identification) {
    for (const int32_t tier : {TIER_AVX512, TIER_AVX2, TIER_SSE}) {
        if (passes_tier_checks(identification, tier)) {
            return tier;
        }
    }
    return TIER_SCALAR;
}

int32_t select_processor_tier() {
#if defined(KV_HAS_CPUID)
    return select_processor_tier(platform::identify_processor());
#else
    return TIER_SCALAR;
#endif
}

vector_route route_frame(int32_t tier, const backend_failures& failed) {
    if (tier == TIER_AVX512 && !failed.avx512) {
        return vector_route::avx512;
    }
    if (tier == TIER_AVX2 && !failed.avx2) {
        return vector_route::avx2;
    }
    if (tier < TIER_SSE || failed.sse) {
        return vector_route::scalar_only;
    }
    return vector_route::sse;
}

}  // namespace kv
