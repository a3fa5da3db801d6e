// The fixtures of the tests that link the library's objects: they see the module state directly.
#include "kelvane_qor_color_processing_suite/module_state.h"
#include "tests/suite/test_support.h"

namespace kv_test {

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

}  // namespace kv_test
