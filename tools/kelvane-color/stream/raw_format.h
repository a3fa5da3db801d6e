// The raw pixel formats of frame streams, named as ffmpeg names them (-pix_fmt), and how a frame
// of each maps onto the library's interleaved buffers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kv_tool {

struct raw_format {
    const char* name;
    int32_t layout;   // the library's interleaved layout: rgb and bgr map to it directly
    int bits;         // element width, 8 or 16
    int channels;     // 3, or 4 with an opaque fourth element
    bool big_endian;  // 16-bit elements most significant byte first
    bool readable;    // the library reads 48-bit pixels only
};

// nullptr for a name that is not one of the formats.
const raw_format* find_raw_format(const std::string& name);

// "rgb48le, bgr48le, ..." for messages: the readable formats, or all of them.
std::string raw_format_names(bool readable_only);

struct raw_input_spec {
    int32_t width = 0;
    int32_t height = 0;
    const raw_format* format = nullptr;
};

// "WxH:FORMAT" of --raw-input, and FORMAT of --raw-output; usage errors name the option.
raw_input_spec parse_raw_input(const std::string& text);
const raw_format& parse_raw_output(const std::string& text);

// Bytes of one frame of `pixels` in the format.
inline size_t raw_frame_bytes(const raw_format& f, int64_t pixels) {
    return size_t(pixels) * size_t(f.channels) * size_t(f.bits / 8);
}

// Frames as read become the library's input (native byte order) ...
void input_to_library(const raw_format& f, uint16_t* elements, size_t count);
// ... and the library's output (native order, fourth element 0) becomes the format's bytes.
void output_to_raw(const raw_format& f, void* frame, size_t pixels);

}  // namespace kv_tool
