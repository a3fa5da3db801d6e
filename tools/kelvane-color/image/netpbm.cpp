// Netpbm images by hand: binary PGM (P5), PPM (P6) and PAM (P7) read, PPM and PAM written.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "image/codec.h"
#include "pipeline/file_access.h"

namespace kv_tool {
namespace {

// Samples of maximum value `maxval` to 16 bits, rounding to nearest.
uint16_t widen(uint32_t value, uint32_t maxval) {
    return static_cast<uint16_t>((uint64_t(value) * 65535u + maxval / 2) / maxval);
}

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

// What a header says.
struct netpbm_layout {
    uint32_t width = 0, height = 0, maxval = 0, depth = 0;
};

// A PAM header's lines up to ENDHDR, the magic number read.
netpbm_layout read_pam_header(const std::string& path, netpbm_header& header) {
    netpbm_layout l;
    for (;;) {
        header.skip_blanks();
        const uint64_t at = header.position();
        const std::string key = header.word();
        if (key == "ENDHDR") {
            header.skip_line();
            break;
        } else if (key == "WIDTH") {
            l.width = header.number("WIDTH");
        } else if (key == "HEIGHT") {
            l.height = header.number("HEIGHT");
        } else if (key == "DEPTH") {
            l.depth = header.number("DEPTH");
        } else if (key == "MAXVAL") {
            l.maxval = header.number("MAXVAL");
        } else if (key == "TUPLTYPE") {
            header.skip_line();
        } else if (key.empty()) {
            throw file_error(path, "PAM header has no ENDHDR: the file ends within it");
        } else {
            throw header.fault("PAM header: unknown keyword " + excerpt(key), at);
        }
    }
    if (l.depth < 1 || l.depth > 4) {
        throw file_error(path, "PAM DEPTH " + std::to_string(l.depth) +
                                   " is not gray, gray + alpha, RGB or RGBA (1 to 4)");
    }
    return l;
}

// A P5 or P6 header: width, height, maximum value and one whitespace byte.
netpbm_layout read_pnm_header(netpbm_header& header, char kind) {
    netpbm_layout l;
    l.width = header.number("width");
    l.height = header.number("height");
    l.maxval = header.number("maximum value");
    header.end_of_header();
    l.depth = kind == '6' ? 3 : 1;
    return l;
}

// The file's size says whether every sample is there, before anything is allocated.
void check_netpbm_size(const std::string& path, const netpbm_layout& l, uint64_t file_size,
                       uint64_t header_end) {
    if (l.maxval < 1 || l.maxval > 65535) {
        throw file_error(path, "maximum value " + std::to_string(l.maxval) + " is not 1 to 65535");
    }
    check_size(path, l.width, l.height);
    const uint64_t needed = uint64_t(l.width) * l.depth * (l.maxval > 255 ? 2 : 1) * l.height;
    const uint64_t available = file_size - std::min(file_size, header_end);
    if (needed > available) {
        throw file_error(path, "truncated: its " + std::to_string(l.width) + "x" +
                                   std::to_string(l.height) + " pixels need " +
                                   std::to_string(needed) + " bytes of samples after the header, " +
                                   "the file has " + std::to_string(available));
    }
}

// One row's bytes to 16-bit samples, each checked against the maximum value.
void widen_row(const netpbm_header& header, const netpbm_layout& l, uint32_t y,
               const std::vector<unsigned char>& bytes, std::vector<uint16_t>* row) {
    const size_t element_size = l.maxval > 255 ? 2 : 1;
    const uint64_t row_start = header.position() + uint64_t(y) * bytes.size();
    for (size_t i = 0; i < row->size(); ++i) {
        // Netpbm's 16-bit samples are big-endian.
        const uint32_t v =
            element_size == 2 ? (uint32_t(bytes[2 * i]) << 8) | bytes[2 * i + 1] : bytes[i];
        if (v > l.maxval) {
            throw header.fault("sample " + std::to_string(v) + " at element " +
                                   std::to_string(uint64_t(y) * row->size() + i) +
                                   " exceeds the maximum value " + std::to_string(l.maxval) +
                                   " (row " + std::to_string(y) + ", column " +
                                   std::to_string(i / l.depth) + ")",
                               row_start + i * element_size);
        }
        (*row)[i] = widen(v, l.maxval);
    }
}

image read_netpbm_rows(const std::string& path, std::FILE* file, const netpbm_header& header,
                       const netpbm_layout& l) {
    const uint64_t row_bytes = uint64_t(l.width) * l.depth * (l.maxval > 255 ? 2 : 1);
    image out = empty_image(l.width, l.height, int(l.depth));
    std::vector<unsigned char> bytes;
    std::vector<uint16_t> row;
    try {
        out.samples.reserve(size_t(out.pixel_count()) * out.channels);
        bytes.resize(size_t(row_bytes));
        row.resize(size_t(l.width) * l.depth);
    } catch (const std::bad_alloc&) {
        throw no_memory(path, l.width, l.height, out.channels);
    }
    for (uint32_t y = 0; y < l.height; ++y) {
        if (std::fread(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
            throw header.fault(
                "the file ends in row " + std::to_string(y) + " (it shrank while " + "being read)",
                header.position() + uint64_t(y) * row_bytes);
        }
        widen_row(header, l, y, bytes, &row);
        append_row(&out, row.data(), l.width, int(l.depth));
    }
    return out;
}

}  // namespace

image read_netpbm(const std::string& path, std::FILE* file, uint64_t file_size, char kind) {
    if (!seek_to(file, 2))
        throw file_error(path, "cannot read: " + std::string(std::strerror(errno)));
    netpbm_header header(path, file);
    const netpbm_layout l =
        kind == '7' ? read_pam_header(path, header) : read_pnm_header(header, kind);
    check_netpbm_size(path, l, file_size, header.position());
    return read_netpbm_rows(path, file, header, l);
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

}  // namespace kv_tool
