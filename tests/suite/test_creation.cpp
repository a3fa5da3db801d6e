// Creation and destruction of a processor: depth checks, the LUT sets, the back-ends, the order of
// building and tearing down, and the unwinding of a creation that fails halfway.
#include <algorithm>
#include <climits>
#include <map>

#include "kelvane_qor_color_processing_suite/color_correction.h"
#include "kelvane_qor_color_processing_suite/module_state.h"
#include "tests/common/tiers.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

class FullCreation : public initialized_test {};

struct depth_case {
    int32_t input_depth;
    int32_t output_depth;
    const char* message;  // NULL: a processor is made
    int32_t tier;         // kept as given, whatever its value; unused when refused
};

constexpr const char* negative = "ERROR:  A negative bit depth is invalid!";
constexpr const char* too_large = "ERROR:  A LUT size greater than 2^16 is invalid!";

const depth_case depth_cases[] = {
    {0, 0, nullptr, -1},    {16, 16, nullptr, 0},        {0, 16, nullptr, 1},
    {16, 0, nullptr, 2},    {8, 3, nullptr, 3},          {5, 7, nullptr, 4},
    {1, 15, nullptr, 1000}, {15, 1, nullptr, INT_MIN},   {3, 12, nullptr, INT_MAX},
    {-1, 0, negative, 0},   {0, -1, negative, 0},        {17, -1, negative, 0},
    {-1, 17, negative, 0},  {INT_MIN, 0, negative, 0},   {17, 0, too_large, 0},
    {0, 17, too_large, 0},  {INT_MAX, 16, too_large, 0}, {16, 32, too_large, 0},
};

// A processor comes with its tables sized, cleared (the fake hands them out filled with 0xCD)
// and disabled; a refused one logs its reason and touches no module.
TEST_F(FullCreation, DepthsAreCheckedForSignBeforeSize) {
    std::map<std::string, int64_t> lines;
    for (const depth_case& c : depth_cases) {
        SCOPED_TRACE(std::to_string(c.input_depth) + ", " + std::to_string(c.output_depth) +
                     ", tier " + std::to_string(c.tier));
        kv_journal_reset();
        kv_color_processor_handle p =
            kv_color_create_color_processor_test(c.input_depth, c.output_depth, c.tier);
        if (c.message == nullptr) {
            ASSERT_NE(p, nullptr);
            const kv::color_correction& o = *object_of(p);
            EXPECT_EQ(o.tier, c.tier);
            EXPECT_EQ(o.output_LUT_size, 1 << c.output_depth);
            const std::vector<event> creates = events("LUT", "kv_create_LUT_test");
            ASSERT_EQ(creates.size(), 6u);
            for (size_t i = 0; i < 6; ++i) {
                const int32_t entries = 1 << (i < 3 ? c.input_depth : c.output_depth);
                EXPECT_EQ(creates[i].values[0], entries);
                EXPECT_EQ(creates[i].values[1], c.tier == KV_TIER_AVX2 ? 1 : 0) << "AVX2 flag";
                const uint32_t* table = LUT_getters[i].get(p);
                ASSERT_NE(table, nullptr);
                EXPECT_EQ(table, LUT_getters[i].get(p)) << "the same table on every call";
                EXPECT_EQ(std::count(table, table + entries, 0u), entries) << "table " << i;
            }
            for (const kv::color_LUT* lut :
                 {&o.input_LUTs.blue, &o.input_LUTs.green, &o.input_LUTs.red, &o.output_LUTs.blue,
                  &o.output_LUTs.green, &o.output_LUTs.red}) {
                EXPECT_EQ(lut->enabled, 0);
            }
            EXPECT_TRUE(log_lines().empty());
            EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
            continue;
        }
        EXPECT_EQ(p, nullptr);
        const std::vector<event> logged = log_lines();
        ASSERT_EQ(logged.size(), 1u);
        EXPECT_EQ(logged[0].values[0], 2);
        EXPECT_EQ(logged[0].texts[0], "kelvane_qor_color_processing.cpp");
        EXPECT_EQ(logged[0].texts[1], "`anonymous-namespace'::create_color_processor_impl");
        EXPECT_EQ(logged[0].texts[2], c.message);
        expect_own_line(lines, c.message, logged[0].values[1]);
        EXPECT_TRUE(events("LUT").empty());
        EXPECT_TRUE(events("sse").empty());
    }
}

