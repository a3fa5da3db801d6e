// The library seen from a host: sessions, processors, buffers and transforms.
#include "processing.h"

#include <cstring>

#include "tool_error.h"

namespace kv_tool {
namespace {

using LUT_getter = uint32_t* (*)(kv_color_processor_handle);
constexpr LUT_getter input_getters[3] = {kv_color_get_blue_input_LUT, kv_color_get_green_input_LUT,
                                         kv_color_get_red_input_LUT};
constexpr LUT_getter output_getters[3] = {
    kv_color_get_blue_output_LUT, kv_color_get_green_output_LUT, kv_color_get_red_output_LUT};
constexpr const char* channel_names[3] = {"blue", "green", "red"};

tool_error library_error(const std::string& message) {
    return tool_error(EXIT_LIBRARY, message);
}

void check_setup(kv_status status, const char* call) {
    if (status != KV_STATUS_SUCCESS) {
        throw library_error(std::string(call) + " failed: " + status_name(status));
    }
}

// Element e (0 blue, 1 green, 2 red, 3 fourth) of pixel i of n in a layout, as the library places
// it: interleaved for 1 and 2, planes for everything else.
size_t place(int32_t layout, int element, size_t i, size_t n, int per_pixel) {
    if (layout == KV_FORMAT_BGR_INTERLEAVED) return per_pixel * i + element;
    if (layout == KV_FORMAT_RGB_INTERLEAVED) {
        return per_pixel * i + (element < 3 ? 2 - element : 3);
    }
    return element * n + i;
}

// What the library's shift stage makes of a 32-bit value.
uint32_t shifted(uint32_t value, int32_t distance) {
    if (distance > 0) return value << distance;
    if (distance < 0) return uint32_t(int32_t(value) >> -distance);
    return value;
}

}  // namespace

std::string status_name(kv_status status) {
    switch (status) {
        case KV_STATUS_SUCCESS:
            return "KV_STATUS_SUCCESS";
        case KV_STATUS_MODULE_NOT_INITIALIZED:
            return "KV_STATUS_MODULE_NOT_INITIALIZED";
        case KV_STATUS_NULL_HANDLE:
            return "KV_STATUS_NULL_HANDLE";
        case KV_STATUS_NULL_INPUT_BUFFER:
            return "KV_STATUS_NULL_INPUT_BUFFER";
        case KV_STATUS_NULL_OUTPUT_BUFFER:
            return "KV_STATUS_NULL_OUTPUT_BUFFER";
        case KV_STATUS_SAME_BUFFER:
            return "KV_STATUS_SAME_BUFFER";
        case KV_STATUS_INVALID_INPUT_FORMAT:
            return "KV_STATUS_INVALID_INPUT_FORMAT";
        case KV_STATUS_INVALID_OUTPUT_FORMAT:
            return "KV_STATUS_INVALID_OUTPUT_FORMAT";
        case KV_STATUS_INVALID_SHIFT:
            return "KV_STATUS_INVALID_SHIFT";
        case KV_STATUS_INVALID_CLAMP:
            return "KV_STATUS_INVALID_CLAMP";
        default:
            return "status " + std::to_string(status);
    }
}

library_session::library_session() {
    const kv_status status = kv_color_processing_module_initialize();
    if (status == KV_STATUS_SUCCESS) return;
    kv_color_processing_module_terminate();
    if (status == KV_STATUS_MODULE_NOT_INITIALIZED) {
        throw library_error(
            "the LUT module (kelvane_qor_LUT) is missing or incomplete: "
            "kv_color_processing_module_initialize returned KV_STATUS_MODULE_NOT_INITIALIZED (1). "
            "Install it beside the library, or put its folder on the module search path "
            "(LD_LIBRARY_PATH on Linux, PATH on Windows); kelvane-color --info shows what loads");
    }
    throw library_error("kv_color_processing_module_initialize returned " + status_name(status));
}

library_session::~library_session() {
    kv_color_processing_module_terminate();
}

processor::processor(const settings& s, const pipeline_plan& plan, std::optional<int32_t> tier) {
    handle_ = tier ? kv_color_create_color_processor_test(plan.input_LUT_bits, plan.output_LUT_bits,
                                                          *tier)
                   : kv_color_create_color_processor(plan.input_LUT_bits, plan.output_LUT_bits);
    if (handle_ == nullptr) {
        throw library_error(std::string(tier ? "kv_color_create_color_processor_test"
                                             : "kv_color_create_color_processor") +
                            " returned NULL (the library's log says why)");
    }
    try {
        for (const auto& m : s.matrices) {
            check_setup(kv_color_append_matrix(handle_, m.data()), "kv_color_append_matrix");
        }
        int32_t input_on[3], output_on[3];
        for (int c = 0; c < 3; ++c) {
            input_on[c] = plan.channel[c].input_LUT;
            output_on[c] = plan.channel[c].output_LUT;
            if (input_on[c]) {
                uint32_t* table = input_getters[c](handle_);
                if (table == nullptr)
                    throw library_error("no input LUT table for " + std::string(channel_names[c]));
                fill_table(s.input_LUT[c], c, table, 1u << plan.input_LUT_bits, 65535);
            }
            if (output_on[c]) {
                uint32_t* table = output_getters[c](handle_);
                if (table == nullptr)
                    throw library_error("no output LUT table for " + std::string(channel_names[c]));
                const uint32_t entries = 1u << plan.output_LUT_bits;
                fill_table(s.output_LUT[c], c, table, entries, plan.output_LUT_max);
                for (uint32_t i = 0; plan.tables_to_8_bits && i < entries; ++i) {
                    table[i] =
                        round_to_8_bits(uint16_t(shifted(table[i], plan.table_shift_at_16[c])));
                }
            }
        }
        check_setup(kv_color_enable_input_LUTs(handle_, input_on[0], input_on[1], input_on[2]),
                    "kv_color_enable_input_LUTs");
        check_setup(kv_color_enable_output_LUTs(handle_, output_on[0], output_on[1], output_on[2]),
                    "kv_color_enable_output_LUTs");
    } catch (...) {
        kv_color_destroy_color_processor(handle_);
        throw;
    }
}

processor::~processor() {
    kv_color_destroy_color_processor(handle_);
}

output_route route_output(const settings& s, file_type type) {
    output_route route{s, plan_pipeline(s), narrowing::library};
    if (s.bits != 8 || !s.narrow_round || type == file_type::raw) return route;
    settings wide = s;
    wide.bits = 16;
    const pipeline_plan wide_plan = plan_pipeline(wide);
    int tables = 0;
    bool unshifted = true, ordered = true;
    for (const channel_plan& c : wide_plan.channel) {
        tables += c.output_LUT;
        unshifted = unshifted && c.shift == 0;
        ordered = ordered && c.minimum <= c.maximum;
    }
    route.plan = wide_plan;
    if (tables == 3) {
        route.how = narrowing::tables;
        route.plan.tables_to_8_bits = true;
        for (int c = 0; c < 3; ++c) {
            route.plan.table_shift_at_16[c] = wide_plan.channel[c].shift;
            route.plan.channel[c].shift = 0;
        }
    } else if (tables == 0 && s.matrices.empty() && unshifted && ordered) {
        // The identity's sums are the input integers, and v x float(1/257) never comes within
        // float error of a half: the library's rounding then gives round(v / 257) exactly.
        // Rounding is monotone, so clamping before it equals clamping after it to the rounded
        // bounds.
        route.how = narrowing::scale_matrix;
        const float k = 1.0f / 257.0f;
        route.library.matrices = {{k, 0, 0, 0, k, 0, 0, 0, k}};
        for (channel_plan& c : route.plan.channel) {
            c.minimum = round_to_8_bits(c.minimum);
            c.maximum = round_to_8_bits(c.maximum);
        }
    } else {
        route.how = narrowing::rounding_pass;
        route.library = wide;
    }
    return route;
}

std::vector<uint16_t> finish_frame(const output_route& route, std::vector<uint16_t> frame,
                                   uint64_t pixels) {
    if (route.how != narrowing::rounding_pass) return frame;
    const size_t elements = size_t(pixels) * size_t(route.library.channels);
    std::vector<uint16_t> narrow((elements + 1) / 2);
    auto* bytes = reinterpret_cast<uint8_t*>(narrow.data());
    for (size_t i = 0; i < elements; ++i) bytes[i] = round_to_8_bits(frame[i]);
    return narrow;
}

size_t output_bytes(const settings& s, uint64_t pixels) {
    return size_t(pixels) * size_t(s.channels) * size_t(s.bits / 8);
}

std::vector<uint16_t> to_input_buffer(const image& picture, int32_t layout) {
    const size_t n = size_t(picture.pixel_count());
    std::vector<uint16_t> buffer(3 * n);
    for (size_t i = 0; i < n; ++i) {
        const uint16_t* px = &picture.samples[i * picture.channels];
        for (int e = 0; e < 3; ++e) buffer[place(layout, e, i, n, 3)] = px[2 - e];  // r g b
    }
    return buffer;
}

kv_status run_transform(kv_color_processor_handle handle, const settings& s,
                        const pipeline_plan& plan, const uint16_t* input, void* output,
                        int32_t pixels) {
    const auto& b = plan.channel[0];
    const auto& g = plan.channel[1];
    const auto& r = plan.channel[2];
    if (s.bits == 8) {
        auto* out = static_cast<uint8_t*>(output);
        return s.channels == 3
                   ? kv_color_transform_48_to_24(handle, input, s.input_layout, b.minimum,
                                                 b.maximum, g.minimum, g.maximum, r.minimum,
                                                 r.maximum, b.shift, g.shift, r.shift, out,
                                                 s.output_layout, pixels)
                   : kv_color_transform_48_to_32(handle, input, s.input_layout, b.minimum,
                                                 b.maximum, g.minimum, g.maximum, r.minimum,
                                                 r.maximum, b.shift, g.shift, r.shift, out,
                                                 s.output_layout, pixels);
    }
    auto* out = static_cast<uint16_t*>(output);
    return s.channels == 3
               ? kv_color_transform_48_to_48(handle, input, s.input_layout, b.minimum, b.maximum,
                                             g.minimum, g.maximum, r.minimum, r.maximum, b.shift,
                                             g.shift, r.shift, out, s.output_layout, pixels)
               : kv_color_transform_48_to_64(handle, input, s.input_layout, b.minimum, b.maximum,
                                             g.minimum, g.maximum, r.minimum, r.maximum, b.shift,
                                             g.shift, r.shift, out, s.output_layout, pixels);
}

void check_transform(kv_status status, const std::string& source, const settings& s,
                     const pipeline_plan& plan) {
    if (status == KV_STATUS_SUCCESS) return;
    std::string hint;
    switch (status) {
        case KV_STATUS_INVALID_CLAMP:
            hint = "check --clamp: each maximum must not lie below its minimum";
            if (plan.output_LUT_bits > 0) {
                hint += " nor above the last output LUT entry, " +
                        std::to_string((1u << plan.output_LUT_bits) - 1) + " (--output-lut-bits " +
                        std::to_string(plan.output_LUT_bits) + ")";
            }
            break;
        case KV_STATUS_INVALID_SHIFT:
            hint = "check --shift: each must be -15 to 15";
            break;
        case KV_STATUS_INVALID_INPUT_FORMAT:
            hint = "check --input-layout: " + layout_name(s.input_layout) + " is refused";
            break;
        case KV_STATUS_INVALID_OUTPUT_FORMAT:
            hint = "check --output-layout: " + layout_name(s.output_layout) + " is refused";
            break;
        default:
            hint = "the library refused the frame";
            break;
    }
    throw tool_error(EXIT_TRANSFORM, source + ": transform failed with " + status_name(status) +
                                         " (" + std::to_string(status) + "): " + hint);
}

image from_output_buffer(const void* output, const settings& s, const image& source) {
    image out;
    out.width = source.width;
    out.height = source.height;
    out.channels = s.channels;
    out.bits = s.bits;
    const size_t n = size_t(source.pixel_count());
    out.samples.resize(n * s.channels);
    const auto* bytes = static_cast<const uint8_t*>(output);
    const auto* words = static_cast<const uint16_t*>(output);
    const uint32_t top = s.bits == 16 ? 65535 : 255;
    for (size_t i = 0; i < n; ++i) {
        uint16_t* px = &out.samples[i * s.channels];
        for (int e = 0; e < 3; ++e) {
            const size_t at = place(s.output_layout, e, i, n, s.channels);
            px[2 - e] = s.bits == 16 ? words[at] : bytes[at];
        }
        if (s.channels == 4) {
            const uint32_t alpha = source.channels == 4 ? source.samples[i * 4 + 3] : 65535;
            px[3] = uint16_t(s.bits == 16 ? alpha : (alpha * top + 32767) / 65535);
        }
    }
    return out;
}

}  // namespace kv_tool
