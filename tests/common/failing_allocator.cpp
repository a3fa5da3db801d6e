// Global allocation functions with a per-thread countdown to one failure.
#include "tests/common/failing_allocator.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(_WIN32)
#include <malloc.h>  // _aligned_malloc, _aligned_free
#endif

namespace {

thread_local long allocations_left = -1;

constexpr std::size_t plain = alignof(std::max_align_t);

void* allocate(std::size_t size, std::size_t alignment) noexcept {
    if (allocations_left >= 0 && allocations_left-- == 0) {
        return nullptr;  // one failure per arming, so unwinding and reporting can allocate
    }
    size = size == 0 ? 1 : size;
    void* memory = nullptr;
    if (alignment <= plain) {
        memory = std::malloc(size);
    } else {
#if defined(_WIN32)
        memory = _aligned_malloc(size, alignment);
#else
        memory = std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
#endif
    }
    if (memory != nullptr) std::memset(memory, 0xA5, size);
    return memory;
}

void* allocate_or_throw(std::size_t size, std::size_t alignment) {
    void* memory = allocate(size, alignment);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void release(void* memory, std::size_t alignment) noexcept {
#if defined(_WIN32)
    if (alignment > plain) {
        _aligned_free(memory);
        return;
    }
#endif
    (void)alignment;
    std::free(memory);
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

void* operator new(std::size_t size) {
    return allocate_or_throw(size, plain);
}
void* operator new[](std::size_t size) {
    return allocate_or_throw(size, plain);
}
void* operator new(std::size_t size, std::align_val_t a) {
    return allocate_or_throw(size, static_cast<std::size_t>(a));
}
void* operator new[](std::size_t size, std::align_val_t a) {
    return allocate_or_throw(size, static_cast<std::size_t>(a));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, plain);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, plain);
}
void* operator new(std::size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
    return allocate(size, static_cast<std::size_t>(a));
}
void* operator new[](std::size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
    return allocate(size, static_cast<std::size_t>(a));
}
void operator delete(void* p) noexcept {
    release(p, plain);
}
void operator delete[](void* p) noexcept {
    release(p, plain);
}
void operator delete(void* p, std::size_t) noexcept {
    release(p, plain);
}
void operator delete[](void* p, std::size_t) noexcept {
    release(p, plain);
}
void operator delete(void* p, std::align_val_t a) noexcept {
    release(p, static_cast<std::size_t>(a));
}
void operator delete[](void* p, std::align_val_t a) noexcept {
    release(p, static_cast<std::size_t>(a));
}
void operator delete(void* p, std::size_t, std::align_val_t a) noexcept {
    release(p, static_cast<std::size_t>(a));
}
void operator delete[](void* p, std::size_t, std::align_val_t a) noexcept {
    release(p, static_cast<std::size_t>(a));
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    release(p, plain);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    release(p, plain);
}
void operator delete(void* p, std::align_val_t a, const std::nothrow_t&) noexcept {
    release(p, static_cast<std::size_t>(a));
}
void operator delete[](void* p, std::align_val_t a, const std::nothrow_t&) noexcept {
    release(p, static_cast<std::size_t>(a));
}

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
