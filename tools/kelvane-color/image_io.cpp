// Image files: Netpbm (P5 P6 P7) by hand, PNG through libpng, TIFF through libtiff.
#include "image_io.h"

#include <cctype>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <system_error>

#include "tool_error.h"

#if defined(KV_TOOL_HAVE_PNG)
#include <png.h>
#endif
#if defined(KV_TOOL_HAVE_TIFF)
#include <tiffio.h>
#endif

namespace kv_tool {
namespace {

// The pixel count of one frame travels as a 32-bit signed number.
constexpr uint64_t max_pixels = uint64_t(std::numeric_limits<int32_t>::max());

struct file_closer {
    void operator()(std::FILE* f) const {
        if (f != nullptr) std::fclose(f);
    }
};
using file_ptr = std::unique_ptr<std::FILE, file_closer>;

file_ptr open_file(const std::string& path, const char* mode) {
    file_ptr f(std::fopen(path.c_str(), mode));
    if (!f) throw file_error(path, std::string("cannot open: ") + std::strerror(errno));
    return f;
}

std::vector<unsigned char> read_all(const std::string& path) {
    file_ptr f = open_file(path, "rb");
    std::vector<unsigned char> bytes;
    unsigned char chunk[1 << 16];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, f.get())) > 0) {
        bytes.insert(bytes.end(), chunk, chunk + got);
    }
    if (std::ferror(f.get())) throw file_error(path, "read error");
    return bytes;
}

void check_size(const std::string& path, uint64_t width, uint64_t height) {
    if (width == 0 || height == 0) throw file_error(path, "image has no pixels");
    if (width * height > max_pixels) {
        throw file_error(path, std::to_string(width) + "x" + std::to_string(height) +
                                   " pixels is more than one frame can hold (2^31 - 1)");
    }
}

// Samples of maximum value `maxval` to 16 bits, rounding to nearest.
uint16_t widen(uint32_t value, uint32_t maxval) {
    return static_cast<uint16_t>((uint64_t(value) * 65535u + maxval / 2) / maxval);
}

// Spreads gray (and gray + alpha) samples to RGB (and RGBA).
image from_samples(int32_t width, int32_t height, int depth, const std::vector<uint16_t>& in) {
    image out;
    out.width = width;
    out.height = height;
    out.bits = 16;
    out.channels = depth == 2 || depth == 4 ? 4 : 3;
    if (depth == 3 || depth == 4) {
        out.samples = in;
        return out;
    }
    const uint64_t n = out.pixel_count();
    out.samples.resize(n * out.channels);
    for (uint64_t i = 0; i < n; ++i) {
        const uint16_t gray = in[i * depth];
        uint16_t* px = &out.samples[i * out.channels];
        px[0] = px[1] = px[2] = gray;
        if (depth == 2) px[3] = in[i * 2 + 1];
    }
    return out;
}

// --- Netpbm -------------------------------------------------------------------------------------

class netpbm_header {
  public:
    netpbm_header(const std::string& path, const std::vector<unsigned char>& bytes)
        : path_(path), bytes_(bytes) {}

    // A decimal number after blanks and comments.
    uint32_t number(const char* what) {
        skip_blanks();
        uint64_t value = 0;
        size_t digits = 0;
        while (pos_ < bytes_.size() && bytes_[pos_] >= '0' && bytes_[pos_] <= '9') {
            value = value * 10 + (bytes_[pos_++] - '0');
            if (value > 0xFFFFFFFFu) throw file_error(path_, std::string(what) + " is too large");
            ++digits;
        }
        if (digits == 0) throw file_error(path_, std::string("header: expected the ") + what);
        return static_cast<uint32_t>(value);
    }

    // The rest of a PAM header line after its keyword.
    std::string word() {
        while (pos_ < bytes_.size() && (bytes_[pos_] == ' ' || bytes_[pos_] == '\t')) ++pos_;
        std::string text;
        while (pos_ < bytes_.size() && !std::isspace(bytes_[pos_])) text += char(bytes_[pos_++]);
        return text;
    }

    void skip_blanks() {
        while (pos_ < bytes_.size()) {
            if (bytes_[pos_] == '#') {
                while (pos_ < bytes_.size() && bytes_[pos_] != '\n') ++pos_;
            } else if (std::isspace(bytes_[pos_])) {
                ++pos_;
            } else {
                break;
            }
        }
    }

