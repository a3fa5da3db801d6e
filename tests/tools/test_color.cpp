// kelvane-color's colour options as a user runs them: the program's entry point in process, with
// the real LUT and vector modules. Tagged PNG and TIFF files converted against LittleCMS in double
// precision, the profiles the outputs carry, process lists, batches of several sources, notes and
// refusals.
#include <gtest/gtest.h>
#include <lcms2.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#if defined(KV_TOOL_HAVE_TIFF)
#include <tiffio.h>
#endif

#include "cli/application.h"
#include "image/image.h"
#include "tests/color/accuracy_targets.h"
#include "tests/tools/tool_test_support.h"

namespace {

namespace fs = std::filesystem;
using kv_tool_test::contents;
using kv_tool_test::scratch_dir;
using kv_tool_test::under_wine;
using kv_tool_test::write_text;

const std::string icc_folder = KV_ICC_FOLDER;
const std::string adobe = icc_folder + "colord/AdobeRGB1998.icc";
const std::string prophoto = icc_folder + "colord/ProPhotoRGB.icc";
constexpr uint64_t seed = 7;
constexpr int width = 256, height = 128;

std::vector<uint8_t> bytes_of(const std::string& path) {
    const std::string text = contents(path);
    return std::vector<uint8_t>(text.begin(), text.end());
}

struct outcome {
    int code;
    std::string out, err;
};

outcome run_tool(const std::vector<std::string>& arguments) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int code = kv_tool::run_kelvane_color(arguments);
    std::string out = testing::internal::GetCapturedStdout();
    return {code, out, testing::internal::GetCapturedStderr()};
}

// Seeded random 16-bit RGB written as a file carrying `icc` (none when empty); the samples as the
// tool reads them back (Wine's PNG encoder swaps the bytes of 16-bit samples).
std::vector<uint16_t> write_input(const std::string& path, const std::vector<uint8_t>& icc,
                                  uint64_t pixel_seed = seed) {
    kv_tool::image picture;
    picture.width = width;
    picture.height = height;
    picture.samples = kv_measure::random_pixels(size_t(width) * height, pixel_seed);
    picture.profile.icc = icc;
    kv_tool::write_image(path, kv_tool::file_type_of(path, "test"), picture);
    return kv_tool::read_image(path).samples;
}

// The output's samples in code values of its depth.
std::vector<uint16_t> samples_of(const std::string& path, int bits) {
    std::vector<uint16_t> samples = kv_tool::read_image(path).samples;
    for (uint16_t& v : samples) v = bits == 8 ? uint16_t(v / 257) : v;
    return samples;
}

#if defined(KV_TOOL_HAVE_PNG)
bool has(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}
#endif

// The profile bytes of a written file, checked apart from the tool's reader where the build can.
void expect_profile(const std::string& path, const std::vector<uint8_t>& icc, bool srgb_chunk) {
    const kv_tool::color_profile read = kv_tool::read_image(path).profile;
    if (srgb_chunk) {
        EXPECT_TRUE(read.srgb && read.icc.empty()) << path;
    } else {
        EXPECT_TRUE(read.icc == icc) << path << ": " << read.icc.size() << " bytes";
    }
#if defined(KV_TOOL_HAVE_PNG)
    if (path.size() > 4 && path.substr(path.size() - 4) == ".png") {
        const std::vector<std::string> chunks = kv_tool_test::png_chunk_types(contents(path));
        EXPECT_EQ(has(chunks, "sRGB"), srgb_chunk) << path;
        EXPECT_EQ(has(chunks, "iCCP"), !srgb_chunk) << path;
    }
#endif
#if defined(KV_TOOL_HAVE_TIFF)
    if (path.size() > 4 && path.substr(path.size() - 4) == ".tif") {
        TIFF* t = TIFFOpen(path.c_str(), "r");
        ASSERT_NE(t, nullptr);
        uint32_t count = 0;
        const void* data = nullptr;
        ASSERT_EQ(TIFFGetField(t, TIFFTAG_ICCPROFILE, &count, &data), 1) << path;
        const auto* p = static_cast<const uint8_t*>(data);
        EXPECT_TRUE(std::vector<uint8_t>(p, p + count) == icc) << path;
        TIFFClose(t);
    }
#endif
}

