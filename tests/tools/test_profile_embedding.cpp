// Profiles put into encoded PNG and TIFF bytes (the Windows codecs' way of embedding): files this
// platform's writer made without a profile, or with another one, get the profile, the image
// reader finds it and the same samples; broken bytes are refused with the place named.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "image/image.h"
#include "image/prechecks.h"
#include "image/profile_embedding.h"
#include "kelvane_qor_color.hpp"
#include "tests/tools/tool_test_support.h"

// Where this build writes PNG and TIFF and can embed a profile in them.
#if defined(KV_TOOL_HAVE_EMBEDDING) && \
    (defined(_WIN32) || (defined(KV_TOOL_HAVE_PNG) && defined(KV_TOOL_HAVE_TIFF)))
namespace {

using kv_tool::color_profile;
using kv_tool::file_type;
using kv_tool::image;

// A 5x3 picture with distinct samples (odd sizes catch row and byte-order slips).
image picture(int bits) {
    image p;
    p.width = 5;
    p.height = 3;
    p.bits = bits;
    for (int i = 0; i < 45; ++i) p.samples.push_back(uint16_t((i * 2731 + 17) % (1 << bits)));
    return p;
}

// Profiles the colour layer makes, as libpng checks what it writes and reads.
color_profile icc_profile(const char* space) {
    color_profile p;
    p.icc = kelvane::color_space::named(space).icc();
    return p;
}

color_profile srgb_profile() {
    color_profile p = icc_profile("srgb");
    p.srgb = true;
    return p;
}

// How many chunks of `type` a PNG has.
int png_chunks_of(const std::string& png, const std::string& type) {
    const std::vector<std::string> types = kv_tool_test::png_chunk_types(png);
    return int(std::count(types.begin(), types.end(), type));
}

struct embedding_case {
    const char* name;
    file_type type;
    int bits;
    color_profile written;  // what the writer embedded itself (may be none)
    color_profile embedded;
};

TEST(ProfileEmbedding, TheReaderFindsTheProfileAndTheSameSamples) {
    const embedding_case cases[] = {
        {"png_icc", file_type::png, 16, {}, icc_profile("display-p3")},
        {"png_srgb", file_type::png, 8, {}, srgb_profile()},
        {"png_icc_over_srgb", file_type::png, 8, srgb_profile(), icc_profile("rec2020")},
        {"png_icc_over_icc", file_type::png, 16, icc_profile("prophoto"), icc_profile("adobe-rgb")},
        {"tiff_icc", file_type::tiff, 16, {}, icc_profile("display-p3")},
        {"tiff_icc_8", file_type::tiff, 8, {}, icc_profile("rec709")},
        {"tiff_icc_over_icc", file_type::tiff, 16, icc_profile("prophoto"), icc_profile("dci-p3")},
    };
    const auto dir = kv_tool_test::scratch_dir();
    for (const embedding_case& c : cases) {
        SCOPED_TRACE(c.name);
        image p = picture(c.bits);
        p.profile = c.written;
        const std::string plain = (dir / (std::string(c.name) + "_plain")).string();
        kv_tool::write_image(plain, c.type, p);
        const std::string bytes = kv_tool_test::contents(plain);
        const std::string with = c.type == file_type::png
                                     ? kv_tool::png_with_profile(bytes, c.embedded)
                                     : kv_tool::tiff_with_profile(bytes, c.embedded.icc);
        const std::string path = kv_tool_test::write_text(dir / c.name, with);
        const image back = kv_tool::read_image(path);
        std::vector<uint16_t> expected = p.samples;  // read back at 16 bits: v becomes v * 257
        for (uint16_t& v : expected) v = uint16_t(v * (c.bits == 8 ? 257 : 1));
        if (!(c.bits == 16 && c.type == file_type::png && kv_tool_test::under_wine())) {
            EXPECT_EQ(back.samples, expected);
        }
        EXPECT_EQ(back.profile.srgb, c.embedded.srgb);
        if (!c.embedded.srgb) {
            EXPECT_EQ(back.profile.icc, c.embedded.icc);
        }
        EXPECT_EQ(back.profile.fault, "");
        if (c.type == file_type::png) {
            EXPECT_EQ(png_chunks_of(with, "iCCP") + png_chunks_of(with, "sRGB"), 1);
            EXPECT_EQ(png_chunks_of(with, "IEND"), 1);
        }
    }
}

// The chunk walk made before a Windows decoder sees a file tells an sRGB chunk, which Wine's
// decoder does not report, from iCCP and from no colour chunk.
TEST(ProfileEmbedding, TheChunkWalkSeesTheSrgbChunk) {
    const auto dir = kv_tool_test::scratch_dir();
    const struct {
        const char* name;
        color_profile profile;
        bool srgb;
    } cases[] = {{"srgb", srgb_profile(), true},
                 {"icc", icc_profile("display-p3"), false},
                 {"none", {}, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        image p = picture(8);
        p.profile = c.profile;
        const std::string path = (dir / (std::string(c.name) + ".png")).string();
        kv_tool::write_image(path, file_type::png, p);
        EXPECT_EQ(kv_tool::walk_png(kv_tool_test::contents(path)).srgb, c.srgb);
    }
}

// A big-endian TIFF of one 8-bit RGB pixel, as no writer here makes one: header, the pixel, the
// three BitsPerSample values, then the directory.
std::string big_endian_tiff() {
    std::string t("MM\0\x2a\0\0\0\x14", 8);
    t += std::string("\x10\x20\x30\0", 4) + std::string("\0\x08\0\x08\0\x08\0\0", 8);
    auto put = [&t](uint32_t v, int size) {
        for (int i = size - 1; i >= 0; --i) t += char((v >> (8 * i)) & 0xff);
    };
    const uint32_t entries[][3] = {{256, 3, 1 << 16}, {257, 3, 1 << 16}, {258, 3, 12},
                                   {259, 3, 1 << 16}, {262, 3, 2 << 16}, {273, 4, 8},
                                   {277, 3, 3 << 16}, {278, 4, 1},       {279, 4, 3}};
    put(9, 2);
    for (const auto& e : entries) {
        put(e[0], 2);
        put(e[1], 2);
        put(e[0] == 258 ? 3 : 1, 4);
        put(e[2], 4);
    }
    put(0, 4);
    return t;
}

TEST(ProfileEmbedding, BigEndianTiff) {
    const auto dir = kv_tool_test::scratch_dir();
    const color_profile profile = icc_profile("linear-srgb");
    const std::string path = kv_tool_test::write_text(
        dir / "mm.tif", kv_tool::tiff_with_profile(big_endian_tiff(), profile.icc));
    const image back = kv_tool::read_image(path);
    EXPECT_EQ(back.samples, (std::vector<uint16_t>{0x1010, 0x2020, 0x3030}));
    EXPECT_EQ(back.profile.icc, profile.icc);
}

TEST(ProfileEmbedding, BrokenBytesAreRefusedWithThePlace) {
    const std::string png_head("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16);
    const std::string ihdr = png_head + std::string(17, '\0');
    const struct {
        const char* name;
        bool png;
        std::string bytes;
        const char* says;
    } cases[] = {
        {"not_png", true, "GIF89a" + std::string(40, '\0'), "do not start with a PNG header"},
        {"short_ihdr", true, png_head + std::string(5, '\0'), "do not start with a PNG header"},
        {"chunk_past_end", true, ihdr + std::string("\0\0\x01\0IDAT", 8) + "abc",
         "ends past the file, at byte 33"},
        {"no_iend", true, ihdr, "without an IEND chunk"},
        {"not_tiff", false, "P6\n1 1\n255\n", "do not start with a TIFF header"},
        {"bigtiff", false, std::string("II\x2b\0\x08\0\0\0", 8), "not a classic TIFF"},
        {"directory_outside", false, std::string("II\x2a\0\xf0\0\0\0", 8) + "xxxx",
         "first directory lies outside"},
        {"directory_cut", false, std::string("II\x2a\0\x08\0\0\0\x05\0", 10) + "short",
         "first directory lies outside"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            if (c.png)
                kv_tool::png_with_profile(c.bytes, icc_profile("display-p3"));
            else
                kv_tool::tiff_with_profile(c.bytes, icc_profile("display-p3").icc);
            ADD_FAILURE() << "accepted";
        } catch (const kv_tool::embedding_error& e) {
            EXPECT_NE(std::string(e.what()).find(c.says), std::string::npos) << e.what();
        }
    }
}

}  // namespace
#endif
