// TIFF through libtiff: strips of 8- or 16-bit gray, gray + alpha, RGB and RGBA read, checked
// against the file before a row is decoded; RGB(A) written in Deflate-compressed strips.
#include <tiffio.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "image/codec.h"
#include "image/prechecks.h"
#include "pipeline/file_access.h"

namespace kv_tool {
namespace {

thread_local std::string tiff_message;

void tiff_error_handler(const char* module, const char* format, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    tiff_message = module != nullptr ? std::string(module) + ": " + text : std::string(text);
}

// libtiff reads and writes through these, so the file is the regular one already opened and
// checked, a read past its end is noticed here rather than reported as a byte count gone
// negative, and a failed write keeps its reason.
struct tiff_source {
    std::FILE* file;
    uint64_t size;
    uint64_t position = 0;
    bool ended = false;
    uint64_t ended_at = 0;
    int write_error = 0;
};

tmsize_t tiff_read(thandle_t handle, void* data, tmsize_t length) {
    auto* source = static_cast<tiff_source*>(handle);
    if (length <= 0) return 0;
    const size_t got = std::fread(data, 1, size_t(length), source->file);
    if (got != size_t(length) && !source->ended) {
        source->ended = true;
        source->ended_at = source->position;
    }
    source->position += got;
    return tmsize_t(got);
}
tmsize_t tiff_write(thandle_t handle, void* data, tmsize_t length) {
    auto* sink = static_cast<tiff_source*>(handle);
    if (length <= 0) return 0;
    const size_t put = std::fwrite(data, 1, size_t(length), sink->file);
    if (put != size_t(length) && sink->write_error == 0) sink->write_error = errno;
    sink->position += put;
    sink->size = std::max(sink->size, sink->position);
    return tmsize_t(put);
}
toff_t tiff_seek(thandle_t handle, toff_t offset, int whence) {
    auto* source = static_cast<tiff_source*>(handle);
    uint64_t target = offset;
    if (whence == SEEK_CUR) target = source->position + offset;
    if (whence == SEEK_END) target = source->size + offset;
    if (!seek_to(source->file, target)) return toff_t(-1);
    source->position = target;
    return target;
}
int tiff_close(thandle_t) {
    return 0;
}
toff_t tiff_size(thandle_t handle) {
    return static_cast<tiff_source*>(handle)->size;
}

std::string tiff_fault(const tiff_source& source, const std::string& what) {
    if (source.ended) {
        return what + ": the file ends before it (a read at byte offset " +
               std::to_string(source.ended_at) + " reaches past its " +
               std::to_string(source.size) + " bytes)";
    }
    return what + " [libtiff: " + tiff_message + "]";
}

// Before anything is allocated for the rows: every strip lies inside the file and holds enough
// bytes to decode to the rows it claims.
void check_strips(const std::string& path, TIFF* tiff, uint64_t file_size) {
    tiff_strips layout;
    uint16_t compression = COMPRESSION_NONE;
    TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &compression);
    uint32_t rows_per_strip = 0;
    TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &layout.height);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_ROWSPERSTRIP, &rows_per_strip);
    const uint64_t* offsets = nullptr;
    const uint64_t* counts = nullptr;
    if (!TIFFGetField(tiff, TIFFTAG_STRIPOFFSETS, &offsets) ||
        !TIFFGetField(tiff, TIFFTAG_STRIPBYTECOUNTS, &counts) || offsets == nullptr ||
        counts == nullptr) {
        throw file_error(path, "TIFF: the file does not say where its image data lies");
    }
    layout.compression = compression;
    layout.rows_per_strip = rows_per_strip;
    layout.row_bytes = uint64_t(TIFFScanlineSize64(tiff));
    const uint32_t strips = TIFFNumberOfStrips(tiff);
    layout.offsets.assign(offsets, offsets + strips);
    layout.counts.assign(counts, counts + strips);
    const std::string fault = tiff_strips_fault(layout, file_size);
    if (!fault.empty()) throw file_error(path, "TIFF: " + fault);
}

using tiff_handle = std::unique_ptr<TIFF, void (*)(TIFF*)>;

// Refuses anything but 8- and 16-bit unsigned gray, gray + alpha, RGB and RGBA in strips with
// interleaved samples; returns the samples a pixel (`bits` set too).
uint16_t check_tiff_layout(const std::string& path, TIFF* tiff, uint16_t* bits) {
    uint32_t width = 0, height = 0;
    uint16_t samples_per_pixel = 1, planar = PLANARCONFIG_CONTIG, format = 1;
    uint16_t photometric = PHOTOMETRIC_MINISBLACK;
    TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples_per_pixel);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &photometric);
    check_size(path, width, height);
    const bool gray = photometric == PHOTOMETRIC_MINISBLACK && samples_per_pixel <= 2;
    const bool rgb =
        photometric == PHOTOMETRIC_RGB && (samples_per_pixel == 3 || samples_per_pixel == 4);
    if ((*bits != 8 && *bits != 16) || format != SAMPLEFORMAT_UINT ||
        planar != PLANARCONFIG_CONTIG || !(gray || rgb)) {
        throw file_error(path,
                         "TIFF: only 8- and 16-bit unsigned gray, gray + alpha, RGB and "
                         "RGBA images with interleaved samples are read (this one has " +
                             std::to_string(samples_per_pixel) + " samples of " +
                             std::to_string(*bits) + " bits, photometric " +
                             std::to_string(photometric) + ")");
    }
    if (TIFFIsTiled(tiff)) {
        throw file_error(path, "TIFF: tiled images are not read, only images stored in strips");
    }
    return samples_per_pixel;
}

