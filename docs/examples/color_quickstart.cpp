// A C++ host of the colour layer: a frame of 16-bit sRGB converted to Display P3 at 16 bits, the
// same through a CLF process list, and a refusal read as a message. Exits 0 on success.
#include <cstdio>
#include <vector>

#include "kelvane_qor_color.hpp"

int main() {
    try {
        kelvane::session library;

        // 1. Source and destination by name (or color_space::from_icc_file("x.icc"),
        // from_icc(bytes)).
        const kelvane::color_space srgb = kelvane::color_space::named("srgb");
        const kelvane::color_space p3 = kelvane::color_space::named("display-p3");

        // 2. The conversion for 16-bit output, and a processor set up with it.
        const kelvane::color_conversion to_p3(srgb, p3, 16);
        const kelvane::processor p = to_p3.make_processor(library);

        // 3. A frame: pure sRGB red and mid grey, RGB interleaved.
        const std::vector<uint16_t> in = {65535, 0, 0, 32768, 32768, 32768};
        std::vector<uint16_t> out(in.size());
        p.transform(kelvane::input_frame(in, kelvane::layout::rgb_interleaved, 2),
                    kelvane::output_frame<uint16_t>(out, kelvane::layout::rgb_interleaved, 3, 2),
                    to_p3.settings());
        std::printf("%s: red -> %u %u %u, grey -> %u %u %u\n", to_p3.description().c_str(), out[0],
                    out[1], out[2], out[3], out[4], out[5]);

        // 4. The destination's ICC profile, to embed in the output file.
        std::printf("Display P3 profile: %zu bytes\n", p3.icc().size());

        // 5. A process list: a Matrix alone, 16-bit codes in and out.
        const char* clf =
            "<ProcessList id=\"swap\" compCLFversion=\"3\">"
            "<Matrix inBitDepth=\"16i\" outBitDepth=\"16i\"><Array dim=\"3 3\">"
            "0 1 0  1 0 0  0 0 1</Array></Matrix></ProcessList>";
        const kelvane::color_conversion swap =
            kelvane::color_conversion::from_clf(clf, "swap.clf", 8);
        std::printf("%s\n", swap.description().c_str());

        // 6. What a refusal says.
        try {
            kelvane::color_space::from_icc_file("/usr/share/color/icc/Gray.icc");
        } catch (const kelvane::color_error& e) {
            std::printf("refused (status %d): %s\n", int(e.status()), e.what());
        }
        return out[0] > 60000 && out[3] == 32768 ? 0 : 1;
    } catch (const kelvane::error& e) {
        std::fprintf(stderr, "error: %s\n", e.what());
        return 1;
    }
}
