// Image files: round trips through every writer at 8 and 16 bits, Netpbm maximum values other
// than 255 and 65535, gray and alpha, TIFF, and the messages for broken files.
#include <cmath>
#include <random>

#include "image_io.h"
#include "tool_test_support.h"

#if defined(KV_TOOL_HAVE_TIFF)
#include <tiffio.h>
#endif

namespace kv_tool_test {
namespace {

using namespace std::string_literals;

using kv_tool::file_type;
using kv_tool::image;

image random_image(int32_t width, int32_t height, int channels, int bits, unsigned seed) {
    std::mt19937 random(seed);
    image picture;
    picture.width = width;
    picture.height = height;
    picture.channels = channels;
    picture.bits = bits;
    picture.samples.resize(size_t(width) * height * channels);
    for (uint16_t& v : picture.samples) v = uint16_t(random() & ((1u << bits) - 1));
    return picture;
}

struct round_trip_case {
    file_type type;
    const char* extension;
    int bits;
    int channels;
};

TEST(ImageFiles, RoundTripsWidenEightBitSamples) {
    std::vector<round_trip_case> cases = {
        {file_type::ppm, ".ppm", 8, 3}, {file_type::ppm, ".ppm", 16, 3},
        {file_type::pam, ".pam", 8, 3}, {file_type::pam, ".pam", 16, 4},
        {file_type::pam, ".pam", 8, 4},
    };
    if (kv_tool::png_supported()) {
        for (int bits : {8, 16}) {
            for (int channels : {3, 4}) cases.push_back({file_type::png, ".png", bits, channels});
        }
    }
    const auto dir = scratch_dir();
    unsigned seed = 1;
    for (const round_trip_case& c : cases) {
        SCOPED_TRACE(std::string(c.extension) + " " + std::to_string(c.bits) + " bits, " +
                     std::to_string(c.channels) + " channels");
        const image written = random_image(37, 5, c.channels, c.bits, seed++);
        const std::string path = (dir / ("picture" + std::string(c.extension))).string();
        kv_tool::write_image(path, c.type, written);
        const image read = kv_tool::read_image(path);
        ASSERT_EQ(read.width, written.width);
        ASSERT_EQ(read.height, written.height);
        ASSERT_EQ(read.channels, written.channels);
        EXPECT_EQ(read.bits, 16);
        ASSERT_EQ(read.samples.size(), written.samples.size());
        size_t differences = 0;
        for (size_t i = 0; i < written.samples.size(); ++i) {
            const uint16_t expected =
                c.bits == 8 ? uint16_t(written.samples[i] * 257) : written.samples[i];
            differences += read.samples[i] != expected;
        }
        EXPECT_EQ(differences, 0u);
        EXPECT_FALSE(std::filesystem::exists(path + ".kv-partial"));
    }
}

struct maxval_case {
    uint32_t maxval;
    uint32_t value;
    uint16_t expected;
};

TEST(ImageFiles, NetpbmMaximumValuesScaleToSixteenBits) {
    const maxval_case cases[] = {
        {1, 0, 0},         {1, 1, 65535},         {3, 1, 21845},         {255, 1, 257},
        {255, 128, 32896}, {1023, 512, 32800},    {1023, 1023, 65535},   {4095, 1, 16},
        {256, 255, 65279}, {65535, 12345, 12345}, {65535, 65535, 65535},
    };
    const auto dir = scratch_dir();
    for (const maxval_case& c : cases) {
        SCOPED_TRACE("maxval " + std::to_string(c.maxval) + ", value " + std::to_string(c.value));
        // A 1x1 gray image with a comment in its header, read back as RGB.
        std::string bytes = "P5\n# comment\n1 1\n" + std::to_string(c.maxval) + "\n";
        if (c.maxval > 255) bytes += char(c.value >> 8);
        bytes += char(c.value & 0xFF);
        const image read = kv_tool::read_image(write_text(dir / "gray.pgm", bytes));
        ASSERT_EQ(read.channels, 3);
        EXPECT_EQ(read.samples, (std::vector<uint16_t>{c.expected, c.expected, c.expected}));
        EXPECT_EQ(c.expected, uint16_t(std::lround(double(c.value) * 65535 / c.maxval)));
    }
}

TEST(ImageFiles, GrayAlphaPamSpreadsToRgba) {
    const auto dir = scratch_dir();
    const std::string header =
        "P7\nWIDTH 2\nHEIGHT 1\nDEPTH 2\nMAXVAL 255\nTUPLTYPE GRAYSCALE_ALPHA\nENDHDR\n";
    const image read = kv_tool::read_image(write_text(dir / "ga.pam", header + "\x10\x20\x30\xFF"));
    ASSERT_EQ(read.channels, 4);
    EXPECT_EQ(read.samples, (std::vector<uint16_t>{0x1010, 0x1010, 0x1010, 0x2020, 0x3030, 0x3030,
                                                   0x3030, 0xFFFF}));
}

#if defined(KV_TOOL_HAVE_TIFF)
TEST(ImageFiles, SixteenBitRgbTiffIsRead) {
    const auto dir = scratch_dir();
    const std::string path = (dir / "rgb16.tif").string();
    const uint16_t samples[2][6] = {{0, 1, 2, 65535, 40000, 3}, {7, 8, 9, 10, 11, 12}};
    TIFF* tiff = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tiff, nullptr);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, 2);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, 2);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 16);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    for (uint32_t y = 0; y < 2; ++y) {
        ASSERT_GE(TIFFWriteScanline(tiff, const_cast<uint16_t*>(samples[y]), y, 0), 0);
    }
    TIFFClose(tiff);
    const image read = kv_tool::read_image(path);
    ASSERT_EQ(read.width, 2);
    ASSERT_EQ(read.channels, 3);
    EXPECT_EQ(read.samples, (std::vector<uint16_t>{0, 1, 2, 65535, 40000, 3, 7, 8, 9, 10, 11, 12}));
}
#endif