// Rows are appended as they are decoded: a header that claims more rows than the file holds
// fails at the first missing one, before the whole image is allocated.
image read_tiff_rows(const std::string& path, TIFF* tiff, const tiff_source& source, uint16_t bits,
                     uint16_t samples_per_pixel) {
    uint32_t width = 0, height = 0;
    TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
    image out = empty_image(width, height, samples_per_pixel);
    const uint64_t row_samples = uint64_t(width) * samples_per_pixel;
    std::vector<unsigned char> bytes;
    std::vector<uint16_t> row;
    for (uint32_t y = 0; y < height; ++y) {
        try {
            if (y == 0) {
                bytes.resize(size_t(TIFFScanlineSize64(tiff)));
                row.resize(size_t(row_samples));
            }
            if (TIFFReadScanline(tiff, bytes.data(), y, 0) < 0) {
                throw file_error(path, "TIFF: " + tiff_fault(source, "row " + std::to_string(y) +
                                                                         " cannot be read"));
            }
            for (uint64_t i = 0; i < row_samples; ++i) {
                if (bits == 16) {
                    std::memcpy(&row[i], bytes.data() + 2 * i, 2);  // libtiff gives host order
                } else {
                    row[i] = uint16_t(bytes[i] * 257);
                }
            }
            append_row(&out, row.data(), width, samples_per_pixel);
        } catch (const std::bad_alloc&) {
            throw no_memory(path, width, height, out.channels);
        }
    }
    return out;
}

}  // namespace

image read_tiff(const std::string& path, std::FILE* file, uint64_t file_size) {
    TIFFSetErrorHandler(tiff_error_handler);
    TIFFSetWarningHandler(nullptr);
    tiff_message.clear();
    if (!seek_to(file, 0))
        throw file_error(path, "cannot read: " + std::string(std::strerror(errno)));
    tiff_source source{file, file_size};
    // "m": no memory mapping, every byte comes through tiff_read.
    const tiff_handle tiff(TIFFClientOpen(path.c_str(), "rm", &source, tiff_read, tiff_write,
                                          tiff_seek, tiff_close, tiff_size, nullptr, nullptr),
                           TIFFClose);
    if (!tiff) {
        throw file_error(path, "TIFF: " + tiff_fault(source,
                                                     "its header or tag directory is "
                                                     "damaged"));
    }
    uint16_t bits = 1;
    const uint16_t samples_per_pixel = check_tiff_layout(path, tiff.get(), &bits);
    check_strips(path, tiff.get(), file_size);
    return read_tiff_rows(path, tiff.get(), source, bits, samples_per_pixel);
}

// Deflate-compressed strips of about 256 KiB, as the Windows build writes them.
std::string tiff_to_stream(std::FILE* file, const image& picture) {
    TIFFSetErrorHandler(tiff_error_handler);
    TIFFSetWarningHandler(nullptr);
    tiff_message.clear();
    tiff_source sink{file, 0};
    const tiff_handle tiff(TIFFClientOpen("output", "wm", &sink, tiff_read, tiff_write, tiff_seek,
                                          tiff_close, tiff_size, nullptr, nullptr),
                           TIFFClose);
    const uint32_t element_size = picture.bits == 16 ? 2 : 1;
    const size_t row_samples = size_t(picture.width) * picture.channels;
    const size_t row_bytes = row_samples * element_size;
    const uint16_t unassociated_alpha[1] = {EXTRASAMPLE_UNASSALPHA};
    bool ok = tiff != nullptr;
    if (ok) {
        TIFF* t = tiff.get();
        ok = TIFFSetField(t, TIFFTAG_IMAGEWIDTH, uint32_t(picture.width)) &&
             TIFFSetField(t, TIFFTAG_IMAGELENGTH, uint32_t(picture.height)) &&
             TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, picture.bits) &&
             TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, picture.channels) &&
             TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB) &&
             TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
             TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT) &&
             TIFFSetField(t, TIFFTAG_ROWSPERSTRIP,
                          uint32_t(std::max<size_t>(1, (size_t(256) << 10) / row_bytes))) &&
             (picture.channels == 3 ||
              TIFFSetField(t, TIFFTAG_EXTRASAMPLES, 1, unassociated_alpha)) &&
             (!TIFFIsCODECConfigured(COMPRESSION_ADOBE_DEFLATE) ||
              TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE));
    }
    // libtiff's encoders may change a row in place, so each is copied first.
    std::vector<unsigned char> row(row_bytes);
    for (int32_t y = 0; ok && y < picture.height; ++y) {
        pack_samples(picture.samples.data() + size_t(y) * row_samples, row_samples, picture.bits,
                     row.data());
        ok = TIFFWriteScanline(tiff.get(), row.data(), uint32_t(y), 0) == 1;
    }
    ok = ok && TIFFFlush(tiff.get()) == 1;
    if (sink.write_error != 0)
        return "cannot write: " + std::string(std::strerror(sink.write_error));
    if (!ok) return "TIFF: cannot encode the image [libtiff: " + tiff_message + "]";
    return std::string();
}

}  // namespace kv_tool
