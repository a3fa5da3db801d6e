// The library's status codes. 6, 7 and 8 are never produced; the gap is kept on purpose.
#pragma once

#include <cstdint>

namespace kv {

enum status_code : int32_t {
    STATUS_SUCCESS = 0,
    STATUS_MODULE_NOT_INITIALIZED = 1,
    STATUS_NULL_HANDLE = 2,
    STATUS_NULL_INPUT_BUFFER = 3,
    STATUS_NULL_OUTPUT_BUFFER = 4,
    STATUS_SAME_BUFFER = 5,
    STATUS_INVALID_INPUT_FORMAT = 9,
    STATUS_INVALID_OUTPUT_FORMAT = 10,
    STATUS_INVALID_SHIFT = 11,
    STATUS_INVALID_CLAMP = 12,
};

}  // namespace kv
