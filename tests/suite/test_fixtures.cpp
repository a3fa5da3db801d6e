// What the tests that link the library's objects share: the load hook, the fixtures (they see the
// module state directly) and the route check.
#include <cstring>

#include "kelvane_qor_color_processing_suite/module_state.h"
#include "platform/module_hooks.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

// The program links the library's objects directly, so it plays the load hook itself, as the
// first thing of its start-up.
struct module_load {
    module_load() { kv::on_module_load(); }
} load_hook;

}  // namespace

kv::color_correction* object_of(kv_color_processor_handle handle) {
    return reinterpret_cast<kv::color_correction*>(handle);
}

void library_test::SetUp() {
    kv_journal_reset();
    ASSERT_EQ(kv::module_logger, nullptr) << "a previous test left the module initialised";
    ASSERT_EQ(kv::module_reference_count, 0);
}

void library_test::TearDown() {
    stop_failing_allocations();
    while (kv::module_reference_count > 0) {
        kv_color_processing_module_terminate();
    }
    kv_journal_reset();
}

void initialized_test::SetUp() {
    library_test::SetUp();
    ASSERT_EQ(kv_color_processing_module_initialize(), KV_STATUS_SUCCESS);
}

void expect_route(kv_color_processor_handle p, const char* isa) {
    for (transform_export e : {transform_export::to_32, transform_export::to_48}) {
        SCOPED_TRACE(name_of(e));
        frame_buffers buffers(e, 7, 6);
        kv_journal_reset();
        ASSERT_EQ(run_transform(e, buffers.arguments(p)), KV_STATUS_SUCCESS);
        const bool wide = output_width_of(e) == 16;
        for (const char* each : {"sse", "avx2", "avx512"}) {
            const bool chosen = isa != nullptr && std::strcmp(each, isa) == 0;
            EXPECT_EQ(kv_journal_count(each, wide ? "transform_16" : "transform_8"),
                      chosen ? 1u : 0u)
                << each;
            EXPECT_EQ(kv_journal_count(each, wide ? "transform_8" : "transform_16"), 0u) << each;
        }
    }
}

}  // namespace kv_test
