// A colour profile put into PNG and TIFF bytes that an encoder wrote without one. The Windows
// codecs write the samples; the profile is added here, the same way on every Windows (Wine's
// encoders refuse colour contexts): PNG gets sRGB, gAMA and cHRM, or iCCP, right after IHDR, as
// libpng writes them; TIFF gets tag 34675 in a copy of its first directory. Byte work only, so
// it builds and is tested on every platform (zlib compresses the iCCP profile).
#pragma once

#include <stdexcept>
#include <string>

#include "image/image.h"

namespace kv_tool {

// Thrown when the bytes are not the PNG or TIFF they should be; what() says where.
struct embedding_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// `png` with `profile` as its only colour chunks: any sRGB, gAMA, cHRM or iCCP it had are dropped.
std::string png_with_profile(const std::string& png, const color_profile& profile);

// `tiff` (classic TIFF, either byte order) with `icc` as tag 34675 of its first directory, in
// place of any it had: the profile and the new directory are appended, the header points there.
std::string tiff_with_profile(const std::string& tiff, const std::vector<uint8_t>& icc);

}  // namespace kv_tool
