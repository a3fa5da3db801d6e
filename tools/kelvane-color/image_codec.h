// The compressed formats behind read_image and write_image. Two back ends implement them: libpng
// and libtiff (image_io.cpp, when found at build time) and, on Windows, the Windows Imaging
// Component (image_io_wic.cpp). Both share the bounds and the sample handling declared here, so a
// file reads the same on either.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "image_io.h"
#include "tool_error.h"

namespace kv_tool {

// The pixel count of one frame travels as a 32-bit signed number.
constexpr uint64_t max_pixels = 0x7FFFFFFFu;

// What the first bytes of a file say it is; `other` is anything read_image does not recognise.
enum class coded_format { png, tiff, other };

// Whether this build reads and writes files of `format` (`other`: whether it has decoders for
// formats read_image does not recognise itself).
bool codec_handles(coded_format format);

// Decodes the file of `size` bytes opened as `file` (its position anywhere) into 16-bit samples.
image codec_read(const std::string& path, coded_format format, std::FILE* file, uint64_t size);

// Writes `picture` as PNG or TIFF through a temporary beside `path`, replaced on success.
void codec_write(const std::string& path, coded_format format, const image& picture);

// --- Shared by the back ends ---

// Refuses an empty frame and one of more than max_pixels pixels.
void check_size(const std::string& path, uint64_t width, uint64_t height);

// The error for a frame whose samples do not fit in memory.
tool_error no_memory(const std::string& path, uint64_t width, uint64_t height, int channels);

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

// --- Checks of a file's own bytes, for decoders that accept more than libpng and libtiff do ---

// A PNG's header read before any decoder sees it (some decode the whole image as soon as they
// open the file): its pixel count and its size against the file's. Returns "" or the reason.
std::string png_header_fault(const std::string& bytes);

// Where a PNG's list of chunks stops short of its end chunk (IEND): libpng refuses such a file
// wherever it was cut, some system decoders accept one cut after its image data.
struct png_chunks {
    bool cut = false;
    bool after_image_data = false;  // the cut comes after the last image data chunk (IDAT)
};
png_chunks walk_png(const std::string& bytes);

// The strips of a TIFF's first directory, read from its bytes with every position checked, so
// they are checked against the file as libtiff's reader checks them. False for a file laid out
// otherwise (tiles, separate planes, BigTIFF, a damaged directory): its decoder then judges it.
bool read_tiff_strips(const std::string& bytes, tiff_strips* out);

// Copies `count` samples as a file's encoder takes them: at 16 bits two bytes each in host order,
// at 8 bits one byte each.
void pack_samples(const uint16_t* from, size_t count, int bits, unsigned char* to);

// An image of `width` x `height` pixels with room for `depth` samples a pixel (gray, gray + alpha,
// RGB, RGBA) once gray is spread to RGB; no samples yet.
image empty_image(uint32_t width, uint32_t height, int depth);

// Appends one row of `depth` 16-bit samples a pixel, spreading gray to RGB.
void append_row(image* out, const uint16_t* row, uint32_t width, int depth);

}  // namespace kv_tool
