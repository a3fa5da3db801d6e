// ICC profiles from Debian's colord-data and icc-profiles-free: conversions against LittleCMS in
// double precision, the profile bytes handed back for embedding, and every kind of refusal.
#include <gtest/gtest.h>
#include <lcms2.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "bench/color_measure.h"
#include "kelvane_qor_color.hpp"
#include "tests/color/accuracy_targets.h"

namespace {

// Debian's profile folder, as the test's platform spells it (under Wine the Z: drive is /).
const std::string icc_folder = KV_ICC_FOLDER;

std::vector<uint8_t> bytes_of(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

struct profile_pair {
    const char *source, *destination;
};

// v2 sampled (sRGB, L*, Cineon log), v2 gamma, v4 parametric and v4 sampled (Rec709) curves, on
// both sides (a sampled destination curve is inverted piece by piece).
const profile_pair pairs[] = {
    {"sRGB.icc", "colord/AdobeRGB1998.icc"},
    {"colord/sRGB.icc", "colord/ProPhotoRGB.icc"},
    {"LStar-RGB.icc", "colord/sRGB.icc"},
    {"colord/sRGB.icc", "LStar-RGB.icc"},
    {"colord/Rec709.icc", "colord/sRGB.icc"},
    {"CineonLog_M.icc", "colord/sRGB.icc"},
    {"compatibleWithAdobeRGB1998.icc", "colord/ECI-RGBv2.icc"},
};

class ColorProfiles : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!std::ifstream(icc_folder + "colord/sRGB.icc")) {
            GTEST_SKIP() << "no profiles in " << icc_folder << " (colord-data, icc-profiles-free)";
        }
    }
    kelvane::session library;
};

TEST_F(ColorProfiles, RealProfilesMatchDoublePrecision) {
    const uint64_t seed = 7;
    std::printf("seed %llu\n", (unsigned long long)seed);
    const std::vector<uint16_t> pixels = kv_measure::random_pixels(1 << 15, seed);
    for (const profile_pair& p : pairs) {
        const std::vector<uint8_t> src = bytes_of(icc_folder + p.source);
        const std::vector<uint8_t> dst = bytes_of(icc_folder + p.destination);
        const std::vector<double> exact =
            kv_measure::reference(kv_measure::profile(src), kv_measure::profile(dst), pixels);
        for (int bits : {8, 16}) {
            const kelvane::color_conversion c(kelvane::color_space::from_icc(src, p.source),
                                              kelvane::color_space::from_icc(dst, p.destination),
                                              bits);
            const auto ours =
                kv_measure::compare(kv_measure::run_conversion(c, library, pixels), exact, bits);
            const auto lcms = kv_measure::compare(
                kv_measure::lcms_transform(kv_measure::profile(src), kv_measure::profile(dst),
                                           pixels, bits),
                exact, bits);
            SCOPED_TRACE(c.description() + ": " + kv_measure::format(ours) + "; LittleCMS " +
                         kv_measure::format(lcms));
            expect_accuracy(ours, bits, std::max(16, lcms.p999));
        }
    }
}

TEST_F(ColorProfiles, ProfileBytesComeBackUnchanged) {
    const std::string path = icc_folder + "colord/ProPhotoRGB.icc";
    EXPECT_EQ(kelvane::color_space::from_icc_file(path).icc(), bytes_of(path));
    EXPECT_NE(kelvane::color_space::from_icc_file(path).label().find("ProPhotoRGB.icc"),
              std::string::npos);
}

// A profile made for a named space is the same bytes in every run: a fixed creation date and the
// MD5 profile ID, which LittleCMS recomputes to the same value.
TEST(NamedProfiles, AreReproducibleAndCarryTheirId) {
    const uint8_t fixed_date[12] = {0x07, 0xEA, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0};
    for (const char* name : {"srgb", "display-p3", "rec2020", "prophoto", "linear-srgb"}) {
        SCOPED_TRACE(name);
        const std::vector<uint8_t> bytes = kelvane::color_space::named(name).icc();
        ASSERT_GE(bytes.size(), 128u);
        EXPECT_TRUE(std::equal(fixed_date, fixed_date + 12, bytes.begin() + 24));
        cmsHPROFILE h = cmsOpenProfileFromMem(bytes.data(), cmsUInt32Number(bytes.size()));
        ASSERT_NE(h, nullptr);
        ASSERT_TRUE(cmsMD5computeID(h));
        uint8_t id[16];
        cmsGetHeaderProfileID(h, id);
        cmsCloseProfile(h);
        EXPECT_TRUE(std::equal(id, id + 16, bytes.begin() + 84));
        EXPECT_TRUE(std::any_of(id, id + 16, [](uint8_t b) { return b != 0; }));
    }
}

