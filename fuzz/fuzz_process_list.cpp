// CLF and CTF texts for the colour layer's process-list reader. What it accepts must give tables
// within their tops and a matrix without NaN.
#include <cmath>
#include <string>

#include "color/color_error.h"
#include "color/process_list.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    kv_fuzz::expect_only<kv_color::color_error>([&] {
        const kv_color::processor_setup s = kv_color::setup_from_process_list(text, "fuzz.clf", 8);
        for (int c = 0; c < 3; ++c) {
            for (uint32_t v : s.input[size_t(c)]) {
                if (v > 65535) kv_fuzz::finding("an input table entry above 65535");
            }
            if (s.output[size_t(c)].empty()) kv_fuzz::finding("an 8-bit output without its table");
            for (uint32_t v : s.output[size_t(c)]) {
                if (v > 255) kv_fuzz::finding("an output table entry above 255");
            }
        }
        for (float m : s.matrix) {
            if (std::isnan(m)) kv_fuzz::finding("a NaN in the matrix");
        }
    });
    return 0;
}