    // The one whitespace byte that ends a P5/P6 header.
    void end_of_header() {
        if (pos_ >= bytes_.size() || !std::isspace(bytes_[pos_])) {
            throw file_error(path_, "header: no whitespace after the maximum value");
        }
        ++pos_;
    }

    void skip_line() {
        while (pos_ < bytes_.size() && bytes_[pos_] != '\n') ++pos_;
        if (pos_ < bytes_.size()) ++pos_;
    }

    size_t position() const { return pos_; }
    void advance(size_t n) { pos_ += n; }

  private:
    const std::string& path_;
    const std::vector<unsigned char>& bytes_;
    size_t pos_ = 2;  // after the magic number
};

image read_netpbm(const std::string& path, const std::vector<unsigned char>& bytes) {
    netpbm_header header(path, bytes);
    const char kind = char(bytes[1]);
    uint32_t width = 0, height = 0, maxval = 0, depth = 0;
    if (kind == '7') {
        std::string tuple_type;
        for (;;) {
            header.skip_blanks();
            const std::string key = header.word();
            if (key == "ENDHDR") {
                header.skip_line();
                break;
            } else if (key == "WIDTH") {
                width = header.number("WIDTH");
            } else if (key == "HEIGHT") {
                height = header.number("HEIGHT");
            } else if (key == "DEPTH") {
                depth = header.number("DEPTH");
            } else if (key == "MAXVAL") {
                maxval = header.number("MAXVAL");
            } else if (key == "TUPLTYPE") {
                tuple_type = header.word();
                header.skip_line();
            } else if (key.empty()) {
                throw file_error(path, "PAM header has no ENDHDR");
            } else {
                throw file_error(path, "PAM header: unknown keyword '" + key + "'");
            }
        }
        if (depth < 1 || depth > 4) {
            throw file_error(path, "PAM DEPTH " + std::to_string(depth) +
                                       " is not gray, gray + alpha, RGB or RGBA (1 to 4)");
        }
    } else {
        width = header.number("width");
        height = header.number("height");
        maxval = header.number("maximum value");
        header.end_of_header();
        depth = kind == '6' ? 3 : 1;
    }
    if (maxval < 1 || maxval > 65535) {
        throw file_error(path, "maximum value " + std::to_string(maxval) + " is not 1 to 65535");
    }
    check_size(path, width, height);
    const size_t element_size = maxval > 255 ? 2 : 1;
    const uint64_t count = uint64_t(width) * height * depth;
    const size_t available = bytes.size() - header.position();
    if (count * element_size > available) {
        throw file_error(path, "truncated: " + std::to_string(count * element_size) +
                                   " bytes of samples expected, " + std::to_string(available) +
                                   " present");
    }
    std::vector<uint16_t> samples(count);
    const unsigned char* data = bytes.data() + header.position();
    for (uint64_t i = 0; i < count; ++i) {
        // Netpbm's 16-bit samples are big-endian.
        const uint32_t v =
            element_size == 2 ? (uint32_t(data[2 * i]) << 8) | data[2 * i + 1] : data[i];
        if (v > maxval) {
            throw file_error(path, "sample " + std::to_string(v) + " at element " +
                                       std::to_string(i) + " exceeds the maximum value " +
                                       std::to_string(maxval));
        }
        samples[i] = widen(v, maxval);
    }
    return from_samples(int32_t(width), int32_t(height), int(depth), samples);
}

std::string netpbm_bytes(const image& picture, file_type type) {
    const uint32_t maxval = picture.bits == 16 ? 65535 : 255;
    std::string header;
    if (type == file_type::pam) {
        header = "P7\nWIDTH " + std::to_string(picture.width) + "\nHEIGHT " +
                 std::to_string(picture.height) + "\nDEPTH " + std::to_string(picture.channels) +
                 "\nMAXVAL " + std::to_string(maxval) + "\nTUPLTYPE " +
                 (picture.channels == 4 ? "RGB_ALPHA" : "RGB") + "\nENDHDR\n";
    } else {
        header = "P6\n" + std::to_string(picture.width) + " " + std::to_string(picture.height) +
                 "\n" + std::to_string(maxval) + "\n";
    }
    std::string out = header;
    const size_t element_size = picture.bits == 16 ? 2 : 1;
    out.reserve(header.size() + picture.samples.size() * element_size);
    for (uint16_t v : picture.samples) {
        if (element_size == 2) out += char(v >> 8);
        out += char(v & 0xFF);
    }
    return out;
}

