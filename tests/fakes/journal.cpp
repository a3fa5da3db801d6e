// The shared event list of the fakes. Fixed storage: the journal never allocates, so tests that
// make the library's allocations fail cannot make the journal fail with them.
#include "tests/fakes/journal.h"

#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

constexpr size_t capacity = 8192;
constexpr size_t setting_capacity = 64;

struct setting {
    char key[64];
    int64_t value;
};

std::mutex journal_mutex;
kv_journal_entry entries[capacity];
size_t entry_count = 0;
setting settings[setting_capacity];
size_t setting_count = 0;

void copy_text(char* destination, size_t size, const char* source) {
    std::snprintf(destination, size, "%s", source != nullptr ? source : "");
}

}  // namespace

KV_JOURNAL_API void kv_journal_record(const char* module, const char* event, const int64_t* values,
                                      size_t value_count, const char* const* texts,
                                      size_t text_count) {
    std::lock_guard<std::mutex> lock(journal_mutex);
    if (entry_count == capacity) {
        return;  // tests read counts; an overflow shows up as missing events
    }
    kv_journal_entry& entry = entries[entry_count++];
    std::memset(&entry, 0, sizeof entry);
    copy_text(entry.module, sizeof entry.module, module);
    copy_text(entry.event, sizeof entry.event, event);
    for (size_t i = 0; i < value_count && i < 4; ++i) {
        entry.values[i] = values[i];
    }
    for (size_t i = 0; i < text_count && i < KV_JOURNAL_TEXTS; ++i) {
        copy_text(entry.texts[i], KV_JOURNAL_TEXT_SIZE, texts[i]);
    }
}

KV_JOURNAL_API void kv_journal_reset(void) {
    std::lock_guard<std::mutex> lock(journal_mutex);
    entry_count = 0;
    setting_count = 0;
}

KV_JOURNAL_API int kv_journal_entry_at(size_t index, kv_journal_entry* entry) {
    std::lock_guard<std::mutex> lock(journal_mutex);
    if (index >= entry_count) {
        return 0;
    }
    *entry = entries[index];
    return 1;
}

KV_JOURNAL_API size_t kv_journal_count(const char* module, const char* event) {
    std::lock_guard<std::mutex> lock(journal_mutex);
    size_t count = 0;
    for (size_t i = 0; i < entry_count; ++i) {
        if (std::strcmp(entries[i].module, module) == 0 &&
            std::strcmp(entries[i].event, event) == 0) {
            ++count;
        }
    }
    return count;
}

KV_JOURNAL_API void kv_journal_set(const char* key, int64_t value) {
    std::lock_guard<std::mutex> lock(journal_mutex);
    for (size_t i = 0; i < setting_count; ++i) {
        if (std::strcmp(settings[i].key, key) == 0) {
            settings[i].value = value;
            return;
        }
    }
    if (setting_count < setting_capacity) {
        copy_text(settings[setting_count].key, sizeof settings[setting_count].key, key);
        settings[setting_count].value = value;
        ++setting_count;
    }
}

KV_JOURNAL_API int64_t kv_journal_get(const char* key, int64_t fallback) {
    std::lock_guard<std::mutex> lock(journal_mutex);
    for (size_t i = 0; i < setting_count; ++i) {
        if (std::strcmp(settings[i].key, key) == 0) {
            return settings[i].value;
        }
    }
    return fallback;
}
