// Conversions run through real processors: accuracy of named pairs against LittleCMS in double
// precision (with profiles this test makes from the published definitions), exact cases, and the
// C ABI's contract (statuses, messages, depth checks).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "bench/color_measure.h"
#include "kelvane_qor_color.hpp"
#include "tests/color/accuracy_targets.h"

namespace {

constexpr uint64_t seed = 20261124;

// Pairs whose every curve has a linear toe or none (no infinite slope at black).
const std::pair<const char*, const char*> pairs[] = {
    {"srgb", "display-p3"}, {"display-p3", "srgb"},  {"prophoto", "srgb"},
    {"rec2020", "srgb"},    {"linear-srgb", "srgb"}, {"srgb", "linear-rec2020"},
};

class ColorConversion : public ::testing::Test {
  protected:
    kelvane::session library;
};

TEST_F(ColorConversion, NamedPairsMatchDoublePrecision) {
    std::printf("seed %llu\n", (unsigned long long)seed);
    const std::vector<uint16_t> pixels = kv_measure::random_pixels(1 << 16, seed);
    for (const auto& [from, to] : pairs) {
        const std::vector<double> exact =
            kv_measure::reference(kv_measure::named(from), kv_measure::named(to), pixels);
        for (int bits : {8, 16}) {
            const kelvane::color_conversion c(kelvane::color_space::named(from),
                                              kelvane::color_space::named(to), bits);
            const kv_measure::error_stats s =
                kv_measure::compare(kv_measure::run_conversion(c, library, pixels), exact, bits);
            SCOPED_TRACE(c.description() + ": " + kv_measure::format(s));
            expect_accuracy(s, bits);
        }
    }
}

TEST_F(ColorConversion, EightBitCodesSurviveSRGBToSRGB) {
    const kelvane::color_space s = kelvane::color_space::named("srgb");
    const kelvane::color_conversion c(s, s, 8);
    std::vector<uint16_t> codes;
    for (uint32_t v = 0; v < 256; ++v) codes.insert(codes.end(), {uint16_t(257 * v), 0, 65535});
    const std::vector<uint16_t> out = kv_measure::run_conversion(c, library, codes);
    for (uint32_t v = 0; v < 256; ++v) {
        ASSERT_EQ(out[3 * v], v);
        ASSERT_EQ(out[3 * v + 1], 0u);
        ASSERT_EQ(out[3 * v + 2], 255u);
    }
}

TEST_F(ColorConversion, LinearToSameLinearIsExactWithoutTables) {
    const kelvane::color_space s = kelvane::color_space::named("linear-rec2020");
    const kelvane::color_conversion c(s, s, 16);
    for (kelvane::channel ch :
         {kelvane::channel::blue, kelvane::channel::green, kelvane::channel::red}) {
        EXPECT_TRUE(c.LUT(false, ch).empty());
        EXPECT_TRUE(c.LUT(true, ch).empty());
    }
    const std::vector<uint16_t> pixels = kv_measure::random_pixels(4096, seed);
    EXPECT_EQ(kv_measure::run_conversion(c, library, pixels), pixels);
}

TEST_F(ColorConversion, NamedSpaceProfileBytesGiveTheSameConversion) {
    for (const char* name : {"srgb", "prophoto", "dci-p3"}) {
        const kelvane::color_space named = kelvane::color_space::named(name);
        const kelvane::color_space read = kelvane::color_space::from_icc(named.icc(), name);
        const kelvane::color_space to = kelvane::color_space::named("display-p3");
        const kelvane::color_conversion a(named, to, 16), b(read, to, 16);
        for (size_t i = 0; i < 9; ++i) EXPECT_NEAR(a.matrix()[i], b.matrix()[i], 2e-4) << name;
        // The stored profile holds the curve's parameters in 16.16 fixed point.
        const std::vector<uint32_t> x = a.LUT(false, kelvane::channel::red);
        const std::vector<uint32_t> y = b.LUT(false, kelvane::channel::red);
        for (size_t i = 0; i < x.size(); ++i)
            ASSERT_NEAR(double(x[i]), double(y[i]), 1.0) << name << " " << i;
    }
}

TEST(ColorCABI, StatusesAndMessages) {
    kv_color_space* s = nullptr;
    EXPECT_EQ(kv_color_space_named("nope", &s), KV_COLOR_LAYER_INVALID_ARGUMENT);
    EXPECT_EQ(s, nullptr);
    EXPECT_NE(std::string(kv_color_layer_message()).find("'nope'"), std::string::npos);
    EXPECT_EQ(kv_color_space_named(nullptr, &s), KV_COLOR_LAYER_INVALID_ARGUMENT);
    EXPECT_STREQ(kv_color_layer_message(), "the space name is NULL");
    ASSERT_EQ(kv_color_space_named("srgb", &s), KV_COLOR_LAYER_OK);
    EXPECT_STREQ(kv_color_layer_message(), "");
    kv_color_conversion* c = nullptr;
    EXPECT_EQ(kv_color_conversion_between(s, s, 10, &c), KV_COLOR_LAYER_INVALID_ARGUMENT);
    ASSERT_EQ(kv_color_conversion_between(s, s, 16, &c), KV_COLOR_LAYER_OK);
    // A processor of smaller tables is refused before a table is written.
    EXPECT_EQ(kv_color_conversion_configure(c, nullptr, 16, 12), KV_COLOR_LAYER_INVALID_ARGUMENT);
    EXPECT_STREQ(kv_color_layer_message(),
                 "a processor with LUT depths 16 and 12 bits: the conversion needs 16 and 16");
    EXPECT_EQ(kv_color_conversion_configure(c, nullptr, 16, 16), KV_COLOR_LAYER_INVALID_ARGUMENT);
    size_t size = 0;
    ASSERT_EQ(kv_color_space_icc(s, nullptr, 0, &size), KV_COLOR_LAYER_OK);
    EXPECT_GT(size, 128u);
    EXPECT_STREQ(kv_color_layer_status_name(KV_COLOR_LAYER_PROFILE_REFUSED),
                 "KV_COLOR_LAYER_PROFILE_REFUSED");
    EXPECT_EQ(kv_color_layer_status_name(8), nullptr);
    kv_color_conversion_destroy(c);
    kv_color_space_destroy(s);
}

}  // namespace
