// The reference model: one stage at a time, as plainly as the rules say it.
#include "tests/common/reference_model.h"

#include <cmath>
#include <cstring>

namespace kv {
namespace reference {

int32_t round_to_int32(float sum) {
    const double widened = static_cast<double>(sum) + 0.5;
    if (std::isnan(widened)) return INT32_MIN;
    const double truncated = std::trunc(widened);
    if (truncated > 2147483647.0 || truncated < -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(truncated);
}

static float row_sum(const float* row, float red, float green, float blue) {
    // Each product rounded to float; (red term + green term) + blue term, each sum rounded.
    volatile float red_term = row[0] * red;
    volatile float green_term = row[1] * green;
    volatile float blue_term = row[2] * blue;
    volatile float partial = red_term + green_term;
    volatile float sum = partial + blue_term;
    return sum;
}

pixel_result run_pixel(const pipeline_settings& s, uint16_t blue, uint16_t green, uint16_t red) {
    const uint16_t element[3] = {blue, green, red};
    float factor[3];
    for (int c = 0; c < 3; ++c) {
        uint32_t input = element[c];
        if (s.input_LUT[c] != nullptr) input = s.input_LUT[c][element[c]] & 0xFFFFu;
        factor[c] = static_cast<float>(input);
    }
    float sum[3];
    sum[RED] = row_sum(&s.matrix[0], factor[RED], factor[GREEN], factor[BLUE]);
    sum[GREEN] = row_sum(&s.matrix[3], factor[RED], factor[GREEN], factor[BLUE]);
    sum[BLUE] = row_sum(&s.matrix[6], factor[RED], factor[GREEN], factor[BLUE]);

    pixel_result result{};
    for (int c = 0; c < 3; ++c) {
        int32_t value = round_to_int32(sum[c]);
        if (value > static_cast<int32_t>(s.maximum[c])) value = s.maximum[c];
        if (value < static_cast<int32_t>(s.minimum[c])) value = s.minimum[c];
        uint32_t out = static_cast<uint32_t>(value);
        if (s.output_LUT[c] != nullptr) out = s.output_LUT[c][value];
        const int32_t distance = s.shift_distance[c];
        if (distance > 0) {
            out = out << (static_cast<uint32_t>(distance) % 32u);
        } else if (distance < 0) {
            const uint32_t count = (0u - static_cast<uint32_t>(distance)) % 32u;
            // Arithmetic: the top bit is repeated.
            const bool negative = (out & 0x80000000u) != 0;
            out = out >> count;
            if (negative && count != 0) out |= ~(0xFFFFFFFFu >> count);
        }
        result.value[c] = out;
    }
    return result;
}

uint64_t element_place(int32_t format, int channel, uint64_t i, uint64_t n, bool fourth_channel) {
    const uint64_t per_pixel = fourth_channel ? 4 : 3;
    switch (format) {
        case FORMAT_BGR_INTERLEAVED:
            return per_pixel * i + static_cast<uint64_t>(channel);
        case FORMAT_RGB_INTERLEAVED: {
            static const uint64_t rgb_slot[4] = {2, 1, 0, 3};
            return per_pixel * i + rgb_slot[channel];
        }
        default:
            return static_cast<uint64_t>(channel) * n + i;
    }
}

pipeline_settings settings_from_request(const transform_request& r) {
    pipeline_settings s{};
    std::memcpy(s.matrix, r.processor, sizeof s.matrix);
    s.input_LUT[BLUE] = r.blue_input_LUT_enabled ? r.blue_input_LUT : nullptr;
    s.input_LUT[GREEN] = r.green_input_LUT_enabled ? r.green_input_LUT : nullptr;
    s.input_LUT[RED] = r.red_input_LUT_enabled ? r.red_input_LUT : nullptr;
    s.output_LUT[BLUE] = r.blue_output_LUT_enabled ? r.blue_output_LUT : nullptr;
    s.output_LUT[GREEN] = r.green_output_LUT_enabled ? r.green_output_LUT : nullptr;
    s.output_LUT[RED] = r.red_output_LUT_enabled ? r.red_output_LUT : nullptr;
    s.minimum[BLUE] = r.blue_output_min;
    s.maximum[BLUE] = r.blue_output_max;
    s.minimum[GREEN] = r.green_output_min;
    s.maximum[GREEN] = r.green_output_max;
    s.minimum[RED] = r.red_output_min;
    s.maximum[RED] = r.red_output_max;
    s.shift_distance[BLUE] = r.blue_shift_distance;
    s.shift_distance[GREEN] = r.green_shift_distance;
    s.shift_distance[RED] = r.red_shift_distance;
    return s;
}

void run_request(const transform_request& r, int output_width, int32_t start_index) {
    const pipeline_settings s = settings_from_request(r);
    const bool fourth = r.fourth_channel != 0;
    const uint64_t n = r.pixel_count > 0 ? static_cast<uint64_t>(r.pixel_count) : 0;
    for (int64_t i = start_index; i < r.pixel_count; ++i) {
        const uint64_t p = static_cast<uint64_t>(i);
        const uint16_t blue = r.input_buffer[element_place(r.input_format, BLUE, p, n, false)];
        const uint16_t green = r.input_buffer[element_place(r.input_format, GREEN, p, n, false)];
        const uint16_t red = r.input_buffer[element_place(r.input_format, RED, p, n, false)];
        const pixel_result result = run_pixel(s, blue, green, red);
        for (int c = 0; c < (fourth ? 4 : 3); ++c) {
            const uint32_t value = c < 3 ? result.value[c] : 0u;
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