struct broken_case {
    const char* name;
    std::string bytes;
    const char* message;
};

TEST(ImageFiles, BrokenFilesNameTheFileAndTheFault) {
    const broken_case cases[] = {
        {"empty.ppm", ""s, "empty file"},
        {"text.txt", "hello"s, "not a PNG, PPM, PGM, PAM or TIFF image"},
        {"ascii.ppm", "P3\n1 1\n255\n0 0 0\n"s, "plain-text and bitmap Netpbm files"},
        {"short.ppm", "P6\n2 2\n255\n\x01\x02\x03"s, "truncated: 12 bytes of samples expected, 3"},
        {"nodims.ppm", "P6\n\n"s, "header: expected the width"},
        {"maxval0.pgm", "P5\n1 1\n0\n\x00"s, "maximum value 0 is not 1 to 65535"},
        {"maxval.pgm", "P5\n1 1\n70000\n\x00\x00"s, "maximum value 70000 is not 1 to 65535"},
        {"over.pgm", "P5\n2 1\n100\n\x05\x65"s,
         "sample 101 at element 1 exceeds the maximum value"},
        {"zero.pgm", "P5\n0 1\n255\n"s, "image has no pixels"},
        {"huge.pgm", "P5\n65536 65536\n255\n"s, "more than one frame can hold"},
        {"depth.pam", "P7\nWIDTH 1\nHEIGHT 1\nDEPTH 5\nMAXVAL 255\nENDHDR\n\x01\x02\x03\x04\x05"s,
         "PAM DEPTH 5 is not gray"},
        {"endless.pam", "P7\nWIDTH 1\nHEIGHT 1\n"s, "PAM header has no ENDHDR"},
        {"keyword.pam", "P7\nWIDE 1\nENDHDR\n"s, "PAM header: unknown keyword 'WIDE'"},
        {"bad.png", "\x89PNG\r\n\x1a\nnot really"s, "PNG"},
        {"bad.tif", "II*\0garbage"s, "TIFF"},
    };
    const auto dir = scratch_dir();
    for (const broken_case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = write_text(dir / c.name, c.bytes);
        const kv_tool::tool_error e = error_of([&] { kv_tool::read_image(path); });
        EXPECT_EQ(e.code(), kv_tool::EXIT_FILE);
        EXPECT_EQ(std::string(e.what()).rfind(path + ": ", 0), 0u) << e.what();
        EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
    }
    const kv_tool::tool_error missing =
        error_of([&] { kv_tool::read_image((dir / "missing.png").string()); });
    EXPECT_NE(std::string(missing.what()).find("missing.png: cannot open"), std::string::npos);
}

TEST(ImageFiles, FailedWriteLeavesNothingBehind) {
    const auto dir = scratch_dir();
    const image picture = random_image(4, 4, 3, 8, 7);
    const std::string path = (dir / "no_such_folder" / "out.ppm").string();
    const kv_tool::tool_error e =
        error_of([&] { kv_tool::write_image(path, file_type::ppm, picture); });
    EXPECT_EQ(e.code(), kv_tool::EXIT_FILE);
    EXPECT_NE(std::string(e.what()).find(path + ": cannot create"), std::string::npos) << e.what();
    EXPECT_FALSE(std::filesystem::exists(dir / "no_such_folder"));
}

}  // namespace
}  // namespace kv_tool_test
