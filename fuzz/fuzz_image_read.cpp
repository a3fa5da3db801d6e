// The image readers of kelvane-color (Netpbm, PNG, TIFF; the type told by the first bytes). The
// input becomes a file in a private folder; a file error is the clean answer, and an image that
// is read must keep the reader's promises: 16-bit samples, RGB or RGBA, one sample per channel
// and pixel.
#include <string>

#include "fuzz/fuzz_support.h"
#include "image_io.h"
#include "tool_error.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = kv_fuzz::write_private_file("input", data, size);
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
    });
    return 0;
}
