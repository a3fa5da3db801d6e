// The colour science of the layer: matrices against published values, each named space's curve at
// the points its definition fixes, curve inverses, and the refusals of names and depths.
#include <gtest/gtest.h>

#include <cmath>

#include "color/color_error.h"
#include "color/matrix3.h"
#include "color/processor_setup.h"
#include "color/rgb_space.h"

namespace {

using kv_color::color_error;

void expect_matrix(const kv_color::mat3& actual, const kv_color::mat3& published) {
    for (size_t i = 0; i < 9; ++i) EXPECT_NEAR(actual[i], published[i], 0.00005) << "element " << i;
}

TEST(ColorMatrices, PublishedRGBToXYZ) {
    // As IEC 61966-2-1 and ITU-R BT.2087 publish them, to four decimals.
    expect_matrix(kv_color::named_space("srgb").to_xyz,
                  {0.4124, 0.3576, 0.1805, 0.2126, 0.7152, 0.0722, 0.0193, 0.1192, 0.9505});
    expect_matrix(kv_color::named_space("rec2020").to_xyz,
                  {0.6370, 0.1446, 0.1689, 0.2627, 0.6780, 0.0593, 0.0000, 0.0281, 1.0610});
}

TEST(ColorMatrices, BradfordD65ToD50) {
    // Lindbloom's Bradford matrix from D65 to D50, with his whites.
    expect_matrix(kv_color::bradford({0.95047, 1.0, 1.08883}, {0.96422, 1.0, 0.82521}),
                  {1.0478, 0.0229, -0.0501, 0.0295, 0.9905, -0.0170, -0.0092, 0.0150, 0.7521});
}

TEST(ColorMatrices, SRGBToDisplayP3MapsWhiteToWhite) {
    const kv_color::processor_setup s = kv_color::setup_between(
        kv_color::named_space("srgb"), kv_color::named_space("display-p3"), 16);
    for (int row = 0; row < 3; ++row) {
        EXPECT_NEAR(s.matrix[3 * row] + s.matrix[3 * row + 1] + s.matrix[3 * row + 2], 1.0, 1e-6);
    }
    // As derived from the primaries and D65 at (0.3127, 0.3290), to four decimals.
    EXPECT_NEAR(s.matrix[0], 0.8225, 0.00005);
    EXPECT_NEAR(s.matrix[4], 0.9668, 0.00005);
    EXPECT_NEAR(s.matrix[8], 0.9105, 0.00005);
}

struct curve_point {
    const char* space;
    double encoded, linear;
};

const curve_point curve_points[] = {
    {"srgb", 0.0, 0.0},
    {"srgb", 0.04, 0.04 / 12.92},
    {"srgb", 0.5, 0.21404114048223255},
    {"srgb", 1.0, 1.0},
    {"display-p3", 0.05, 0.003935939504088967},
    {"display-p3", 0.5, 0.21404114048223255},
    {"rec709", 0.5, 0.18946457081379978},     // 0.5^2.4
    {"rec2020", 0.25, 0.03589682359365735},   // 0.25^2.4
    {"adobe-rgb", 0.5, 0.21775552814439456},  // 0.5^(563/256)
    {"prophoto", 1.0 / 32.0, 1.0 / 512.0},
    {"prophoto", 1.0 / 64.0, 1.0 / 1024.0},
    {"prophoto", 0.5, 0.2871745887492587},  // 0.5^1.8
    {"dci-p3", 0.5, 0.16493848884661177},   // 0.5^2.6
    {"linear-srgb", 0.3, 0.3},
    {"linear-rec2020", 0.7, 0.7},
};

TEST(ColorCurves, DefinedPoints) {
    for (const curve_point& p : curve_points) {
        const kv_color::rgb_space s = kv_color::named_space(p.space);
        for (const kv_color::transfer_curve& c : s.curves) {
            EXPECT_NEAR(c.decode(p.encoded), p.linear, 1e-12) << p.space << " at " << p.encoded;
            EXPECT_NEAR(c.encode(p.linear), p.encoded, 1e-12) << p.space << " at " << p.linear;
        }
    }
}

TEST(ColorCurves, InverseRoundTripsEverySpace) {
    for (const std::string& name : kv_color::named_space_names()) {
        const kv_color::transfer_curve c = kv_color::named_space(name).curves[0];
        for (int i = 0; i <= 1000; ++i) {
            const double x = i / 1000.0;
            ASSERT_NEAR(c.encode(c.decode(x)), x, 1e-9) << name << " at " << x;
        }
    }
}

TEST(ColorCurves, SampledCurveInterpolatesAndInverts) {
    const kv_color::transfer_curve c = kv_color::transfer_curve::sampled({0.0, 0.25, 1.0});
    EXPECT_DOUBLE_EQ(c.decode(0.1), 0.05);
    EXPECT_DOUBLE_EQ(c.decode(0.9), 0.85);
    EXPECT_DOUBLE_EQ(c.encode(0.05), 0.1);
    EXPECT_DOUBLE_EQ(c.encode(0.85), 0.9);
    EXPECT_THROW(kv_color::transfer_curve::sampled({0.0, 0.6, 0.5, 1.0}).check_rising("falling"),
                 color_error);
}

struct refusal {
    const char* what;
    void (*call)();
    kv_color::status expected;
    const char* message_part;
};

const refusal refusals[] = {
    {"unknown name", [] { kv_color::named_space("srgbx"); }, kv_color::status::invalid_argument,
     "unknown colour space 'srgbx' (known: srgb, display-p3"},
    {"control bytes escaped", [] { kv_color::named_space("a\x1b[2Jb"); },
     kv_color::status::invalid_argument, "'a\\x1b[2Jb'"},
    {"bare prefix", [] { kv_color::named_space("linear-"); }, kv_color::status::invalid_argument,
     "unknown colour space"},
    {"output depth 12",
     [] {
         kv_color::setup_between(kv_color::named_space("srgb"), kv_color::named_space("srgb"), 12);
     },
     kv_color::status::invalid_argument, "output depth 12 bits: 8 or 16"},
    {"curve type 6",
     [] {
         const double q[7] = {1};
         kv_color::transfer_curve::parametric(6, q, "c");
     },
     kv_color::status::invalid_argument, "type 6 is not one of the ICC types"},
    {"zero gamma",
     [] {
         const double q[1] = {0};
         kv_color::transfer_curve::parametric(1, q, "c");
     },
     kv_color::status::invalid_argument, "must be positive"},
};

TEST(ColorRefusals, NamesDepthsAndCurves) {
    for (const refusal& r : refusals) {
        try {
            r.call();
            ADD_FAILURE() << r.what << ": accepted";
        } catch (const color_error& e) {
            EXPECT_EQ(e.code(), r.expected) << r.what;
            EXPECT_NE(std::string(e.what()).find(r.message_part), std::string::npos)
                << r.what << ": " << e.what();
        }
    }
}

}  // namespace
