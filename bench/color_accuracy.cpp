// Accuracy of the colour layer against a double-precision evaluation of the same conversion
// (LittleCMS, TYPE_RGB_DBL, no optimisation), beside LittleCMS's default 16-bit transform, on
// seeded random 16-bit pixels and on any raw frames given (interleaved little-endian RGB48, as
// ffmpeg writes with -pix_fmt rgb48le -f rawvideo). Prints a Markdown table.
//
//   kv_color_accuracy [--pixels N] [--seed S] [--profiles DIR] [FRAME.rgb48 ...]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench/color_measure.h"
#include "kelvane_qor_color.hpp"

namespace {

struct pair_spec {
    const char *source, *destination, *what;
};

// Named spaces, then profiles: v2 sampled, L* and log curves, v2 gamma, v4 parametric and sampled.
const pair_spec pairs[] = {
    {"srgb", "display-p3", "sRGB curve both sides"},
    {"display-p3", "srgb", "sRGB curve both sides"},
    {"srgb", "rec2020", "gamma 2.4 output"},
    {"adobe-rgb", "srgb", "gamma 563/256 input"},
    {"prophoto", "srgb", "ROMM curve input, D50 to D65"},
    {"dci-p3", "display-p3", "gamma 2.6 input, DCI white"},
    {"sRGB.icc", "colord/AdobeRGB1998.icc", "v2 sampled to v4 gamma"},
    {"colord/sRGB.icc", "colord/ProPhotoRGB.icc", "v4 parametric to v4 gamma 1.8"},
    {"LStar-RGB.icc", "colord/sRGB.icc", "v2 L* (sampled) to v4 parametric"},
    {"colord/sRGB.icc", "LStar-RGB.icc", "v4 parametric to v2 L*"},
    {"CineonLog_M.icc", "colord/sRGB.icc", "v2 log (sampled) to v4 parametric"},
    {"colord/Rec709.icc", "colord/sRGB.icc", "v4 sampled to v4 parametric"},
    {"compatibleWithAdobeRGB1998.icc", "colord/ECI-RGBv2.icc", "v2 gamma to v4 L* parametric"},
};

bool is_profile(const std::string& name) {
    return name.find(".icc") != std::string::npos;
}

kelvane::color_space space_of(const std::string& name, const std::string& folder) {
    return is_profile(name) ? kelvane::color_space::from_icc_file(folder + name)
                            : kelvane::color_space::named(name);
}

std::vector<uint16_t> read_frame(const char* path) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
    std::vector<uint16_t> rgb(bytes.size() / 6 * 3);
    for (size_t i = 0; i < rgb.size(); ++i) {
        rgb[i] = uint16_t(uint8_t(bytes[2 * i]) | uint8_t(bytes[2 * i + 1]) << 8);
    }
    return rgb;
}

void measure(const pair_spec& p, const std::string& folder, const char* data_name,
             const std::vector<uint16_t>& pixels, const kelvane::session& library) {
    const kelvane::color_space src = space_of(p.source, folder),
                               dst = space_of(p.destination, folder);
    auto endpoint_of = [&](const std::string& name, const kelvane::color_space& s) {
        return is_profile(name) ? kv_measure::profile(s.icc()) : kv_measure::named(name);
    };
    const kv_measure::endpoint a = endpoint_of(p.source, src), b = endpoint_of(p.destination, dst);
    const std::vector<double> exact = kv_measure::reference(a, b, pixels);
    for (int bits : {8, 16}) {
        const kelvane::color_conversion c(src, dst, bits);
        const auto ours =
            kv_measure::compare(kv_measure::run_conversion(c, library, pixels), exact, bits);
        const auto lcms =
            kv_measure::compare(kv_measure::lcms_transform(a, b, pixels, bits), exact, bits);
        std::printf("| %s -> %s (%s) | %s | %d | %.2f | %.2f | %d | %d | %.2f | %.2f | %d | %d |\n",
                    p.source, p.destination, p.what, data_name, bits, 100 * ours.exact,
                    100 * ours.within_one, ours.p999, ours.max, 100 * lcms.exact,
                    100 * lcms.within_one, lcms.p999, lcms.max);
    }
}

}  // namespace

int main(int argc, char** argv) {
    size_t pixels = 1 << 20;
    uint64_t seed = 1;
    std::string folder = "/usr/share/color/icc/";
    std::vector<const char*> frames;
    for (int i = 1; i < argc; ++i) {
        const bool has_value = i + 1 < argc;
        if (!std::strcmp(argv[i], "--pixels") && has_value) {
            pixels = std::strtoull(argv[++i], nullptr, 10);
        } else if (!std::strcmp(argv[i], "--seed") && has_value) {
            seed = std::strtoull(argv[++i], nullptr, 10);
        } else if (!std::strcmp(argv[i], "--profiles") && has_value) {
            folder = std::string(argv[++i]) + "/";
        } else if (argv[i][0] == '-') {
            std::fprintf(stderr,
                         "usage: %s [--pixels N] [--seed S] [--profiles DIR] [FRAME.rgb48 ...]\n",
                         argv[0]);
            return 2;
        } else {
            frames.push_back(argv[i]);
        }
    }
    try {
        kelvane::session library;
        std::printf("random data: %zu pixels, seed %llu\n\n", pixels, (unsigned long long)seed);
        std::printf(
            "| pair | data | bits | ours exact %% | ours within 1 %% | ours p99.9 | ours max | "
            "LittleCMS exact %% | LittleCMS within 1 %% | LittleCMS p99.9 | LittleCMS max |\n");
        std::printf("|---|---|---|---|---|---|---|---|---|---|---|\n");
        const std::vector<uint16_t> random = kv_measure::random_pixels(pixels, seed);
        for (const pair_spec& p : pairs) {
            measure(p, folder, "random", random, library);
            for (const char* frame : frames) measure(p, folder, frame, read_frame(frame), library);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kv_color_accuracy: %s\n", e.what());
        return 1;
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
