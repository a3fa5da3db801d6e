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

// The calls that build a processor and those that tear it down. All three tables of a set are made
// before the first is cleared; every processor, a scalar one too, loads and initialises all three
// back-ends; destruction goes in reverse.
std::pair<std::vector<std::string>, std::vector<std::string>> stages() {
    std::vector<std::string> building, teardown(6, "LUT.kv_destroy_LUT");
    for (int set = 0; set < 2; ++set) {
        building.insert(building.end(), 3, "LUT.kv_create_LUT_test");
        building.insert(building.end(), 3, "LUT.kv_get_LUT_data");
    }
    for (const std::string isa : {"sse", "avx2", "avx512"}) {
        building.insert(building.end(), {isa + ".load", isa + ".initialize"});
        teardown.insert(teardown.begin(), {isa + ".terminate", isa + ".unload"});
    }
    return {building, teardown};
}

// A processor comes with its tables sized and cleared (the fake hands them out filled with 0xCD;
// that they start disabled shows in the routing tests' frames); a refused one logs its reason and
// touches no module.
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
            EXPECT_EQ(sequence({"LUT", "sse", "avx2", "avx512"}), stages().first);
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
            EXPECT_TRUE(log_lines().empty());
            kv_journal_reset();
            EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
            ASSERT_EQ(sequence({"LUT", "sse", "avx2", "avx512"}), stages().second);
            const std::vector<event> destroys = events("LUT", "kv_destroy_LUT");
            for (size_t i = 0; i < destroys.size(); ++i) {
                EXPECT_EQ(destroys[i].values[0], creates[5 - i].values[2]) << "reverse order";
            }
            EXPECT_TRUE(log_lines().empty()) << "destruction never logs";
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

TEST_F(FullCreation, SelectedTierTracedBeforeAnyWork) {
    kv_journal_reset();
    kv_color_processor_handle p = kv_color_create_color_processor(1, 1);
    ASSERT_NE(p, nullptr);
    // Expected from the vector modules' own lists of what each set needs, not from the library.
    int32_t expected = KV_TIER_SCALAR;
    for (const char* tier : {"sse", "avx2", "avx512"}) expected += !kv::testing::tier_missing(tier);
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

// A creation that fails at any step, the n-th table creation throwing (std::bad_alloc or another
// exception) or the n-th allocation failing, logs one line and leaves nothing behind: every table
// made destroyed once, every back-end loaded terminated (if initialised) and released.
TEST_F(FullCreation, FailureAtEveryStepUnwindsEverything) {
    const std::string failure = " when trying to create a color correction instance!";
    const std::string messages[] = {"Memory allocation failure" + failure,
                                    "An unknown error occurred" + failure};
    bool unwound_a_back_end = false;
    for (int kind = 0; kind < 3; ++kind) {  // bad_alloc thrown, another exception, out of memory
        for (int n = 1;; ++n) {
            ASSERT_LT(n, 64) << "creation never succeeded";
            SCOPED_TRACE("failure " + std::to_string(kind) + " at step " + std::to_string(n));
            kv_journal_reset();
            kv_journal_set("LUT.throw_on_create", kind < 2 ? n : 0);
            kv_journal_set("LUT.throw_kind", kind);
            if (kind == 2) fail_allocation(n - 1);
            kv_color_processor_handle p = kv_color_create_color_processor_test(4, 6, KV_TIER_AVX2);
            stop_failing_allocations();
            if (p != nullptr) {
                EXPECT_TRUE(kind == 2 || n == 7) << "one of the six tables did not throw";
                EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
                break;
            }
            // Unwinding goes red, green, blue within a set, the output set before the input set.
            const std::vector<event> creates = events("LUT", "kv_create_LUT_test");
            const std::vector<event> destroys = events("LUT", "kv_destroy_LUT");
            ASSERT_EQ(destroys.size(), creates.size());
            for (size_t i = 0; i < destroys.size(); ++i) {
                EXPECT_EQ(destroys[i].values[0], creates[creates.size() - 1 - i].values[2]);
            }
            for (const char* isa : {"sse", "avx2", "avx512"}) {
                EXPECT_EQ(kv_journal_count(isa, "load"), kv_journal_count(isa, "unload")) << isa;
                EXPECT_EQ(kv_journal_count(isa, "initialize"), kv_journal_count(isa, "terminate"));
            }
            if (kind < 2) {
                EXPECT_EQ(creates.size(), static_cast<size_t>(n - 1));
                EXPECT_EQ(kv_journal_count("sse", "load"), 0u) << "no back-end before the tables";
            }
            unwound_a_back_end = unwound_a_back_end || kv_journal_count("sse", "terminate") > 0;
            const std::vector<event> lines = log_lines();
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_EQ(lines[0].values[0], 2);
            EXPECT_EQ(lines[0].texts[1], "`anonymous-namespace'::create_color_processor_impl");
            EXPECT_EQ(lines[0].texts[2], messages[kind == 1])
                << "no prefix, the text is the format";
        }
    }
    EXPECT_TRUE(unwound_a_back_end) << "no failure came after a back-end was loaded";
}

}  // namespace
}  // namespace kv_test