// sRGB.icc with the type of one tag's data overwritten.
std::vector<uint8_t> damaged_tag(const char* tag) {
    std::vector<uint8_t> bytes = bytes_of(icc_folder + "sRGB.icc");
    auto number = [&](size_t at) {
        return uint32_t(bytes[at]) << 24 | bytes[at + 1] << 16 | bytes[at + 2] << 8 | bytes[at + 3];
    };
    for (uint32_t i = 0; i < number(128); ++i) {
        const size_t entry = 132 + 12 * size_t(i);
        if (std::equal(tag, tag + 4, &bytes[entry]))
            std::copy_n("junk", 4, &bytes[number(entry + 4)]);
    }
    return bytes;
}

// An RGB profile with an A2B0 table beside its matrix and curves.
std::vector<uint8_t> with_lut_tag() {
    cmsHPROFILE h = cmsCreate_sRGBProfile();
    cmsPipeline* lut = cmsPipelineAlloc(nullptr, 3, 3);
    cmsPipelineInsertStage(lut, cmsAT_END, cmsStageAllocToneCurves(nullptr, 3, nullptr));
    cmsWriteTag(h, cmsSigAToB0Tag, lut);
    cmsUInt32Number size = 0;
    cmsSaveProfileToMem(h, nullptr, &size);
    std::vector<uint8_t> bytes(size);
    cmsSaveProfileToMem(h, bytes.data(), &size);
    cmsPipelineFree(lut);
    cmsCloseProfile(h);
    return bytes;
}

struct refusal {
    const char* what;
    std::vector<uint8_t> (*bytes)();
    kv_color_layer_status status;
    const char* message_part;
};

const refusal refusals[] = {
    {"gray", [] { return bytes_of(icc_folder + "Gray.icc"); }, KV_COLOR_LAYER_PROFILE_REFUSED,
     "a gray profile; the data is RGB"},
    {"Lab", [] { return bytes_of(icc_folder + "ITULab.icc"); }, KV_COLOR_LAYER_PROFILE_REFUSED,
     "a Lab profile"},
    {"XYZ data", [] { return bytes_of(icc_folder + "LCMSXYZI.ICM"); },
     KV_COLOR_LAYER_PROFILE_REFUSED, "colour space 'XYZ ', not RGB"},
    {"named colours", [] { return bytes_of(icc_folder + "colord/x11-colors.icc"); },
     KV_COLOR_LAYER_PROFILE_REFUSED, "a named-colour profile"},
    {"LUT-based", with_lut_tag, KV_COLOR_LAYER_PROFILE_REFUSED, "LUT-based (tag 'A2B0')"},
    {"damaged TRC", [] { return damaged_tag("gTRC"); }, KV_COLOR_LAYER_PROFILE_REFUSED,
     "tag 'gTRC' is damaged"},
    {"truncated",
     [] {
         std::vector<uint8_t> b = bytes_of(icc_folder + "sRGB.icc");
         b.resize(1000);
         return b;
     },
     KV_COLOR_LAYER_PROFILE_REFUSED, "the header declares 6922 bytes, only 1000"},
    {"too short", [] { return std::vector<uint8_t>(100, 0); }, KV_COLOR_LAYER_PROFILE_REFUSED,
     "100 bytes, too short"},
    {"garbage", [] { return std::vector<uint8_t>(4000, 0x1b); }, KV_COLOR_LAYER_PROFILE_REFUSED,
     "the header declares"},
    {"zeros", [] { return std::vector<uint8_t>(4000, 0); }, KV_COLOR_LAYER_PROFILE_REFUSED,
     "not a readable ICC profile"},
    {"oversized", [] { return std::vector<uint8_t>((4 << 20) + 1, 0); },
     KV_COLOR_LAYER_PROFILE_REFUSED, "more than the 4194304 accepted"},
};

TEST_F(ColorProfiles, Refusals) {
    for (const refusal& r : refusals) {
        const std::vector<uint8_t> bytes = r.bytes();
        kv_color_space* s = nullptr;
        EXPECT_EQ(kv_color_space_from_icc(bytes.data(), bytes.size(), "p.icc", &s), r.status)
            << r.what;
        EXPECT_EQ(s, nullptr) << r.what;
        const std::string message = kv_color_layer_message();
        EXPECT_EQ(message.rfind("p.icc", 0), 0u) << r.what << ": " << message;
        EXPECT_NE(message.find(r.message_part), std::string::npos) << r.what << ": " << message;
    }
}

TEST_F(ColorProfiles, FileRefusals) {
    kv_color_space* s = nullptr;
    EXPECT_EQ(kv_color_space_from_icc_file("/nonexistent/x.icc", &s),
              KV_COLOR_LAYER_UNREADABLE_FILE);
    EXPECT_NE(std::string(kv_color_layer_message()).find("'/nonexistent/x.icc'"),
              std::string::npos);
    EXPECT_EQ(kv_color_space_from_icc_file(icc_folder.c_str(), &s), KV_COLOR_LAYER_UNREADABLE_FILE);
    EXPECT_NE(std::string(kv_color_layer_message()).find("not a regular file"), std::string::npos);
    EXPECT_EQ(s, nullptr);
}

}  // namespace