// --- PNG ----------------------------------------------------------------------------------------

#if defined(KV_TOOL_HAVE_PNG)
struct png_failure {
    std::jmp_buf jump;
    char message[256];
};

void png_error_handler(png_structp png, png_const_charp message) {
    auto* failure = static_cast<png_failure*>(png_get_error_ptr(png));
    std::snprintf(failure->message, sizeof failure->message, "%s", message);
    std::longjmp(failure->jump, 1);
}
void png_warning_handler(png_structp, png_const_charp) {}

// Runs in a frame of its own with only plain locals, so the longjmp of an error skips no
// destructor; `rows` and `samples` are owned by the caller.
bool png_read_into(std::FILE* file, png_failure* failure, image* out,
                   std::vector<png_bytep>* rows) {
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, failure, png_error_handler,
                                             png_warning_handler);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (info == nullptr) {
        std::snprintf(failure->message, sizeof failure->message, "out of memory");
        png_destroy_read_struct(&png, nullptr, nullptr);
        return false;
    }
    if (setjmp(failure->jump) != 0) {
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    png_init_io(png, file);
    png_set_user_limits(png, 0x7FFFFFFF, 0x7FFFFFFF);
    png_read_info(png, info);
    const png_uint_32 width = png_get_image_width(png, info);
    const png_uint_32 height = png_get_image_height(png, info);
    if (uint64_t(width) * height > max_pixels) {
        png_error(png, "more pixels than one frame can hold (2^31 - 1)");
    }
    png_set_expand(png);  // palette to RGB, low-bit gray to 8 bits, tRNS to alpha
    png_set_gray_to_rgb(png);
    if (png_get_bit_depth(png, info) == 16) {
        png_set_swap(png);  // host order on a little-endian processor
    }
    png_read_update_info(png, info);
    const int channels = png_get_channels(png, info);
    const int bits = png_get_bit_depth(png, info);
    out->width = int32_t(width);
    out->height = int32_t(height);
    out->channels = channels;
    out->bits = bits;
    out->samples.assign(uint64_t(width) * height * channels, 0);
    rows->resize(height);
    const size_t row_bytes = png_get_rowbytes(png, info);
    auto* base = reinterpret_cast<png_bytep>(out->samples.data());
    for (png_uint_32 y = 0; y < height; ++y) (*rows)[y] = base + y * row_bytes;
    png_read_image(png, rows->data());
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    return true;
}

image read_png(const std::string& path) {
    file_ptr f = open_file(path, "rb");
    png_failure failure{};
    image raw;
    std::vector<png_bytep> rows;
    if (!png_read_into(f.get(), &failure, &raw, &rows)) {
        throw file_error(path, std::string("PNG: ") + failure.message);
    }
    // 8-bit rows were read as bytes into the 16-bit vector: spread them out from the back.
    if (raw.bits == 8) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(raw.samples.data());
        for (size_t i = raw.samples.size(); i-- > 0;) raw.samples[i] = uint16_t(bytes[i] * 257);
    }
    raw.bits = 16;
    return raw;
}

bool png_write_from(std::FILE* file, png_failure* failure, const image& picture,
                    const std::vector<png_bytep>& rows) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, failure, png_error_handler,
                                              png_warning_handler);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (info == nullptr) {
        std::snprintf(failure->message, sizeof failure->message, "out of memory");
        png_destroy_write_struct(&png, nullptr);
        return false;
    }
    if (setjmp(failure->jump) != 0) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, png_uint_32(picture.width), png_uint_32(picture.height), picture.bits,
                 picture.channels == 4 ? PNG_COLOR_TYPE_RGBA : PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png, 3);
    png_write_info(png, info);
    if (picture.bits == 16) png_set_swap(png);
    png_write_image(png, const_cast<png_bytepp>(rows.data()));
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

