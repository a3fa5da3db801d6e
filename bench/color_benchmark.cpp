// Speed of a colour conversion on one thread: setting it up (tables from curves), the processor's
// transform and LittleCMS's cmsDoTransform (TYPE_RGB_16 to TYPE_RGB_16, default flags) on the
// same frame, in alternating rounds. Times are the best of the rounds in processor time of this
// single-threaded program (std::clock), which other work on the machine disturbs less than the
// wall clock.
//
//   kv_color_benchmark [--from srgb] [--to display-p3] [--size 3840x2160] [--repeat 10]
//
// Four frames: a chart of smooth ramps (red across, green down, blue along the diagonal, each
// sweeping the whole range of codes), an image-like frame (gentler gradients with a little sensor
// noise, as photographs and renders are locally smooth), seeded random values, the worst case for
// the table lookups (nearly every lookup misses the first-level cache), and seeded random values
// within 256 codes, whose lookups all hit it: the bound of the lookup instructions alone.
#include <lcms2.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/color_measure.h"
#include "bench/image_like_frame.h"
#include "kelvane_qor_color.hpp"

namespace {

template <class Body>
double best_seconds(int repeat, Body&& body) {
    double best = 1e30;
    for (int r = 0; r < repeat; ++r) {
        const std::clock_t start = std::clock();
        body();
        best = std::min(best, double(std::clock() - start) / CLOCKS_PER_SEC);
    }
    return best;
}

struct profile_closer {
    void operator()(void* h) const { cmsCloseProfile(h); }
};

// LittleCMS's transform between the two spaces' profiles, as the benchmark measures it.
class lcms_transform {
  public:
    lcms_transform(const kelvane::color_space& from, const kelvane::color_space& to) {
        const std::vector<uint8_t> a = from.icc(), b = to.icc();
        std::unique_ptr<void, profile_closer> s(
            cmsOpenProfileFromMem(a.data(), cmsUInt32Number(a.size())));
        std::unique_ptr<void, profile_closer> d(
            cmsOpenProfileFromMem(b.data(), cmsUInt32Number(b.size())));
        t_ = cmsCreateTransform(s.get(), TYPE_RGB_16, d.get(), TYPE_RGB_16, INTENT_PERCEPTUAL, 0);
        if (t_ == nullptr) throw std::runtime_error("LittleCMS made no transform");
    }
    ~lcms_transform() { cmsDeleteTransform(t_); }
    lcms_transform(const lcms_transform&) = delete;
    lcms_transform& operator=(const lcms_transform&) = delete;

    void run(const std::vector<uint16_t>& in, std::vector<uint16_t>& out) const {
        cmsDoTransform(t_, in.data(), out.data(), cmsUInt32Number(in.size() / 3));
    }

  private:
    cmsHTRANSFORM t_ = nullptr;
};

std::vector<uint16_t> chart(int width, int height) {
    std::vector<uint16_t> rgb(size_t(3) * size_t(width) * size_t(height));
    size_t i = 0;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            rgb[i++] = uint16_t(int64_t(x) * 65535 / (width - 1));
            rgb[i++] = uint16_t(int64_t(y) * 65535 / (height - 1));
            rgb[i++] = uint16_t((int64_t(x) + y) * 65535 / (width + height - 2));
        }
    }
    return rgb;
}

// Seeded random values from 30,000 to 30,255: every table entry they reach stays in the cache.
std::vector<uint16_t> cached_random(size_t pixels) {
    std::vector<uint16_t> rgb = kv_measure::random_pixels(pixels, 1);
    for (uint16_t& v : rgb) v = uint16_t(30000 + (v & 255));
    return rgb;
}

// The processor's transform of `in` (RGB interleaved) into `out` (16-bit), as a call to time.
auto transform_of(const kelvane::color_conversion& c, const kelvane::processor& p,
                  const std::vector<uint16_t>& in, std::vector<uint16_t>& out) {
    const int32_t pixels = int32_t(in.size() / 3);
    return [&c, &p, frame_in = kelvane::input_frame(in, kelvane::layout::rgb_interleaved, pixels),
            frame_out =
                kelvane::output_frame<uint16_t>(out, kelvane::layout::rgb_interleaved, 3, pixels)] {
        p.transform(frame_in, frame_out, c.settings());
    };
}

