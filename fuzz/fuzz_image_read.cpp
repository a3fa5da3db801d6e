// The image readers of kelvane-color (Netpbm, PNG, TIFF; the type told by the first bytes). The
// input becomes a file in a private folder; a file error is the clean answer, and an image that
// is read must keep the reader's promises: 16-bit samples, RGB or RGBA, one sample per channel
// and pixel. The same bytes go through the checks the Windows back end makes on a file before its
// system decoder sees it: they read offsets and counts straight from the file, and must never
// refuse a PNG or TIFF that libpng or libtiff reads.
#include <string>

#include "cli/tool_error.h"
#include "fuzz/fuzz_support.h"
#include "image/image.h"
#include "image/prechecks.h"

namespace {

void check_windows_prechecks(const std::string& bytes, bool read) {
    const std::string png_fault = kv_tool::png_header_fault(bytes);
    const bool png_cut = kv_tool::walk_png(bytes).cut;
    kv_tool::tiff_strips strips;
    const std::string tiff_fault = kv_tool::read_tiff_strips(bytes, &strips)
                                       ? kv_tool::tiff_strips_fault(strips, bytes.size())
                                       : std::string();
    if (!read) return;
    if (bytes.compare(0, 8, "\x89PNG\r\n\x1a\n") == 0 && (png_cut || !png_fault.empty())) {
        kv_fuzz::finding("a PNG libpng reads is refused before decoding: " +
                         (png_cut ? std::string("its chunks are cut") : png_fault));
    }
    const bool tiff = bytes.compare(0, 4, std::string("II*\0", 4)) == 0 ||
                      bytes.compare(0, 4, std::string("MM\0*", 4)) == 0;
    if (tiff && !tiff_fault.empty()) {
        kv_fuzz::finding("a TIFF libtiff reads is refused before decoding: " + tiff_fault);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = kv_fuzz::write_private_file("input", data, size);
    bool read = false;
    kv_fuzz::expect_only<kv_tool::tool_error>([&] {
        const kv_tool::image picture = kv_tool::read_image(path);
        const std::string shape = std::to_string(picture.width) + "x" +
                                  std::to_string(picture.height) + ", " +
                                  std::to_string(picture.channels) + " channels, " +
                                  std::to_string(picture.bits) + " bits";
        if (picture.width <= 0 || picture.height <= 0 || picture.bits != 16 ||
            (picture.channels != 3 && picture.channels != 4)) {
            kv_fuzz::finding("an image read as " + shape);
        }
        if (picture.samples.size() != picture.pixel_count() * uint64_t(picture.channels)) {
            kv_fuzz::finding(std::to_string(picture.samples.size()) + " samples in an image of " +
                             shape);
        }
        read = true;
    });
    check_windows_prechecks(std::string(reinterpret_cast<const char*>(data), size), read);
    return 0;
}
