// Image files: Netpbm (P5 P6 P7) by hand, PNG through libpng, TIFF through libtiff.
#include "image_io.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <new>
#include <system_error>

#include "file_access.h"
#include "image_codec.h"
#include "tool_error.h"

#if defined(KV_TOOL_HAVE_PNG)
#include <png.h>
#endif
#if defined(KV_TOOL_HAVE_TIFF)
#include <tiffio.h>
#endif

namespace kv_tool {

void check_size(const std::string& path, uint64_t width, uint64_t height) {
    if (width == 0 || height == 0) throw file_error(path, "image has no pixels");
    if (width * height > max_pixels) {
        throw file_error(path, std::to_string(width) + "x" + std::to_string(height) +
                                   " pixels is more than one frame can hold (2^31 - 1)");
    }
}

tool_error no_memory(const std::string& path, uint64_t width, uint64_t height, int channels) {
    const uint64_t bytes = width * height * channels * 2;
    return file_error(path, "not enough memory for the samples of its " + std::to_string(width) +
                                "x" + std::to_string(height) + " pixels (" +
                                std::to_string((bytes + 999999) / 1000000) + " MB)");
}

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

namespace {
uint32_t big_endian_32(const std::string& bytes, size_t at) {
    const auto byte = [&](size_t i) { return uint32_t(static_cast<unsigned char>(bytes[at + i])); };
    return byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3);
}

}  // namespace

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
        at = end;
    }
}

