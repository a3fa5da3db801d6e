// Replacements of every global operator new and delete, forwarding to the C allocator, with a
// per-thread countdown to a failure. New memory is filled with a pattern, so that code which
// relies on fresh memory reading zero shows it.
#include "tests/lut_module/test_allocator.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

thread_local int allocations_left = -1;

bool allocation_fails() {
    if (allocations_left < 0) {
        return false;
    }
    if (allocations_left == 0) {
        allocations_left = -1;  // one failure per arming, so cleanup and reporting can allocate
        return true;
    }
    --allocations_left;
    return false;
}

void* allocate(std::size_t size, std::size_t alignment) noexcept {
    if (allocation_fails()) {
        return nullptr;
    }
    if (size == 0) {
        size = 1;
    }
    void* memory = nullptr;
    if (alignment <= alignof(std::max_align_t)) {
        memory = std::malloc(size);
    } else {
        memory = std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
    }
    if (memory != nullptr) {
        std::memset(memory, 0xA5, size);
    }
    return memory;
}

void* allocate_or_throw(std::size_t size, std::size_t alignment) {
    void* memory = allocate(size, alignment);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

constexpr std::size_t plain = alignof(std::max_align_t);

}  // namespace

namespace kv {
namespace test {

void fail_allocation_after(int successes) {
    allocations_left = successes;
}

}  // namespace test
}  // namespace kv

// The project builds with hidden visibility; these must be seen by the modules the test links.
#pragma GCC visibility push(default)

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
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(p);
}

#pragma GCC visibility pop
