// A fake vector module, built once per instruction-set name (KV_FAKE_ISA: sse, avx2, avx512).
// Records each call, a transform with its pixel count, and returns the count the test chose. It
// writes no pixel: those it claims keep what the output held. Settings, with <isa> the module's
// name: "<isa>.initialize_result" (default 0); "<isa>.count", the pixels claimed (default 0; -1
// claims the whole frame). Variants: KV_FAKE_OMIT_<NAME> leaves that name out.
#include <cstring>

#include "services/module_abi.h"
#include "tests/fakes/fake_module_lifetime.h"

#define KV_FAKE_TEXT_(x) #x
#define KV_FAKE_TEXT(x) KV_FAKE_TEXT_(x)
#define KV_FAKE_JOIN_(a, b, c) a##b##c
#define KV_FAKE_JOIN(a, b, c) KV_FAKE_JOIN_(a, b, c)

#define KV_FAKE_NAME KV_FAKE_TEXT(KV_FAKE_ISA)

namespace {

kv_fake::module_lifetime lifetime(KV_FAKE_NAME);

// No allocation here: tests make the library's allocations fail, and would fail this one too.
int64_t setting(const char* suffix, int64_t fallback) {
    char key[64];
    std::strcpy(key, KV_FAKE_NAME);
    std::strcat(key, suffix);
    return kv_journal_get(key, fallback);
}

int32_t transform(const kv::transform_request* request, const char* event) {
    const int64_t values[] = {request->pixel_count};
    kv_journal_record(KV_FAKE_NAME, event, values, 1);
    const int64_t chosen = setting(".count", 0);
    return chosen == -1 ? request->pixel_count : static_cast<int32_t>(chosen);
}

}  // namespace

#if !defined(KV_FAKE_OMIT_INITIALIZE)
KV_MODULE_EXPORT int32_t KV_FAKE_JOIN(kv_color_processing_vector_, KV_FAKE_ISA,
                                      _module_initialize)() {
    kv_journal_record(KV_FAKE_NAME, "initialize");
    return static_cast<int32_t>(setting(".initialize_result", 0));
}
#endif

#if !defined(KV_FAKE_OMIT_TRANSFORM_8)
KV_MODULE_EXPORT int32_t KV_FAKE_JOIN(kv_color_processing_transform_8_bit_output_vector_,
                                      KV_FAKE_ISA, )(const kv::transform_request* request) {
    return transform(request, "transform_8");
}
#endif

#if !defined(KV_FAKE_OMIT_TRANSFORM_16)
KV_MODULE_EXPORT int32_t KV_FAKE_JOIN(kv_color_processing_transform_16_bit_output_vector_,
                                      KV_FAKE_ISA, )(const kv::transform_request* request) {
    return transform(request, "transform_16");
}
#endif

#if !defined(KV_FAKE_OMIT_TERMINATE)
KV_MODULE_EXPORT void KV_FAKE_JOIN(kv_color_processing_vector_, KV_FAKE_ISA, _module_terminate)() {
    kv_journal_record(KV_FAKE_NAME, "terminate");
}
#endif
