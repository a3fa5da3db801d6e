// Striped transforms with the real vector modules: at every tier, for all four output forms and
// every pair of layouts, a frame cut into 1 to 5 stripes (more than its pixels included) stores
// byte for byte what one call stores, and nothing outside the frame.
#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "kelvane_qor_color_processing.hpp"

namespace {

using kelvane::layout;

constexpr size_t guard_bytes = 64;
const layout layouts[] = {layout::bgr_planes, layout::bgr_interleaved, layout::rgb_interleaved};
const int32_t pixel_counts[] = {1, 2, 3, 5, 17, 1001, 40009};
// Clamps on every channel, a right shift on blue and a left shift on red.
const kelvane::frame_settings settings{{10, 4000, -3}, {0, 4095, 0}, {100, 3000, 4}};

// A processor with every LUT on and filled at random, and a random matrix.
kelvane::processor make_processor(const kelvane::session& library, kv_processor_tier tier,
                                  std::mt19937& random) {
    kelvane::processor p(library, 16, 12, tier);
    std::uniform_real_distribution<float> coefficient(-0.4f, 1.4f);
    float matrix[9];
    for (float& m : matrix) m = coefficient(random);
    p.append_matrix(matrix);
    for (kelvane::channel c :
         {kelvane::channel::blue, kelvane::channel::green, kelvane::channel::red}) {
        for (uint32_t& entry : p.input_LUT(c)) entry = random();
        for (uint32_t& entry : p.output_LUT(c)) entry = random();
    }
    p.enable_input_LUTs(true, true, true);
    p.enable_output_LUTs(true, true, true);
    return p;
}

template <typename Element>
void compare_one_frame(const kelvane::processor& p, const std::vector<uint16_t>& source, layout in,
                       layout out, int channels, int32_t pixels) {
    const kelvane::input_frame input(source.data(), 3 * size_t(pixels), in, pixels);
    const size_t bytes = kelvane::output_frame<Element>::required_bytes(pixels, channels);
    // Guard bytes on both sides of each output show a store outside the frame.
    const std::vector<Element> fresh((bytes + 2 * guard_bytes) / sizeof(Element),
                                     static_cast<Element>(0xA5A5));
    const auto view = [&](std::vector<Element>& storage) {
        return kelvane::output_frame<Element>(storage.data() + guard_bytes / sizeof(Element),
                                              bytes / sizeof(Element), out, channels, pixels);
    };
    std::vector<Element> whole = fresh;
    p.transform(input, view(whole), settings);
    ASSERT_TRUE(whole != fresh) << "one call stored nothing";
    for (unsigned threads = 1; threads <= 5; ++threads) {
        std::vector<Element> striped = fresh;
        p.transform_striped(input, view(striped), settings, threads);
        ASSERT_TRUE(striped == whole) << threads << " threads";
    }
}

class Striped : public ::testing::TestWithParam<kv_processor_tier> {};

TEST_P(Striped, StoresWhatOneCallStores) {
    const unsigned seed = 20261123u + unsigned(GetParam());
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    kelvane::session library;
    // A tier the processor lacks falls back to the next one that runs; the comparison holds alike.
    const kelvane::processor p = make_processor(library, GetParam(), random);
    std::vector<uint16_t> source(3 * size_t(pixel_counts[std::size(pixel_counts) - 1]));
    for (uint16_t& v : source) v = uint16_t(random());
    for (layout in : layouts) {
        for (layout out : layouts) {
            for (int32_t pixels : pixel_counts) {
                SCOPED_TRACE("layouts " + std::to_string(int(in)) + " to " +
                             std::to_string(int(out)) + ", " + std::to_string(pixels) + " pixels");
                for (int channels : {3, 4}) {
                    compare_one_frame<uint8_t>(p, source, in, out, channels, pixels);
                    compare_one_frame<uint16_t>(p, source, in, out, channels, pixels);
                }
            }
        }
    }
}

std::string tier_name(const ::testing::TestParamInfo<kv_processor_tier>& info) {
    const char* names[] = {"scalar", "sse", "avx2", "avx512"};
    return names[info.param];
}

INSTANTIATE_TEST_SUITE_P(EveryTier, Striped,
                         ::testing::Values(KV_TIER_SCALAR, KV_TIER_SSE, KV_TIER_AVX2,
                                           KV_TIER_AVX512),
                         tier_name);

}  // namespace
