// What the fuzz targets share: reporting a finding, reading settings from the input bytes, and a
// private scratch folder for targets that must hand a file to the code under test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>

namespace kv_fuzz {

// Prints "finding: <what>" and aborts, so both libFuzzer and the standalone runner keep the input.
[[noreturn]] void finding(const std::string& what);

// Runs `body`; a clean refusal is the exception type `Refusal`, anything else escaping is a
// finding named after its type and message.
template <class Refusal, class Body>
void expect_only(Body&& body) {
    try {
        body();
    } catch (const Refusal&) {
    } catch (const std::exception& e) {
        finding(std::string("unexpected exception: ") + e.what());
    } catch (...) {
        finding("unexpected exception of an unknown type");
    }
}

// Little-endian values read from the front of the input. Once it is used up, the bytes come from
// a generator seeded with a hash of the whole input, so a short input still decides a complete,
// varied case, and the same input always decides the same one.
class input_reader {
  public:
    input_reader(const uint8_t* data, size_t size) : data_(data), size_(size) {
        for (size_t i = 0; i < size; ++i) state_ = (state_ ^ data[i]) * 0x100000001B3u;  // FNV-1a
    }

    template <class T>
    T take() {
        static_assert(sizeof(T) <= 8, "at most 64 bits at a time");
        uint64_t bits = 0;
        for (size_t i = 0; i < sizeof(T); ++i) bits |= uint64_t(next_byte()) << (8 * i);
        T value;
        std::memcpy(&value, &bits, sizeof(T));  // the low bytes on a little-endian processor
        return value;
    }
    // 0 to n - 1; n must not be 0.
    uint32_t below(uint32_t n) { return take<uint32_t>() % n; }
    // True one time in `n` on random input.
    bool one_in(uint32_t n) { return take<uint8_t>() % n == 0; }

  private:
    uint8_t next_byte() {
        if (size_ != 0) {
            --size_;
            return *data_++;
        }
        // splitmix64
        uint64_t z = (state_ += 0x9E3779B97F4A7C15u);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        return uint8_t(z ^ (z >> 31));
    }

    const uint8_t* data_;
    size_t size_;
    uint64_t state_ = 0xCBF29CE484222325u;
};

// A folder only this process uses (mode 0700), made once under /dev/shm when present, else
// /tmp, and removed with its contents at exit. Its path ends without a separator.
const std::string& private_directory();

// Removes the private folder and the files written into it with only async-signal-safe calls,
// for a process that is dying.
void discard_private_directory();

// Writes `size` bytes to a new file `name` in the private folder, replacing an earlier one of
// ours; a failed write is fatal, since the target would then test something else.
std::string write_private_file(const char* name, const uint8_t* data, size_t size);

}  // namespace kv_fuzz
