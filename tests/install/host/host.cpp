// A minimal C++ host of the installed library through kelvane_qor_color_processing.hpp: nine
// pixels with red halved, once whole and once in three stripes on threads (the installed flags
// must link them). The interface's own behaviour is tested in tests/cpp_api.
#include <cstdio>
#include <vector>

#include "kelvane_qor_color_processing.hpp"

int main() {
    try {
        kelvane::session library;
        kelvane::processor p(library, 0, 0);
        const float halve_red[9] = {0.5f, 0, 0, 0, 1, 0, 0, 0, 1};
        p.append_matrix(halve_red);
        std::vector<uint16_t> input(27, 1000), whole(27), striped(27);
        const kelvane::input_frame in(input, kelvane::layout::bgr_interleaved, 9);
        p.transform(in,
                    kelvane::output_frame<uint16_t>(whole, kelvane::layout::rgb_interleaved, 3, 9));
        p.transform_striped(
            in, kelvane::output_frame<uint16_t>(striped, kelvane::layout::rgb_interleaved, 3, 9),
            {}, 3);
        if (whole != striped || whole[0] != 500 || whole[1] != 1000) {
            std::fprintf(stderr, "host++: unexpected pixels\n");
            return 1;
        }
        std::printf("host++: 9 pixels checked\n");
        return 0;
    } catch (const kelvane::error& e) {
        std::fprintf(stderr, "host++: %s\n", e.what());
        return 1;
    }
}
