// Module lifecycle: nested initialise and terminate, the LUT table that follows every call while
// the log (its ids, its release) follows the count, and the prologue of every export before and
// after initialise.
#include <cstring>
#include <functional>

#include "kelvane_qor_color_processing_suite/module_state.h"
#include "platform/module_loader.h"
#include "services/LUT_library.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

// Of the module and its six entry points, how many the table holds.
int LUT_table_entries() {
    const kv::LUT_library_table& t = kv::LUT_library;
    return !!t.module + !!t.initialize + !!t.create + !!t.get_data + !!t.transform_16 +
           !!t.destroy + !!t.terminate;
}

enum class action { initialize, terminate };

struct lifecycle_step {
    action what;
    int32_t count_after;
    size_t LUT_initialize_calls;
    size_t LUT_terminate_calls;
    size_t logs_opened;
    size_t logs_freed;
};

struct lifecycle_case {
    const char* name;
    std::vector<lifecycle_step> steps;
};

using I = lifecycle_step;
constexpr action init = action::initialize;
constexpr action term = action::terminate;

const lifecycle_case lifecycle_cases[] = {
    {"once", {I{init, 1, 1, 0, 1, 0}, I{term, 0, 1, 1, 1, 1}}},
    {"terminate without initialise", {I{term, 0, 0, 0, 0, 0}}},
    // The table follows each call (filled by initialise, emptied by terminate), the log follows
    // the count.
    {"nested",
     {I{init, 1, 1, 0, 1, 0}, I{init, 2, 2, 0, 1, 0}, I{term, 1, 2, 1, 1, 0},
      I{term, 0, 2, 1, 1, 1}}},
    {"nested, refilled",
     {I{init, 1, 1, 0, 1, 0}, I{init, 2, 2, 0, 1, 0}, I{term, 1, 2, 1, 1, 0},
      I{init, 2, 3, 1, 1, 0}, I{term, 1, 3, 2, 1, 0}, I{term, 0, 3, 2, 1, 1}}},
    {"again after the end",
     {I{init, 1, 1, 0, 1, 0}, I{term, 0, 1, 1, 1, 1}, I{term, 0, 1, 1, 1, 1},
      I{init, 1, 2, 1, 2, 1}, I{term, 0, 2, 2, 2, 2}}},
};

class FullLifecycle : public library_test {};

TEST_F(FullLifecycle, TransitionsAndNesting) {
    for (const lifecycle_case& c : lifecycle_cases) {
        SCOPED_TRACE(c.name);
        kv_journal_reset();
        for (size_t i = 0; i < c.steps.size(); ++i) {
            SCOPED_TRACE("step " + std::to_string(i));
            const lifecycle_step& s = c.steps[i];
            const int32_t status = s.what == action::initialize
                                       ? kv_color_processing_module_initialize()
                                       : kv_color_processing_module_terminate();
            EXPECT_EQ(status, KV_STATUS_SUCCESS);
            EXPECT_EQ(kv::module_reference_count, s.count_after);
            EXPECT_EQ(kv::module_logger != nullptr, s.count_after > 0);
            EXPECT_EQ(LUT_table_entries(), s.what == action::initialize ? 7 : 0);
            EXPECT_EQ(kv_journal_count("LUT", "kv_LUT_module_initialize"), s.LUT_initialize_calls);
            EXPECT_EQ(kv_journal_count("LUT", "kv_LUT_module_terminate"), s.LUT_terminate_calls);
            EXPECT_EQ(kv_journal_count("logger", "qor_get_log"), s.logs_opened);
            EXPECT_EQ(kv_journal_count("logger", "qor_free_log"), s.logs_freed);
        }
        // Every open and free names the module's log; the logging module goes right after the free.
        const std::vector<event> logger = events("logger");
        for (size_t i = 0; i < logger.size(); ++i) {
            const event& e = logger[i];
            EXPECT_TRUE(e.name != "unload" || logger[i - 1].name == "qor_free_log");
            if (e.name != "qor_get_log" && e.name != "qor_free_log") continue;
            EXPECT_EQ(e.texts[0], "KELVANE_QOR_COLOR_PROCESSING");
            EXPECT_EQ(e.texts[1], "");
            EXPECT_EQ(e.texts[2], e.name == "qor_get_log" ? "kelvane_qor_logger.cfg" : "");
        }
        // Nothing ever releases the LUT module.
        EXPECT_EQ(kv_journal_count("LUT", "unload"), 0u);
        EXPECT_TRUE(kv::platform::module_is_loaded(kv::LUT_MODULE_BASE_NAME));
    }
}

