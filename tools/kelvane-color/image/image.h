// Image files in and out, as the rest of the tool sees them: binary PPM, PGM and PAM by hand; PNG
// and TIFF through libpng and libtiff or, on Windows, through the Windows Imaging Component, which
// also reads JPEG, BMP and whatever else the system decodes. Every image read becomes 16-bit
// samples; writers take 8 or 16 bits, RGB or RGBA. How the formats plug in: codec.h.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kv_tool {

// Interleaved samples, r g b (a) per pixel, each at most 2^bits - 1.
struct image {
    int32_t width = 0;
    int32_t height = 0;
    int channels = 3;  // 3 (RGB) or 4 (RGBA)
    int bits = 16;     // 8 or 16
    std::vector<uint16_t> samples;

    uint64_t pixel_count() const { return uint64_t(width) * uint64_t(height); }
};

enum class file_type { ppm, pam, png, tiff, raw };

// The type a path names by its extension (.ppm .pgm .pnm .pam .png .tif .tiff .raw, any case);
// throws a usage error naming `option` for anything else.
file_type file_type_of(const std::string& path, const char* option);
const char* file_type_name(file_type type);
const char* file_type_extension(file_type type);
bool png_supported();
bool tiff_supported();
// Whether this build writes files of `type` (PNG and TIFF need libpng and libtiff off Windows).
bool can_write(file_type type);

// Windows builds read and write PNG and TIFF through the system's codecs, which decode JPEG, BMP
// and more besides; the help text says so.
#if defined(_WIN32)
constexpr bool system_codecs = true;
#else
constexpr bool system_codecs = false;
#endif

// Reads any supported image, telling the type by the file's first bytes. Samples come back at 16
// bits: a file of maximum value M holds v, which becomes round(v * 65535 / M), so 8-bit samples
// become v * 257. Gray images are spread to RGB; an alpha channel is kept. Throws a file error that
// names the path and what was wrong.
image read_image(const std::string& path);

// Writes `picture` (8 or 16 bits, 3 or 4 channels) as PPM (3 channels), PAM, PNG or TIFF. The file
// is written beside its final name and renamed into place, so a failed write leaves no half file.
void write_image(const std::string& path, file_type type, const image& picture);

// Writes bytes as they are (raw buffers), with the same replace-on-success rule.
void write_file(const std::string& path, const void* data, size_t size);

}  // namespace kv_tool
