// Tier selection: each tier's decision checks come from the one record of what the tiers require
// (platform/tier_requirements.h); the first tier, from AVX-512 down, whose checks all pass wins.
#include "kelvane_qor_color_processing_suite/tier_selection.h"

#include <initializer_list>

#include "kernels/transform_request.h"
#include "platform/tier_requirements.h"

namespace kv {

bool passes_tier_checks(const processor_identification& id, int32_t tier) {
    const platform::tier_requirements* required = platform::requirements_of(tier);
    return required != nullptr && platform::first_missing(required->decision, id) == nullptr;
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