// A back-end module is loaded once and counted up, but initialised for each processor. A processor
// outlives the last terminate untouched, and is destroyed after the next initialise.
TEST_F(FullLifecycle, BackEndsAreSharedAndProcessorsOutliveTerminate) {
    ASSERT_EQ(kv_color_processing_module_initialize(), KV_STATUS_SUCCESS);
    kv_color_processor_handle first = kv_color_create_color_processor_test(4, 4, KV_TIER_SSE);
    kv_color_processor_handle second = kv_color_create_color_processor_test(0, 0, KV_TIER_AVX512);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(kv_journal_count("avx512", "initialize"), 2u);
    EXPECT_EQ(kv_journal_count("avx512", "load"), 1u) << "the second load only counts up";
    ASSERT_EQ(kv_color_processing_module_terminate(), KV_STATUS_SUCCESS);
    kv_journal_reset();
    EXPECT_EQ(kv_color_destroy_color_processor(first), KV_STATUS_MODULE_NOT_INITIALIZED);
    EXPECT_TRUE(journal().empty()) << "nothing may be terminated, released or destroyed";
    ASSERT_EQ(kv_color_processing_module_initialize(), KV_STATUS_SUCCESS);
    EXPECT_EQ(kv_color_destroy_color_processor(first), KV_STATUS_SUCCESS);
    EXPECT_EQ(kv_journal_count("LUT", "kv_destroy_LUT"), 6u);
    EXPECT_EQ(kv_journal_count("avx512", "unload"), 0u) << "still held by the second processor";
    ASSERT_EQ(kv_color_destroy_color_processor(second), KV_STATUS_SUCCESS);
    EXPECT_EQ(kv_journal_count("avx512", "terminate"), 2u);
    EXPECT_EQ(kv_journal_count("avx512", "unload"), 1u);
}

// Every export but initialise and terminate, called with a NULL handle.
struct prologue_case {
    const char* label;  // the function label of its log line
    bool returns_pointer;
    std::function<int64_t(kv_color_processor_handle)> call;
};

const float zeros[9] = {};

int64_t as_value(const void* pointer) {
    return static_cast<int64_t>(reinterpret_cast<intptr_t>(pointer));
}

std::vector<prologue_case> prologue_cases() {
    const char* transform_label = "`anonymous-namespace'::kv_color_processor_transform_impl";
    std::vector<prologue_case> cases = {
        {"kv_color_append_matrix", false,
         [](kv_color_processor_handle h) { return kv_color_append_matrix(h, zeros); }},
        {"kv_color_clear_matrix", false,
         [](kv_color_processor_handle h) { return kv_color_clear_matrix(h); }},
        {"kv_color_destroy_color_processor", false,
         [](kv_color_processor_handle h) { return kv_color_destroy_color_processor(h); }},
        {"kv_color_enable_input_LUTs", false,
         [](kv_color_processor_handle h) { return kv_color_enable_input_LUTs(h, 1, 1, 1); }},
        {"kv_color_enable_output_LUTs", false,
         [](kv_color_processor_handle h) { return kv_color_enable_output_LUTs(h, 1, 1, 1); }},
    };
    for (const LUT_getter& getter : LUT_getters) {
        cases.push_back({getter.name, true, [&getter](kv_color_processor_handle h) {
                             return as_value(getter.get(h));
                         }});
    }
    for (transform_export e : all_exports) {
        cases.push_back({transform_label, false, [e](kv_color_processor_handle h) {
                             frame_buffers buffers(e, 1, 1);
                             return static_cast<int64_t>(run_transform(e, buffers.arguments(h)));
                         }});
    }
    return cases;
}

TEST_F(FullLifecycle, PrologueLooksAtTheMarkerFirstAndTheHandleSecond) {
    // A non-NULL handle that is no object: before initialise it must not even be looked at.
    alignas(16) unsigned char not_an_object[512];
    std::memset(not_an_object, 0xAB, sizeof not_an_object);
    auto* bogus = reinterpret_cast<kv_color_processor_handle>(not_an_object);
    std::map<std::string, int64_t> prologue_lines;  // the four transforms share theirs

    for (const prologue_case& c : prologue_cases()) {
        SCOPED_TRACE(c.label);
        kv_journal_reset();
        const int64_t not_initialized = c.returns_pointer ? 0 : KV_STATUS_MODULE_NOT_INITIALIZED;
        EXPECT_EQ(c.call(nullptr), not_initialized);
        EXPECT_EQ(c.call(bogus), not_initialized);
        // The creators, too, return NULL silently before initialise.
        EXPECT_EQ(kv_color_create_color_processor(8, 8), nullptr);
        EXPECT_EQ(kv_color_create_color_processor_test(8, 8, KV_TIER_AVX2), nullptr);
        EXPECT_TRUE(journal().empty());
        for (unsigned char b : not_an_object) {
            ASSERT_EQ(b, 0xAB);
        }

        ASSERT_EQ(kv_color_processing_module_initialize(), KV_STATUS_SUCCESS);
        kv_journal_reset();
        EXPECT_EQ(c.call(nullptr), c.returns_pointer ? 0 : KV_STATUS_NULL_HANDLE);
        const std::vector<event> lines = log_lines();
        ASSERT_EQ(lines.size(), 1u) << "one error line and, for a NULL handle, no timing line";
        EXPECT_EQ(lines[0].values[0], 2);
        EXPECT_EQ(lines[0].texts[0], "kelvane_qor_color_processing.cpp");
        EXPECT_EQ(lines[0].texts[1], c.label);
        EXPECT_EQ(lines[0].texts[2], "ERROR:  The specified color processor handle is NULL!");
        expect_own_line(prologue_lines, c.label, lines[0].values[1]);
        EXPECT_EQ(events("LUT").size(), 0u);
        ASSERT_EQ(kv_color_processing_module_terminate(), KV_STATUS_SUCCESS);
    }
}

}  // namespace
}  // namespace kv_test