std::string png_bytes_to_file(const std::string& path, const image& picture) {
    std::vector<unsigned char> packed;
    const size_t element_size = picture.bits == 16 ? 2 : 1;
    packed.resize(picture.samples.size() * element_size);
    if (element_size == 2) {
        std::memcpy(packed.data(), picture.samples.data(), packed.size());
    } else {
        for (size_t i = 0; i < picture.samples.size(); ++i) {
            packed[i] = static_cast<unsigned char>(picture.samples[i]);
        }
    }
    const size_t row_bytes = size_t(picture.width) * picture.channels * element_size;
    std::vector<png_bytep> rows(picture.height);
    for (int32_t y = 0; y < picture.height; ++y) rows[y] = packed.data() + y * row_bytes;
    file_ptr f = open_file(path, "wb");
    png_failure failure{};
    if (!png_write_from(f.get(), &failure, picture, rows)) {
        return std::string("PNG: ") + failure.message;
    }
    if (std::fclose(f.release()) != 0) return std::string("write error: ") + std::strerror(errno);
    return std::string();
}
#endif

// --- TIFF ---------------------------------------------------------------------------------------

#if defined(KV_TOOL_HAVE_TIFF)
thread_local std::string tiff_message;

void tiff_error_handler(const char* module, const char* format, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    tiff_message = module != nullptr ? std::string(module) + ": " + text : std::string(text);
}

image read_tiff(const std::string& path) {
    TIFFSetErrorHandler(tiff_error_handler);
    TIFFSetWarningHandler(nullptr);
    tiff_message.clear();
    std::unique_ptr<TIFF, void (*)(TIFF*)> tiff(TIFFOpen(path.c_str(), "r"), TIFFClose);
    if (!tiff) throw file_error(path, "TIFF: " + tiff_message);
    uint32_t width = 0, height = 0;
    uint16_t bits = 1, samples_per_pixel = 1, planar = PLANARCONFIG_CONTIG, format = 1;
    uint16_t photometric = PHOTOMETRIC_MINISBLACK;
    TIFFGetField(tiff.get(), TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tiff.get(), TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_SAMPLESPERPIXEL, &samples_per_pixel);
    TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetField(tiff.get(), TIFFTAG_PHOTOMETRIC, &photometric);
    check_size(path, width, height);
    const bool gray = photometric == PHOTOMETRIC_MINISBLACK && samples_per_pixel <= 2;
    const bool rgb =
        photometric == PHOTOMETRIC_RGB && (samples_per_pixel == 3 || samples_per_pixel == 4);
    if ((bits != 8 && bits != 16) || format != SAMPLEFORMAT_UINT || planar != PLANARCONFIG_CONTIG ||
        !(gray || rgb)) {
        throw file_error(path,
                         "TIFF: only 8- and 16-bit unsigned gray, gray + alpha, RGB and "
                         "RGBA images with interleaved samples are read (this one has " +
                             std::to_string(samples_per_pixel) + " samples of " +
                             std::to_string(bits) + " bits, photometric " +
                             std::to_string(photometric) + ")");
    }
    const uint64_t row_samples = uint64_t(width) * samples_per_pixel;
    std::vector<uint16_t> samples(row_samples * height);
    std::vector<unsigned char> row(TIFFScanlineSize(tiff.get()));
    for (uint32_t y = 0; y < height; ++y) {
        if (TIFFReadScanline(tiff.get(), row.data(), y, 0) < 0) {
            throw file_error(path, "TIFF: row " + std::to_string(y) + ": " + tiff_message);
        }
        for (uint64_t i = 0; i < row_samples; ++i) {
            uint16_t v;
            if (bits == 16) {
                std::memcpy(&v, row.data() + 2 * i, 2);  // libtiff gives host order
            } else {
                v = uint16_t(row[i] * 257);
            }
            samples[y * row_samples + i] = v;
        }
    }
    return from_samples(int32_t(width), int32_t(height), samples_per_pixel, samples);
}
#endif

std::string lower_extension(const std::string& path) {
    std::string ext = std::filesystem::path(path).extension().string();
    for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

// Writes through a file beside the target and renames it into place.
template <typename Writer>
void replace_file(const std::string& path, Writer&& write) {
    const std::string temporary = path + ".kv-partial";
    std::string failure = write(temporary);
    if (failure.empty()) {
        std::error_code error;
        std::filesystem::rename(temporary, path, error);
        if (!error) return;
        failure = "cannot rename into place: " + error.message();
    }
    std::remove(temporary.c_str());
    throw file_error(path, failure);
}

std::string write_bytes(const std::string& path, const void* data, size_t size) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return std::string("cannot create: ") + std::strerror(errno);
    const bool written = std::fwrite(data, 1, size, f) == size;
    const int saved = errno;
    const bool closed = std::fclose(f) == 0;
    if (!written || !closed) {
        return std::string("write error: ") + std::strerror(written ? errno : saved);
    }
    return std::string();
}

}  // namespace

