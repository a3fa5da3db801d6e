// Processor identification: the cpuid and xgetbv instructions through the compiler's intrinsics.
// Header-only so that the separately built vector modules can check their own instruction sets.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#if defined(_MSC_VER) && (defined(_M_X64) || defined(_M_IX86))
#include <immintrin.h>
#include <intrin.h>
#define KV_HAS_CPUID 1
#elif (defined(__GNUC__) || defined(__clang__)) && (defined(__x86_64__) || defined(__i386__))
#include <cpuid.h>
#define KV_HAS_CPUID 1
#endif

namespace kv {
namespace platform {

struct cpuid_registers {
    uint32_t eax, ebx, ecx, edx;
};

// cpuid with the given leaf and sub-leaf. Off x86 every register reads 0, so no feature is seen.
inline cpuid_registers cpuid(uint32_t leaf, uint32_t subleaf) {
    cpuid_registers r{0, 0, 0, 0};
#if defined(KV_HAS_CPUID) && defined(_MSC_VER)
    int regs[4];
    __cpuidex(regs, static_cast<int>(leaf), static_cast<int>(subleaf));
    r = {static_cast<uint32_t>(regs[0]), static_cast<uint32_t>(regs[1]),
         static_cast<uint32_t>(regs[2]), static_cast<uint32_t>(regs[3])};
#elif defined(KV_HAS_CPUID)
    __cpuid_count(leaf, subleaf, r.eax, r.ebx, r.ecx, r.edx);
#else
    (void)leaf;
    (void)subleaf;
#endif
    return r;
}

// xgetbv with ECX 0: the register state the operating system has enabled. Only valid once OSXSAVE
// (leaf 1, ECX bit 27) has been seen.
inline uint64_t xgetbv0() {
#if defined(KV_HAS_CPUID) && defined(_MSC_VER)
    return _xgetbv(0);
#elif defined(KV_HAS_CPUID)
    uint32_t eax = 0, edx = 0;
    __asm__ __volatile__("xgetbv" : "=a"(eax), "=d"(edx) : "c"(0));
    return (static_cast<uint64_t>(edx) << 32) | eax;
#else
    return 0;
#endif
}

inline bool bit(uint32_t value, int position) {
    return ((value >> position) & 1u) != 0;
}

// The processor as a person reads it: the brand string of leaves 0x80000002 to 0x80000004, then
// the display family and model ("AMD EPYC, family 25, model 17"); benchmark figures carry it.
inline std::string processor_name() {
    char brand[49] = {};
    if (cpuid(0x80000000u, 0).eax >= 0x80000004u) {
        for (uint32_t i = 0; i < 3; ++i) {
            const cpuid_registers r = cpuid(0x80000002u + i, 0);
            const uint32_t words[4] = {r.eax, r.ebx, r.ecx, r.edx};
            std::memcpy(brand + 16 * i, words, sizeof words);
        }
    }
    std::string name = brand;
    name.erase(0, name.find_first_not_of(' '));
    name.erase(name.find_last_not_of(' ') + 1);
    const uint32_t signature = cpuid(1, 0).eax;
    const uint32_t base_family = (signature >> 8) & 0xF;
    const uint32_t family = base_family + (base_family == 0xF ? (signature >> 20) & 0xFF : 0);
    uint32_t model = (signature >> 4) & 0xF;
    if (base_family == 0x6 || base_family == 0xF) model += ((signature >> 16) & 0xF) << 4;
    return (name.empty() ? std::string("unknown processor") : name) + ", family " +
           std::to_string(family) + ", model " + std::to_string(model);
}

// What the tier decision reads of the processor and the system, as plain values.
struct processor_identification {
    uint32_t leaf1_ecx;
    uint32_t leaf1_edx;
    uint32_t leaf7_ebx;
    uint64_t xcr0;  // xgetbv 0; read only when leaf 1 shows OSXSAVE and AVX, else 0
};

// The two instructions as functions, so a test can stand in for the processor.
struct identification_instructions {
    cpuid_registers (*cpuid)(uint32_t leaf, uint32_t subleaf);
    uint64_t (*xgetbv0)();
};

// Reads leaf 1 and leaf 7 (leaf 0 is never asked whether leaf 7 exists) and, only after OSXSAVE
// (leaf 1 ECX bit 27) and AVX (bit 28) have been seen, xgetbv: before OSXSAVE it would fault.
inline processor_identification identify_processor(
    const identification_instructions& instructions = {&cpuid, &xgetbv0}) {
    const cpuid_registers leaf1 = instructions.cpuid(1, 0);
    const cpuid_registers leaf7 = instructions.cpuid(7, 0);
    const bool system_saves_state = bit(leaf1.ecx, 27) && bit(leaf1.ecx, 28);
    return {leaf1.ecx, leaf1.edx, leaf7.ebx, system_saves_state ? instructions.xgetbv0() : 0};
}

}  // namespace platform
}  // namespace kv
