// The stream formats and the byte-order and alpha passes around the library's transform.
#include "stream/raw_format.h"

#include <cstring>

#include "cli/numbers.h"
#include "cli/tool_error.h"

namespace kv_tool {
namespace {

// KV_FORMAT_RGB_INTERLEAVED and KV_FORMAT_BGR_INTERLEAVED, numbered as the options number them.
constexpr int32_t rgb = 2, bgr = 1;

const raw_format formats[] = {
    {"rgb48le", rgb, 16, 3, false, true},   {"bgr48le", bgr, 16, 3, false, true},
    {"rgb48be", rgb, 16, 3, true, true},    {"bgr48be", bgr, 16, 3, true, true},
    {"rgb24", rgb, 8, 3, false, false},     {"bgr24", bgr, 8, 3, false, false},
    {"rgba64le", rgb, 16, 4, false, false}, {"bgra64le", bgr, 16, 4, false, false},
};

bool host_is_big_endian() {
    const uint16_t probe = 1;
    unsigned char first;
    std::memcpy(&first, &probe, 1);
    return first == 0;
}

void swap_bytes(uint16_t* elements, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        elements[i] = uint16_t((elements[i] >> 8) | (elements[i] << 8));
    }
}

bool needs_swap(const raw_format& f) {
    return f.bits == 16 && f.big_endian != host_is_big_endian();
}

}  // namespace

const raw_format* find_raw_format(const std::string& name) {
    for (const raw_format& f : formats) {
        if (name == f.name) return &f;
    }
    return nullptr;
}

std::string raw_format_names(bool readable_only) {
    std::string names;
    for (const raw_format& f : formats) {
        if (readable_only && !f.readable) continue;
        names += (names.empty() ? "" : ", ") + std::string(f.name);
    }
    return names;
}

raw_input_spec parse_raw_input(const std::string& text) {
    const size_t x = text.find('x'), colon = text.find(':');
    int64_t width, height;
    if (x == std::string::npos || colon == std::string::npos || colon < x ||
        !parse_integer(text.substr(0, x), 1, 65536, &width) ||
        !parse_integer(text.substr(x + 1, colon - x - 1), 1, 65536, &height)) {
        throw usage_error(
            "--raw-input: expected WIDTHxHEIGHT:FORMAT with sides of 1 to 65536, "
            "as in 1920x1080:rgb48le, got '" +
            text + "'");
    }
    if (width * height > INT32_MAX) {
        throw usage_error("--raw-input: " + text + " has more pixels than one frame can hold");
    }
    const std::string name = text.substr(colon + 1);
    const raw_format* format = find_raw_format(name);
    if (format == nullptr || !format->readable) {
        throw usage_error("--raw-input: '" + name + "' is not an input format (" +
                          raw_format_names(true) + ")");
    }
    return {int32_t(width), int32_t(height), format};
}

const raw_format& parse_raw_output(const std::string& text) {
    const raw_format* format = find_raw_format(text);
    if (format == nullptr) {
        throw usage_error("--raw-output: '" + text + "' is not an output format (" +
                          raw_format_names(false) + ")");
    }
    return *format;
}

void input_to_library(const raw_format& f, uint16_t* elements, size_t count) {
    if (needs_swap(f)) swap_bytes(elements, count);
}

void output_to_raw(const raw_format& f, void* frame, size_t pixels) {
    auto* elements = static_cast<uint16_t*>(frame);
    if (f.channels == 4) {
        for (size_t i = 0; i < pixels; ++i) elements[4 * i + 3] = 65535;
    }
    if (needs_swap(f)) swap_bytes(elements, pixels * size_t(f.channels));
}

}  // namespace kv_tool
