// The synthetic test chart.
#include "image/chart.h"

#include <array>

namespace kv_tool {
namespace {

using rgb = std::array<uint16_t, 3>;

rgb hue_at(uint64_t x, uint64_t width) {
    // Six segments around the hue circle, each a linear ramp of one channel.
    const uint64_t span = 6 * 65535;
    const uint64_t position = width > 1 ? x * span / (width - 1) : 0;
    const uint32_t segment = uint32_t(position / 65535 % 6);
    const auto up = uint16_t(position % 65535), down = uint16_t(65535 - up);
    switch (segment) {
        case 0:
            return {65535, up, 0};
        case 1:
            return {down, 65535, 0};
        case 2:
            return {0, 65535, up};
        case 3:
            return {0, down, 65535};
        case 4:
            return {up, 0, 65535};
        default:
            return {65535, 0, down};
    }
}

}  // namespace

image make_chart(int32_t width, int32_t height) {
    static const rgb bars[8] = {{65535, 65535, 65535}, {65535, 65535, 0}, {0, 65535, 65535},
                                {0, 65535, 0},         {65535, 0, 65535}, {65535, 0, 0},
                                {0, 0, 65535},         {0, 0, 0}};
    image chart;
    chart.width = width;
    chart.height = height;
    chart.channels = 3;
    chart.bits = 16;
    chart.samples.resize(chart.pixel_count() * 3);
    const uint64_t w = uint64_t(width);
    for (uint64_t y = 0; y < uint64_t(height); ++y) {
        const uint64_t band = y * 4 / uint64_t(height);
        for (uint64_t x = 0; x < w; ++x) {
            rgb px;
            if (band == 0) {
                const auto v = uint16_t(w > 1 ? x * 65535 / (w - 1) : 0);
                px = {v, v, v};
            } else if (band == 1) {
                px = bars[x * 8 / w];
            } else if (band == 2) {
                px = hue_at(x, w);
            } else {
                // Steps grow quadratically so that the dark end is finely divided.
                const uint64_t step = x * 16 / w;
                const auto v = uint16_t(step * step * 65535 / 225);
                px = {v, v, v};
            }
            uint16_t* out = &chart.samples[(y * w + x) * 3];
            out[0] = px[0];
            out[1] = px[1];
            out[2] = px[2];
        }
    }
    return chart;
}

}  // namespace kv_tool
