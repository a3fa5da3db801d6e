// Encoded PNG and TIFF bytes that get a colour profile put into them. The first byte chooses the
// format and whether the profile is PNG's sRGB; the rest are the encoder's bytes. Only an
// embedding_error may come back; an accepted TIFF grows by the profile and one directory, and an
// accepted PNG keeps its signature and header.
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "image/profile_embedding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string encoded(reinterpret_cast<const char*>(data) + 1, size - 1);
    kv_tool::color_profile profile;
    profile.icc.assign(333, uint8_t(data[0]));
    profile.srgb = (data[0] & 2) != 0;
    kv_fuzz::expect_only<kv_tool::embedding_error>([&] {
        if ((data[0] & 1) != 0) {
            const std::string out = kv_tool::tiff_with_profile(encoded, profile.icc);
            if (out.size() < encoded.size() + profile.icc.size() + 18)
                kv_fuzz::finding("the TIFF did not grow by its profile and a directory");
            if (out.compare(0, 4, encoded, 0, 4) != 0) kv_fuzz::finding("the TIFF header changed");
        } else {
            const std::string out = kv_tool::png_with_profile(encoded, profile);
            if (out.compare(0, 33, encoded, 0, 33) != 0)
                kv_fuzz::finding("the PNG signature or header changed");
        }
    });
    return 0;
}
