// Image files: round trips through every writer at 8 and 16 bits, Netpbm maximum values other
// than 255 and 65535, gray and alpha, TIFF, and the messages for broken files.
#include <random>
#include <tuple>

#include "image/image.h"
#include "tool_test_support.h"

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
            // Wine writes 16-bit PNG samples in the wrong byte order; tests/windows checks
            // them on a Windows host.
            if (bits == 16 && kv_tool::system_codecs) continue;
            for (int channels : {3, 4}) cases.push_back({file_type::png, ".png", bits, channels});
        }
    }
    if (kv_tool::tiff_supported()) {
        for (int bits : {8, 16}) {
            for (int channels : {3, 4}) cases.push_back({file_type::tiff, ".tif", bits, channels});
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
        EXPECT_EQ(std::make_tuple(read.width, read.height, read.channels, read.bits),
                  std::make_tuple(written.width, written.height, written.channels, 16));
        std::vector<uint16_t> widened = written.samples;
        for (uint16_t& v : widened) v = uint16_t(c.bits == 8 ? v * 257 : v);
        EXPECT_EQ(read.samples, widened);
    }
    // Every file was renamed into place: no temporary is left beside them.
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        EXPECT_EQ(entry.path().stem().string(), "picture") << entry.path();
    }
}

// A 1x1 gray Netpbm image, with a comment in its header, of one sample below `maxval`.
std::string gray_pixel(uint32_t maxval, uint32_t value) {
    std::string bytes = "P5\n# comment\n1 1\n" + std::to_string(maxval) + "\n";
    if (maxval > 255) bytes += char(value >> 8);
    return bytes + char(value & 0xFF);
}

// A little-endian RGB TIFF of 2x2 pixels of `bits` bits in one uncompressed strip at `offset`.
std::string strip_tiff(uint32_t bits, uint32_t offset, const std::string& data) {
    const uint32_t entries[][3] = {{256, 4, 2}, {257, 4, 2}, {258, 3, bits},
                                   {259, 3, 1}, {262, 3, 2}, {273, 4, offset},
                                   {277, 3, 3}, {278, 4, 2}, {279, 4, 12 * bits / 8}};
    std::string out("II*\0\x08\0\0\0\x09\0", 10);
    auto put = [&out](uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i) out += char(value >> (8 * i));
    };
    for (const auto& e : entries) {
        put(e[0], 2);
        put(e[1], 2);
        put(1, 4);
        put(e[2], 4);
    }
    put(0, 4);
    return out + data;
}

struct decode_case {
    const char* name;
    std::string bytes;
    int channels;
    std::vector<uint16_t> samples;
};

// Samples of every depth and maximum value arrive as 16 bits; gray spreads to RGB.
TEST(ImageFiles, SamplesAreReadAsSixteenBits) {
    std::vector<decode_case> cases = {
        {"ga.pam",
         "P7\nWIDTH 2\nHEIGHT 1\nDEPTH 2\nMAXVAL 255\nTUPLTYPE GRAYSCALE_ALPHA\nENDHDR\n"
         "\x10\x20\x30\xFF"s,
         4,
         {0x1010, 0x1010, 0x1010, 0x2020, 0x3030, 0x3030, 0x3030, 0xFFFF}},
    };
    // Maximum value, sample, and the sample scaled to 65535.
    const uint32_t maxvals[][3] = {
        {1, 0, 0},         {1, 1, 65535},         {3, 1, 21845},         {255, 1, 257},
        {255, 128, 32896}, {1023, 512, 32800},    {1023, 1023, 65535},   {4095, 1, 16},
        {256, 255, 65279}, {65535, 12345, 12345}, {65535, 65535, 65535},
    };
    for (const auto& m : maxvals) {
        const auto v = uint16_t(m[2]);
        cases.push_back({"gray.pgm", gray_pixel(m[0], m[1]), 3, {v, v, v}});
    }
    if (kv_tool::tiff_supported()) {
        const std::vector<uint16_t> samples = {0, 1, 2, 65535, 40000, 3, 7, 8, 9, 10, 11, 12};
        std::string data;
        for (uint16_t v : samples) data += {char(v & 0xFF), char(v >> 8)};
        cases.push_back({"rgb16.tif", strip_tiff(16, 122, data), 3, samples});
    }
    const auto dir = scratch_dir();
    for (const decode_case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.bytes));
        const image read = kv_tool::read_image(write_text(dir / c.name, c.bytes));
        EXPECT_EQ(read.channels, c.channels);
        EXPECT_EQ(read.samples, c.samples);
    }
}

