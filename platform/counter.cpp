// The counter: QueryPerformanceCounter on Windows, CLOCK_MONOTONIC in nanoseconds elsewhere.
#include "platform/counter.h"

#include "platform/windows_api.h"

#if !defined(_WIN32)
#include <time.h>
#endif

namespace kv {
namespace platform {

#if defined(_WIN32)

bool query_counter_frequency(int64_t* frequency) {
    LARGE_INTEGER value;
    if (!QueryPerformanceFrequency(&value)) {
        return false;
    }
    *frequency = value.QuadPart;
    return true;
}

bool query_counter(int64_t* count) {
    LARGE_INTEGER value;
    if (!QueryPerformanceCounter(&value)) {
        return false;
    }
    *count = value.QuadPart;
    return true;
}

#else

bool query_counter_frequency(int64_t* frequency) {
    *frequency = 1000000000;
    return true;
}

bool query_counter(int64_t* count) {
    timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        return false;
    }
    *count = static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
    return true;
}

#endif

}  // namespace platform
}  // namespace kv
