// A host that loads the library at run time and releases it: the load hook builds the mutex, the
// at-exit function closes a log that was never terminated, and a second load starts afresh.
#include <gtest/gtest.h>

#include <cstdint>

#include "platform/module_loader.h"
#include "tests/fakes/journal.h"

namespace {

struct loaded_library {
    kv::platform::module_handle module = kv::platform::load_module(KV_MAIN_LIBRARY_BASE_NAME);
    int32_t call(const char* entry) const {
        using status_function = int32_t (*)();
        return reinterpret_cast<status_function>(kv::platform::module_symbol(module, entry))();
    }
};

TEST(Unload, AtExitClosesTheLogOfAHostThatNeverTerminated) {
    kv_journal_reset();
    const loaded_library library;
    ASSERT_NE(library.module, nullptr);
    kv_journal_entry first;
    EXPECT_FALSE(kv_journal_entry_at(0, &first))
        << "loading alone does nothing but build the mutex";
    ASSERT_EQ(library.call("kv_color_processing_module_initialize"), 0);
    ASSERT_EQ(library.call("kv_color_processing_module_initialize"), 0) << "the mutex works";
    EXPECT_EQ(kv_journal_count("logger", "qor_get_log"), 1u);
    kv::platform::release_module(library.module);
    EXPECT_FALSE(kv::platform::module_is_loaded(KV_MAIN_LIBRARY_BASE_NAME));
    EXPECT_EQ(kv_journal_count("logger", "qor_free_log"), 1u);
    EXPECT_EQ(kv_journal_count("logger", "unload"), 1u);
    EXPECT_EQ(kv_journal_count("LUT", "kv_LUT_module_terminate"), 0u)
        << "the LUT module is left alone at unload";

    // Loaded again, the library starts from nothing: a new mutex, a new log.
    kv_journal_reset();
    const loaded_library again;
    ASSERT_NE(again.module, nullptr);
    ASSERT_EQ(again.call("kv_color_processing_module_initialize"), 0);
    EXPECT_EQ(kv_journal_count("logger", "qor_get_log"), 1u);
    EXPECT_EQ(kv_journal_count("LUT", "kv_LUT_module_initialize"), 1u);
    ASSERT_EQ(again.call("kv_color_processing_module_terminate"), 0);
    EXPECT_EQ(kv_journal_count("logger", "qor_free_log"), 1u);
    EXPECT_EQ(kv_journal_count("LUT", "kv_LUT_module_terminate"), 1u);
    kv::platform::release_module(again.module);
}

}  // namespace