struct broken_case {
    const char* name;
    std::string bytes;
    std::string message;
};

// The bytes of `picture` written as a PNG file.
std::string png_of(const image& picture) {
    const std::string path = (scratch_dir() / "written.png").string();
    kv_tool::write_image(path, file_type::png, picture);
    return contents(path);
}

TEST(ImageFiles, BrokenFilesNameTheFileAndTheFault) {
    std::vector<broken_case> cases = {
        {"empty.ppm", ""s, "empty file"},
        {"text.txt", "hello"s, "not a PNG, PPM, PGM, PAM or TIFF image"},
        {"ascii.ppm", "P3\n1 1\n255\n0 0 0\n"s, "plain-text and bitmap Netpbm files"},
        {"short.ppm", "P6\n2 2\n255\n\x01\x02\x03"s,
         "truncated: its 2x2 pixels need 12 bytes of samples after the header, the file has 3"},
        {"nodims.ppm", "P6\n\n"s, "header: expected the width"},
        {"maxval0.pgm", "P5\n1 1\n0\n\x00"s, "maximum value 0 is not 1 to 65535"},
        {"maxval.pgm", "P5\n1 1\n70000\n\x00\x00"s, "maximum value 70000 is not 1 to 65535"},
        {"over.pgm", "P5\n2 1\n100\n\x05\x65"s,
         "sample 101 at element 1 exceeds the maximum value 100 (row 0, column 1) (at byte offset "
         "12)"},
        {"zero.pgm", "P5\n0 1\n255\n"s, "image has no pixels"},
        {"huge.pgm", "P5\n65536 65536\n255\n"s, "more than one frame can hold"},
        {"depth.pam", "P7\nWIDTH 1\nHEIGHT 1\nDEPTH 5\nMAXVAL 255\nENDHDR\n\x01\x02\x03\x04\x05"s,
         "PAM DEPTH 5 is not gray"},
        {"endless.pam", "P7\nWIDTH 1\nHEIGHT 1\n"s, "PAM header has no ENDHDR"},
        {"keyword.pam", "P7\nWIDE 1\nENDHDR\n"s,
         "PAM header: unknown keyword 'WIDE' (at byte offset 3)"},
        {"title.pam", "P7\nWIDTH 1\n\x1b]0;owned\x07 1\nENDHDR\n"s,
         "unknown keyword '\\x1B]0;owned\\x07' (at byte offset 11)"},
        {"bad.png", "\x89PNG\r\n\x1a\nnot really"s, "PNG"},
        {"bad.tif", "II*\0garbage"s, "TIFF"},
    };
    if (kv_tool::png_supported()) {
        // A header (its CRC included) that claims 40000x40000 RGB pixels, then a 1x1 image's data.
        const std::string claims =
            "\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\x9c\x40\0\0\x9c\x40\x08\x02\0\0\0"
            "\xde\x6e\x99\x52"s;
        cases.push_back({"claims.png", claims + png_of(random_image(1, 1, 3, 8, 3)).substr(33),
                         "PNG: its header claims 40000x40000 pixels, which need at least 4651201 "
                         "bytes of compressed data, but the file has"});
        const std::string png = png_of(random_image(64, 64, 3, 8, 4));
        cases.push_back({"cut.png", png.substr(0, 3000),
                         "PNG: the file ends before its image data is complete (at byte offset "
                         "3000)"});
        cases.push_back({"noend.png", png.substr(0, png.size() - 12),
                         "PNG: the file ends after the image data, before its end chunk (IEND)"});
    }
    if (kv_tool::tiff_supported()) {
        cases.push_back({"far.tif", strip_tiff(8, 0xFFFFFF00, ""),
                         "TIFF: strip 0 (rows 0 to 1) lies past the end of the file: it claims "
                         "bytes 4294967040 to 4294967052 of a 122-byte file"});
        cases.push_back({"short.tif", strip_tiff(8, 122, "\x01\x02\x03"),
                         "claims bytes 122 to 134 of a 125-byte file"});
    }
    const auto dir = scratch_dir();
    for (const broken_case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = write_text(dir / c.name, c.bytes);
        const kv_tool::tool_error e = error_of([&] { kv_tool::read_image(path); });
        EXPECT_EQ(e.code(), kv_tool::EXIT_FILE);
        EXPECT_EQ(std::string(e.what()).rfind(path + ": ", 0), 0u) << e.what();
        EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        for (char ch : std::string(e.what())) ASSERT_GE(static_cast<unsigned char>(ch), 0x20);
    }
}

}  // namespace
}  // namespace kv_tool_test