// The best time of the processor's transform of `in`.
double transform_seconds(const kelvane::color_conversion& c, const kelvane::processor& p,
                         const std::vector<uint16_t>& in, int repeat) {
    std::vector<uint16_t> out(in.size());
    return best_seconds(repeat, transform_of(c, p, in, out));
}

// Both transforms of the same frame in alternating rounds, so that both meet the same load of the
// machine; the best time of each, and the ratio of the two bests.
void compare(const char* content, const kelvane::color_conversion& c, const kelvane::processor& p,
             const lcms_transform& lcms, const std::vector<uint16_t>& in, int repeat) {
    const int32_t pixels = int32_t(in.size() / 3);
    std::vector<uint16_t> ours_out(in.size()), theirs_out(in.size());
    const auto ours_call = transform_of(c, p, in, ours_out);
    double ours = 1e30, theirs = 1e30;
    for (int round = 0; round < repeat; ++round) {
        ours = std::min(ours, best_seconds(1, ours_call));
        theirs = std::min(theirs, best_seconds(1, [&] { lcms.run(in, theirs_out); }));
    }
    const double mpix = pixels / 1e6;
    std::printf(
        "%-6s kelvane processor %7.1f Mpix/s (%6.1f ms a frame), LittleCMS %5.1f Mpix/s "
        "(%6.1f ms), ratio %.1fx\n",
        content, mpix / ours, ours * 1e3, mpix / theirs, theirs * 1e3, theirs / ours);
}

// The chart on each tier, forced (a tier the processor lacks runs the scalar kernels).
void tiers(const kelvane::color_conversion& c, const kelvane::session& library,
           const std::vector<uint16_t>& in, int repeat) {
    const double pixels = double(in.size() / 3);
    const char* names[] = {"scalar", "SSE4.1", "AVX2", "AVX-512"};
    for (kv_processor_tier tier = KV_TIER_SCALAR; tier <= KV_TIER_AVX512; ++tier) {
        const kelvane::processor p = c.make_processor(library, tier);
        const double t = transform_seconds(c, p, in, repeat);
        std::printf("chart, %-7s %7.1f Mpix/s\n", names[tier], pixels / 1e6 / t);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string from = "srgb", to = "display-p3";
    int width = 3840, height = 2160, repeat = 10;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (!std::strcmp(argv[i], "--from"))
            from = argv[i + 1];
        else if (!std::strcmp(argv[i], "--to"))
            to = argv[i + 1];
        else if (!std::strcmp(argv[i], "--repeat"))
            repeat = std::max(1, std::atoi(argv[i + 1]));
        else if (std::sscanf(argv[i + 1], "%dx%d", &width, &height) != 2 ||
                 std::strcmp(argv[i], "--size")) {
            std::fprintf(stderr, "usage: %s [--from NAME] [--to NAME] [--size WxH] [--repeat N]\n",
                         argv[0]);
            return 2;
        }
    }
    try {
        kelvane::session library;
        const auto space = [](const std::string& n) {
            return n.find(".icc") != std::string::npos ? kelvane::color_space::from_icc_file(n)
                                                       : kelvane::color_space::named(n);
        };
        const kelvane::color_space source = space(from), destination = space(to);
        const double setup =
            best_seconds(repeat, [&] { kelvane::color_conversion(source, destination, 16); });
        const kelvane::color_conversion c(source, destination, 16);
        const kelvane::processor p = c.make_processor(library);
        std::printf("%s to %s, 16 to 16 bits, %dx%d, one thread, best of %d (processor time)\n",
                    from.c_str(), to.c_str(), width, height, repeat);
        std::printf("set-up (tables from curves): %.2f ms\n", setup * 1e3);
        const lcms_transform lcms(source, destination);
        compare("chart", c, p, lcms, chart(width, height), repeat);
        std::vector<uint16_t> image(size_t(3) * size_t(width) * size_t(height));
        kv_bench::image_like_frame(image.data(), width, height, false);
        compare("image", c, p, lcms, image, repeat);
        compare("random", c, p, lcms, kv_measure::random_pixels(size_t(width) * size_t(height), 1),
                repeat);
        compare("cached", c, p, lcms, cached_random(size_t(width) * size_t(height)), repeat);
        tiers(c, library, chart(width, height), repeat);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kv_color_benchmark: %s\n", e.what());
        return 1;
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
