// The entry points of image files: a file's type by its extension, its format by its first bytes,
// and off Windows the dispatch to libpng and libtiff when the build has them.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "image/codec.h"
#include "pipeline/file_access.h"

namespace kv_tool {
namespace {

// The largest frame as 16-bit RGBA samples plus room for a header: no image file the tool can use
// is larger, so a larger one (a sparse file, a device) is refused before anything is read.
constexpr uint64_t max_image_file = max_pixels * 8 + (uint64_t(1) << 20);

std::string lower_extension(const std::string& path) {
    std::string ext = std::filesystem::path(path).extension().string();
    for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

// Each file type: its name in messages and the extensions read as it, the first one written.
struct file_type_entry {
    file_type type;
    const char* name;
    const char* extensions[3];
};
constexpr file_type_entry file_types[] = {
    {file_type::ppm, "PPM", {".ppm", ".pnm", ".pgm"}},
    {file_type::pam, "PAM", {".pam"}},
    {file_type::png, "PNG", {".png"}},
    {file_type::tiff, "TIFF", {".tif", ".tiff"}},
    {file_type::raw, "raw", {".raw"}},
};

const file_type_entry& type_entry(file_type type) {
    for (const file_type_entry& entry : file_types) {
        if (entry.type == type) return entry;
    }
    return file_types[0];  // every enumerator has its row
}

std::string write_bytes(std::FILE* out, const void* data, size_t size) {
    if (std::fwrite(data, 1, size, out) != size) {
        return std::string("cannot write: ") + std::strerror(errno);
    }
    return std::string();
}

}  // namespace

#if !defined(_WIN32)
bool codec_handles(coded_format format) {
    switch (format) {
        case coded_format::png:
#if defined(KV_TOOL_HAVE_PNG)
            return true;
#else
            return false;
#endif
        case coded_format::tiff:
#if defined(KV_TOOL_HAVE_TIFF)
            return true;
#else
            return false;
#endif
        case coded_format::other:
            break;
    }
    return false;
}

image codec_read(const std::string& path, coded_format format, std::FILE* file, uint64_t size) {
#if defined(KV_TOOL_HAVE_PNG)
    if (format == coded_format::png) return read_png(path, file, size);
#endif
#if defined(KV_TOOL_HAVE_TIFF)
    if (format == coded_format::tiff) return read_tiff(path, file, size);
#endif
    (void)file;
    (void)size;
    throw file_error(path, std::string(format == coded_format::tiff ? "TIFF" : "PNG") +
                               " support is not built into this kelvane-color");
}

void codec_write(const std::string& path, coded_format format, const image& picture) {
#if defined(KV_TOOL_HAVE_PNG)
    if (format == coded_format::png) {
        replace_file(path, [&](std::FILE* out) { return png_to_stream(out, picture); });
        return;
    }
#endif
#if defined(KV_TOOL_HAVE_TIFF)
    if (format == coded_format::tiff) {
        replace_file(path, [&](std::FILE* out) { return tiff_to_stream(out, picture); });
        return;
    }
#endif
    (void)picture;
    throw usage_error(path + ": " + (format == coded_format::tiff ? "TIFF" : "PNG") +
                      " support is not built into this kelvane-color");
}
#endif

bool png_supported() {
    return codec_handles(coded_format::png);
}

bool tiff_supported() {
    return codec_handles(coded_format::tiff);
}

bool can_write(file_type type) {
    if (type == file_type::png) return png_supported();
    if (type == file_type::tiff) return tiff_supported();
    return true;
}

file_type file_type_of(const std::string& path, const char* option) {
    const std::string ext = lower_extension(path);
    for (const file_type_entry& entry : file_types) {
        for (const char* known : entry.extensions) {
            if (known != nullptr && ext == known) return entry.type;
        }
    }
    throw usage_error(std::string(option) + ": cannot tell the file type of '" + path +
                      "' (use .png, .tif, .ppm, .pam or .raw)");
}

const char* file_type_name(file_type type) {
    return type_entry(type).name;
}

const char* file_type_extension(file_type type) {
    return type_entry(type).extensions[0];
}

image read_image(const std::string& path) {
    input_file in = open_input(path, max_image_file, "image files");
    unsigned char magic[8] = {};
    const size_t got = std::fread(magic, 1, sizeof magic, in.file.get());
    if (std::ferror(in.file.get())) {
        throw file_error(path, "cannot read: " + std::string(std::strerror(errno)));
    }
    if (got >= 2 && magic[0] == 'P' && (magic[1] == '5' || magic[1] == '6' || magic[1] == '7')) {
        return read_netpbm(path, in.file.get(), in.size, char(magic[1]));
    }
    static const unsigned char png_magic[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (got >= 8 && std::memcmp(magic, png_magic, 8) == 0) {
        return codec_read(path, coded_format::png, in.file.get(), in.size);
    }
    if (got >= 4 && ((magic[0] == 'I' && magic[1] == 'I' && magic[2] == 42) ||
                     (magic[0] == 'M' && magic[1] == 'M' && magic[3] == 42))) {
        return codec_read(path, coded_format::tiff, in.file.get(), in.size);
    }
    if (got >= 2 && magic[0] == 'P' && magic[1] >= '1' && magic[1] <= '4') {
        throw file_error(path,
                         "plain-text and bitmap Netpbm files (P1 to P4) are not read; "
                         "use binary P5, P6 or P7");
    }
    if (got == 0) throw file_error(path, "empty file");
    // The system's decoders (JPEG, BMP and others on Windows) have the last word.
    if (codec_handles(coded_format::other)) {
        return codec_read(path, coded_format::other, in.file.get(), in.size);
    }
    throw file_error(path, "not a PNG, PPM, PGM, PAM or TIFF image");
}

void write_image(const std::string& path, file_type type, const image& picture) {
    if (type == file_type::ppm && picture.channels != 3) {
        throw usage_error(path + ": PPM holds three channels; write four to .pam, .png or .raw");
    }
    if (type == file_type::png || type == file_type::tiff) {
        codec_write(path, type == file_type::png ? coded_format::png : coded_format::tiff, picture);
        return;
    }
    if (type != file_type::ppm && type != file_type::pam) {
        throw usage_error(path + ": cannot write " + file_type_name(type) + " images");
    }
    const std::string bytes = netpbm_bytes(picture, type);
    write_file(path, bytes.data(), bytes.size());
}

void write_file(const std::string& path, const void* data, size_t size) {
    replace_file(path, [&](std::FILE* out) { return write_bytes(out, data, size); });
}

}  // namespace kv_tool