bool read_tiff_strips(const std::string& bytes, tiff_strips* out) {
    const bool big = bytes.size() >= 8 && bytes[0] == 'M';
    const auto number = [&](uint64_t at, int size, uint64_t* value) {
        if (at > bytes.size() || uint64_t(size) > bytes.size() - at) return false;
        *value = 0;
        for (int i = 0; i < size; ++i) {
            const uint64_t byte = static_cast<unsigned char>(bytes[size_t(at) + i]);
            *value |= byte << (8 * (big ? size - 1 - i : i));
        }
        return true;
    };
    uint64_t directory = 0, entries = 0, magic = 0;
    if (!number(2, 2, &magic) || magic != 42 || !number(4, 4, &directory) ||
        !number(directory, 2, &entries)) {
        return false;
    }
    uint64_t width = 0, samples = 1, bits = 1, planar = 1;
    std::vector<bool> seen(285);  // the tags read below are all under 285
    for (uint64_t e = 0; e < entries; ++e) {
        const uint64_t at = directory + 2 + 12 * e;
        uint64_t tag = 0, type = 0, count = 0;
        if (!number(at, 2, &tag) || !number(at + 2, 2, &type) || !number(at + 4, 4, &count)) {
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
        if (count * size > 4 && !number(at + 8, 4, &values)) return false;
        if (count > (bytes.size() - std::min<uint64_t>(values, bytes.size())) / size) return false;
        uint64_t first = 0;
        number(values, size, &first);
        switch (tag) {
            case 256:
                width = first;
                break;
            case 257:
                out->height = uint32_t(first);
                break;
            case 258:
                bits = first;
                break;
            case 259:
                out->compression = uint32_t(first);
                break;
            case 277:
                samples = first;
                break;
            case 278:
                out->rows_per_strip = uint32_t(first);
                break;
            case 284:
                planar = first;
                break;
            case 273:
            case 279: {
                std::vector<uint64_t>& list = tag == 273 ? out->offsets : out->counts;
                list.resize(size_t(count));
                for (uint64_t i = 0; i < count; ++i) number(values + i * size, size, &list[i]);
                break;
            }
            default:
                break;
        }
    }
    out->row_bytes = (width * samples * bits + 7) / 8;
    // libtiff recounts a lone strip whose byte count looks wrong, as writers that got it wrong are
    // common: a count of zero or, uncompressed, one past the end of the file or too short for its
    // rows. It then takes the strip's size uncompressed, at most the rest of the file compressed.
    if (out->offsets.size() == 1 && out->counts.size() == 1 && out->offsets[0] != 0) {
        const bool plain = out->compression == 1;
        const uint64_t offset = out->offsets[0], size = bytes.size();
        const uint64_t needed =
            out->row_bytes * std::min<uint64_t>(out->height, out->rows_per_strip);
        uint64_t& count = out->counts[0];
        if (count == 0 ||
            (plain && (count < needed || (offset <= size && count > size - offset)))) {
            count = plain ? needed : offset <= size ? size - offset : 0;
        }
    }
    return planar == 1 && !out->offsets.empty() && out->offsets.size() == out->counts.size();
}

void pack_samples(const uint16_t* from, size_t count, int bits, unsigned char* to) {
    if (bits == 16) {
        std::memcpy(to, from, count * 2);
    } else {
        for (size_t i = 0; i < count; ++i) to[i] = static_cast<unsigned char>(from[i]);
    }
}

void append_row(image* out, const uint16_t* row, uint32_t width, int depth) {
    if (depth == out->channels) {
        out->samples.insert(out->samples.end(), row, row + size_t(width) * depth);
        return;
    }
    for (uint32_t x = 0; x < width; ++x) {
        const uint16_t* px = row + size_t(x) * depth;
        out->samples.insert(out->samples.end(), 3, px[0]);
        if (depth == 2) out->samples.push_back(px[1]);
    }
}

image empty_image(uint32_t width, uint32_t height, int depth) {
    image out;
    out.width = int32_t(width);
    out.height = int32_t(height);
    out.bits = 16;
    out.channels = depth == 2 || depth == 4 ? 4 : 3;
    return out;
}

namespace {

// The largest frame as 16-bit RGBA samples plus room for a header: no image file the tool can use
// is larger, so a larger one (a sparse file, a device) is refused before anything is read.
constexpr uint64_t max_image_file = max_pixels * 8 + (uint64_t(1) << 20);

// Samples of maximum value `maxval` to 16 bits, rounding to nearest.
uint16_t widen(uint32_t value, uint32_t maxval) {
    return static_cast<uint16_t>((uint64_t(value) * 65535u + maxval / 2) / maxval);
}

// --- Netpbm -------------------------------------------------------------------------------------

// The header read byte by byte from the file, which bounds it; positions count from the start.
class netpbm_header {
  public:
    netpbm_header(const std::string& path, std::FILE* file) : path_(path), file_(file) {}

    // A decimal number after blanks and comments.
    uint32_t number(const char* what) {
        skip_blanks();
        const uint64_t start = pos_;
        uint64_t value = 0;
        size_t digits = 0;
        for (int c = peek(); c >= '0' && c <= '9'; c = peek()) {
            value = value * 10 + uint64_t(get() - '0');
            if (value > 0xFFFFFFFFu)
                throw fault(std::string("the ") + what + " is too large", start);
            ++digits;
        }
        if (digits == 0) throw fault(std::string("header: expected the ") + what, start);
        return static_cast<uint32_t>(value);
    }

    // The next word of a PAM header line; only its first bytes are kept, for the message.
    std::string word() {
        while (peek() == ' ' || peek() == '\t') get();
        std::string text;
        for (int c = peek(); c != EOF && !std::isspace(c); c = peek()) {
            get();
            if (text.size() < 64) text += char(c);
        }
        return text;
    }

    void skip_blanks() {
        for (int c = peek(); c != EOF; c = peek()) {
            if (c == '#') {
                skip_line();
            } else if (std::isspace(c)) {
                get();
            } else {
                break;
            }
        }
    }

    // The one whitespace byte that ends a P5/P6 header.
    void end_of_header() {
        if (!std::isspace(peek()))
            throw fault("header: no whitespace after the maximum value", pos_);
        get();
    }

    void skip_line() {
        for (int c = get(); c != EOF && c != '\n'; c = get()) {
        }
    }

    uint64_t position() const { return pos_; }

    tool_error fault(const std::string& message, uint64_t offset) const {
        return file_error(path_, message + " (at byte offset " + std::to_string(offset) + ")");
    }

  private:
    int peek() {
        const int c = std::getc(file_);
        if (c != EOF) std::ungetc(c, file_);
        return c;
    }
    int get() {
        const int c = std::getc(file_);
        if (c != EOF) ++pos_;
        return c;
    }

    const std::string& path_;
    std::FILE* file_;
    uint64_t pos_ = 2;  // after the magic number
};

image read_netpbm(const std::string& path, std::FILE* file, uint64_t file_size, char kind) {
    if (!seek_to(file, 2))
        throw file_error(path, "cannot read: " + std::string(std::strerror(errno)));
    netpbm_header header(path, file);
    uint32_t width = 0, height = 0, maxval = 0, depth = 0;
    if (kind == '7') {
        for (;;) {
            header.skip_blanks();
            const uint64_t at = header.position();
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
                header.skip_line();
            } else if (key.empty()) {
                throw file_error(path, "PAM header has no ENDHDR: the file ends within it");
            } else {
                throw header.fault("PAM header: unknown keyword " + excerpt(key), at);
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
    // The file's size says whether every sample is there, before anything is allocated.
    const size_t element_size = maxval > 255 ? 2 : 1;
    const uint64_t row_bytes = uint64_t(width) * depth * element_size;
    const uint64_t needed = row_bytes * height;
    const uint64_t available = file_size - std::min(file_size, header.position());
    if (needed > available) {
        throw file_error(path, "truncated: its " + std::to_string(width) + "x" +
                                   std::to_string(height) + " pixels need " +
                                   std::to_string(needed) + " bytes of samples after the header, " +
                                   "the file has " + std::to_string(available));
    }
    image out = empty_image(width, height, int(depth));
    std::vector<unsigned char> bytes;
    std::vector<uint16_t> row;
    try {
        out.samples.reserve(size_t(out.pixel_count()) * out.channels);
        bytes.resize(size_t(row_bytes));
        row.resize(size_t(width) * depth);
    } catch (const std::bad_alloc&) {
        throw no_memory(path, width, height, out.channels);
    }
    const uint64_t start = header.position();
    for (uint32_t y = 0; y < height; ++y) {
        const uint64_t row_start = start + uint64_t(y) * row_bytes;
        if (std::fread(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
            throw header.fault(
                "the file ends in row " + std::to_string(y) + " (it shrank while " + "being read)",
                row_start);
        }
        for (size_t i = 0; i < row.size(); ++i) {
            // Netpbm's 16-bit samples are big-endian.
            const uint32_t v =
                element_size == 2 ? (uint32_t(bytes[2 * i]) << 8) | bytes[2 * i + 1] : bytes[i];
            if (v > maxval) {
                throw header.fault("sample " + std::to_string(v) + " at element " +
                                       std::to_string(uint64_t(y) * row.size() + i) +
                                       " exceeds the maximum value " + std::to_string(maxval) +
                                       " (row " + std::to_string(y) + ", column " +
                                       std::to_string(i / depth) + ")",
                                   row_start + i * element_size);
            }
            row[i] = widen(v, maxval);
        }
        append_row(&out, row.data(), width, int(depth));
    }
    return out;
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
// What a PNG read or write knows when libpng gives up: its own message, and for reading where in
// the file it was and whether the file simply ended.
struct png_context {
    std::jmp_buf jump;
    char message[256];
    std::FILE* file = nullptr;
    uint64_t offset = 0;
    bool ended = false;
    int write_error = 0;
    uint32_t rows_done = 0;
    bool out_of_memory = false;
    bool plain_message = false;  // `message` is the tool's own wording
};

void png_error_handler(png_structp png, png_const_charp message) {
    auto* context = static_cast<png_context*>(png_get_error_ptr(png));
    std::snprintf(context->message, sizeof context->message, "%s", message);
    std::longjmp(context->jump, 1);
}
void png_warning_handler(png_structp, png_const_charp) {}

void png_read_bytes(png_structp png, png_bytep data, png_size_t length) {
    auto* context = static_cast<png_context*>(png_get_io_ptr(png));
    const size_t got = std::fread(data, 1, length, context->file);
    context->offset += got;
    if (got != length) {
        context->ended = true;
        png_error(png, "short read");
    }
}

void png_write_bytes(png_structp png, png_bytep data, png_size_t length) {
    auto* context = static_cast<png_context*>(png_get_io_ptr(png));
    if (std::fwrite(data, 1, length, context->file) != length) {
        context->write_error = errno;
        png_error(png, "write failed");
    }
}
void png_flush_bytes(png_structp) {}

// Grows the image by one row; false when memory runs out, so that the caller can leave libpng
// in order instead of unwinding through it.
bool png_append(image* out, const std::vector<uint16_t>& row, uint32_t width, int channels) {
    try {
        append_row(out, row.data(), width, channels);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// Runs in a frame of its own with only plain locals, so the longjmp of an error skips no
// destructor; `out` and `row` are owned by the caller. Rows of a plain image are appended as
// they are decoded, so a header that claims more than the data holds costs no memory; an
// interlaced image needs all its rows at once, after the size check against the file.
bool png_read_into(png_context* context, uint64_t file_size, image* out, std::vector<uint16_t>* row,
                   std::vector<png_bytep>* rows) {
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, context, png_error_handler,
                                             png_warning_handler);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (info == nullptr) {
        context->out_of_memory = true;
        png_destroy_read_struct(&png, nullptr, nullptr);
        return false;
    }
    if (setjmp(context->jump) != 0) {
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    png_set_read_fn(png, context, png_read_bytes);
    png_set_user_limits(png, 0x7FFFFFFF, 0x7FFFFFFF);
    png_read_info(png, info);
    const png_uint_32 width = png_get_image_width(png, info);
    const png_uint_32 height = png_get_image_height(png, info);
    if (uint64_t(width) * height > max_pixels) {
        png_error(png, "more pixels than one frame can hold (2^31 - 1)");
    }
    const std::string too_small = png_size_fault(width, height, png_get_channels(png, info),
                                                 png_get_bit_depth(png, info), file_size);
    if (!too_small.empty()) {
        std::snprintf(context->message, sizeof context->message, "%s", too_small.c_str());
        context->plain_message = true;
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    png_set_expand(png);     // palette to RGB, low-bit gray to 8 bits, tRNS to alpha
    png_set_expand_16(png);  // 8 bits to 16 by repeating the byte: v * 257
    png_set_gray_to_rgb(png);
    png_set_swap(png);  // host order on a little-endian processor
    const int passes = png_set_interlace_handling(png);
    png_read_update_info(png, info);
    const int channels = png_get_channels(png, info);
    *out = empty_image(width, height, channels);
    if (passes > 1) {
        try {
            out->samples.resize(size_t(width) * height * channels);
            rows->resize(height);
        } catch (const std::bad_alloc&) {
            context->out_of_memory = true;
            png_destroy_read_struct(&png, &info, nullptr);
            return false;
        }
        auto* base = reinterpret_cast<png_bytep>(out->samples.data());
        for (png_uint_32 y = 0; y < height; ++y) {
            (*rows)[y] = base + size_t(y) * width * channels * 2;
        }
        png_read_image(png, rows->data());
        context->rows_done = height;
    } else {
        try {
            row->resize(size_t(width) * channels);
        } catch (const std::bad_alloc&) {
            context->out_of_memory = true;
        }
        for (png_uint_32 y = 0; y < height && !context->out_of_memory; ++y) {
            png_read_row(png, reinterpret_cast<png_bytep>(row->data()), nullptr);
            context->out_of_memory = !png_append(out, *row, width, channels);
            context->rows_done = y + 1;
        }
        if (context->out_of_memory) {
            png_destroy_read_struct(&png, &info, nullptr);
            return false;
        }
    }
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    return true;
}

// libpng's own words for the faults a damaged file shows most, put plainly.
std::string png_fault(const png_context& context, uint32_t height) {
    if (context.ended) {
        return png_cut_fault(context.rows_done == height && height > 0, context.rows_done, height,
                             context.offset);
    }
    const std::string where = " (at byte offset " + std::to_string(context.offset) + ")";
    const std::string text = context.message;
    if (context.plain_message) return text;
    struct wording {
        const char* libpng;
        const char* plain;
    };
    static const wording table[] = {
        {"CRC error", "a chunk's checksum does not match its data: the file is damaged"},
        {"Not enough image data", "the compressed image data ends before the last row"},
        {"Too much image data", "there is more compressed image data than the rows hold"},
        {"Extra compressed data", "there is more compressed image data than the rows hold"},
        {"IHDR", "the image header (IHDR) is invalid"},
        {"Missing IHDR", "the image header (IHDR) is missing"},
        {"Not a PNG", "the file is not a PNG image"},
    };
    for (const wording& w : table) {
        if (text.find(w.libpng) != std::string::npos) {
            return std::string(w.plain) + where + " [libpng: " + text + "]";
        }
    }
    if (text.find("invalid") != std::string::npos || text.find("incorrect") != std::string::npos) {
        return "the compressed image data is damaged" + where + " [libpng: " + text + "]";
    }
    return text + where;
}

image read_png(const std::string& path, std::FILE* file, uint64_t file_size) {
    if (!seek_to(file, 0))
        throw file_error(path, "cannot read: " + std::string(std::strerror(errno)));
    png_context context{};
    context.file = file;
    image picture;
    std::vector<uint16_t> row;
    std::vector<png_bytep> rows;
    if (!png_read_into(&context, file_size, &picture, &row, &rows)) {
        if (context.out_of_memory) {
            throw no_memory(path, uint32_t(picture.width), uint32_t(picture.height),
                            picture.channels);
        }
        throw file_error(path, "PNG: " + png_fault(context, uint32_t(picture.height)));
    }
    return picture;
}

bool png_write_from(png_context* context, const image& picture,
                    const std::vector<png_bytep>& rows) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, context, png_error_handler,
                                              png_warning_handler);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (info == nullptr) {
        std::snprintf(context->message, sizeof context->message, "not enough memory for libpng");
        png_destroy_write_struct(&png, nullptr);
        return false;
    }
    if (setjmp(context->jump) != 0) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_set_write_fn(png, context, png_write_bytes, png_flush_bytes);
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

std::string png_to_stream(std::FILE* file, const image& picture) {
    std::vector<unsigned char> packed;
    const size_t element_size = picture.bits == 16 ? 2 : 1;
    packed.resize(picture.samples.size() * element_size);
    pack_samples(picture.samples.data(), picture.samples.size(), picture.bits, packed.data());
    const size_t row_bytes = size_t(picture.width) * picture.channels * element_size;
    std::vector<png_bytep> rows(picture.height);
    for (int32_t y = 0; y < picture.height; ++y) rows[y] = packed.data() + y * row_bytes;
    png_context context{};
    context.file = file;
    if (png_write_from(&context, picture, rows)) return std::string();
    if (context.write_error != 0)
        return "cannot write: " + std::string(std::strerror(context.write_error));
    return std::string("PNG: ") + context.message;
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

image read_tiff(const std::string& path, std::FILE* file, uint64_t file_size) {
    TIFFSetErrorHandler(tiff_error_handler);
    TIFFSetWarningHandler(nullptr);
    tiff_message.clear();
    if (!seek_to(file, 0))
        throw file_error(path, "cannot read: " + std::string(std::strerror(errno)));
    tiff_source source{file, file_size};
    // "m": no memory mapping, every byte comes through tiff_read.
    std::unique_ptr<TIFF, void (*)(TIFF*)> tiff(
        TIFFClientOpen(path.c_str(), "rm", &source, tiff_read, tiff_write, tiff_seek, tiff_close,
                       tiff_size, nullptr, nullptr),
        TIFFClose);
    if (!tiff) {
        throw file_error(path, "TIFF: " + tiff_fault(source,
                                                     "its header or tag directory is "
                                                     "damaged"));
    }
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
    if (TIFFIsTiled(tiff.get())) {
        throw file_error(path, "TIFF: tiled images are not read, only images stored in strips");
    }
    check_strips(path, tiff.get(), file_size);
    // Rows are appended as they are decoded: a header that claims more rows than the file
    // holds fails at the first missing one, before the whole image is allocated.
    image out = empty_image(width, height, samples_per_pixel);
    const uint64_t row_samples = uint64_t(width) * samples_per_pixel;
    std::vector<unsigned char> bytes;
    std::vector<uint16_t> row;
    for (uint32_t y = 0; y < height; ++y) {
        try {
            if (y == 0) {
                bytes.resize(size_t(TIFFScanlineSize64(tiff.get())));
                row.resize(size_t(row_samples));
            }
            if (TIFFReadScanline(tiff.get(), bytes.data(), y, 0) < 0) {
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

// Deflate-compressed strips of about 256 KiB, as the Windows build writes them.
std::string tiff_to_stream(std::FILE* file, const image& picture) {
    TIFFSetErrorHandler(tiff_error_handler);
    TIFFSetWarningHandler(nullptr);
    tiff_message.clear();
    tiff_source sink{file, 0};
    std::unique_ptr<TIFF, void (*)(TIFF*)> tiff(
        TIFFClientOpen("output", "wm", &sink, tiff_read, tiff_write, tiff_seek, tiff_close,
                       tiff_size, nullptr, nullptr),
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
#endif

std::string lower_extension(const std::string& path) {
    std::string ext = std::filesystem::path(path).extension().string();
    for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
    return ext;
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
    if (ext == ".ppm" || ext == ".pnm" || ext == ".pgm") return file_type::ppm;
    if (ext == ".pam") return file_type::pam;
    if (ext == ".png") return file_type::png;
    if (ext == ".tif" || ext == ".tiff") return file_type::tiff;
    if (ext == ".raw") return file_type::raw;
    throw usage_error(std::string(option) + ": cannot tell the file type of '" + path +
                      "' (use .png, .tif, .ppm, .pam or .raw)");
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
