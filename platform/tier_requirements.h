// What each vector tier requires of the processor and the operating system, in one record: the
// checks of the library's tier decision, and the instruction set the tier's module is built for,
// which the module's initialize checks before it runs any of it. Header-only, like
// cpu_identification.h, so the separately built vector modules read the same record.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/cpu_identification.h"

namespace kv {
namespace platform {

// Where processor_identification holds a feature's bit.
enum class cpu_word { leaf1_ecx, leaf1_edx, leaf7_ebx };

struct cpu_feature {
    cpu_word word;
    int bit;
    const char* name;
};

// Register state the operating system must save, as bits of xgetbv 0.
struct system_state {
    uint64_t mask;
    const char* name;  // what a check reports when the state is missing
};

namespace feature {
constexpr cpu_feature SSE{cpu_word::leaf1_edx, 25, "SSE"};
constexpr cpu_feature SSE2{cpu_word::leaf1_edx, 26, "SSE2"};
constexpr cpu_feature SSE3{cpu_word::leaf1_ecx, 0, "SSE3"};
constexpr cpu_feature SSSE3{cpu_word::leaf1_ecx, 9, "SSSE3"};
constexpr cpu_feature FMA{cpu_word::leaf1_ecx, 12, "FMA"};
constexpr cpu_feature SSE41{cpu_word::leaf1_ecx, 19, "SSE4.1"};
constexpr cpu_feature OSXSAVE{cpu_word::leaf1_ecx, 27, "OSXSAVE"};
constexpr cpu_feature AVX{cpu_word::leaf1_ecx, 28, "AVX"};
constexpr cpu_feature AVX2{cpu_word::leaf7_ebx, 5, "AVX2"};
constexpr cpu_feature AVX512F{cpu_word::leaf7_ebx, 16, "AVX512F"};
constexpr cpu_feature AVX512DQ{cpu_word::leaf7_ebx, 17, "AVX512DQ"};
constexpr cpu_feature AVX512BW{cpu_word::leaf7_ebx, 30, "AVX512BW"};
}  // namespace feature

namespace state {
constexpr system_state none{0, nullptr};
// SSE and AVX registers.
constexpr system_state AVX{0x6, "AVX state enabled by the system"};
// Opmask, upper ZMM and high ZMM registers: what the tier decision asks, without SSE and AVX.
constexpr system_state ZMM{0xE0, "AVX-512 state enabled by the system"};
// All five.
constexpr system_state AVX512{0xE6, "AVX-512 state enabled by the system"};
}  // namespace state

// Features in the order they are checked, then a system state.
struct requirement_set {
    const cpu_feature* features;
    std::size_t count;
    system_state state;
};

struct tier_requirements {
    int32_t tier;  // 1 SSE, 2 AVX2, 3 AVX-512
    // The library's tier decision, exactly as the library defines it and no more careful: the
    // AVX2 tier asks nothing of the system, the SSE tier skips SSE3 and SSSE3.
    requirement_set decision;
    // Everything the module's compiler flags allow it to use, and the state it needs saved: the
    // module refuses to start without any of it, whatever tier a caller chose.
    requirement_set module;
};

namespace detail {
using namespace feature;
constexpr cpu_feature sse_decision[] = {SSE, SSE2, SSE41};
constexpr cpu_feature avx2_decision[] = {AVX2, FMA};
constexpr cpu_feature avx512_decision[] = {OSXSAVE, AVX, AVX512F, AVX512DQ, AVX512BW};
// -msse4.1 also allows SSE3 and SSSE3 (the byte shuffle); -mavx512f implies AVX2.
constexpr cpu_feature sse_module[] = {SSE, SSE2, SSE3, SSSE3, SSE41};
constexpr cpu_feature avx2_module[] = {SSE, SSE2, SSE3, SSSE3, SSE41, OSXSAVE, AVX, AVX2};
constexpr cpu_feature avx512_module[] = {SSE, SSE2, SSE3,    SSSE3,    SSE41,   OSXSAVE,
                                         AVX, AVX2, AVX512F, AVX512DQ, AVX512BW};
template <std::size_t N>
constexpr requirement_set set_of(const cpu_feature (&features)[N], system_state state) {
    return {features, N, state};
}
}  // namespace detail

// The record, by tier from SSE up.
constexpr tier_requirements tiers[] = {
    {1, detail::set_of(detail::sse_decision, state::none),
     detail::set_of(detail::sse_module, state::none)},
    {2, detail::set_of(detail::avx2_decision, state::none),
     detail::set_of(detail::avx2_module, state::AVX)},
    {3, detail::set_of(detail::avx512_decision, state::ZMM),
     detail::set_of(detail::avx512_module, state::AVX512)},
};

// The record of `tier`, or null for a tier without one (scalar, out of range).
inline const tier_requirements* requirements_of(int32_t tier) {
    return tier >= 1 && tier <= 3 ? &tiers[tier - 1] : nullptr;
}

inline bool has_feature(const processor_identification& id, const cpu_feature& f) {
    const uint32_t word = f.word == cpu_word::leaf1_ecx   ? id.leaf1_ecx
                          : f.word == cpu_word::leaf1_edx ? id.leaf1_edx
                                                          : id.leaf7_ebx;
    return bit(word, f.bit);
}

// Null when `id` meets every requirement of `set`, else the name of the first one missing.
// identify_processor reads xgetbv only after OSXSAVE and AVX, so a set asking for a state lists
// those two first.
inline const char* first_missing(const requirement_set& set, const processor_identification& id) {
    for (std::size_t i = 0; i < set.count; ++i) {
        if (!has_feature(id, set.features[i])) return set.features[i].name;
    }
    if ((id.xcr0 & set.state.mask) != set.state.mask) return set.state.name;
    return nullptr;
}

// identify_processor for a check that must not trust a leaf the processor lacks: leaf 0 says how
// far cpuid goes, and the words of a leaf beyond it read 0 (such a leaf returns another's data).
inline processor_identification identify_processor_within_leaves() {
    const uint32_t highest_leaf = cpuid(0, 0).eax;
    if (highest_leaf < 1) return {0, 0, 0, 0};
    processor_identification id = identify_processor();
    if (highest_leaf < 7) id.leaf7_ebx = 0;
    return id;
}

}  // namespace platform
}  // namespace kv
