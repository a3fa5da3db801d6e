// Tier selection: three groups of bit checks, the first group that passes in full wins. Only the
// AVX-512 group asks the operating system (xgetbv); the others trust the processor's bits.
#include "kelvane_qor_color_processing_suite/tier_selection.h"

#include "kernels/transform_request.h"

namespace kv {

namespace {

using platform::bit;

bool has_avx512(const processor_identification& id) {
    if (!bit(id.cpuid(1, 0).ecx, 27) || !bit(id.cpuid(1, 0).ecx, 28)) {  // OSXSAVE, AVX
        return false;
    }
    // Opmask, upper ZMM and high ZMM state; the SSE and AVX state bits are not asked for.
    if ((id.xgetbv0() & 0xE0u) != 0xE0u) {
        return false;
    }
    return bit(id.cpuid(7, 0).ebx, 16) && bit(id.cpuid(7, 0).ebx, 17) &&  // AVX512F, AVX512DQ
           bit(id.cpuid(7, 0).ebx, 30);                                   // AVX512BW
}

bool has_avx2(const processor_identification& id) {
    return bit(id.cpuid(7, 0).ebx, 5) && bit(id.cpuid(1, 0).ecx, 12);  // AVX2, FMA
}

bool has_sse(const processor_identification& id) {
    return bit(id.cpuid(1, 0).edx, 25) && bit(id.cpuid(1, 0).edx, 26) &&  // SSE, SSE2
           bit(id.cpuid(1, 0).ecx, 19);                                   // SSE4.1
}

}  // namespace

int32_t select_processor_tier(const processor_identification& identification) {
    if (has_avx512(identification)) {
        return TIER_AVX512;
    }
    if (has_avx2(identification)) {
        return TIER_AVX2;
    }
    if (has_sse(identification)) {
        return TIER_SSE;
    }
    return TIER_SCALAR;
}

int32_t select_processor_tier() {
#if defined(KV_HAS_CPUID)
    return select_processor_tier(processor_identification{&platform::cpuid, &platform::xgetbv0});
#else
    return TIER_SCALAR;
#endif
}

}  // namespace kv
