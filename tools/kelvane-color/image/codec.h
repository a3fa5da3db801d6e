// What every image format implements, and the sample handling they share. read_image and
// write_image (image.cpp) tell a file's format and hand it to one of: Netpbm (netpbm.cpp, always
// built), PNG (png.cpp, libpng) and TIFF (tiff.cpp, libtiff) when found at build time, or on
// Windows the Windows Imaging Component (wic.cpp) for PNG, TIFF and whatever else the system
// decodes. The formats share the bounds and the pre-checks (prechecks.h), so a file reads the same
// on every back end.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "cli/tool_error.h"
#include "image/image.h"

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

// Refuses an empty frame and one of more than max_pixels pixels.
void check_size(const std::string& path, uint64_t width, uint64_t height);

// The error for a frame whose samples do not fit in memory.
tool_error no_memory(const std::string& path, uint64_t width, uint64_t height, int channels);

// Copies `count` samples as a file's encoder takes them: at 16 bits two bytes each in host order,
// at 8 bits one byte each.
void pack_samples(const uint16_t* from, size_t count, int bits, unsigned char* to);

// An image of `width` x `height` pixels with room for `depth` samples a pixel (gray, gray + alpha,
// RGB, RGBA) once gray is spread to RGB; no samples yet.
image empty_image(uint32_t width, uint32_t height, int depth);

// Appends one row of `depth` 16-bit samples a pixel, spreading gray to RGB.
void append_row(image* out, const uint16_t* row, uint32_t width, int depth);

// Netpbm: binary P5 (PGM), P6 (PPM) and P7 (PAM), by hand. `kind` is the digit of the magic
// number; the file's position is anywhere.
image read_netpbm(const std::string& path, std::FILE* file, uint64_t file_size, char kind);
// A whole PPM (3 channels) or PAM file of `picture`.
std::string netpbm_bytes(const image& picture, file_type type);

#if defined(KV_TOOL_HAVE_PNG)
// PNG through libpng. Writers return "" or what went wrong.
image read_png(const std::string& path, std::FILE* file, uint64_t file_size);
std::string png_to_stream(std::FILE* file, const image& picture);
#endif

#if defined(KV_TOOL_HAVE_TIFF)
// TIFF through libtiff.
image read_tiff(const std::string& path, std::FILE* file, uint64_t file_size);
std::string tiff_to_stream(std::FILE* file, const image& picture);
#endif

}  // namespace kv_tool
