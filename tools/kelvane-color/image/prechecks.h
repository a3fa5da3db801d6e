// Checks made on a PNG's or TIFF's own bytes before a decoder runs: sizes claimed against the
// file's, where a PNG's chunks stop, where a TIFF's strips lie. Shared by every back end (libpng,
// libtiff, the Windows codecs), so a file is refused alike and in the same words on any of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kv_tool {

// Deflate packs at most about 1032 bytes into one, so a PNG's file must hold at least 1/1032 of
// the filtered rows its header claims. Returns "" or the reason, in words, to refuse it.
std::string png_size_fault(uint32_t width, uint32_t height, int channels, int bit_depth,
                           uint64_t file_size);

// A PNG that ends early: after all its image data (`image_complete`, only IEND missing) or within
// it, with `rows_done` of `height` rows decoded when known (0 otherwise); `offset` is where it
// ends.
std::string png_cut_fault(bool image_complete, uint32_t rows_done, uint32_t height,
                          uint64_t offset);

// Where a TIFF's strips lie, as its first directory says.
struct tiff_strips {
    uint32_t height = 0;
    uint32_t rows_per_strip = 0xFFFFFFFFu;  // rows in every strip but the last
    uint64_t row_bytes = 0;                 // one decoded row
    uint32_t compression = 1;               // as TIFF numbers it: 1 none, 5 LZW, 8 Deflate, ...
    std::vector<uint64_t> offsets, counts;
};

// Checked before anything is decoded: every strip lies inside the file and holds enough bytes to
// decode to its rows at its codec's largest expansion. Returns "" or the reason, in words.
std::string tiff_strips_fault(const tiff_strips& layout, uint64_t file_size);

// Checks of a file's own bytes, for decoders that accept more than libpng and libtiff do.

// A PNG's header read before any decoder sees it (some decode the whole image as soon as they
// open the file): its pixel count and its size against the file's. Returns "" or the reason.
std::string png_header_fault(const std::string& bytes);

// Where a PNG's list of chunks stops short of its end chunk (IEND): libpng refuses such a file
// wherever it was cut, some system decoders accept one cut after its image data.
struct png_chunks {
    bool cut = false;
    bool after_image_data = false;  // the cut comes after the last image data chunk (IDAT)
    bool srgb = false;              // an sRGB chunk, which not every decoder reports
};
png_chunks walk_png(const std::string& bytes);

// The strips of a TIFF's first directory, read from its bytes with every position checked, so
// they are checked against the file as libtiff's reader checks them. False for a file laid out
// otherwise (tiles, separate planes, BigTIFF, a damaged directory): its decoder then judges it.
bool read_tiff_strips(const std::string& bytes, tiff_strips* out);

}  // namespace kv_tool
