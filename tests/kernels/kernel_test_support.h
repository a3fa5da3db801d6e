// Helpers for the kernel tests: a request builder, seeded random settings and guarded buffers.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "kernels/dispatch.h"
#include "kernels/transform_request.h"
#include "tests/common/reference_model.h"

namespace kv {
namespace testing {

// A record whose reserved bytes hold garbage, as they do on a real stack, so that nothing can rely
// on them.
inline transform_request blank_request() {
    transform_request r;
    std::memset(&r, 0xA5, sizeof r);
    r.blue_input_LUT = r.green_input_LUT = r.red_input_LUT = nullptr;
    r.blue_output_LUT = r.green_output_LUT = r.red_output_LUT = nullptr;
    r.blue_input_LUT_enabled = r.green_input_LUT_enabled = r.red_input_LUT_enabled = 0;
    r.blue_output_LUT_enabled = r.green_output_LUT_enabled = r.red_output_LUT_enabled = 0;
    r.blue_output_min = r.green_output_min = r.red_output_min = 0;
    r.blue_output_max = r.green_output_max = r.red_output_max = 0xFFFF;
    r.blue_shift_distance = r.green_shift_distance = r.red_shift_distance = 0;
    r.input_format = r.output_format = FORMAT_BGR_INTERLEAVED;
    r.fourth_channel = 0;
    r.pixel_count = 0;
    r.input_buffer = nullptr;
    r.output_buffer = nullptr;
    r.processor = nullptr;
    return r;
}

inline void dispatch(int output_width, const transform_request& r, int32_t start_index) {
    if (output_width == 8) {
        dispatch_kernel_8(&r, start_index);
    } else {
        dispatch_kernel_16(&r, start_index);
    }
}

inline size_t output_bytes(int output_width, bool fourth_channel, int64_t pixel_count) {
    const int64_t n = pixel_count > 0 ? pixel_count : 0;
    return static_cast<size_t>(n) * (fourth_channel ? 4 : 3) * (output_width / 8);
}

// An output buffer with guard bytes on both sides; the payload starts `misalign` bytes past an
// aligned address so that no kernel can depend on alignment beyond the element's.
struct guarded_output {
    static constexpr size_t guard = 64;
    std::vector<uint8_t> bytes;
    size_t payload_offset;

    guarded_output(size_t payload, uint32_t seed, size_t misalign = 0)
        : bytes(guard * 2 + payload + misalign), payload_offset(guard + misalign) {
        std::mt19937 fill(seed);
        for (auto& b : bytes) b = static_cast<uint8_t>(fill());
    }
    // Even offsets keep 16-bit elements aligned to their own size.
    void* payload() { return bytes.data() + payload_offset; }
};

// A matrix element drawn to hit every arithmetic corner now and then: NaN, infinities, huge,
// subnormal and negative zero values besides ordinary coefficients.
inline float random_matrix_value(std::mt19937& rng) {
    const uint32_t pick = rng() % 100;
    std::uniform_real_distribution<float> ordinary(-2.0f, 2.0f);
    if (pick < 70) return ordinary(rng);
    switch (pick % 10) {
        case 0:
            return std::numeric_limits<float>::quiet_NaN();
        case 1:
            return std::numeric_limits<float>::infinity();
        case 2:
            return -std::numeric_limits<float>::infinity();
        case 3:
            return 3.0e38f;
        case 4:
            return -1.0e6f;
        case 5:
            return 1.0e-40f;  // subnormal
        case 6:
            return -0.0f;
        case 7:
            return 65536.0f;
        case 8:
            return 1.0f;
        default:
            return 0.0f;
    }
}

inline uint16_t random_element(std::mt19937& rng) {
    switch (rng() % 4) {
        case 0:
            return static_cast<uint16_t>(rng() & 0xFF);
        case 1:
            return static_cast<uint16_t>(0xFFFF - (rng() & 0xF));
        default:
            return static_cast<uint16_t>(rng());
    }
}

}  // namespace testing
}  // namespace kv
