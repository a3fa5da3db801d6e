// ICC profile bytes for the colour layer's reader. What it accepts must set up conversions to and
// from sRGB whose tables stay within their tops and whose matrix has no NaN.
#include <cmath>

#include "color/color_error.h"
#include "color/icc_profile.h"
#include "color/processor_setup.h"
#include "fuzz/fuzz_support.h"

namespace {

void check_setup(const kv_color::processor_setup& s) {
    const uint32_t top = s.output_bits == 8 ? 255 : 65535;
    for (int c = 0; c < 3; ++c) {
        for (uint32_t v : s.input[size_t(c)]) {
            if (v > 65535) kv_fuzz::finding("an input table entry above 65535");
        }
        for (uint32_t v : s.output[size_t(c)]) {
            if (v > top) kv_fuzz::finding("an output table entry above " + std::to_string(top));
        }
    }
    for (float m : s.matrix) {
        if (std::isnan(m)) kv_fuzz::finding("a NaN in the matrix");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kv_fuzz::expect_only<kv_color::color_error>([&] {
        const kv_color::rgb_space profile = kv_color::read_icc_profile(data, size, "fuzz.icc");
        const kv_color::rgb_space srgb = kv_color::named_space("srgb");
        check_setup(kv_color::setup_between(profile, srgb, 8));
        check_setup(kv_color::setup_between(srgb, profile, 16));
    });
    return 0;
}