struct conversion_case {
    const char* input;        // file name: its extension is its type
    std::string destination;  // a space name or a profile file
    int bits;
};

// A 16-bit PNG and TIFF tagged with Adobe RGB (1998) converted to a named space and to another
// profile file: within the accuracy targets of the colour layer against LittleCMS in double,
// equal to the layer's own processor (no second rounding at 8 bits), carrying the destination.
TEST(ToolColor, TaggedFilesConvertAsTheLayerDoes) {
    std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
    const fs::path dir = scratch_dir();
    const kelvane::session library;
    const conversion_case cases[] = {
        {"in.png", "display-p3", 8}, {"in.png", "display-p3", 16}, {"in.png", prophoto, 8},
        {"in.png", prophoto, 16},    {"in.tif", "display-p3", 8},  {"in.tif", "display-p3", 16},
        {"in.tif", prophoto, 8},     {"in.tif", prophoto, 16},
    };
    for (const conversion_case& c : cases) {
        const bool named = c.destination.find('/') == std::string::npos;
        const std::string input = (dir / c.input).string();
        const std::string output = (dir / ("out-" + std::to_string(c.bits) + c.input)).string();
        SCOPED_TRACE(input + " --to " + c.destination + " --bits " + std::to_string(c.bits));
        if (under_wine() && c.bits == 16 && std::string(c.input) == "in.png") {
            std::printf("%s to 16 bits: not under Wine (16-bit PNG samples)\n", c.input);
            continue;
        }
        const std::vector<uint16_t> rgb = write_input(input, bytes_of(adobe));
        const outcome r = run_tool(
            {input, "--to", c.destination, "--bits", std::to_string(c.bits), "-o", output});
        ASSERT_EQ(r.code, 0) << r.err;
        EXPECT_EQ(r.err, "");
        const std::vector<uint16_t> result = samples_of(output, c.bits);
        const kv_measure::endpoint destination =
            named ? kv_measure::named(c.destination) : kv_measure::profile(bytes_of(c.destination));
        const kv_measure::error_stats stats = kv_measure::compare(
            result, kv_measure::reference(kv_measure::profile(bytes_of(adobe)), destination, rgb),
            c.bits);
        std::printf("%s -> %s, %d bits: %s\n", c.input, c.destination.c_str(), c.bits,
                    kv_measure::format(stats).c_str());
        expect_accuracy(stats, c.bits);
        const kelvane::color_space to = named ? kelvane::color_space::named(c.destination)
                                              : kelvane::color_space::from_icc_file(c.destination);
        const kelvane::color_conversion conversion(kelvane::color_space::from_icc_file(adobe), to,
                                                   c.bits);
        EXPECT_TRUE(result == kv_measure::run_conversion(conversion, library, rgb));
        expect_profile(output, named ? to.icc() : bytes_of(c.destination), false);
    }
}

// To sRGB a PNG carries the sRGB chunk (libpng) and a TIFF the profile's bytes; --from replaces the
// embedded profile; the chart counts as sRGB and says nothing.
TEST(ToolColor, SrgbChunkFromAndChart) {
    const fs::path dir = scratch_dir();
    const std::string input = (dir / "in.tif").string();
    write_input(input, bytes_of(adobe));
    const std::vector<uint8_t> srgb = kelvane::color_space::named("srgb").icc();
    for (const char* name : {"out.png", "out.tif"}) {
        const std::string output = (dir / name).string();
        ASSERT_EQ(run_tool({input, "--to", "srgb", "-o", output}).code, 0);
        expect_profile(output, srgb, std::string(name) == "out.png");
    }
    const std::string untagged = (dir / "untagged.tif").string();
    write_input(untagged, {});
    const std::string from = (dir / "from.png").string(), plain = (dir / "plain.png").string();
    ASSERT_EQ(run_tool({input, "--from", "srgb", "--to", "display-p3", "-o", from}).code, 0);
    ASSERT_EQ(run_tool({untagged, "--to", "display-p3", "-q", "-o", plain}).code, 0);
    EXPECT_EQ(contents(from), contents(plain));  // the same bytes, profile included
    const std::string same = (dir / "same.png").string();
    const outcome chart = run_tool({"--chart-size", "16x8", "--to", "display-p3", "-o", same});
    EXPECT_EQ(chart.code, 0);
    EXPECT_EQ(chart.err, "");
}

