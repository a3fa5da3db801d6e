// Global allocation functions with a per-thread countdown to one failure.
#include "tests/common/failing_allocator.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(_WIN32)
#include <malloc.h>  // _aligned_malloc, _aligned_free
#endif

namespace {

thread_local long allocations_left = -1;

constexpr std::align_val_t plain{alignof(std::max_align_t)};

void* allocate(std::size_t size, std::align_val_t alignment) noexcept {
    if (allocations_left >= 0 && allocations_left-- == 0) {
        return nullptr;  // one failure per arming, so unwinding and reporting can allocate
    }
    // Every block comes from the aligned allocator, so one release fits them all.
    const std::size_t align = std::max(static_cast<std::size_t>(alignment), alignof(void*));
    size = size == 0 ? 1 : size;
#if defined(_WIN32)
    void* memory = _aligned_malloc(size, align);
#else
    void* memory = std::aligned_alloc(align, (size + align - 1) / align * align);
#endif
    if (memory != nullptr) std::memset(memory, 0xA5, size);
    return memory;
}

void* allocate_or_throw(std::size_t size, std::align_val_t alignment) {
    void* memory = allocate(size, alignment);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void release(void* memory) noexcept {
#if defined(_WIN32)
    _aligned_free(memory);
#else
    std::free(memory);
#endif
}

}  // namespace

namespace kv {
namespace testing {

void fail_allocation(long n) {
    allocations_left = n;
}
void stop_failing_allocations() {
    allocations_left = -1;
}

}  // namespace testing
}  // namespace kv

// The project builds with hidden visibility; modules the test links must see these.
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

// Every replaceable form comes as a single and an array form of the same shape.
#define KV_BOTH_FORMS(result, keyword, parameters, exceptions, call) \
    result operator keyword parameters exceptions {                  \
        return call;                                                 \
    }                                                                \
    result operator keyword[] parameters exceptions {                \
        return call;                                                 \
    }

KV_BOTH_FORMS(void*, new, (std::size_t size), noexcept(false), allocate_or_throw(size, plain))
KV_BOTH_FORMS(void*, new, (std::size_t size, std::align_val_t a), noexcept(false),
              allocate_or_throw(size, a))
KV_BOTH_FORMS(void*, new, (std::size_t size, const std::nothrow_t&), noexcept,
              allocate(size, plain))
KV_BOTH_FORMS(void*, new, (std::size_t size, std::align_val_t a, const std::nothrow_t&), noexcept,
              allocate(size, a))
KV_BOTH_FORMS(void, delete, (void* p), noexcept, release(p))
KV_BOTH_FORMS(void, delete, (void* p, std::size_t), noexcept, release(p))
KV_BOTH_FORMS(void, delete, (void* p, std::align_val_t), noexcept, release(p))
KV_BOTH_FORMS(void, delete, (void* p, std::size_t, std::align_val_t), noexcept, release(p))
KV_BOTH_FORMS(void, delete, (void* p, const std::nothrow_t&), noexcept, release(p))
KV_BOTH_FORMS(void, delete, (void* p, std::align_val_t, const std::nothrow_t&), noexcept,
              release(p))

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
