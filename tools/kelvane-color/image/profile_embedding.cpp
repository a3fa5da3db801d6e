// PNG chunks and a TIFF directory entry written around an encoder's bytes; see the header.
#include "image/profile_embedding.h"

#include <zlib.h>

#include <cstring>

#include "image/file_numbers.h"

namespace kv_tool {
namespace {

const std::string png_signature("\x89PNG\r\n\x1a\n", 8);

std::string png_chunk(const char* type, const std::string& data) {
    std::string c;
    append_number(c, uint32_t(data.size()), 4, true);
    c.append(type, 4);
    c += data;
    const auto* typed = reinterpret_cast<const Bytef*>(c.data() + 4);
    append_number(c, uint32_t(crc32(crc32(0, Z_NULL, 0), typed, uInt(c.size() - 4))), 4, true);
    return c;
}

// The colour chunks libpng writes for sRGB (rendering intent perceptual) or for ICC bytes.
std::string color_chunks(const color_profile& profile) {
    if (profile.srgb) {
        std::string gamma, white_and_primaries;
        append_number(gamma, 45455, 4, true);
        for (uint32_t v : {31270u, 32900u, 64000u, 33000u, 30000u, 60000u, 15000u, 6000u})
            append_number(white_and_primaries, v, 4, true);
        return png_chunk("gAMA", gamma) + png_chunk("sRGB", std::string(1, '\0')) +
               png_chunk("cHRM", white_and_primaries);
    }
    if (profile.icc.empty()) return "";
    uLongf size = compressBound(uLong(profile.icc.size()));
    std::string packed(size, '\0');
    if (compress2(reinterpret_cast<Bytef*>(&packed[0]), &size, profile.icc.data(),
                  uLong(profile.icc.size()), Z_BEST_COMPRESSION) != Z_OK) {
        throw embedding_error("PNG: zlib could not compress the ICC profile");
    }
    packed.resize(size);
    // Profile name, its terminating zero, compression method 0 (zlib), the compressed bytes.
    return png_chunk("iCCP", std::string("ICC profile\0\0", 13) + packed);
}

bool is_color_chunk(const std::string& type) {
    return type == "iCCP" || type == "sRGB" || type == "gAMA" || type == "cHRM";
}

// The first directory again, with an entry for the profile (`size` bytes at `at`) in tag order in
// place of any the encoder wrote, and the same pointer to the next directory.
std::string directory_with_profile(const file_numbers& tiff, uint64_t directory, uint64_t entries,
                                   uint32_t size, uint32_t at) {
    constexpr uint32_t profile_tag = 34675, undefined_type = 7;
    std::string profile_entry;
    append_number(profile_entry, profile_tag, 2, tiff.big);
    append_number(profile_entry, undefined_type, 2, tiff.big);
    append_number(profile_entry, size, 4, tiff.big);
    append_number(profile_entry, at, 4, tiff.big);
    std::string listed;
    uint32_t count = 1;
    for (uint64_t i = 0; i < entries; ++i) {
        const size_t entry = size_t(directory + 2 + 12 * i);
        uint64_t tag = 0;
        tiff.number(entry, 2, &tag);  // inside the directory the caller checked
        if (tag > profile_tag && !profile_entry.empty()) {
            listed += profile_entry;
            profile_entry.clear();
        }
        if (tag != profile_tag) {
            listed.append(tiff.bytes, entry, 12);
            ++count;
        }
    }
    listed += profile_entry;
    std::string out;
    append_number(out, count, 2, tiff.big);
    out += listed;
    out.append(tiff.bytes, size_t(directory + 2 + 12 * entries), 4);
    return out;
}

}  // namespace

std::string png_with_profile(const std::string& png, const color_profile& profile) {
    constexpr size_t header_end = 8 + 12 + 13;
    const file_numbers numbers{png, true};
    uint64_t length = 0;
    if (png.size() < header_end || png.compare(0, 8, png_signature) != 0 ||
        png.compare(12, 4, "IHDR") != 0 || !numbers.number(8, 4, &length) || length != 13) {
        throw embedding_error("PNG: the encoder's bytes do not start with a PNG header");
    }
    std::string out = png.substr(0, header_end) + color_chunks(profile);
    size_t at = header_end;
    while (at < png.size()) {
        if (png.size() - at < 12 || !numbers.number(at, 4, &length) ||
            length > png.size() - at - 12) {
            throw embedding_error(
                "PNG: a chunk of the encoder's bytes ends past the file, at byte " +
                std::to_string(at));
        }
        const size_t end = at + 12 + size_t(length);
        const std::string type = png.substr(at + 4, 4);
        if (!is_color_chunk(type)) out.append(png, at, end - at);
        if (type == "IEND") return out;
        at = end;
    }
    throw embedding_error("PNG: the encoder's bytes end without an IEND chunk");
}

std::string tiff_with_profile(const std::string& tiff, const std::vector<uint8_t>& icc) {
    if (tiff.size() < 8 || (tiff.compare(0, 2, "II") != 0 && tiff.compare(0, 2, "MM") != 0))
        throw embedding_error("TIFF: the encoder's bytes do not start with a TIFF header");
    const file_numbers numbers{tiff, tiff[0] == 'M'};
    uint64_t version = 0, directory = 0, entries = 0;
    if (!numbers.number(2, 2, &version) || version != 42)
        throw embedding_error("TIFF: not a classic TIFF (BigTIFF or another version)");
    // A value of four bytes or fewer would sit in the entry itself; no ICC profile is that short.
    if (icc.size() <= 4) throw embedding_error("TIFF: the ICC profile is too short to embed");
    if (!numbers.number(4, 4, &directory) || !numbers.number(directory, 2, &entries) ||
        entries == 0 || directory + 2 + 12 * entries + 4 > tiff.size())
        throw embedding_error("TIFF: the first directory lies outside the encoder's bytes");
    std::string out = tiff;
    if (out.size() % 2 != 0) out += '\0';
    const uint64_t profile_at = out.size();
    out.append(icc.begin(), icc.end());
    if (out.size() % 2 != 0) out += '\0';
    const uint64_t directory_at = out.size();
    if (directory_at + 2 + 12 * (entries + 1) + 4 > 0xFFFFFFFFu)
        throw embedding_error("TIFF: the file would pass 4 GiB with its profile");
    out += directory_with_profile(numbers, directory, entries, uint32_t(icc.size()),
                                  uint32_t(profile_at));
    std::string pointer;
    append_number(pointer, uint32_t(directory_at), 4, numbers.big);
    out.replace(4, 4, pointer);
    return out;
}

}  // namespace kv_tool
