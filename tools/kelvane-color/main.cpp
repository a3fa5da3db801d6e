// kelvane-color (early form): runs a synthetic 16-bit test chart through the scalar kernels and
// reports what it did. Later it becomes a real host of the library's exports.
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kernels/dispatch.h"
#include "kernels/transform_request.h"

namespace {

void usage() {
    std::puts(
        "usage: kelvane-color [--width W] [--height H] [--out FILE.ppm]\n"
        "Runs a built-in 16-bit test chart through the scalar pixel kernels (48 to 24 bits,\n"
        "a mild saturation matrix, right shift by 8) and prints the settings, a checksum and\n"
        "the throughput. --out writes the 8-bit result as a binary PPM.");
}

bool parse_size(const char* text, int* value) {
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < 1 || v > 16384) return false;
    *value = static_cast<int>(v);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int width = 1920, height = 1080;
    const char* out_path = nullptr;
    for (int a = 1; a < argc; ++a) {
        const std::string arg = argv[a];
        if (arg == "--help" || arg == "-h") {
            usage();
            return 0;
        }
        if ((arg == "--width" || arg == "--height" || arg == "--out") && a + 1 >= argc) {
            std::fprintf(stderr, "kelvane-color: option %s needs a value\n", arg.c_str());
            return 2;
        }
        if (arg == "--width" || arg == "--height") {
            int* target = arg == "--width" ? &width : &height;
            if (!parse_size(argv[++a], target)) {
                std::fprintf(stderr, "kelvane-color: %s must be 1 to 16384, got '%s'\n",
                             arg.c_str(), argv[a]);
                return 2;
            }
        } else if (arg == "--out") {
            out_path = argv[++a];
        } else {
            std::fprintf(stderr, "kelvane-color: unknown option '%s' (try --help)\n", arg.c_str());
            return 2;
        }
    }

    const int32_t n = width * height;
    std::vector<uint16_t> input(3 * static_cast<size_t>(n));
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const size_t i = static_cast<size_t>(y) * width + x;
            input[3 * i + 0] = static_cast<uint16_t>(65535u * x / width);   // blue ramp
            input[3 * i + 1] = static_cast<uint16_t>(65535u * y / height);  // green ramp
            input[3 * i + 2] = static_cast<uint16_t>(((x / 64 + y / 64) % 2) * 40000u + 8000u);
        }
    }
    std::vector<uint8_t> output(3 * static_cast<size_t>(n));

    kv::color_correction_head matrix = {
        {1.2f, -0.1f, -0.1f, -0.1f, 1.2f, -0.1f, -0.1f, -0.1f, 1.2f}};
    kv::transform_request r{};
    r.input_buffer = input.data();
    r.input_format = kv::FORMAT_BGR_INTERLEAVED;
    r.processor = reinterpret_cast<const kv::color_correction*>(&matrix);
    r.blue_output_max = r.green_output_max = r.red_output_max = 65535;
    r.blue_shift_distance = r.green_shift_distance = r.red_shift_distance = -8;
    r.output_buffer = output.data();
    r.output_format = kv::FORMAT_RGB_INTERLEAVED;
    r.pixel_count = n;

    const auto start = std::chrono::steady_clock::now();
    kv::dispatch_kernel_8(&r, 0);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    uint64_t checksum = 1469598103934665603ull;  // FNV-1a over the output bytes
    for (uint8_t b : output) checksum = (checksum ^ b) * 1099511628211ull;

    std::printf("kelvane-color: %dx%d chart, 48 to 24 bits, BGR interleaved to RGB interleaved\n",
                width, height);
    std::printf("  path: scalar kernels; matrix saturation 1.2; shift -8 on every channel\n");
    std::printf("  checksum %016llx, %.1f Mpix/s\n", static_cast<unsigned long long>(checksum),
                n / seconds / 1e6);
    if (out_path != nullptr) {
        FILE* f = std::fopen(out_path, "wb");
        if (f == nullptr) {
            std::fprintf(stderr, "kelvane-color: cannot write '%s': %s\n", out_path,
                         std::strerror(errno));
            return 1;
        }
        std::fprintf(f, "P6\n%d %d\n255\n", width, height);
        const bool ok = std::fwrite(output.data(), 1, output.size(), f) == output.size();
        if (std::fclose(f) != 0 || !ok) {
            std::fprintf(stderr, "kelvane-color: writing '%s' failed\n", out_path);
            return 1;
        }
        std::printf("  wrote %s\n", out_path);
    }
    return 0;
}
