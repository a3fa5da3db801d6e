// The record that fake modules write and tests read: one ordered list of events across all fakes
// of a process, and a few named settings through which a test steers the fakes' answers. It is a
// shared library of its own so that the test program and every fake see the same list.
#pragma once

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#if defined(KV_JOURNAL_BUILD)
#define KV_JOURNAL_API extern "C" __declspec(dllexport)
#else
#define KV_JOURNAL_API extern "C" __declspec(dllimport)
#endif
#else
#define KV_JOURNAL_API extern "C" __attribute__((visibility("default")))
#endif

enum { KV_JOURNAL_TEXTS = 3, KV_JOURNAL_TEXT_SIZE = 256 };

struct kv_journal_entry {
    char module[16];  // "logger", "LUT", "sse", "avx2", "avx512"
    char event[48];   // the function called, or "load" / "unload"
    int64_t values[4];
    char texts[KV_JOURNAL_TEXTS][KV_JOURNAL_TEXT_SIZE];
};

// Appends an event. Texts may be NULL; longer texts are cut. Thread-safe.
KV_JOURNAL_API void kv_journal_record(const char* module, const char* event,
                                      const int64_t* values = nullptr, size_t value_count = 0,
                                      const char* const* texts = nullptr, size_t text_count = 0);

// Forgets all events and settings.
KV_JOURNAL_API void kv_journal_reset(void);

// Copies entry `index` out; false past the end.
KV_JOURNAL_API int kv_journal_entry_at(size_t index, struct kv_journal_entry* entry);

// Events of `module` named `event` recorded so far.
KV_JOURNAL_API size_t kv_journal_count(const char* module, const char* event);

// Settings: `key` to `value`, or `fallback` when not set.
KV_JOURNAL_API void kv_journal_set(const char* key, int64_t value);
KV_JOURNAL_API int64_t kv_journal_get(const char* key, int64_t fallback);
