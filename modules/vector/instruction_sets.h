// What each vector module needs from the processor and the operating system, as one list of
// cpuid bits per module, and the check that reads them. Built for the baseline, so a module can
// run it on any x86-64 processor and refuse; the tests use the same lists to know which tiers the
// machine has.
#pragma once

#include <cstdint>

#include "platform/cpu_identification.h"

namespace kv {
namespace vector {

enum class instruction_set { sse41, avx2, avx512 };

enum cpuid_register { EAX, EBX, ECX, EDX };

struct required_feature {
    uint32_t leaf;
    cpuid_register reg;
    int bit;
    const char* name;
};

// The compilers' -msse4.1 also allows SSE3 and SSSE3 (the byte shuffle), so they are required too.
constexpr required_feature sse41_features[] = {
    {1, EDX, 25, "SSE"},  {1, EDX, 26, "SSE2"},   {1, ECX, 0, "SSE3"},
    {1, ECX, 9, "SSSE3"}, {1, ECX, 19, "SSE4.1"},
};

constexpr required_feature avx2_features[] = {
    {1, EDX, 25, "SSE"},    {1, EDX, 26, "SSE2"},    {1, ECX, 0, "SSE3"}, {1, ECX, 9, "SSSE3"},
    {1, ECX, 19, "SSE4.1"}, {1, ECX, 27, "OSXSAVE"}, {1, ECX, 28, "AVX"}, {7, EBX, 5, "AVX2"},
};

// -mavx512f implies AVX2, which every processor with AVX512F has; the module checks it as well.
constexpr required_feature avx512_features[] = {
    {1, EDX, 25, "SSE"},      {1, EDX, 26, "SSE2"},     {1, ECX, 0, "SSE3"},
    {1, ECX, 9, "SSSE3"},     {1, ECX, 19, "SSE4.1"},   {1, ECX, 27, "OSXSAVE"},
    {1, ECX, 28, "AVX"},      {7, EBX, 5, "AVX2"},      {7, EBX, 16, "AVX512F"},
    {7, EBX, 17, "AVX512DQ"}, {7, EBX, 30, "AVX512BW"},
};

// Register state the operating system must save (xgetbv 0): SSE and AVX; AVX-512 adds the
// opmask, upper ZMM and high ZMM state.
constexpr uint64_t avx_state = 0x6;
constexpr uint64_t avx512_state = 0xE6;

// Null when the running processor and system support the set, else the name of the first thing
// missing.
inline const char* missing_feature(instruction_set set) {
    const required_feature* first = sse41_features;
    const required_feature* last = sse41_features + sizeof sse41_features / sizeof *sse41_features;
    uint64_t state = 0;
    if (set == instruction_set::avx2) {
        first = avx2_features;
        last = avx2_features + sizeof avx2_features / sizeof *avx2_features;
        state = avx_state;
    } else if (set == instruction_set::avx512) {
        first = avx512_features;
        last = avx512_features + sizeof avx512_features / sizeof *avx512_features;
        state = avx512_state;
    }
    const uint32_t highest_leaf = platform::cpuid(0, 0).eax;
    for (const required_feature* f = first; f != last; ++f) {
        if (f->leaf > highest_leaf) return f->name;
        const platform::cpuid_registers r = platform::cpuid(f->leaf, 0);
        const uint32_t value[4] = {r.eax, r.ebx, r.ecx, r.edx};
        if (!platform::bit(value[f->reg], f->bit)) return f->name;
    }
    // OSXSAVE has been seen by now whenever a state is asked for.
    if (state != 0 && (platform::xgetbv0() & state) != state) {
        return state == avx_state ? "AVX state enabled by the system"
                                  : "AVX-512 state enabled by the system";
    }
    return nullptr;
}

}  // namespace vector
}  // namespace kv