// A batch of inputs with different profiles on several threads: each output as the same input
// converted alone; the untagged note once, named, and none with -q; Netpbm's note once.
TEST(ToolColor, BatchOfSourcesAndNotes) {
    const fs::path dir = scratch_dir();
    const std::vector<std::vector<uint8_t>> profiles = {
        bytes_of(adobe), {}, bytes_of(prophoto), {}, bytes_of(adobe)};
    std::vector<std::string> batch;
    for (size_t i = 0; i < profiles.size(); ++i) {
        batch.push_back((dir / ("in" + std::to_string(i) + ".png")).string());
        write_input(batch.back(), profiles[i]);
    }
    std::vector<std::string> arguments = batch;
    for (const char* word : {"--to", "rec2020", "--threads", "3", "--output-dir"})
        arguments.push_back(word);
    arguments.push_back((dir / "out").string());
    const outcome r = run_tool(arguments);
    ASSERT_EQ(r.code, 0) << r.err;
    const size_t note = r.err.find("has no colour profile: taken as sRGB");
    EXPECT_NE(note, std::string::npos) << r.err;
    EXPECT_EQ(note, r.err.rfind("has no colour profile")) << r.err;
    for (size_t i = 0; i < batch.size(); ++i) {
        const std::string alone = (dir / ("alone" + std::to_string(i) + ".png")).string();
        ASSERT_EQ(run_tool({batch[i], "--to", "rec2020", "-q", "-o", alone}).code, 0);
        // Samples, not bytes: the embedded profile records the time it was made.
        EXPECT_EQ(samples_of(alone, 8),
                  samples_of((dir / "out" / ("in" + std::to_string(i) + ".png")).string(), 8))
            << batch[i];
    }
    EXPECT_NE(samples_of((dir / "out" / "in0.png").string(), 8),
              samples_of((dir / "out" / "in2.png").string(), 8));
    const outcome quiet =
        run_tool({batch[1], "--to", "rec2020", "-q", "-o", (dir / "q.png").string()});
    EXPECT_EQ(quiet.err, "");
    const outcome pam = run_tool({batch[0], batch[2], "--to", "rec2020", "--output-dir",
                                  (dir / "pam").string(), "--output-type", "pam"});
    EXPECT_EQ(pam.code, 0);
    const std::string pam_note =
        "kelvane-color: Netpbm outputs carry no colour profile: the pixels are in rec2020\n";
    EXPECT_NE(pam.err.find(pam_note), std::string::npos) << pam.err;
    EXPECT_EQ(pam.err.find(pam_note), pam.err.rfind(pam_note)) << pam.err;
}

// Four channels carry the input's alpha beside the converted colours, in any layout.
TEST(ToolColor, FourChannelsAndLayouts) {
    const fs::path dir = scratch_dir();
    const std::string input = (dir / "in.tif").string();
    write_input(input, bytes_of(adobe));
    const std::string three = (dir / "three.png").string(), four = (dir / "four.png").string();
    ASSERT_EQ(run_tool({input, "--to", "display-p3", "--bits", "16", "-o", three}).code, 0);
    ASSERT_EQ(run_tool({input, "--to", "display-p3", "--bits", "16", "--channels", "4",
                        "--output-layout", "bgr", "--input-layout", "planes", "-o", four})
                  .code,
              0);
    const std::vector<uint16_t> rgb = kv_tool::read_image(three).samples;
    const std::vector<uint16_t> rgba = kv_tool::read_image(four).samples;
    ASSERT_EQ(rgba.size(), rgb.size() / 3 * 4);
    for (size_t i = 0; i < rgb.size() / 3; ++i) {
        for (int e = 0; e < 3; ++e) ASSERT_EQ(rgba[4 * i + e], rgb[3 * i + e]) << "pixel " << i;
        ASSERT_EQ(rgba[4 * i + 3], 65535) << "pixel " << i;
    }
}