TEST_F(FullCreation, StagesAreBuiltInOrderAndTornDownInReverse) {
    kv_journal_reset();
    kv_color_processor_handle p = kv_color_create_color_processor_test(2, 3, KV_TIER_SCALAR);
    ASSERT_NE(p, nullptr);
    const std::vector<event> creates = events("LUT", "kv_create_LUT_test");
    ASSERT_EQ(creates.size(), 6u);
    const std::vector<std::string> expected_building = {
        // All three tables of a set are made before the first is cleared.
        "LUT.kv_create_LUT_test", "LUT.kv_create_LUT_test", "LUT.kv_create_LUT_test",
        "LUT.kv_get_LUT_data", "LUT.kv_get_LUT_data", "LUT.kv_get_LUT_data",
        "LUT.kv_create_LUT_test", "LUT.kv_create_LUT_test", "LUT.kv_create_LUT_test",
        "LUT.kv_get_LUT_data", "LUT.kv_get_LUT_data", "LUT.kv_get_LUT_data",
        // A scalar processor still loads and initialises all three back-ends.
        "sse.load", "sse.initialize", "avx2.load", "avx2.initialize", "avx512.load",
        "avx512.initialize"};
    EXPECT_EQ(sequence({"LUT", "sse", "avx2", "avx512"}), expected_building);

    kv_journal_reset();
    ASSERT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
    const std::vector<std::string> expected_teardown = {
        "avx512.terminate",   "avx512.unload",      "avx2.terminate",     "avx2.unload",
        "sse.terminate",      "sse.unload",         "LUT.kv_destroy_LUT", "LUT.kv_destroy_LUT",
        "LUT.kv_destroy_LUT", "LUT.kv_destroy_LUT", "LUT.kv_destroy_LUT", "LUT.kv_destroy_LUT"};
    EXPECT_EQ(sequence({"LUT", "sse", "avx2", "avx512"}), expected_teardown);
    const std::vector<event> destroys = events("LUT", "kv_destroy_LUT");
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(destroys[i].values[0], creates[5 - i].values[2]) << "reverse order of creation";
    }
    EXPECT_TRUE(log_lines().empty()) << "destruction never logs";
}

TEST_F(FullCreation, SelectedTierTracedBeforeAnyWork) {
    kv_journal_reset();
    kv_color_processor_handle p = kv_color_create_color_processor(1, 1);
    ASSERT_NE(p, nullptr);
    // Expected from the vector modules' own lists of what each set needs, not from the library.
    int32_t expected = KV_TIER_SCALAR;
    for (const char* tier : {"sse", "avx2", "avx512"}) {
        expected += kv::testing::tier_missing(tier) == nullptr ? 1 : 0;
    }
    EXPECT_EQ(object_of(p)->tier, expected);
    const std::vector<event> all = journal();
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all[0].name, "qor_log");
    EXPECT_EQ(all[0].values[0], 7);
    EXPECT_EQ(all[0].texts[0], "kelvane_qor_color_processing.cpp");
    EXPECT_EQ(all[0].texts[1], "kv_color_create_color_processor");
    EXPECT_EQ(all[0].texts[2], "Creating a color processor instance!");
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
}

// After a failed creation every table made has been destroyed once and every back-end loaded has
// been terminated (if initialised) and released.
void expect_nothing_left_behind() {
    std::map<int64_t, int> destroyed;
    for (const event& e : events("LUT", "kv_destroy_LUT")) {
        ++destroyed[e.values[0]];
    }
    const std::vector<event> creates = events("LUT", "kv_create_LUT_test");
    EXPECT_EQ(destroyed.size(), creates.size());
    for (const event& e : creates) {
        EXPECT_EQ(destroyed[e.values[2]], 1) << "handle made but not destroyed exactly once";
    }
    for (const char* isa : {"sse", "avx2", "avx512"}) {
        EXPECT_EQ(kv_journal_count(isa, "load"), kv_journal_count(isa, "unload")) << isa;
        EXPECT_EQ(kv_journal_count(isa, "initialize"), kv_journal_count(isa, "terminate")) << isa;
    }
}

