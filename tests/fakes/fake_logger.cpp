// A fake logging module. Records every call. Variants: KV_FAKE_OMIT_QOR_GET_LOG,
// KV_FAKE_OMIT_QOR_LOG, KV_FAKE_OMIT_QOR_FREE_LOG leave that name out; KV_FAKE_GET_LOG_NULL makes
// qor_get_log refuse.
#include "services/module_abi.h"
#include "tests/fakes/fake_module_lifetime.h"

namespace {

kv_fake::module_lifetime lifetime("logger");
int log_object;

}  // namespace

#if !defined(KV_FAKE_OMIT_QOR_GET_LOG)
KV_MODULE_EXPORT void* qor_get_log(const char* module_id, const char* second_id,
                                   const char* config_file_name) {
    const char* texts[] = {module_id, second_id, config_file_name};
    kv_journal_record("logger", "qor_get_log", nullptr, 0, texts, 3);
#if defined(KV_FAKE_GET_LOG_NULL)
    return nullptr;
#else
    return &log_object;
#endif
}
#endif

#if !defined(KV_FAKE_OMIT_QOR_LOG)
KV_MODULE_EXPORT int32_t qor_log(void* log_handle, int32_t level, const char* file, int32_t line,
                                 const char* function, const char* message) {
    const int64_t values[] = {level, line, log_handle == &log_object ? 1 : 0};
    const char* texts[] = {file, function, message};
    kv_journal_record("logger", "qor_log", values, 3, texts, 3);
    return 0;
}
#endif

#if !defined(KV_FAKE_OMIT_QOR_FREE_LOG)
KV_MODULE_EXPORT int32_t qor_free_log(const char* module_id, const char* second_id) {
    const char* texts[] = {module_id, second_id};
    kv_journal_record("logger", "qor_free_log", nullptr, 0, texts, 2);
    return 0;
}
#endif
