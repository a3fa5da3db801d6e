// Measuring a conversion against a double-precision evaluation of the same conversion (LittleCMS
// with TYPE_RGB_DBL and no optimisation), beside LittleCMS's own 16-bit transform. Shared by the
// colour tests and the accuracy benchmark.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kelvane_qor_color.hpp"

namespace kv_measure {

// RGB triples (interleaved r, g, b) of uniformly random 16-bit values, from `seed`.
std::vector<uint16_t> random_pixels(size_t pixels, uint64_t seed);

// One side of a conversion for LittleCMS: a profile's bytes, or a named space, which is built in
// memory from its published primaries, white and curve (restated here, apart from the layer, so
// that nothing is quantised to the 16.16 fixed point of a stored profile).
struct endpoint {
    std::vector<uint8_t> icc;
    std::string name;
};
endpoint named(const std::string& name);
endpoint profile(std::vector<uint8_t> icc);

// The double-precision result, each element clipped to [0, 1], for 16-bit RGB input.
std::vector<double> reference(const endpoint& source, const endpoint& destination,
                              const std::vector<uint16_t>& rgb);

// LittleCMS's cmsDoTransform with TYPE_RGB_16 in and TYPE_RGB_16 or TYPE_RGB_8 out, default
// flags; the result widened to uint16_t.
std::vector<uint16_t> lcms_transform(const endpoint& source, const endpoint& destination,
                                     const std::vector<uint16_t>& rgb, int output_bits);

// The conversion run through a new processor on interleaved RGB, 8-bit results widened.
std::vector<uint16_t> run_conversion(const kelvane::color_conversion& conversion,
                                     const kelvane::session& library,
                                     const std::vector<uint16_t>& rgb);

// Code-value errors of `result` against round(reference x (2^bits - 1)).
struct error_stats {
    size_t samples = 0;
    double exact = 0;       // share equal to the correctly rounded value
    double within_one = 0;  // share at most one code value off
    int p999 = 0;           // 99.9th percentile of the absolute error
    int max = 0;
};
error_stats compare(const std::vector<uint16_t>& result, const std::vector<double>& reference,
                    int bits);

std::string format(const error_stats& s);

}  // namespace kv_measure
