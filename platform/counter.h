// The high-resolution counter that times a transform.
#pragma once

#include <cstdint>

namespace kv {
namespace platform {

// Counts per second. False when the platform cannot tell.
bool query_counter_frequency(int64_t* frequency);

// The current count. False when the counter cannot be read.
bool query_counter(int64_t* count);

}  // namespace platform
}  // namespace kv
