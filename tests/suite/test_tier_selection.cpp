// The tier decision as a pure function, with expectations written from the rules: each feature bit
// and each system-state bit missing in turn. And what identify_processor reads, over a made-up
// processor.
#include <string>
#include <vector>

#include "kelvane_qor_color_processing_suite/tier_selection.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

using kv::processor_identification;

// Bits by name, as the processor reports them.
constexpr uint32_t FMA = 1u << 12, SSE41 = 1u << 19, OSXSAVE = 1u << 27, AVX = 1u << 28;  // 1 ECX
constexpr uint32_t SSE = 1u << 25, SSE2 = 1u << 26;                                       // 1 EDX
constexpr uint32_t AVX2 = 1u << 5, AVX512F = 1u << 16, AVX512DQ = 1u << 17,               // 7 EBX
    AVX512BW = 1u << 30, AVX512VL = 1u << 31;
constexpr uint64_t XCR0_SSE = 1u << 1, XCR0_AVX = 1u << 2, XCR0_OPMASK = 1u << 5,
                   XCR0_ZMM_HI256 = 1u << 6, XCR0_HI16_ZMM = 1u << 7;

// A processor that passes every group, and ones that pass only the AVX2 or the SSE group.
constexpr uint32_t ALL_ECX = FMA | SSE41 | OSXSAVE | AVX, ALL_EDX = SSE | SSE2;
constexpr uint32_t ALL_EBX = AVX2 | AVX512F | AVX512DQ | AVX512BW | AVX512VL;
constexpr uint64_t ALL_XCR0 = 0xE7;
constexpr processor_identification EVERYTHING = {ALL_ECX, ALL_EDX, ALL_EBX, ALL_XCR0};
constexpr processor_identification AVX2_LEVEL = {FMA | SSE41, ALL_EDX, AVX2, 0};
constexpr processor_identification SSE_LEVEL = {SSE41, ALL_EDX, 0, 0};

struct tier_case {
    const char* what;
    processor_identification id;
    int32_t tier;
};

const tier_case tier_cases[] = {
    {"everything", EVERYTHING, 3},
    {"nothing", {0, 0, 0, 0}, 0},
    // The AVX-512 group, one check missing at a time: AVX2 and FMA are there, so AVX2 follows.
    {"no OSXSAVE", {ALL_ECX & ~OSXSAVE, ALL_EDX, ALL_EBX, 0}, 2},
    {"no AVX", {ALL_ECX & ~AVX, ALL_EDX, ALL_EBX, 0}, 2},
    {"no opmask state", {ALL_ECX, ALL_EDX, ALL_EBX, ALL_XCR0 & ~XCR0_OPMASK}, 2},
    {"no upper ZMM state", {ALL_ECX, ALL_EDX, ALL_EBX, ALL_XCR0 & ~XCR0_ZMM_HI256}, 2},
    {"no high ZMM state", {ALL_ECX, ALL_EDX, ALL_EBX, ALL_XCR0 & ~XCR0_HI16_ZMM}, 2},
    {"no AVX512F", {ALL_ECX, ALL_EDX, ALL_EBX & ~AVX512F, ALL_XCR0}, 2},
    {"no AVX512DQ", {ALL_ECX, ALL_EDX, ALL_EBX & ~AVX512DQ, ALL_XCR0}, 2},
    {"no AVX512BW", {ALL_ECX, ALL_EDX, ALL_EBX & ~AVX512BW, ALL_XCR0}, 2},
    // Not asked for: the SSE and AVX state bits, AVX512VL, and the lower groups' bits.
    {"no SSE or AVX state", {ALL_ECX, ALL_EDX, ALL_EBX, ALL_XCR0 & ~(XCR0_SSE | XCR0_AVX)}, 3},
    {"no AVX512VL", {ALL_ECX, ALL_EDX, ALL_EBX & ~AVX512VL, ALL_XCR0}, 3},
    {"AVX-512 alone", {OSXSAVE | AVX, 0, AVX512F | AVX512DQ | AVX512BW, 0xE0}, 3},
    // The AVX2 group asks nothing of the system, not even the AVX bit.
    {"AVX2 level", AVX2_LEVEL, 2},
    {"AVX2 and FMA alone", {FMA, 0, AVX2, 0}, 2},
    {"AVX2 level without AVX2", {FMA | SSE41, ALL_EDX, 0, 0}, 1},
    {"AVX2 level without FMA", {SSE41, ALL_EDX, AVX2, 0}, 1},
    {"SSE level", SSE_LEVEL, 1},
    {"SSE level without SSE", {SSE41, SSE2, 0, 0}, 0},
    {"SSE level without SSE2", {SSE41, SSE, 0, 0}, 0},
    {"SSE level without SSE4.1", {0, ALL_EDX, 0, 0}, 0},
};

TEST(UnitTierSelection, FirstGroupThatPassesInFullWins) {
    for (const tier_case& c : tier_cases) {
        EXPECT_EQ(kv::select_processor_tier(c.id), c.tier) << c.what;
        for (int32_t tier = 1; tier <= 3; ++tier) {
            if (kv::passes_tier_checks(c.id, tier)) {
                EXPECT_GE(c.tier, tier) << c.what << ": passes group " << tier;
            }
        }
    }
    for (int32_t tier : {-1, 0, 4}) {
        EXPECT_FALSE(kv::passes_tier_checks(EVERYTHING, tier)) << "no group for tier " << tier;
    }
}

// A made-up processor: each register of leaves 1 and 7 reads a value of its own, every other
// leaf all ones; every read is recorded.
uint32_t fake_leaf1_ecx = 0;
std::vector<std::string> reads;

kv::platform::cpuid_registers fake_cpuid(uint32_t leaf, uint32_t subleaf) {
    reads.push_back("cpuid " + std::to_string(leaf) + "." + std::to_string(subleaf));
    if (leaf == 1) return {0x1111, 0x1112, fake_leaf1_ecx, 0x1114};
    if (leaf == 7) return {0x7771, 0x7772, 0x7773, 0x7774};
    return {~0u, ~0u, ~0u, ~0u};
}

uint64_t fake_xgetbv0() {
    reads.push_back("xgetbv");
    return 0xE7;
}

// xgetbv faults where the system has not enabled it: it is read only after OSXSAVE and AVX.
TEST(UnitTierSelection, XgetbvIsReadOnlyAfterOsxsaveAndAvx) {
    for (uint32_t ecx : {0u, OSXSAVE, AVX, OSXSAVE | AVX}) {
        const bool reads_xgetbv = ecx == (OSXSAVE | AVX);
        fake_leaf1_ecx = ecx;
        reads.clear();
        const processor_identification id =
            kv::platform::identify_processor({&fake_cpuid, &fake_xgetbv0});
        std::vector<std::string> expected_reads = {"cpuid 1.0", "cpuid 7.0"};
        if (reads_xgetbv) expected_reads.push_back("xgetbv");
        EXPECT_EQ(reads, expected_reads) << "leaf 1 ECX " << ecx;
        EXPECT_EQ(id.leaf1_ecx, ecx);
        EXPECT_EQ(id.leaf1_edx, 0x1114u);
        EXPECT_EQ(id.leaf7_ebx, 0x7772u);
        EXPECT_EQ(id.xcr0, reads_xgetbv ? 0xE7u : 0u);
    }
}

}  // namespace
}  // namespace kv_test