bool png_supported() {
#if defined(KV_TOOL_HAVE_PNG)
    return true;
#else
    return false;
#endif
}

bool tiff_supported() {
#if defined(KV_TOOL_HAVE_TIFF)
    return true;
#else
    return false;
#endif
}

file_type file_type_of(const std::string& path, const char* option) {
    const std::string ext = lower_extension(path);
    if (ext == ".ppm" || ext == ".pnm" || ext == ".pgm") return file_type::ppm;
    if (ext == ".pam") return file_type::pam;
    if (ext == ".png") return file_type::png;
    if (ext == ".tif" || ext == ".tiff") return file_type::tiff;
    if (ext == ".raw") return file_type::raw;
    throw usage_error(std::string(option) + ": cannot tell the file type of '" + path +
                      "' (use .png, .ppm, .pam or .raw)");
}

const char* file_type_name(file_type type) {
    switch (type) {
        case file_type::ppm:
            return "PPM";
        case file_type::pam:
            return "PAM";
        case file_type::png:
            return "PNG";
        case file_type::tiff:
            return "TIFF";
        case file_type::raw:
            return "raw";
    }
    return "?";
}

const char* file_type_extension(file_type type) {
    switch (type) {
        case file_type::ppm:
            return ".ppm";
        case file_type::pam:
            return ".pam";
        case file_type::png:
            return ".png";
        case file_type::tiff:
            return ".tif";
        case file_type::raw:
            return ".raw";
    }
    return "";
}

image read_image(const std::string& path) {
    const std::vector<unsigned char> bytes = read_all(path);
    if (bytes.size() >= 2 && bytes[0] == 'P' &&
        (bytes[1] == '5' || bytes[1] == '6' || bytes[1] == '7')) {
        return read_netpbm(path, bytes);
    }
    static const unsigned char png_magic[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (bytes.size() >= 8 && std::memcmp(bytes.data(), png_magic, 8) == 0) {
#if defined(KV_TOOL_HAVE_PNG)
        return read_png(path);
#else
        throw file_error(path, "PNG support is not built into this kelvane-color");
#endif
    }
    if (bytes.size() >= 4 && ((bytes[0] == 'I' && bytes[1] == 'I' && bytes[2] == 42) ||
                              (bytes[0] == 'M' && bytes[1] == 'M' && bytes[3] == 42))) {
#if defined(KV_TOOL_HAVE_TIFF)
        return read_tiff(path);
#else
        throw file_error(path, "TIFF support is not built into this kelvane-color");
#endif
    }
    if (bytes.size() >= 2 && bytes[0] == 'P' && bytes[1] >= '1' && bytes[1] <= '4') {
        throw file_error(path,
                         "plain-text and bitmap Netpbm files (P1 to P4) are not read; "
                         "use binary P5, P6 or P7");
    }
    throw file_error(path, bytes.empty() ? "empty file" : "not a PNG, PPM, PGM, PAM or TIFF image");
}

void write_image(const std::string& path, file_type type, const image& picture) {
    if (type == file_type::ppm && picture.channels != 3) {
        throw usage_error(path + ": PPM holds three channels; write four to .pam, .png or .raw");
    }
    if (type == file_type::png) {
#if defined(KV_TOOL_HAVE_PNG)
        replace_file(path, [&](const std::string& temporary) {
            return png_bytes_to_file(temporary, picture);
        });
        return;
#else
        throw usage_error(path + ": PNG support is not built into this kelvane-color");
#endif
    }
    if (type != file_type::ppm && type != file_type::pam) {
        throw usage_error(path + ": cannot write " + file_type_name(type) + " images");
    }
    const std::string bytes = netpbm_bytes(picture, type);
    write_file(path, bytes.data(), bytes.size());
}

void write_file(const std::string& path, const void* data, size_t size) {
    replace_file(path,
                 [&](const std::string& temporary) { return write_bytes(temporary, data, size); });
}

}  // namespace kv_tool
