// The sample handling every format shares: the frame bound, rows appended with gray spread to RGB,
// samples packed for an encoder.
#include <cstring>
#include <new>

#include "image/codec.h"

namespace kv_tool {

void check_size(const std::string& path, uint64_t width, uint64_t height) {
    if (width == 0 || height == 0) throw file_error(path, "image has no pixels");
    if (width * height > max_pixels) {
        throw file_error(path, std::to_string(width) + "x" + std::to_string(height) +
                                   " pixels is more than one frame can hold (2^31 - 1)");
    }
}

tool_error no_memory(const std::string& path, uint64_t width, uint64_t height, int channels) {
    const uint64_t bytes = width * height * channels * 2;
    return file_error(path, "not enough memory for the samples of its " + std::to_string(width) +
                                "x" + std::to_string(height) + " pixels (" +
                                std::to_string((bytes + 999999) / 1000000) + " MB)");
}

void pack_samples(const uint16_t* from, size_t count, int bits, unsigned char* to) {
    if (bits == 16) {
        std::memcpy(to, from, count * 2);
    } else {
        for (size_t i = 0; i < count; ++i) to[i] = static_cast<unsigned char>(from[i]);
    }
}

void append_row(image* out, const uint16_t* row, uint32_t width, int depth) {
    if (depth == out->channels) {
        out->samples.insert(out->samples.end(), row, row + size_t(width) * depth);
        return;
    }
    for (uint32_t x = 0; x < width; ++x) {
        const uint16_t* px = row + size_t(x) * depth;
        out->samples.insert(out->samples.end(), 3, px[0]);
        if (depth == 2) out->samples.push_back(px[1]);
    }
}

image empty_image(uint32_t width, uint32_t height, int depth) {
    image out;
    out.width = int32_t(width);
    out.height = int32_t(height);
    out.bits = 16;
    out.channels = depth == 2 || depth == 4 ? 4 : 3;
    return out;
}

}  // namespace kv_tool
