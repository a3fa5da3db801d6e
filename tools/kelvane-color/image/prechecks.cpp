// The pre-checks of PNG and TIFF files, made from the bytes and sizes alone.
#include "image/prechecks.h"

#include <algorithm>

#include "image/codec.h"
#include "image/file_numbers.h"

namespace kv_tool {

namespace {

uint32_t big_endian_32(const std::string& bytes, size_t at) {
    const auto byte = [&](size_t i) { return uint32_t(static_cast<unsigned char>(bytes[at + i])); };
    return byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3);
}

// The most bytes one byte of a strip can decode to: PackBits repeats a byte at most 128 times
// for two, Deflate about 1032 to one, LZW strings reach 4096 bytes for a 12-bit code; any other
// codec gets a generous bound. Compression codes as TIFF numbers them.
uint64_t tiff_expansion(uint32_t compression) {
    switch (compression) {
        case 1:  // none
            return 1;
        case 32773:  // PackBits
            return 64;
        case 8:      // Deflate
        case 32946:  // Deflate, the older code
            return 1032;
        case 5:  // LZW
            return 4096;
        default:
            return 65536;
    }
}

}  // namespace

std::string png_size_fault(uint32_t width, uint32_t height, int channels, int bit_depth,
                           uint64_t file_size) {
    const uint64_t row_bits = uint64_t(width) * channels * bit_depth;
    const uint64_t decoded = ((row_bits + 7) / 8 + 1) * height;  // a filter byte a row
    if (decoded / 1032 <= file_size) return std::string();
    return "its header claims " + std::to_string(width) + "x" + std::to_string(height) +
           " pixels, which need at least " + std::to_string(decoded / 1032) +
           " bytes of compressed data, but the file has " + std::to_string(file_size) + " bytes";
}

std::string png_cut_fault(bool image_complete, uint32_t rows_done, uint32_t height,
                          uint64_t offset) {
    const std::string where = " (at byte offset " + std::to_string(offset) + ")";
    if (image_complete) {
        return "the file ends after the image data, before its end chunk (IEND): it was cut "
               "short" +
               where;
    }
    return rows_done < height && rows_done > 0
               ? "the file ends before its image data is complete: row " +
                     std::to_string(rows_done) + " of " + std::to_string(height) + " is missing" +
                     where
               : "the file ends before its image data is complete" + where;
}

std::string tiff_strips_fault(const tiff_strips& layout, uint64_t file_size) {
    const uint64_t height = layout.height;
    const uint64_t rows_per_strip =
        std::max<uint64_t>(1, std::min<uint64_t>(layout.rows_per_strip, height));
    const size_t strips = std::min(layout.offsets.size(), layout.counts.size());
    for (size_t i = 0; i < strips; ++i) {
        const uint64_t first_row = uint64_t(i) * rows_per_strip;
        if (first_row >= height) break;
        const uint64_t rows = std::min<uint64_t>(rows_per_strip, height - first_row);
        const uint64_t offset = layout.offsets[i], count = layout.counts[i];
        const std::string strip = "strip " + std::to_string(i) + " (rows " +
                                  std::to_string(first_row) + " to " +
                                  std::to_string(first_row + rows - 1) + ")";
        if (offset > file_size || count > file_size - offset) {
            return strip + " lies past the end of the file: it claims bytes " +
                   std::to_string(offset) + " to " + std::to_string(offset + count) + " of a " +
                   std::to_string(file_size) + "-byte file";
        }
        if (rows * layout.row_bytes / tiff_expansion(layout.compression) > count) {
            return strip + " holds " + std::to_string(count) + " bytes, too few for its rows of " +
                   std::to_string(layout.row_bytes) + " bytes each";
        }
    }
    return std::string();
}

std::string png_header_fault(const std::string& bytes) {
    if (bytes.size() < 26 || bytes.compare(12, 4, "IHDR") != 0) return std::string();
    static const int channels_of_type[7] = {1, 0, 3, 1, 2, 0, 4};
    const int type = static_cast<unsigned char>(bytes[25]);
    const int channels = type < 7 ? channels_of_type[type] : 0;
    if (channels == 0) return std::string();  // the decoder refuses it in its own words
    const uint32_t width = big_endian_32(bytes, 16), height = big_endian_32(bytes, 20);
    if (uint64_t(width) * height > max_pixels) {
        return std::to_string(width) + "x" + std::to_string(height) +
               " pixels is more than one frame can hold (2^31 - 1)";
    }
    return png_size_fault(width, height, channels, static_cast<unsigned char>(bytes[24]),
                          bytes.size());
}

