// A complete C++ host of the library: white balance and a 12-bit to 8-bit tone curve applied to a
// 1920x1080 frame of 48-bit BGR pixels on every core, stored as 24-bit RGB. Exits 0 on success.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <thread>
#include <vector>

#include "kelvane_qor_color_processing.hpp"

int main() {
    try {
        // 1. Start the library. The session ends (terminate) when it and every processor made
        //    from it are gone; a missing LUT module throws kelvane::status_error here.
        kelvane::session library;

        // 2. A processor with input LUTs of 2^16 entries and output LUTs of 2^12, tier detected.
        kelvane::processor p(library, 16, 12);

        // 3. Configure it: a white-balance matrix (rows and columns red, green, blue) ...
        const float white_balance[9] = {1.08f, 0, 0, 0, 1.0f, 0, 0, 0, 0.93f};
        p.append_matrix(white_balance);

        // ... and output LUTs from 12 bits to 8 through a gamma of 1/2.2, one span per channel.
        for (kelvane::channel c :
             {kelvane::channel::blue, kelvane::channel::green, kelvane::channel::red}) {
            kelvane::LUT_span table = p.output_LUT(c);
            for (size_t i = 0; i < table.size(); ++i) {
                table[i] = uint32_t(std::lround(255.0 * std::pow(i / 4095.0, 1 / 2.2)));
            }
        }
        p.enable_output_LUTs(true, true, true);

        // 4. Frames: the views carry layout, channels, element width and pixel count, and refuse
        //    a buffer too small for them (kelvane::buffer_size_error) before the library runs.
        const int32_t width = 1920, height = 1080, pixels = width * height;
        std::vector<uint16_t> input(3 * size_t(pixels));  // b g r per pixel, 16 bits each
        for (int32_t i = 0; i < pixels; ++i) {
            input[3 * size_t(i) + 0] = uint16_t(i % width * 65535 / (width - 1));
            input[3 * size_t(i) + 1] = uint16_t(i / width * 65535 / (height - 1));
            input[3 * size_t(i) + 2] = 40000;
        }
        std::vector<uint8_t> output(
            kelvane::output_frame<uint8_t>::required_bytes(pixels, 3));  // 3 bytes a pixel
        const kelvane::input_frame in(input, kelvane::layout::bgr_interleaved, pixels);
        const kelvane::output_frame<uint8_t> out(output, kelvane::layout::rgb_interleaved, 3,
                                                 pixels);

        // 5. Clamp the matrix result to the 12-bit LUT range, no shift; then transform, the frame
        //    cut into one stripe per core, all on this one processor.
        kelvane::frame_settings settings;
        settings.blue = settings.green = settings.red = {0, 4095, 0};
        const unsigned threads = std::max(1u, std::thread::hardware_concurrency());
        p.transform_striped(in, out, settings, threads);
        std::printf("%dx%d on %u threads: first pixel r %d g %d b %d\n", width, height, threads,
                    output[0], output[1], output[2]);
        // Red 40000 x 1.08 clamps at 4095, whose LUT entry is 255; blue and green are 0.
        if (output[0] != 255 || output[1] != 0 || output[2] != 0) return 1;

        // 6. A refusal is a typed error that names the status; the buffers stay untouched.
        settings.red.maximum = 4096;  // past the last output LUT entry
        try {
            p.transform(in, out, settings);
        } catch (const kelvane::status_error& e) {
            std::printf("refused as expected: %s\n", e.what());  // KV_STATUS_INVALID_CLAMP (12)
            return e.status() == KV_STATUS_INVALID_CLAMP ? 0 : 1;
        }
        return 1;
    } catch (const kelvane::error& e) {
        std::fprintf(stderr, "cpp_quickstart: %s\n", e.what());
        return 1;
    }
}