// A process list of LUT1D, Matrix and LUT1D nodes through the tool: the layer's processor's
// output, at 8 and 16 bits.
TEST(ToolColor, ProcessList) {
    const fs::path dir = scratch_dir();
    const std::string clf = write_text(dir / "grade.clf", R"(<?xml version="1.0" encoding="UTF-8"?>
<ProcessList id="grade" compCLFversion="3">
  <LUT1D inBitDepth="16i" outBitDepth="16f">
    <Array dim="3 1">0 0.25 1</Array>
  </LUT1D>
  <Matrix inBitDepth="16f" outBitDepth="16f">
    <Array dim="3 3">0.9 0.1 0 0.05 0.9 0.05 0 0.1 0.9</Array>
  </Matrix>
  <LUT1D inBitDepth="16f" outBitDepth="16i">
    <Array dim="4 1">0 30000 50000 65535</Array>
  </LUT1D>
</ProcessList>
)");
    const std::string input = (dir / "in.png").string();
    const std::vector<uint16_t> rgb = write_input(input, {});
    const kelvane::session library;
    for (int bits : {8, 16}) {
        const char* type = bits == 16 && under_wine() ? ".tif" : ".png";  // Wine's 16-bit PNG
        const std::string output = (dir / ("out" + std::to_string(bits) + type)).string();
        const outcome r =
            run_tool({input, "--clf", clf, "--bits", std::to_string(bits), "-o", output});
        ASSERT_EQ(r.code, 0) << r.err;
        EXPECT_EQ(r.err, "");  // a process list takes the pixels as they are
        EXPECT_TRUE(samples_of(output, bits) ==
                    kv_measure::run_conversion(kelvane::color_conversion::from_clf_file(clf, bits),
                                               library, rgb))
            << bits << " bits";
        EXPECT_FALSE(kv_tool::read_image(output).profile.present());
    }
}

// A CMYK profile, made here by LittleCMS.
std::vector<uint8_t> cmyk_profile() {
    cmsHPROFILE h = cmsCreateProfilePlaceholder(nullptr);
    cmsSetDeviceClass(h, cmsSigOutputClass);
    cmsSetColorSpace(h, cmsSigCmykData);
    cmsSetPCS(h, cmsSigLabData);
    cmsUInt32Number size = 0;
    cmsSaveProfileToMem(h, nullptr, &size);
    std::vector<uint8_t> bytes(size);
    cmsSaveProfileToMem(h, bytes.data(), &size);
    cmsCloseProfile(h);
    return bytes;
}

struct refusal {
    const char* what;
    std::function<std::vector<std::string>(const fs::path& dir, const std::string& input)> line;
    int code;
    const char* message;
};

const refusal refusals[] = {
    {"with --matrix",
     [](const fs::path&, const std::string& in) {
         return std::vector<std::string>{in, "--to", "srgb", "--matrix", "1,0,0,0,1,0,0,0,1"};
     },
     2, "--to and --matrix: the colour conversion sets"},
    {"with --output-lut",
     [](const fs::path&, const std::string& in) {
         return std::vector<std::string>{in,     "--output-lut", "srgb", "--from",
                                         "srgb", "--to",         "srgb"};
     },
     2, "--from and --output-lut: the colour conversion sets"},
    {"unknown space",
     [](const fs::path&, const std::string& in) {
         return std::vector<std::string>{in, "--to", "no-such-space"};
     },
     2, "--to: 'no-such-space' is neither a colour space (kelvane-color --list-spaces)"},
    {"--from alone",
     [](const fs::path&, const std::string& in) {
         return std::vector<std::string>{in, "--from", "srgb"};
     },
     2, "--from: needs --to"},
    {"CMYK profile",
     [](const fs::path& dir, const std::string& in) {
         const std::vector<uint8_t> b = cmyk_profile();
         return std::vector<std::string>{
             in, "--to", write_text(dir / "cmyk.icc", std::string(b.begin(), b.end()))};
     },
     1, "cmyk.icc: a CMYK profile; the data is RGB"},
    {"embedded Lab profile",
     [](const fs::path& dir, const std::string&) {
         const std::string in = (dir / "lab.tif").string();
         write_input(in, bytes_of(icc_folder + "ITULab.icc"));
         return std::vector<std::string>{in, "--to", "srgb", "-o", (dir / "o.png").string()};
     },
     1, "lab.tif: embedded profile: a Lab profile"},
    // The reader's own bound, met before the profile is copied (the colour layer has one too,
    // whose message names no tag).
    {"oversized embedded profile",
     [](const fs::path& dir, const std::string&) {
         const std::string in = (dir / "big.tif").string();
         write_input(in, std::vector<uint8_t>((4 << 20) + 1, 0));
         return std::vector<std::string>{in, "--to", "srgb", "-o", (dir / "o.png").string()};
     },
#if defined(KV_TOOL_HAVE_TIFF)
     1, "its ICC profile (tag 34675) is 4194305 bytes, more than the 4194304 accepted"},
#else
     1, "its ICC profile is 4194305 bytes, more than the 4194304 accepted"},
