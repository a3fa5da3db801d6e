// Differential runs through every tier this processor has: each frame goes through the module
// with the scalar tail, through the scalar kernels alone and through the reference model, and all
// three must agree byte for byte. Seeded; KV_TEST_SEED picks another seed to explore more.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "kernels/pixel_pipeline.h"
#include "tests/vector/vector_test_support.h"

namespace kv {
namespace testing {
namespace {

uint32_t base_seed() {
    const char* text = std::getenv("KV_TEST_SEED");
    return text != nullptr ? static_cast<uint32_t>(std::strtoul(text, nullptr, 0)) : 1234567u;
}

std::string describe(const frame& f, uint32_t coordinates, uint32_t seed) {
    const frame_settings& s = f.settings();
    std::ostringstream text;
    text << "coordinates " << coordinates << ", seed " << seed << ", pixels " << f.pixel_count()
         << ", width " << s.width << ", formats " << s.input_format << " -> " << s.output_format
         << (s.fourth_channel ? " + fourth" : "") << ", matrix";
    for (float m : s.matrix) text << ' ' << m;
    for (int c = 0; c < 3; ++c) {
        text << " | channel " << c << ": in LUT " << (s.input_LUT[c] != nullptr) << ", out LUT "
             << (s.output_LUT[c] != nullptr) << ", bounds " << s.minimum[c] << ".." << s.maximum[c]
             << ", shift " << s.shift_distance[c];
    }
    return text.str();
}

// Runs one frame three ways; false (with a failure recorded) when they disagree. A frame of at
// least `whole_from` pixels must be taken whole: every setting runs vectorised.
bool check_frame(const vector_module& m, const frame& f, uint32_t coordinates, uint32_t seed,
                 int32_t whole_from) {
    int32_t count = -1;
    const std::vector<uint8_t> routed = f.run_routed(m, &count);
    const std::vector<uint8_t> reference = f.run_reference();
    const std::vector<uint8_t> scalar = f.run_scalar();
    bool good = !::testing::Test::HasFailure();
    if (scalar != reference) {
        ADD_FAILURE() << "scalar kernels and reference disagree: "
                      << describe(f, coordinates, seed);
        good = false;
    }
    if (routed != reference) {
        const std::vector<uint8_t> mine = f.bytes_of_pixels_from(routed, 0);
        const std::vector<uint8_t> theirs = f.bytes_of_pixels_from(reference, 0);
        size_t at = 0;
        while (at < mine.size() && mine[at] == theirs[at]) ++at;
        const size_t pixel_bytes = static_cast<size_t>(f.settings().fourth_channel ? 4 : 3) *
                                   static_cast<size_t>(f.settings().width / 8);
        const size_t pixel = at / pixel_bytes;
        std::ostringstream bytes;
        bytes << std::hex;
        for (size_t b = pixel * pixel_bytes; b < (pixel + 1) * pixel_bytes; ++b) {
            bytes << ' ' << int(mine[b]) << '/' << int(theirs[b]);
        }
        ADD_FAILURE() << m.suffix << " module (count " << count << ") differs first at pixel "
                      << pixel << " (bytes module/reference:" << bytes.str()
                      << "): " << describe(f, coordinates, seed);
        good = false;
    }
    if (f.pixel_count() >= whole_from && count != f.pixel_count()) {
        ADD_FAILURE() << m.suffix << " module declined (" << count << " of " << f.pixel_count()
                      << "): " << describe(f, coordinates, seed);
        good = false;
    }
    return good;
}

constexpr int largest_block = 64;  // 8-bit output on AVX-512

class EveryCoordinate : public tier_test {};

// All 62,208 settings of the scalar kernels, each with its own random frame of one to three
// blocks and a bit, so every lane position and the block overlap at the end are exercised.
TEST_P(EveryCoordinate, MatchesReferenceAndScalar) {
    const vector_module& m = module();
    const uint32_t seed = base_seed() + 7919u * static_cast<uint32_t>(GetParam());
    int failures = 0;
    for (uint32_t code = 0; code < kernel_count && failures < 10; ++code) {
        std::mt19937 rng(seed ^ (code * 2654435761u));
        const frame_settings s = random_settings(code, rng);
        const int block = m.block(s.width);
        const int32_t n = block + static_cast<int32_t>(rng() % (2 * block + 2));
        const frame f(s, random_input(n, rng), code);
        if (!check_frame(m, f, code, seed, largest_block)) ++failures;
    }
}

// Random settings with lengths up to several thousand pixels, misaligned starts included.
TEST_P(EveryCoordinate, RandomLengthsUpToSeveralThousand) {
    const vector_module& m = module();
    const uint32_t seed = base_seed() + 104729u * static_cast<uint32_t>(GetParam());
    std::mt19937 rng(seed);
    int failures = 0;
    for (int round = 0; round < 400 && failures < 10; ++round) {
        const uint32_t code = rng() % kernel_count;
        const frame_settings s = random_settings(code, rng);
        const int32_t n = static_cast<int32_t>(rng() % 6000);
        const size_t input_shift = rng() % 32, output_shift = (rng() % 32) * (s.width / 8);
        const frame f(s, random_input(n, rng), rng(), input_shift, output_shift);
        if (!check_frame(m, f, code, seed, largest_block)) ++failures;
    }
}

class ShortFrames : public tier_test {};

// Every length from 0 to three blocks plus one, for every pair of layouts at both widths, with
// all stages on: the module either declines or gets every pixel right, never more.
TEST_P(ShortFrames, EveryLengthUpToThreeBlocksPlusOne) {
    const vector_module& m = module();
    std::mt19937 rng(base_seed());
    for (int width : {8, 16}) {
        for (int32_t in_format : {0, 1, 2}) {
            for (int32_t out_format : {0, 1, 2}) {
                for (bool fourth : {false, true}) {
                    kernel_coordinates k{width,
                                         pixel_format(in_format),
                                         true,
                                         false,
                                         true,
                                         true,
                                         true,
                                         false,
                                         SHIFT_LEFT,
                                         SHIFT_NONE,
                                         SHIFT_RIGHT,
                                         fourth,
                                         pixel_format(out_format)};
                    const int block = m.block(width);
                    for (int32_t n = 0; n <= 3 * block + 1; ++n) {
                        const frame_settings s = random_settings(k.encode(), rng);
                        const frame f(s, random_input(n, rng), static_cast<uint32_t>(n));
                        ASSERT_TRUE(check_frame(m, f, k.encode(), base_seed(), block))
                            << "length " << n;
                    }
                }
            }
        }
    }
}

KV_INSTANTIATE_FOR_TIERS(EveryCoordinate);
KV_INSTANTIATE_FOR_TIERS(ShortFrames);

}  // namespace
}  // namespace testing
}  // namespace kv
