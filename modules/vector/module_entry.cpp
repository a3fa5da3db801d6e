// initialize and terminate of one vector module, built for the baseline instruction set: they
// must run on any x86-64 processor to find out whether the module's own set is there. Compiled
// once per module with KV_VECTOR_MODULE_SSE, _AVX2 or _AVX512 defined.
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "modules/vector/instruction_sets.h"
#include "modules/vector/vector_common.h"
#include "platform/cpu_identification.h"
#include "services/module_abi.h"

namespace kv {
namespace vector {

std::atomic<uint64_t> streaming_threshold_bytes{UINT64_MAX};
std::atomic<uint32_t> gather_uses{gather_LUT_stages | gather_separable};
std::atomic<int64_t> separable_minimum_pixels{INT64_MAX};

namespace {

// The largest cache the deterministic cache leaves describe: leaf 4 on Intel, 0x8000001D on AMD
// (same format). 0 when neither answers.
uint64_t last_level_cache_bytes() {
    uint64_t largest = 0;
    const uint32_t leaves[2] = {4u, 0x8000001Du};
    const uint32_t highest[2] = {platform::cpuid(0, 0).eax, platform::cpuid(0x80000000u, 0).eax};
    for (int l = 0; l < 2; ++l) {
        if (leaves[l] > highest[l]) continue;
        for (uint32_t index = 0; index < 16; ++index) {
            const platform::cpuid_registers r = platform::cpuid(leaves[l], index);
            if ((r.eax & 0x1F) == 0) break;  // no more caches
            const uint64_t ways = ((r.ebx >> 22) & 0x3FF) + 1;
            const uint64_t partitions = ((r.ebx >> 12) & 0x3FF) + 1;
            const uint64_t line = (r.ebx & 0xFFF) + 1;
            const uint64_t sets = uint64_t(r.ecx) + 1;
            const uint64_t bytes = ways * partitions * line * sets;
            if (bytes > largest) largest = bytes;
        }
    }
    return largest;
}

// Which lookups gather, by processor family: whole-pipeline measurements (docs/vector.md), not a
// calibration at initialize, since a bare lookup loop ranks the two ways differently from the
// pipeline they sit in. Families not listed keep the gathers.
struct family_choice {
    uint32_t vendor_ebx;  // cpuid leaf 0: "Auth" (AMD), "Genu" (Intel)
    uint32_t family;      // base family plus extended family
    uint32_t gathers;
};
constexpr family_choice measured_families[] = {
    // AMD family 19h model 11h: gathers ahead in the LUT stages (AVX-512 1.2x, AVX2 even) and in
    // the separable path (AVX-512 1.2x).
    {0x68747541u, 0x19, gather_LUT_stages | gather_separable},
};

uint32_t gathers_for_this_processor() {
    const uint32_t vendor = platform::cpuid(0, 0).ebx;
    const uint32_t signature = platform::cpuid(1, 0).eax;
    const uint32_t base_family = (signature >> 8) & 0xF;
    const uint32_t family =
        base_family == 0xF ? base_family + ((signature >> 20) & 0xFF) : base_family;
    for (const family_choice& f : measured_families) {
        if (f.vendor_ebx == vendor && f.family == family) return f.gathers;
    }
    return gather_LUT_stages | gather_separable;
}

// KV_VECTOR_LOOKUP=gather or scalar forces every lookup one way: a switch for tests and
// diagnosis, read at each initialize. Anything else leaves the choice to the processor table.
uint32_t gather_choice() {
    const char* forced = std::getenv("KV_VECTOR_LOOKUP");
    if (forced != nullptr && std::strcmp(forced, "gather") == 0) {
        return gather_LUT_stages | gather_separable;
    }
    if (forced != nullptr && std::strcmp(forced, "scalar") == 0) return 0;
    return gathers_for_this_processor();
}

// KV_VECTOR_SEPARABLE_FROM=<pixels> moves the frame size from which diagonal matrices take the
// separable path (tests use 0 to send small frames there); a diagnostic switch like the above.
int64_t separable_threshold() {
    const char* text = std::getenv("KV_VECTOR_SEPARABLE_FROM");
    if (text != nullptr && *text != '\0') {
        char* end = nullptr;
        const long long value = std::strtoll(text, &end, 10);
        if (end != nullptr && *end == '\0' && value >= 0) return value;
    }
    return 131072;
}

int32_t initialize(instruction_set set) {
    if (missing_feature(set) != nullptr) return 1;
    gather_uses.store(gather_choice(), std::memory_order_relaxed);
    separable_minimum_pixels.store(separable_threshold(), std::memory_order_relaxed);
    // A frame that does not fit the last-level cache beside its output gains nothing from
    // leaving its output there: it is written around the cache.
    const uint64_t cache = last_level_cache_bytes();
    streaming_threshold_bytes.store(cache != 0 ? cache : 32u << 20, std::memory_order_relaxed);
    return 0;
}

}  // namespace
}  // namespace vector
}  // namespace kv

// initialize and terminate of the module of `isa` (its export names are those of
// services/module_contract.h), checking the instruction set `set`.
#define KV_VECTOR_MODULE_ENTRIES(isa, set)                                                        \
    KV_MODULE_EXPORT int32_t kv_color_processing_vector_##isa##_module_initialize() {             \
        return kv::vector::initialize(kv::vector::instruction_set::set);                          \
    }                                                                                             \
    KV_MODULE_EXPORT void kv_color_processing_vector_##isa##_module_terminate() {}                \
    static_assert(std::is_same_v<decltype(&kv_color_processing_vector_##isa##_module_initialize), \
                                 kv::abi::vector_initialize_fn>);                                 \
    static_assert(std::is_same_v<decltype(&kv_color_processing_vector_##isa##_module_terminate),  \
                                 kv::abi::vector_terminate_fn>)

#if defined(KV_VECTOR_MODULE_SSE)
KV_VECTOR_MODULE_ENTRIES(sse, sse41);
#elif defined(KV_VECTOR_MODULE_AVX2)
KV_VECTOR_MODULE_ENTRIES(avx2, avx2);
#elif defined(KV_VECTOR_MODULE_AVX512)
KV_VECTOR_MODULE_ENTRIES(avx512, avx512);
#else
#error "define KV_VECTOR_MODULE_SSE, KV_VECTOR_MODULE_AVX2 or KV_VECTOR_MODULE_AVX512"
#endif
