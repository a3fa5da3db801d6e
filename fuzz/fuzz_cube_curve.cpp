// .cube texts and curve names. The whole input is parsed as a .cube file and its first line as a
// curve; what parses is then evaluated and written into a table as the tool does, where every
// value must stay within [0, 1] and the table within its top value.
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "cli/tool_error.h"
#include "fuzz/fuzz_support.h"
#include "pipeline/curves.h"

namespace {

void check_curve(const kv_tool::curve& c) {
    static const double points[] = {0.0, 1e-300, 0.001, 0.25, 0.5, 0.75, 0.999, 1.0};
    for (int channel = 0; channel < 3; ++channel) {
        for (double x : points) {
            const double y = kv_tool::evaluate(c, channel, x);
            if (!(y >= 0.0 && y <= 1.0)) {
                kv_fuzz::finding("curve '" + c.text + "' gives " + std::to_string(y) + " at " +
                                 std::to_string(x));
            }
        }
        std::vector<uint32_t> table(257);
        kv_tool::fill_table(c, channel, table.data(), uint32_t(table.size()), 65535);
        for (uint32_t v : table) {
            if (v > 65535) kv_fuzz::finding("table entry " + std::to_string(v) + " above 65535");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    kv_fuzz::expect_only<kv_tool::tool_error>([&] {
        kv_tool::curve c;
        c.kind = kv_tool::curve_kind::cube;
        c.text = "fuzz.cube";
        c.cube = std::make_shared<const kv_tool::cube_LUT>(kv_tool::parse_cube("fuzz.cube", text));
        if (c.cube->entries.size() < 2) kv_fuzz::finding("a .cube of fewer than two entries");
        check_curve(c);
    });
    // A first line naming a .cube file is looked for in the current folder (the runner's private
    // one) and refused as missing.
    const std::string first_line = text.substr(0, text.find('\n'));
    kv_fuzz::expect_only<kv_tool::tool_error>(
        [&] { check_curve(kv_tool::parse_curve(first_line, "--output-lut")); });
    return 0;
}
