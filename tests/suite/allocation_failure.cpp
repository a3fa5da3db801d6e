// Replaces the global allocation functions of the test program so a test can make one chosen
// allocation fail. The library is linked into this program, so its allocations come here too.
#include <atomic>
#include <cstdlib>
#include <new>

#include "tests/suite/test_support.h"

namespace {

std::atomic<long> countdown{-1};

void* allocate(std::size_t size) {
    if (countdown.load() >= 0 && countdown.fetch_sub(1) == 0) {
        throw std::bad_alloc();
    }
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

namespace kv_test {

void fail_allocation(long n) {
    countdown.store(n);
}
void stop_failing_allocations() {
    countdown.store(-1);
}

}  // namespace kv_test

void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
