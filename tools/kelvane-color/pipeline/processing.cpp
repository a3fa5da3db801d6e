// The library seen from a host: sessions, processors, buffers and transforms.
#include "pipeline/processing.h"

#include <algorithm>
#include <cstring>

#include "cli/tool_error.h"

namespace kv_tool {
namespace {

tool_error library_error(const std::string& message) {
    return tool_error(EXIT_LIBRARY, message);
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
    const char* name = kelvane::status_name(status);
    return name != nullptr ? name : "status " + std::to_string(status);
}

namespace {

kelvane::session start_library() {
    try {
        return kelvane::session();
    } catch (const kelvane::status_error& e) {
        if (e.status() == KV_STATUS_MODULE_NOT_INITIALIZED) {
            throw library_error(
                "the LUT module (kelvane_qor_LUT) is missing or incomplete: "
                "kv_color_processing_module_initialize returned KV_STATUS_MODULE_NOT_INITIALIZED "
                "(1). Install it beside the library, or put its folder on the module search path "
                "(LD_LIBRARY_PATH on Linux, PATH on Windows); kelvane-color --info shows what "
                "loads");
        }
        throw library_error(e.what());
    }
}

kelvane::processor make_processor(const library_session& session, const pipeline_plan& plan,
                                  std::optional<int32_t> tier) {
    try {
        return tier ? kelvane::processor(session.get(), plan.input_LUT_bits, plan.output_LUT_bits,
                                         *tier)
                    : kelvane::processor(session.get(), plan.input_LUT_bits, plan.output_LUT_bits);
    } catch (const kelvane::error& e) {
        throw library_error(e.what());
    }
}

}  // namespace

library_session::library_session() : session_(start_library()) {}

processor::processor(const settings& s, const pipeline_plan& plan, std::optional<int32_t> tier)
    : processor_(make_processor(session_, plan, tier)) {
    try {
        for (const auto& m : s.matrices) {
            float matrix[9];
            std::copy(m.begin(), m.end(), matrix);
            processor_.append_matrix(matrix);
        }
        for (int c = 0; c < 3; ++c) {
            const auto which = kelvane::channel(c);
            if (plan.channel[c].input_LUT) {
                const kelvane::LUT_span table = processor_.input_LUT(which);
                fill_table(s.input_LUT[c], c, table.data(), uint32_t(table.size()), 65535);
            }
            if (plan.channel[c].output_LUT) {
                const kelvane::LUT_span table = processor_.output_LUT(which);
                fill_table(s.output_LUT[c], c, table.data(), uint32_t(table.size()),
                           plan.output_LUT_max);
                for (size_t i = 0; plan.tables_to_8_bits && i < table.size(); ++i) {
                    table.data()[i] = round_to_8_bits(
                        uint16_t(shifted(table.data()[i], plan.table_shift_at_16[c])));
                }
            }
        }
        processor_.enable_input_LUTs(plan.channel[0].input_LUT, plan.channel[1].input_LUT,
                                     plan.channel[2].input_LUT);
        processor_.enable_output_LUTs(plan.channel[0].output_LUT, plan.channel[1].output_LUT,
                                      plan.channel[2].output_LUT);
    } catch (const kelvane::error& e) {
        throw library_error(e.what());
    }
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

kv_status run_transform(const processor& p, const settings& s, const pipeline_plan& plan,
                        const uint16_t* input, void* output, int32_t pixels, unsigned threads) {
    kelvane::frame_settings frame;
    kelvane::channel_settings* channels[3] = {&frame.blue, &frame.green, &frame.red};
    for (int c = 0; c < 3; ++c) {
        *channels[c] = {plan.channel[c].minimum, plan.channel[c].maximum, plan.channel[c].shift};
    }
    const size_t count = pixels > 0 ? size_t(pixels) : 0;
    const kelvane::input_frame in(input, 3 * count, kelvane::layout(s.input_layout), pixels);
    const auto out_layout = kelvane::layout(s.output_layout);
    try {
        if (s.bits == 8) {
            p.get().transform_striped(in,
                                      kelvane::output_frame<uint8_t>(
                                          static_cast<uint8_t*>(output), output_bytes(s, count),
                                          out_layout, s.channels, pixels),
                                      frame, threads);
        } else {
            p.get().transform_striped(
                in,
                kelvane::output_frame<uint16_t>(static_cast<uint16_t*>(output),
                                                output_bytes(s, count) / 2, out_layout, s.channels,
                                                pixels),
                frame, threads);
        }
    } catch (const kelvane::status_error& e) {
        return e.status();
    }
    return KV_STATUS_SUCCESS;
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