TEST_F(FullCreation, ExceptionFromTheLUTModuleUnwindsTheTablesMade) {
    const struct {
        int64_t kind;
        const char* message;
    } kinds[] = {
        {0, "Memory allocation failure when trying to create a color correction instance!"},
        {1, "An unknown error occurred when trying to create a color correction instance!"}};
    for (const auto& kind : kinds) {
        for (int64_t n = 1; n <= 6; ++n) {
            SCOPED_TRACE("create call " + std::to_string(n) + " throws, kind " +
                         std::to_string(kind.kind));
            kv_journal_reset();
            kv_journal_set("LUT.throw_on_create", n);
            kv_journal_set("LUT.throw_kind", kind.kind);
            EXPECT_EQ(kv_color_create_color_processor_test(4, 6, KV_TIER_AVX512), nullptr);
            EXPECT_EQ(events("LUT", "kv_create_LUT_test").size(), static_cast<size_t>(n - 1));
            expect_nothing_left_behind();
            EXPECT_EQ(kv_journal_count("sse", "load"), 0u) << "no back-end before the tables";
            const std::vector<event> lines = log_lines();
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_EQ(lines[0].values[0], 2);
            EXPECT_EQ(lines[0].texts[1], "`anonymous-namespace'::create_color_processor_impl");
            EXPECT_EQ(lines[0].texts[2], kind.message) << "no prefix, the text is the format";
            // Unwinding goes red, green, blue within a set, the output set before the input set.
            const std::vector<event> creates = events("LUT", "kv_create_LUT_test");
            const std::vector<event> destroys = events("LUT", "kv_destroy_LUT");
            for (size_t i = 0; i < destroys.size(); ++i) {
                EXPECT_EQ(destroys[i].values[0], creates[creates.size() - 1 - i].values[2]);
            }
        }
    }
}

TEST_F(FullCreation, OutOfMemoryAtEveryAllocationUnwindsEverything) {
    bool unwound_a_back_end = false;
    for (long n = 0;; ++n) {
        ASSERT_LT(n, 64) << "creation never succeeded";
        SCOPED_TRACE("allocation " + std::to_string(n) + " fails");
        kv_journal_reset();
        fail_allocation(n);
        kv_color_processor_handle p = kv_color_create_color_processor_test(3, 3, KV_TIER_AVX2);
        stop_failing_allocations();
        if (p != nullptr) {
            EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
            break;
        }
        expect_nothing_left_behind();
        unwound_a_back_end = unwound_a_back_end || kv_journal_count("sse", "terminate") > 0;
        const std::vector<event> lines = log_lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].texts[2],
                  "Memory allocation failure when trying to create a color correction instance!");
    }
    EXPECT_TRUE(unwound_a_back_end) << "no failure came after a back-end was loaded";
}

class FullBackends : public initialized_test {};

// A back-end module is loaded once and counted up, but initialised for each processor.
TEST_F(FullBackends, EachProcessorLoadsAndInitialisesItsOwn) {
    kv_color_processor_handle first = kv_color_create_color_processor_test(0, 0, KV_TIER_SSE);
    kv_color_processor_handle second = kv_color_create_color_processor_test(0, 0, KV_TIER_AVX512);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(kv_journal_count("avx512", "initialize"), 2u);
    EXPECT_EQ(kv_journal_count("avx512", "load"), 1u) << "the second load only counts up";
    ASSERT_EQ(kv_color_destroy_color_processor(first), KV_STATUS_SUCCESS);
    EXPECT_EQ(kv_journal_count("avx512", "unload"), 0u) << "still held by the second processor";
    ASSERT_EQ(kv_color_destroy_color_processor(second), KV_STATUS_SUCCESS);
    EXPECT_EQ(kv_journal_count("avx512", "terminate"), 2u);
    EXPECT_EQ(kv_journal_count("avx512", "unload"), 1u);
}

}  // namespace
}  // namespace kv_test
