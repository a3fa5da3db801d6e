// Image-like content for the benchmarks: smooth gradients over the frame with a little sensor
// noise, as photographs and renders are, three 16-bit elements a pixel, interleaved or in planes.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

namespace kv_bench {

// Element slot 0 holds a diagonal wave, slot 1 a ramp down the frame and slot 2 a ramp across it
// (blue, green and red in the library's BGR layouts), each with the same jitter of -8 to 7 codes.
inline void image_like_frame(uint16_t* out, int width, int height, bool planes) {
    const size_t n = size_t(width) * size_t(height);
    uint32_t noise = 12345;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const size_t i = size_t(y) * size_t(width) + size_t(x);
            noise = noise * 1664525u + 1013904223u;
            const int jitter = int(noise >> 28) - 8;
            const int across = 4000 + 50000 * x / width + jitter;
            const int down = 8000 + 40000 * y / height + jitter;
            const int wave = 30000 + int(20000 * std::sin(0.002 * (x + y))) + jitter;
            const uint16_t slot[3] = {uint16_t(wave), uint16_t(down), uint16_t(across)};
            for (size_t c = 0; c < 3; ++c) out[planes ? c * n + i : 3 * i + c] = slot[c];
        }
    }
}

}  // namespace kv_bench
