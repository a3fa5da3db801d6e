// Behaviour with missing or incomplete companion modules. Each suite runs in its own scenario
// directory, named by its prefix (see CMakeLists.txt).
#include "kelvane_qor_color_processing_suite/color_correction.h"
#include "kelvane_qor_color_processing_suite/module_state.h"
#include "platform/module_loader.h"
#include "services/LUT_library.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

// Vector modules absent (`missing` -1) or lacking the name at position `missing` of the lookup
// order: every processor finds the fields before it, marks each back-end failed, never calls it
// and releases it, and every tier runs the whole frame in the scalar kernels.
void expect_scalar_only_for_every_tier(int missing) {
    // What the back-end modules saw since the last reset: one event each, or nothing when absent.
    const auto expect_only = [missing](const char* what) {
        for (const std::string isa : {"sse", "avx2", "avx512"}) {
            EXPECT_EQ(sequence({isa}), missing < 0 ? std::vector<std::string>{}
                                                   : std::vector<std::string>{isa + what});
        }
    };
    for (int32_t tier : {-1, 0, 1, 2, 3, 4}) {
        SCOPED_TRACE(tier);
        kv_journal_reset();
        kv_color_processor_handle p = kv_color_create_color_processor_test(0, 0, tier);
        ASSERT_NE(p, nullptr);
        expect_only(".load");
        for (const kv::vector_backend* b : {&object_of(p)->sse_backend, &object_of(p)->avx2_backend,
                                            &object_of(p)->avx512_backend}) {
            EXPECT_EQ(b->failed, 1);
            EXPECT_EQ(b->module != nullptr, missing >= 0);
            const void* fields[] = {reinterpret_cast<const void*>(b->initialize),
                                    reinterpret_cast<const void*>(b->transform_8_bit_output),
                                    reinterpret_cast<const void*>(b->transform_16_bit_output),
                                    reinterpret_cast<const void*>(b->terminate)};
            for (int i = 0; i < 4; ++i) {
                EXPECT_EQ(fields[i] != nullptr, i < missing) << "field " << i;
            }
        }
        expect_route(p, nullptr);
        kv_journal_reset();
        ASSERT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
        expect_only(".unload");
    }
}

class NoVectorModules : public initialized_test {};

TEST_F(NoVectorModules, CreationSucceedsAndEveryTierRunsScalar) {
    expect_scalar_only_for_every_tier(-1);
}

class NoLogger : public initialized_test {};

TEST_F(NoLogger, ExportsAnswerAsWithALogAndStaySilent) {
    ASSERT_NE(kv::module_logger, nullptr);
    EXPECT_EQ(kv::module_logger->is_available, 0);
    EXPECT_EQ(kv::module_logger->module_handle, nullptr);
    EXPECT_FALSE(kv::module_logger->log_message(2, "f", 1, "g", "%s", "x"));
    EXPECT_EQ(kv_color_create_color_processor_test(-1, 0, 0), nullptr);
    EXPECT_EQ(kv_color_append_matrix(nullptr, nullptr), KV_STATUS_NULL_HANDLE);
    kv_color_processor_handle p = kv_color_create_color_processor(2, 2);
    ASSERT_NE(p, nullptr);
    frame_buffers buffers(transform_export::to_48, 1, 1);
    frame_arguments a = buffers.arguments(p);
    a.output = nullptr;
    EXPECT_EQ(run_transform(transform_export::to_48, a), KV_STATUS_NULL_OUTPUT_BUFFER);
    EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
    EXPECT_FALSE(kv::platform::module_is_loaded(kv::LOGGER_MODULE_BASE_NAME));
}

// What each incomplete logging module leaves in the adapter, and what terminate does with it.
// Each instantiation runs in the scenario directory of its name.
struct logger_variant {
    bool log_handle;        // qor_get_log gave a log
    bool logs;              // qor_log is there and the adapter writes
    size_t get_log_calls;   // qor_get_log was called
    size_t free_log_calls;  // qor_free_log was called at terminate
};

class IncompleteLogger : public library_test,
                         public ::testing::WithParamInterface<logger_variant> {};

TEST_P(IncompleteLogger, SilentOrNotAndAlwaysReleased) {
    const logger_variant& v = GetParam();
    ASSERT_EQ(kv_color_processing_module_initialize(), KV_STATUS_SUCCESS);
    kv::logger_adapter* logger = kv::module_logger;
    ASSERT_NE(logger, nullptr);
    EXPECT_NE(logger->module_handle, nullptr);
    EXPECT_EQ(logger->log_handle != nullptr, v.log_handle);
    EXPECT_EQ(logger->log_function != nullptr, v.logs);
    EXPECT_EQ(logger->is_available, v.logs ? 1 : 0);
    EXPECT_EQ(kv_color_clear_matrix(nullptr), KV_STATUS_NULL_HANDLE);
    EXPECT_EQ(kv_journal_count("logger", "qor_log"), v.logs ? 1u : 0u);
    EXPECT_EQ(kv_journal_count("logger", "qor_get_log"), v.get_log_calls);
    ASSERT_EQ(kv_color_processing_module_terminate(), KV_STATUS_SUCCESS);
    EXPECT_EQ(kv_journal_count("logger", "qor_free_log"), v.free_log_calls);
    EXPECT_EQ(kv_journal_count("logger", "unload"), 1u) << "released whatever was missing";
}

