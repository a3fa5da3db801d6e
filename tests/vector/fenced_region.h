// Memory fenced by inaccessible pages, for the vector tests: a read or write one byte past a
// frame or a table faults.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX  // std::min and std::max stay usable
#endif
#include <windows.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace kv {
namespace testing {

// Memory whose usable bytes end (or begin) exactly at an inaccessible page, so that a read or
// write one byte past the frame faults.
class fenced_region {
  public:
    fenced_region(size_t bytes, bool flush_with_end) {
#if defined(_WIN32)
        SYSTEM_INFO info;
        GetSystemInfo(&info);
        page_ = info.dwPageSize;
#else
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
#endif
        usable_ = (std::max<size_t>(bytes, 1) + page_ - 1) / page_ * page_;
        total_ = usable_ + 2 * page_;
#if defined(_WIN32)
        base_ = static_cast<uint8_t*>(
            VirtualAlloc(nullptr, total_, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        DWORD old;
        VirtualProtect(base_, page_, PAGE_NOACCESS, &old);
        VirtualProtect(base_ + page_ + usable_, page_, PAGE_NOACCESS, &old);
#else
        base_ = static_cast<uint8_t*>(
            mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(base_, page_, PROT_NONE);
        mprotect(base_ + page_ + usable_, page_, PROT_NONE);
#endif
        data_ = flush_with_end ? base_ + page_ + usable_ - bytes : base_ + page_;
    }
    ~fenced_region() {
#if defined(_WIN32)
        VirtualFree(base_, 0, MEM_RELEASE);
#else
        munmap(base_, total_);
#endif
    }
    fenced_region(const fenced_region&) = delete;
    fenced_region& operator=(const fenced_region&) = delete;

    uint8_t* data() {
        return data_;
    }
    // A module writing here (a table, the input) faults.
    void make_read_only() {
#if defined(_WIN32)
        DWORD old;
        VirtualProtect(base_ + page_, usable_, PAGE_READONLY, &old);
#else
        mprotect(base_ + page_, usable_, PROT_READ);
#endif
    }

  private:
    size_t page_ = 4096, usable_ = 0, total_ = 0;
    uint8_t* base_ = nullptr;
    uint8_t* data_ = nullptr;
};

}  // namespace testing
}  // namespace kv
