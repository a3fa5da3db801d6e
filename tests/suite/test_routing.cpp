// Routing of a frame: which back-end a tier and the failed flags choose, through processors (so
// the library's use of the rule is proven with the rule), and the split between the back-end's
// count and the scalar tail.
#include <climits>
#include <cstring>

#include "kelvane_qor_color_processing_suite/tier_selection.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

// Written from the rules. Columns: the failed flags, as bits avx512 = 1, avx2 = 2, sse = 4 (so
// column 0 has every back-end good, column 7 none).
constexpr kv::vector_route N = kv::vector_route::scalar_only, S = kv::vector_route::sse,
                           A2 = kv::vector_route::avx2, A5 = kv::vector_route::avx512;
struct route_row {
    int32_t tier;
    kv::vector_route by_failures[8];
};
const route_row route_rows[] = {
    {0, {N, N, N, N, N, N, N, N}},
    {1, {S, S, S, S, N, N, N, N}},
    {2, {A2, A2, S, S, A2, A2, N, N}},
    {3, {A5, S, A5, S, A5, N, A5, N}},  // a failed AVX-512 goes to SSE, never to AVX2
    // Values outside the enumeration: at or below zero scalar, above three the SSE route.
    {-1, {N, N, N, N, N, N, N, N}},
    {INT32_MIN, {N, N, N, N, N, N, N, N}},
    {4, {S, S, S, S, N, N, N, N}},
    {1000, {S, S, S, S, N, N, N, N}},
    {INT32_MAX, {S, S, S, S, N, N, N, N}},
};

const char* const isas[] = {"avx512", "avx2", "sse"};  // in the order of the flag bits

class FullRouting : public initialized_test {};

// The table through processors whose back-ends refused to initialise as the flags say: a refused
// back-end is never called, stays silent, and is still terminated and released.
TEST_F(FullRouting, TierAndRefusedBackEndsChooseOneBackEndOrNone) {
    const int32_t refusals[] = {1, -7, 1};  // any non-zero answer refuses
    const char* const by_route[] = {nullptr, "sse", "avx2", "avx512"};
    for (const route_row& row : route_rows) {
        for (int flags = 0; flags < 8; ++flags) {
            SCOPED_TRACE("tier " + std::to_string(row.tier) + ", failed flags " +
                         std::to_string(flags));
            kv_journal_reset();
            for (int i = 0; i < 3; ++i) {
                const std::string key = std::string(isas[i]) + ".initialize_result";
                kv_journal_set(key.c_str(), (flags >> i) & 1 ? refusals[i] : 0);
            }
            kv_color_processor_handle p = kv_color_create_color_processor_test(0, 0, row.tier);
            ASSERT_NE(p, nullptr);
            EXPECT_TRUE(log_lines().empty());
            expect_route(p, by_route[static_cast<int>(row.by_failures[flags])]);
            kv_journal_reset();
            ASSERT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
            for (const char* isa : isas) {
                EXPECT_EQ(kv_journal_count(isa, "terminate"), 1u) << isa;
                EXPECT_EQ(kv_journal_count(isa, "unload"), 1u) << isa;
            }
        }
    }
}

TEST_F(FullRouting, ScalarKernelsFinishFromTheBackEndsCount) {
    const struct {
        int32_t pixel_count;
        int32_t count;    // what the back-end returns; -1: the whole frame
        int32_t claimed;  // where the scalar kernels take over
    } cases[] = {{8, 5, 5}, {8, 0, 0}, {8, -1, 8}, {8, 100, 8},
                 {1, 1, 1}, {0, 0, 0}, {0, 3, 0},  {33, 17, 17}};
    kv_color_processor_handle p = kv_color_create_color_processor_test(0, 0, KV_TIER_AVX2);
    ASSERT_NE(p, nullptr);
    for (const auto& c : cases) {
        for (transform_export e : all_exports) {
            for (int32_t format : {0, 1, 2}) {
                SCOPED_TRACE(std::string(name_of(e)) + " format " + std::to_string(format) +
                             " pixels " + std::to_string(c.pixel_count) + " count " +
                             std::to_string(c.count));
                frame_buffers buffers(e, c.pixel_count, 7);
                frame_arguments a = buffers.arguments(p);
                a.output_format = format;
                a.maximum[0] = 0x3FF;
                a.shift[2] = -2;
                const std::vector<uint8_t> before = buffers.output_copy();
                kv_journal_reset();
                kv_journal_set("avx2.count", c.count);
                ASSERT_EQ(run_transform(e, a), KV_STATUS_SUCCESS);
                EXPECT_EQ(kv_journal_count(
                              "avx2", output_width_of(e) == 8 ? "transform_8" : "transform_16"),
                          1u)
                    << "the back-end is asked even for an empty frame";
                // The fake writes nothing: the pixels it claims keep their noise.
                const uint8_t off[3] = {0, 0, 0};
                EXPECT_EQ(buffers.output_copy(),
                          expected_output(e, a, off, off, before, c.claimed));
                EXPECT_TRUE(buffers.guards_intact());
            }
        }
    }
    ASSERT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
}

}  // namespace
}  // namespace kv_test