INSTANTIATE_TEST_SUITE_P(LoggerNoQorLog, IncompleteLogger,
                         ::testing::Values(logger_variant{true, false, 1, 1}));
INSTANTIATE_TEST_SUITE_P(LoggerNoQorGetLog, IncompleteLogger,
                         ::testing::Values(logger_variant{false, false, 0, 1}));
INSTANTIATE_TEST_SUITE_P(LoggerGetLogNull, IncompleteLogger,
                         ::testing::Values(logger_variant{false, false, 1, 1}));
INSTANTIATE_TEST_SUITE_P(LoggerNoQorFreeLog, IncompleteLogger,
                         ::testing::Values(logger_variant{true, true, 1, 0}));

// A LUT module lacking one entry point: the load stops at it, keeping what it found before. With
// no modules at all (-1), nothing is found and nothing logs. Either way initialise reports the
// failure but stands the marker, so a NULL handle is still reported as such.
class IncompleteLUTModule : public library_test, public ::testing::WithParamInterface<int> {};

TEST_P(IncompleteLUTModule, LoadStopsAtTheMissingEntryPoint) {
    const int missing = GetParam();  // position in the lookup order
    EXPECT_EQ(kv_color_processing_module_initialize(), KV_STATUS_MODULE_NOT_INITIALIZED);
    EXPECT_EQ(kv::module_reference_count, 1);
    const kv::LUT_library_table& t = kv::LUT_library;
    EXPECT_EQ(t.module != nullptr, missing >= 0);
    const void* fields[] = {
        reinterpret_cast<const void*>(t.initialize),   reinterpret_cast<const void*>(t.create),
        reinterpret_cast<const void*>(t.transform_16), reinterpret_cast<const void*>(t.get_data),
        reinterpret_cast<const void*>(t.destroy),      reinterpret_cast<const void*>(t.terminate)};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(fields[i] != nullptr, i < missing) << "field " << i;
    }
    EXPECT_EQ(kv_journal_count("LUT", "kv_LUT_module_initialize"), 0u);
    EXPECT_EQ(kv_color_clear_matrix(nullptr), KV_STATUS_NULL_HANDLE);
    EXPECT_EQ(kv_color_get_red_output_LUT(nullptr), nullptr);
    EXPECT_EQ(log_lines().size(), missing >= 0 ? 2u : 0u) << "the log works regardless";
    // A second try finds the same module and stops at the same place.
    EXPECT_EQ(kv_color_processing_module_initialize(), KV_STATUS_MODULE_NOT_INITIALIZED);
    ASSERT_EQ(kv_color_processing_module_terminate(), KV_STATUS_SUCCESS);
    ASSERT_EQ(kv_color_processing_module_terminate(), KV_STATUS_SUCCESS);
    EXPECT_EQ(kv_journal_count("LUT", "kv_LUT_module_terminate"), 0u);
    EXPECT_EQ(t.module, nullptr);
    EXPECT_EQ(kv::module_logger, nullptr);
}

INSTANTIATE_TEST_SUITE_P(NoModules, IncompleteLUTModule, ::testing::Values(-1));
INSTANTIATE_TEST_SUITE_P(LUTNo_initialize, IncompleteLUTModule, ::testing::Values(0));
INSTANTIATE_TEST_SUITE_P(LUTNo_create, IncompleteLUTModule, ::testing::Values(1));
INSTANTIATE_TEST_SUITE_P(LUTNo_transform_16, IncompleteLUTModule, ::testing::Values(2));
INSTANTIATE_TEST_SUITE_P(LUTNo_get_data, IncompleteLUTModule, ::testing::Values(3));
INSTANTIATE_TEST_SUITE_P(LUTNo_destroy, IncompleteLUTModule, ::testing::Values(4));
INSTANTIATE_TEST_SUITE_P(LUTNo_terminate, IncompleteLUTModule, ::testing::Values(5));

class IncompleteVectorModules : public initialized_test,
                                public ::testing::WithParamInterface<int> {};

TEST_P(IncompleteVectorModules, FailedNeverCalledAndReleased) {
    expect_scalar_only_for_every_tier(GetParam());
}

INSTANTIATE_TEST_SUITE_P(VectorNo_initialize, IncompleteVectorModules, ::testing::Values(0));
INSTANTIATE_TEST_SUITE_P(VectorNo_transform_8, IncompleteVectorModules, ::testing::Values(1));
INSTANTIATE_TEST_SUITE_P(VectorNo_transform_16, IncompleteVectorModules, ::testing::Values(2));
INSTANTIATE_TEST_SUITE_P(VectorNo_terminate, IncompleteVectorModules, ::testing::Values(3));

}  // namespace
}  // namespace kv_test
