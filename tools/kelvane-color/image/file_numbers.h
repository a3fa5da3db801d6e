// Numbers stored in an image file's bytes, in either byte order (PNG is big-endian, TIFF says
// which in its header): read only where the bytes hold them, appended to bytes being written.
#pragma once

#include <cstdint>
#include <string>

namespace kv_tool {

struct file_numbers {
    const std::string& bytes;
    bool big;

    // The `size`-byte number at `at` into *value; false (and *value untouched) past the end.
    bool number(uint64_t at, int size, uint64_t* value) const {
        if (at > bytes.size() || uint64_t(size) > bytes.size() - at) return false;
        *value = 0;
        for (int i = 0; i < size; ++i) {
            const uint64_t byte = static_cast<unsigned char>(bytes[size_t(at) + size_t(i)]);
            *value |= byte << (8 * (big ? size - 1 - i : i));
        }
        return true;
    }
};

// `value` as `size` bytes in that byte order, at the end of `out`.
inline void append_number(std::string& out, uint32_t value, int size, bool big) {
    for (int i = 0; i < size; ++i) out += char((value >> (8 * (big ? size - 1 - i : i))) & 0xff);
}

}  // namespace kv_tool
