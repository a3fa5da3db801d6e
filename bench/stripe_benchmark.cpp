// How small a stripe may be before a second thread stops paying for itself: one frame of N pixels
// transformed whole on one thread, and cut into two stripes on two threads (the minimum stripe
// overridden to 1), for N from 4,096 to 1,048,576, matrix only (the fastest path, where a
// thread's start weighs most) and all six LUTs. Prints the best of many runs of each.
//   kv_stripe_benchmark [repeats]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

#include "bench/bench_timing.h"
#include "kelvane_qor_color_processing.hpp"

namespace {

double best_seconds(int repeats, const std::function<void()>& run) {
    return kv::bench::measure(run, 0, repeats).best_seconds;
}

void measure(const kelvane::processor& p, const char* name, int repeats) {
    std::printf("%s\n%10s %12s %12s %8s\n", name, "pixels", "1 thread us", "2 stripes us", "ratio");
    for (int32_t pixels = 4096; pixels <= (1 << 20); pixels *= 2) {
        std::vector<uint16_t> in(3 * size_t(pixels), 1234), out(3 * size_t(pixels));
        const kelvane::input_frame input(in.data(), in.size(), kelvane::layout::rgb_interleaved,
                                         pixels);
        const kelvane::output_frame<uint16_t> output(out.data(), out.size(),
                                                     kelvane::layout::rgb_interleaved, 3, pixels);
        const double one = best_seconds(repeats, [&] { p.transform(input, output); });
        const double two =
            best_seconds(repeats, [&] { p.transform_striped(input, output, {}, 2, 1); });
        std::printf("%10d %12.1f %12.1f %8.2f\n", pixels, one * 1e6, two * 1e6, one / two);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int repeats = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
    kelvane::session library;
    kelvane::processor matrix_only(library, 16, 16);
    measure(matrix_only, "matrix only", repeats);
    kelvane::processor tables(library, 16, 16);
    for (kelvane::channel c :
         {kelvane::channel::blue, kelvane::channel::green, kelvane::channel::red}) {
        for (uint32_t i = 0; i < 65536; ++i) tables.input_LUT(c)[i] = tables.output_LUT(c)[i] = i;
    }
    tables.enable_input_LUTs(true, true, true);
    tables.enable_output_LUTs(true, true, true);
    measure(tables, "all six LUTs", repeats);
    return 0;
}
