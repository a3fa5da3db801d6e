// PNG through libpng: read with every transform to 16-bit RGB(A), written at 8 or 16 bits.
#include <png.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <new>

#include "image/codec.h"
#include "image/prechecks.h"
#include "pipeline/file_access.h"

namespace kv_tool {
namespace {

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

// After png_read_info: refuses a header that claims more than one frame or more than the file
// holds (false, the reason in `context`), then asks for 16-bit samples, gray spread to RGB, in host
// order. Returns the interlace passes in `passes`.
bool png_prepare(png_structp png, png_infop info, png_context* context, uint64_t file_size,
                 int* passes) {
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
        return false;
    }
    png_set_expand(png);     // palette to RGB, low-bit gray to 8 bits, tRNS to alpha
    png_set_expand_16(png);  // 8 bits to 16 by repeating the byte: v * 257
    png_set_gray_to_rgb(png);
    png_set_swap(png);  // host order on a little-endian processor
    *passes = png_set_interlace_handling(png);
    png_read_update_info(png, info);
    return true;
}

// An interlaced image needs all its rows at once, after the size check against the file.
bool png_read_interlaced(png_structp png, png_context* context, image* out,
                         std::vector<png_bytep>* rows) {
    const auto width = uint32_t(out->width), height = uint32_t(out->height);
    try {
        out->samples.resize(size_t(width) * height * out->channels);
        rows->resize(height);
    } catch (const std::bad_alloc&) {
        context->out_of_memory = true;
        return false;
    }
    auto* base = reinterpret_cast<png_bytep>(out->samples.data());
    for (png_uint_32 y = 0; y < height; ++y) {
        (*rows)[y] = base + size_t(y) * width * out->channels * 2;
    }
    png_read_image(png, rows->data());
    context->rows_done = height;
    return true;
}

// Rows of a plain image are appended as they are decoded, so a header that claims more than the
// data holds costs no memory.
bool png_read_rows(png_structp png, png_context* context, image* out, std::vector<uint16_t>* row) {
    const auto width = uint32_t(out->width), height = uint32_t(out->height);
    try {
        row->resize(size_t(width) * out->channels);
    } catch (const std::bad_alloc&) {
        context->out_of_memory = true;
    }
    for (png_uint_32 y = 0; y < height && !context->out_of_memory; ++y) {
        png_read_row(png, reinterpret_cast<png_bytep>(row->data()), nullptr);
        context->out_of_memory = !png_append(out, *row, width, out->channels);
        context->rows_done = y + 1;
    }
    return !context->out_of_memory;
}

// Decodes the image once libpng's error jump is set; false on a fault noted in `context`.
bool png_decode(png_structp png, png_infop info, png_context* context, uint64_t file_size,
                image* out, std::vector<uint16_t>* row, std::vector<png_bytep>* rows) {
    png_set_read_fn(png, context, png_read_bytes);
    png_set_user_limits(png, 0x7FFFFFFF, 0x7FFFFFFF);
    png_read_info(png, info);
    int passes = 1;
    if (!png_prepare(png, info, context, file_size, &passes)) return false;
    *out = empty_image(png_get_image_width(png, info), png_get_image_height(png, info),
                       png_get_channels(png, info));
    const bool ok = passes > 1 ? png_read_interlaced(png, context, out, rows)
                               : png_read_rows(png, context, out, row);
    if (ok) png_read_end(png, nullptr);
    return ok;
}

// Runs in a frame of its own with only plain locals, so the longjmp of an error skips no
// destructor (nor do the functions it calls); `out`, `row` and `rows` are owned by the caller.
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
    const bool ok = png_decode(png, info, context, file_size, out, row, rows);
    png_destroy_read_struct(&png, &info, nullptr);
    return ok;
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

}  // namespace

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

namespace {

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

}  // namespace

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

}  // namespace kv_tool
