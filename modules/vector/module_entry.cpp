// initialize and terminate of one vector module, built for the baseline instruction set: they
// must run on any x86-64 processor to find out whether the module's own set is there. Compiled
// once per module with KV_VECTOR_MODULE_SSE, _AVX2 or _AVX512 defined.
#include <atomic>
#include <cstdint>
#include <type_traits>

#include "modules/vector/instruction_sets.h"
#include "modules/vector/vector_common.h"
#include "platform/cpu_identification.h"
#include "services/module_abi.h"

namespace kv {
namespace vector {

std::atomic<uint64_t> streaming_threshold_bytes{UINT64_MAX};

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

int32_t initialize(instruction_set set) {
    if (missing_feature(set) != nullptr) return 1;
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
