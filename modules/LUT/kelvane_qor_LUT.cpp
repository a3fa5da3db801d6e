// The LUT module: aligned, zero-filled tables of 32-bit entries behind opaque handles, and a
// registry of the live handles so that a stale or foreign handle is refused instead of freed.
#include "modules/LUT/kelvane_qor_LUT.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <new>
#include <type_traits>
#include <unordered_set>

#include "modules/common/lasting_state.h"
#include "services/module_abi.h"

namespace {

constexpr std::size_t line_bytes = 64;
constexpr std::size_t entries_per_line = line_bytes / sizeof(uint32_t);

// One allocation per table: this record in the first cache line, the entries from the second.
struct alignas(line_bytes) LUT_table {
    int32_t entry_count;
    uint32_t* entries() { return reinterpret_cast<uint32_t*>(this + 1); }
};
static_assert(sizeof(LUT_table) == line_bytes, "the entries must start on a line of their own");

struct registry {
    std::mutex lock;  // held only to look up, add or remove a handle
    std::unordered_set<const void*> live;
    bool idle() const { return live.empty(); }
};

kv::modules::lasting_state<registry> state;
kv::modules::release_at_unload<registry> release_state{state};

std::size_t allocation_bytes(int32_t entry_count) {
    const std::size_t lines =
        (static_cast<std::size_t>(entry_count) + entries_per_line - 1) / entries_per_line;
    return sizeof(LUT_table) + lines * line_bytes;
}

void free_table(LUT_table* table) {
    ::operator delete (static_cast<void*>(table), std::align_val_t{line_bytes});
}

// The table behind a handle if it is live, else NULL. What the caller does with it afterwards is
// outside the lock: using a table while another thread destroys it is the caller's fault.
LUT_table* find_live(void* handle) noexcept {
    if (handle == nullptr) {
        return nullptr;
    }
    try {
        registry& r = state.get();
        std::lock_guard<std::mutex> guard(r.lock);
        return r.live.count(handle) != 0 ? static_cast<LUT_table*>(handle) : nullptr;
    } catch (...) {
        return nullptr;  // no registry could be made, so no table exists
    }
}

}  // namespace

KV_MODULE_EXPORT int32_t kv_LUT_module_initialize() {
    return 0;
}

KV_MODULE_EXPORT int32_t kv_LUT_module_terminate() {
    return 0;
}

KV_MODULE_EXPORT void* kv_create_LUT_test(int32_t entry_count, int32_t /*avx2_flag*/) {
    if (entry_count < 1 || entry_count > KV_LUT_MAX_ENTRY_COUNT) {
        return nullptr;
    }
    const std::size_t bytes = allocation_bytes(entry_count);
    void* memory = ::operator new (bytes, std::align_val_t{line_bytes});
    std::memset(memory, 0, bytes);
    LUT_table* table = new (memory) LUT_table{entry_count};
    try {
        registry& r = state.get();
        std::lock_guard<std::mutex> guard(r.lock);
        r.live.insert(table);
    } catch (...) {
        free_table(table);
        throw;
    }
    return table;
}

KV_MODULE_EXPORT uint32_t* kv_get_LUT_data(void* handle) {
    LUT_table* table = find_live(handle);
    return table != nullptr ? table->entries() : nullptr;
}

KV_MODULE_EXPORT int32_t kv_destroy_LUT(void* handle) {
    if (handle == nullptr) {
        return KV_LUT_BAD_ARGUMENT;
    }
    try {
        registry& r = state.get();
        std::lock_guard<std::mutex> guard(r.lock);
        if (r.live.erase(handle) == 0) {
            return KV_LUT_BAD_ARGUMENT;
        }
    } catch (...) {
        return KV_LUT_BAD_ARGUMENT;
    }
    free_table(static_cast<LUT_table*>(handle));
    return 0;
}

KV_MODULE_EXPORT int32_t kv_LUT_transform_16(void* handle, const uint16_t* source,
                                             uint16_t* destination, int32_t count) {
    LUT_table* table = find_live(handle);
    if (table == nullptr || count < 0 ||
        (count > 0 && (source == nullptr || destination == nullptr))) {
        return KV_LUT_BAD_ARGUMENT;
    }
    const uint32_t* entries = table->entries();
    const uint32_t last = static_cast<uint32_t>(table->entry_count - 1);
    for (int32_t i = 0; i < count; ++i) {
        // Read before write, element by element, so that one buffer may serve as both.
        const uint32_t index = std::min<uint32_t>(source[i], last);
        destination[i] = static_cast<uint16_t>(entries[index]);
    }
    return 0;
}

// The definitions above must keep the exact types under which the library looks them up.
static_assert(
    std::is_same_v<decltype(&kv_LUT_module_initialize), kv::abi::kv_LUT_module_initialize_fn>);
static_assert(std::is_same_v<decltype(&kv_create_LUT_test), kv::abi::kv_create_LUT_test_fn>);
static_assert(std::is_same_v<decltype(&kv_get_LUT_data), kv::abi::kv_get_LUT_data_fn>);
static_assert(std::is_same_v<decltype(&kv_destroy_LUT), kv::abi::kv_destroy_LUT_fn>);
static_assert(
    std::is_same_v<decltype(&kv_LUT_module_terminate), kv::abi::kv_LUT_module_terminate_fn>);
static_assert(std::is_same_v<decltype(&kv_LUT_transform_16), kv::abi::kv_LUT_transform_16_fn>);