png_chunks walk_png(const std::string& bytes) {
    png_chunks walk;
    bool seen_data = false;
    for (uint64_t at = 8;;) {
        if (at + 8 > bytes.size()) {
            walk.cut = true;
            walk.after_image_data = seen_data;
            return walk;
        }
        if (bytes.compare(size_t(at) + 4, 4, "IEND") == 0) return walk;
        const bool data = bytes.compare(size_t(at) + 4, 4, "IDAT") == 0;
        const uint64_t end = at + 12 + big_endian_32(bytes, size_t(at));
        if (end > bytes.size()) {
            walk.cut = true;
            walk.after_image_data = seen_data && !data;
            return walk;
        }
        seen_data = seen_data || data;
        walk.srgb = walk.srgb || bytes.compare(size_t(at) + 4, 4, "sRGB") == 0;
        at = end;
    }
}

namespace {

// What the directory says beyond tiff_strips, for the row size and the layout check.
struct tiff_directory {
    uint64_t width = 0, samples = 1, bits = 1, planar = 1;
};

// Takes one tag's first value (or, for the strip lists, every value) into `out` and `d`.
void take_tag(const file_numbers& file, uint64_t tag, uint64_t values, uint64_t count, int size,
              tiff_strips* out, tiff_directory* d) {
    uint64_t first = 0;
    file.number(values, size, &first);
    switch (tag) {
        case 256:
            d->width = first;
            break;
        case 257:
            out->height = uint32_t(first);
            break;
        case 258:
            d->bits = first;
            break;
        case 259:
            out->compression = uint32_t(first);
            break;
        case 277:
            d->samples = first;
            break;
        case 278:
            out->rows_per_strip = uint32_t(first);
            break;
        case 284:
            d->planar = first;
            break;
        case 273:
        case 279: {
            std::vector<uint64_t>& list = tag == 273 ? out->offsets : out->counts;
            list.resize(size_t(count));
            for (uint64_t i = 0; i < count; ++i) file.number(values + i * size, size, &list[i]);
            break;
        }
        default:
            break;
    }
}

// Walks the entries of the directory at `directory`; false where an entry lies outside the file.
bool walk_tiff_directory(const file_numbers& file, uint64_t directory, uint64_t entries,
                         tiff_strips* out, tiff_directory* d) {
    std::vector<bool> seen(285);  // the tags read are all under 285
    for (uint64_t e = 0; e < entries; ++e) {
        const uint64_t at = directory + 2 + 12 * e;
        uint64_t tag = 0, type = 0, count = 0;
        if (!file.number(at, 2, &tag) || !file.number(at + 2, 2, &type) ||
            !file.number(at + 4, 4, &count)) {
            return false;
        }
        // A tag written twice counts once, at its first entry, as libtiff reads it.
        if (tag < seen.size()) {
            if (seen[tag]) continue;
            seen[tag] = true;
        }
        const int size = type == 3 ? 2 : type == 4 ? 4 : 0;  // SHORT or LONG
        if (size == 0 || count == 0) continue;
        uint64_t values = at + 8;
        if (count * size > 4 && !file.number(at + 8, 4, &values)) return false;
        const uint64_t room = file.bytes.size() - std::min<uint64_t>(values, file.bytes.size());
        if (count > room / size) return false;
        take_tag(file, tag, values, count, size, out, d);
    }
    return true;
}

// libtiff recounts a lone strip whose byte count looks wrong, as writers that got it wrong are
// common: a count of zero or, uncompressed, one past the end of the file or too short for its
// rows. It then takes the strip's size uncompressed, at most the rest of the file compressed.
void recount_lone_strip(uint64_t file_size, tiff_strips* out) {
    if (out->offsets.size() != 1 || out->counts.size() != 1 || out->offsets[0] == 0) return;
    const bool plain = out->compression == 1;
    const uint64_t offset = out->offsets[0], size = file_size;
    const uint64_t needed = out->row_bytes * std::min<uint64_t>(out->height, out->rows_per_strip);
    uint64_t& count = out->counts[0];
    if (count == 0 || (plain && (count < needed || (offset <= size && count > size - offset)))) {
        count = plain ? needed : offset <= size ? size - offset : 0;
    }
}

}  // namespace

bool read_tiff_strips(const std::string& bytes, tiff_strips* out) {
    const file_numbers file{bytes, bytes.size() >= 8 && bytes[0] == 'M'};
    uint64_t directory = 0, entries = 0, magic = 0;
    if (!file.number(2, 2, &magic) || magic != 42 || !file.number(4, 4, &directory) ||
        !file.number(directory, 2, &entries)) {
        return false;
    }
    tiff_directory d;
    if (!walk_tiff_directory(file, directory, entries, out, &d)) return false;
    out->row_bytes = (d.width * d.samples * d.bits + 7) / 8;
    recount_lone_strip(bytes.size(), out);
    return d.planar == 1 && !out->offsets.empty() && out->offsets.size() == out->counts.size();
}

}  // namespace kv_tool
