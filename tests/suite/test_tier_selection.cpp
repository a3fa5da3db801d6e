// Tier selection over made-up processors: which bits each group asks for, that only the AVX-512
// group asks the system, and that leaf 0 is never read.
#include <string>
#include <vector>

#include "kelvane_qor_color_processing_suite/tier_selection.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

// Bits by name, as the processor reports them.
constexpr uint32_t L1_ECX_FMA = 1u << 12, L1_ECX_SSE41 = 1u << 19, L1_ECX_OSXSAVE = 1u << 27,
                   L1_ECX_AVX = 1u << 28;
constexpr uint32_t L1_EDX_SSE = 1u << 25, L1_EDX_SSE2 = 1u << 26;
constexpr uint32_t L7_EBX_AVX2 = 1u << 5, L7_EBX_AVX512F = 1u << 16, L7_EBX_AVX512DQ = 1u << 17,
                   L7_EBX_AVX512BW = 1u << 30, L7_EBX_AVX512VL = 1u << 31;
constexpr uint64_t XCR0_SSE_AVX = 0x6, XCR0_ZMM = 0xE0;

struct fake_processor {
    uint32_t leaf1_ecx, leaf1_edx, leaf7_ebx;
    uint64_t xcr0;
};

fake_processor current;
std::vector<std::string> reads;

kv::platform::cpuid_registers fake_cpuid(uint32_t leaf, uint32_t subleaf) {
    reads.push_back("cpuid " + std::to_string(leaf) + "." + std::to_string(subleaf));
    // Everything not named here reads as all ones, so a check of an unexpected register or bit
    // would pass where it must fail.
    kv::platform::cpuid_registers r{~0u, ~0u, ~0u, ~0u};
    if (leaf == 1) {
        r.ecx = current.leaf1_ecx;
        r.edx = current.leaf1_edx;
    } else if (leaf == 7) {
        r.ebx = current.leaf7_ebx;
    }
    return r;
}

uint64_t fake_xgetbv0() {
    reads.push_back("xgetbv");
    return current.xcr0;
}

constexpr uint32_t SSE_ALL = L1_EDX_SSE | L1_EDX_SSE2;
constexpr uint32_t AVX512_ALL = L7_EBX_AVX512F | L7_EBX_AVX512DQ | L7_EBX_AVX512BW;

struct tier_case {
    const char* name;
    fake_processor cpu;
    int32_t tier;
};

const tier_case tier_cases[] = {
    {"nothing", {0, 0, 0, 0}, 0},
    {"everything",
     {L1_ECX_FMA | L1_ECX_SSE41 | L1_ECX_OSXSAVE | L1_ECX_AVX, SSE_ALL,
      L7_EBX_AVX2 | AVX512_ALL | L7_EBX_AVX512VL, XCR0_SSE_AVX | XCR0_ZMM},
     3},
    {"AVX-512 without AVX2 or SSE4.1", {L1_ECX_OSXSAVE | L1_ECX_AVX, 0, AVX512_ALL, XCR0_ZMM}, 3},
    {"AVX-512 state enabled but the SSE and AVX state bits not",
     {L1_ECX_OSXSAVE | L1_ECX_AVX, 0, AVX512_ALL, XCR0_ZMM},
     3},
    {"AVX-512 without BW",
     {L1_ECX_FMA | L1_ECX_SSE41 | L1_ECX_OSXSAVE | L1_ECX_AVX, SSE_ALL,
      L7_EBX_AVX2 | L7_EBX_AVX512F | L7_EBX_AVX512DQ, XCR0_SSE_AVX | XCR0_ZMM},
     2},
    {"AVX-512 without DQ",
     {L1_ECX_OSXSAVE | L1_ECX_AVX, 0, L7_EBX_AVX512F | L7_EBX_AVX512BW, XCR0_SSE_AVX | XCR0_ZMM},
     0},
    {"ZMM state not enabled",
     {L1_ECX_FMA | L1_ECX_SSE41 | L1_ECX_OSXSAVE | L1_ECX_AVX, SSE_ALL, L7_EBX_AVX2 | AVX512_ALL,
      XCR0_SSE_AVX | 0x60},
     2},
    {"no OSXSAVE", {L1_ECX_AVX | L1_ECX_FMA, 0, L7_EBX_AVX2 | AVX512_ALL, XCR0_ZMM}, 2},
    {"no AVX bit", {L1_ECX_OSXSAVE, 0, AVX512_ALL, XCR0_ZMM}, 0},
    // The AVX2 group asks nothing of the system and not even the AVX bit.
    {"AVX2 and FMA alone", {L1_ECX_FMA, 0, L7_EBX_AVX2, 0}, 2},
    {"AVX2 without FMA", {L1_ECX_SSE41, SSE_ALL, L7_EBX_AVX2, 0}, 1},
    {"FMA without AVX2", {L1_ECX_FMA, 0, 0, 0}, 0},
    {"SSE4.1", {L1_ECX_SSE41, SSE_ALL, 0, 0}, 1},
    {"SSE2 without SSE4.1", {0, SSE_ALL, 0, 0}, 0},
    {"SSE4.1 without SSE2", {L1_ECX_SSE41, L1_EDX_SSE, 0, 0}, 0},
    {"SSE4.1 without SSE", {L1_ECX_SSE41, L1_EDX_SSE2, 0, 0}, 0},
};

TEST(UnitTierSelection, GroupsInOrderFirstCompleteGroupWins) {
    const kv::processor_identification id{&fake_cpuid, &fake_xgetbv0};
    for (const tier_case& c : tier_cases) {
        SCOPED_TRACE(c.name);
        current = c.cpu;
        reads.clear();
        EXPECT_EQ(kv::select_processor_tier(id), c.tier);
        const bool system_asked_for =
            (c.cpu.leaf1_ecx & L1_ECX_OSXSAVE) && (c.cpu.leaf1_ecx & L1_ECX_AVX);
        size_t xgetbv_reads = 0;
        for (const std::string& r : reads) {
            EXPECT_TRUE(r == "cpuid 1.0" || r == "cpuid 7.0" || r == "xgetbv") << r;
            xgetbv_reads += r == "xgetbv";
        }
        EXPECT_EQ(xgetbv_reads, system_asked_for ? 1u : 0u)
            << "xgetbv only after OSXSAVE and AVX, and only in the AVX-512 group";
    }
}

TEST(UnitTierSelection, RunningProcessorGivesTheSameTierEachTime) {
    const int32_t first = kv::select_processor_tier();
    EXPECT_GE(first, 0);
    EXPECT_LE(first, 3);
    EXPECT_EQ(kv::select_processor_tier(), first);
}

}  // namespace
}  // namespace kv_test