#endif
#if defined(KV_TOOL_HAVE_PNG)
    // The same bound in the PNG reader: a real profile padded to 4 bytes over it (libpng wants a
    // multiple of 4), its declared size patched, so that libpng writes and reads it back.
    {"oversized iCCP profile",
     [](const fs::path& dir, const std::string&) {
         std::vector<uint8_t> icc = bytes_of(adobe);
         const uint32_t size = (4u << 20) + 4;
         icc.resize(size, 0);
         for (int i = 0; i < 4; ++i) icc[size_t(i)] = uint8_t(size >> (24 - 8 * i));
         const std::string in = (dir / "big.png").string();
         write_input(in, icc);
         return std::vector<std::string>{in, "--to", "srgb", "-o", (dir / "o.png").string()};
     },
     1, "its ICC profile (iCCP) is 4194308 bytes, more than the 4194304 accepted"},
#endif
    {"damaged CLF",
     [](const fs::path& dir, const std::string& in) {
         return std::vector<std::string>{
             in, "--clf", write_text(dir / "cut.clf", "<ProcessList compCLFversion=\"3\"><LUT1D")};
     },
     1, "cut.clf: "},
    {"output is the ICC file",
     [](const fs::path& dir, const std::string& in) {
         const std::string icc = write_text(dir / "p.png", contents(prophoto));
         return std::vector<std::string>{in, "--to", icc, "-o", (dir / "." / "p.png").string()};
     },
     1, "is the ICC profile"},
};

TEST(ToolColor, Refusals) {
    const fs::path root = scratch_dir();
    for (const refusal& r : refusals) {
        SCOPED_TRACE(r.what);
        const fs::path dir = root / r.what;
        fs::create_directories(dir);
        const std::string input = (dir / "in.png").string();
        write_input(input, {});
        const outcome o = run_tool(r.line(dir, input));
        EXPECT_EQ(o.code, r.code) << o.err;
        EXPECT_NE(o.err.find(r.message), std::string::npos) << o.err;
    }
    const std::string kept = contents(prophoto);
    EXPECT_EQ(contents(root / "output is the ICC file" / "p.png"), kept);
}

// --list-spaces, --info FILE and bench with the colour options.
TEST(ToolColor, ListInfoAndBench) {
    const fs::path dir = scratch_dir();
    const outcome list = run_tool({"--list-spaces"});
    EXPECT_EQ(list.code, 0);
    EXPECT_NE(list.out.find("display-p3\n"), std::string::npos);
    const std::string tagged = (dir / "tagged.tif").string(), plain = (dir / "plain.png").string();
    write_input(tagged, bytes_of(adobe));
    write_input(plain, {});
    const outcome info = run_tool({"--info", tagged, plain});
    EXPECT_EQ(info.code, 0) << info.err;
    const std::vector<uint8_t> icc = bytes_of(adobe);
    EXPECT_NE(info.out.find("tagged.tif: 256x128, RGB\n  profile: '"), std::string::npos)
        << info.out;
    EXPECT_NE(info.out.find("', ICC " + std::to_string(icc[8]) + "." + std::to_string(icc[9] >> 4) +
                            ", " + std::to_string(icc.size()) + " bytes\n"),
              std::string::npos)
        << info.out;
    EXPECT_NE(info.out.find("plain.png: 256x128, RGB\n  profile: none (taken as sRGB)"),
              std::string::npos)
        << info.out;
    const outcome bench = run_tool({"bench", "--from", "srgb", "--to", "display-p3", "--bits", "16",
                                    "--chart-size", "64x16", "--min-time", "0.01"});
    EXPECT_EQ(bench.code, 0) << bench.err;
}

}  // namespace
