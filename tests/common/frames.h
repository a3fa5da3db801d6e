// The test instruments for frames: one request builder, one seeded generator of settings,
// matrices and pixels, and one guarded buffer whose payload sits against an inaccessible page.
// Every test that builds a transform record or a frame uses these.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "kernels/transform_request.h"

namespace kv {
namespace testing {

// The settings of one frame, everything a transform record carries.
struct frame_settings {
    int width = 16;
    int32_t input_format = FORMAT_BGR_INTERLEAVED;
    int32_t output_format = FORMAT_BGR_INTERLEAVED;
    bool fourth_channel = false;
    float matrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const uint32_t* input_LUT[3] = {nullptr, nullptr, nullptr};   // blue, green, red; null: off
    const uint32_t* output_LUT[3] = {nullptr, nullptr, nullptr};  // null: off
    uint8_t enabled_byte = 1;  // the value of an "on" flag: any non-zero byte means on
    uint16_t minimum[3] = {0, 0, 0};
    uint16_t maximum[3] = {0xFFFF, 0xFFFF, 0xFFFF};
    int32_t shift_distance[3] = {0, 0, 0};
};

// The record of a frame. Reserved bytes hold noise, as on a real stack; a disabled LUT has no
// table, so code that read one would fault.
transform_request make_request(const frame_settings& settings, const uint16_t* input,
                               int32_t pixel_count, void* output,
                               const color_correction_head* matrix);

// Output bytes of a frame of `pixel_count` pixels (none for a count of 0 or less).
size_t output_bytes(int width, bool fourth_channel, int64_t pixel_count);

// A float drawn to hit the arithmetic corners now and then: NaN, infinities, huge, subnormal,
// negative zero, ties, 0.49999997, 2^24 and sums past 2^31 that fold to the minimum.
float random_matrix_value(std::mt19937& rng);

// Random settings for one point of the kernel coordinate space (kernel_coordinates::encode()).
// Formats other than 1 and 2 sometimes come as -1 or 5, which mean planes as well.
frame_settings random_settings(uint32_t coordinates, std::mt19937& rng);

// Input elements of several characters: uniform noise, smooth image-like ramps, small values and
// the extremes.
std::vector<uint16_t> random_input(int32_t pixel_count, std::mt19937& rng);

// Six shared 65,536-entry tables (index 0 to 5), built once: random entries, noise above a smooth
// low half, identity below a constant high half, small values, negative as int32, a few bits over
// 16.
const std::vector<uint32_t>& table_pool(int index);

// Memory whose payload ends (or begins) against an inaccessible page, so a read or write past
// the frame faults at once; the few bytes between the payload and the fence on the other side are
// noise that guards_intact() checks. `misalign` places the payload start that many bytes past a
// 64-byte boundary (ending at the fence).
class guarded_buffer {
  public:
    enum fence { after, before };
    explicit guarded_buffer(size_t bytes, uint64_t seed = 1, size_t misalign = 0,
                            fence side = after);
    ~guarded_buffer();
    guarded_buffer(const guarded_buffer&) = delete;
    guarded_buffer& operator=(const guarded_buffer&) = delete;

    uint8_t* data() { return data_; }
    const uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    std::vector<uint8_t> copy() const { return {data_, data_ + size_}; }
    bool guards_intact() const;
    // Code writing here (a table, the input) faults.
    void make_read_only();

  private:
    size_t page_ = 4096, usable_ = 0, size_ = 0;
    uint8_t* base_ = nullptr;
    uint8_t* data_ = nullptr;
    std::vector<uint8_t> noise_;  // the usable region as it was filled
};

}  // namespace testing
}  // namespace kv
