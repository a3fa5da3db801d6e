// The reference model: one stage at a time, as plainly as the rules say it.
#include "tests/common/reference_model.h"

#include <cmath>
#include <cstring>

namespace kv {
namespace reference {
namespace {

enum channel_index { BLUE = 0, GREEN = 1, RED = 2 };

// What a record sets for one channel; a table is NULL when its flag is off.
struct channel_settings {
    const uint32_t* input_LUT;
    const uint32_t* output_LUT;
    uint16_t minimum, maximum;
    int32_t shift_distance;
};

// Each product rounded to float; (red term + green term) + blue term, each sum rounded.
float row_sum(const float* row, const float* factor) {
    volatile float red_term = row[0] * factor[RED];
    volatile float green_term = row[1] * factor[GREEN];
    volatile float blue_term = row[2] * factor[BLUE];
    volatile float partial = red_term + green_term;
    volatile float sum = partial + blue_term;
    return sum;
}

// The 32-bit value of one channel before narrowing: round, clamp (the minimum wins over the
// maximum), output LUT, shift.
uint32_t channel_value(const channel_settings& s, const float* row, const float* factor) {
    int32_t value = round_to_int32(row_sum(row, factor));
    if (value > static_cast<int32_t>(s.maximum)) value = s.maximum;
    if (value < static_cast<int32_t>(s.minimum)) value = s.minimum;
    uint32_t out = static_cast<uint32_t>(value);
    if (s.output_LUT != nullptr) out = s.output_LUT[value];
    if (s.shift_distance > 0) return out << (static_cast<uint32_t>(s.shift_distance) % 32u);
    if (s.shift_distance == 0) return out;
    const uint32_t count = (0u - static_cast<uint32_t>(s.shift_distance)) % 32u;
    // Arithmetic: the top bit is repeated.
    const bool negative = (out & 0x80000000u) != 0;
    out >>= count;
    if (negative && count != 0) out |= ~(0xFFFFFFFFu >> count);
    return out;
}

}  // namespace

int32_t round_to_int32(float sum) {
    const double widened = static_cast<double>(sum) + 0.5;
    if (std::isnan(widened)) return INT32_MIN;
    const double truncated = std::trunc(widened);
    if (truncated > 2147483647.0 || truncated < -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(truncated);
}

uint64_t element_place(int32_t format, int channel, uint64_t i, uint64_t n, bool fourth_channel) {
    const uint64_t per_pixel = fourth_channel ? 4 : 3;
    static const uint64_t rgb_slot[4] = {2, 1, 0, 3};
    switch (format) {
        case FORMAT_BGR_INTERLEAVED:
            return per_pixel * i + static_cast<uint64_t>(channel);
        case FORMAT_RGB_INTERLEAVED:
            return per_pixel * i + rgb_slot[channel];
        default:
            return static_cast<uint64_t>(channel) * n + i;
    }
}

void run_request(const transform_request& r, int output_width, int32_t start_index) {
    auto on = [](uint8_t flag, const uint32_t* table) { return flag != 0 ? table : nullptr; };
    const channel_settings channel[3] = {
        {on(r.blue_input_LUT_enabled, r.blue_input_LUT),
         on(r.blue_output_LUT_enabled, r.blue_output_LUT), r.blue_output_min, r.blue_output_max,
         r.blue_shift_distance},
        {on(r.green_input_LUT_enabled, r.green_input_LUT),
         on(r.green_output_LUT_enabled, r.green_output_LUT), r.green_output_min, r.green_output_max,
         r.green_shift_distance},
        {on(r.red_input_LUT_enabled, r.red_input_LUT),
         on(r.red_output_LUT_enabled, r.red_output_LUT), r.red_output_min, r.red_output_max,
         r.red_shift_distance}};
    float matrix[9];  // by rows, red, green, blue
    std::memcpy(matrix, r.processor, sizeof matrix);
    const bool fourth = r.fourth_channel != 0;
    const uint64_t n = r.pixel_count > 0 ? static_cast<uint64_t>(r.pixel_count) : 0;
    for (int64_t i = start_index; i < r.pixel_count; ++i) {
        const uint64_t p = static_cast<uint64_t>(i);
        float factor[3];
        for (int c = 0; c < 3; ++c) {
            uint32_t input = r.input_buffer[element_place(r.input_format, c, p, n, false)];
            if (channel[c].input_LUT != nullptr) input = channel[c].input_LUT[input] & 0xFFFFu;
            factor[c] = static_cast<float>(input);
        }
        for (int c = 0; c < (fourth ? 4 : 3); ++c) {
            const uint32_t value =
                c < 3 ? channel_value(channel[c], &matrix[3 * (RED - c)], factor) : 0u;
            const uint64_t place = element_place(r.output_format, c, p, n, fourth);
            if (output_width == 8) {
                static_cast<uint8_t*>(r.output_buffer)[place] = static_cast<uint8_t>(value & 0xFFu);
            } else {
                static_cast<uint16_t*>(r.output_buffer)[place] =
                    static_cast<uint16_t>(value & 0xFFFFu);
            }
        }
    }
}

}  // namespace reference
}  // namespace kv
