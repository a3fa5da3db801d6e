// A fake LUT module. Counts and records every call with its arguments. A table is handed out
// filled with 0xCD bytes and exactly as large as asked, so a missing clear or an overrun shows.
// Variants: KV_FAKE_OMIT_<ENTRY> leaves that entry point out. Settings: "LUT.throw_on_create" = n
// makes the n-th kv_create_LUT_test since the journal's reset throw, std::bad_alloc when
// "LUT.throw_kind" is 0 (default), std::runtime_error otherwise; "LUT.initialize_result".
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "services/module_abi.h"
#include "tests/fakes/fake_module_lifetime.h"

namespace {

kv_fake::module_lifetime lifetime("LUT");

struct fake_table {
    uint32_t* data;
};

int64_t address_of(const void* pointer) {
    return static_cast<int64_t>(reinterpret_cast<intptr_t>(pointer));
}

}  // namespace

#if !defined(KV_FAKE_OMIT_INITIALIZE)
KV_MODULE_EXPORT int32_t kv_LUT_module_initialize() {
    kv_journal_record("LUT", "kv_LUT_module_initialize");
    return static_cast<int32_t>(kv_journal_get("LUT.initialize_result", 0));
}
#endif

#if !defined(KV_FAKE_OMIT_CREATE)
KV_MODULE_EXPORT kv::abi::LUT_handle kv_create_LUT_test(int32_t entry_count, int32_t avx2_flag) {
    const int64_t call = static_cast<int64_t>(kv_journal_count("LUT", "kv_create_LUT_test")) +
                         static_cast<int64_t>(kv_journal_count("LUT", "kv_create_LUT_test throws"));
    if (call + 1 == kv_journal_get("LUT.throw_on_create", 0)) {
        kv_journal_record("LUT", "kv_create_LUT_test throws");
        if (kv_journal_get("LUT.throw_kind", 0) == 0) {
            throw std::bad_alloc();
        }
        throw std::runtime_error("refused by the test");
    }
    auto* table = static_cast<fake_table*>(std::malloc(sizeof(fake_table)));
    const size_t bytes = static_cast<size_t>(entry_count) * sizeof(uint32_t);
    table->data = static_cast<uint32_t*>(std::malloc(bytes));
    std::memset(table->data, 0xCD, bytes);
    const int64_t values[] = {entry_count, avx2_flag, address_of(table), address_of(table->data)};
    kv_journal_record("LUT", "kv_create_LUT_test", values, 4);
    return table;
}
#endif

#if !defined(KV_FAKE_OMIT_TRANSFORM_16)
// Must be there, but the library never calls it: a call would show in the journal.
KV_MODULE_EXPORT int32_t kv_LUT_transform_16(kv::abi::LUT_handle, const uint16_t*, uint16_t*,
                                             int32_t) {
    kv_journal_record("LUT", "kv_LUT_transform_16");
    return 0;
}
#endif

#if !defined(KV_FAKE_OMIT_GET_DATA)
KV_MODULE_EXPORT uint32_t* kv_get_LUT_data(kv::abi::LUT_handle handle) {
    const int64_t values[] = {address_of(handle)};
    kv_journal_record("LUT", "kv_get_LUT_data", values, 1);
    return static_cast<fake_table*>(handle)->data;
}
#endif

#if !defined(KV_FAKE_OMIT_DESTROY)
KV_MODULE_EXPORT int32_t kv_destroy_LUT(kv::abi::LUT_handle handle) {
    const int64_t values[] = {address_of(handle)};
    kv_journal_record("LUT", "kv_destroy_LUT", values, 1);
    auto* table = static_cast<fake_table*>(handle);
    std::free(table->data);
    std::free(table);
    return 0;
}
#endif

#if !defined(KV_FAKE_OMIT_TERMINATE)
KV_MODULE_EXPORT int32_t kv_LUT_module_terminate() {
    kv_journal_record("LUT", "kv_LUT_module_terminate");
    return 0;
}
#endif
