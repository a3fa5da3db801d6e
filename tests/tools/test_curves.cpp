// Curves and .cube files: values at chosen points, how tables are filled, and the line numbers of
// the messages for malformed files.
#include <cmath>

#include "pipeline/curves.h"
#include "tool_test_support.h"

namespace kv_tool_test {
namespace {

using kv_tool::curve;
using kv_tool::curve_kind;

curve parsed(const std::string& curve_text) {
    return kv_tool::parse_curve(curve_text, "--input-lut");
}

struct value_case {
    const char* curve_text;
    double x;
    double expected;
};

TEST(Curves, ValuesAtChosenPoints) {
    const value_case cases[] = {
        {"identity", 0.25, 0.25},
        {"off", 0.75, 0.75},
        {"srgb", 0.0, 0.0},
        {"srgb", 0.002, 0.02584},    // linear segment, 12.92 x
        {"srgb", 0.5, 0.735356983},  // 1.055 * 0.5^(1/2.4) - 0.055
        {"srgb", 1.0, 1.0},
        {"inverse-srgb", 0.735356983, 0.5},
        {"inverse-srgb", 0.04, 0.04 / 12.92},
        {"gamma:2.2", 0.5, 0.729740053},  // 0.5^(1/2.2)
        {"inverse-gamma:2.2", 0.5, 0.217637641},
        {"scale:0.5", 0.8, 0.4},
        {"scale:2", 0.7, 1.0},  // clamped
        {"scale:0", 0.7, 0.0},
    };
    for (const value_case& c : cases) {
        SCOPED_TRACE(std::string(c.curve_text) + " at " + std::to_string(c.x));
        for (int channel = 0; channel < 3; ++channel) {
            EXPECT_NEAR(kv_tool::evaluate(parsed(c.curve_text), channel, c.x), c.expected, 1e-8);
        }
    }
}

struct table_case {
    const char* curve_text;
    uint32_t entries;
    uint32_t top;
    std::vector<std::pair<uint32_t, uint32_t>> expected;  // index, entry
};

TEST(Curves, TablesSpanTheirEntriesAndTop) {
    const table_case cases[] = {
        {"identity", 65536, 65535, {{0, 0}, {1, 1}, {32768, 32768}, {65535, 65535}}},
        {"identity", 4096, 255, {{0, 0}, {4095, 255}, {2048, 128}}},  // 2048/4095*255 = 127.53
        {"identity", 2, 1000000, {{0, 0}, {1, 1000000}}},
        {"identity", 1, 65535, {{0, 0}}},
        {"scale:0.5", 65536, 65535, {{65535, 32768}, {1000, 500}}},
        {"inverse-gamma:2", 256, 65025, {{16, 256}, {255, 65025}}},  // (16/255)^2 * 65025
    };
    for (const table_case& c : cases) {
        SCOPED_TRACE(std::string(c.curve_text) + ", " + std::to_string(c.entries) + " entries");
        std::vector<uint32_t> table(c.entries, 0xDEADBEEF);
        kv_tool::fill_table(parsed(c.curve_text), 1, table.data(), c.entries, c.top);
        for (const auto& [index, entry] : c.expected) EXPECT_EQ(table[index], entry) << index;
    }
}

TEST(Cube, FileWithHeaderCommentsAndDomainIsRead) {
    const std::string text =
        "# made by hand\r\n"
        "TITLE \"three ramps\"\r\n"
        "LUT_1D_SIZE 3\r\n"
        "DOMAIN_MIN 0 0 0\r\n"
        "DOMAIN_MAX 1 1 0.5\r\n"
        "\r\n"
        "0.0 1.0 0.0\r\n"
        "0.5 0.5 0.25   # mid\r\n"
        "1.0 0.0 0.5\r\n";
    const kv_tool::cube_LUT cube = kv_tool::parse_cube("ramps.cube", text);
    EXPECT_EQ(cube.title, "three ramps");
    ASSERT_EQ(cube.entries.size(), 3u);
    EXPECT_EQ(cube.domain_max, (std::array<double, 3>{1, 1, 0.5}));
    // LUT_1D_INPUT_RANGE sets the domain of every channel.
    const kv_tool::cube_LUT ranged = kv_tool::parse_cube(
        "r.cube", "LUT_1D_INPUT_RANGE 0.25 0.75\nLUT_1D_SIZE 2\n0 0 0\n1 1 1\n");
    EXPECT_EQ(ranged.domain_min, (std::array<double, 3>{0.25, 0.25, 0.25}));
    EXPECT_EQ(ranged.domain_max, (std::array<double, 3>{0.75, 0.75, 0.75}));

    const auto dir = scratch_dir();
    const curve c = kv_tool::parse_curve(write_text(dir / "ramps.cube", text), "--output-lut");
    ASSERT_EQ(c.kind, curve_kind::cube);
    struct point {
        int channel;  // 0 blue, 1 green, 2 red: columns 3, 2, 1 of the file
        double x, expected;
    };
    const point points[] = {
        {2, 0.0, 0.0},     {2, 0.25, 0.25}, {2, 1.0, 1.0},  // red rises
        {1, 0.0, 1.0},     {1, 0.75, 0.25}, {1, 1.0, 0.0},  // green falls
        {0, 0.125, 0.125}, {0, 0.25, 0.25}, {0, 0.9, 0.5},  // blue over a domain of 0 to 0.5
    };
    for (const point& p : points) {
        EXPECT_NEAR(kv_tool::evaluate(c, p.channel, p.x), p.expected, 1e-12)
            << "channel " << p.channel << " at " << p.x;
    }
}

struct malformed_case {
    std::string text;
    const char* message;  // after "bad.cube:"
};

TEST(Cube, MalformedFilesGiveTheLine) {
    const malformed_case cases[] = {
        {"", "0: no LUT_1D_SIZE line"},
        {"LUT_1D_SIZE 2\n0 0 0\n", "2: 1 entries, but LUT_1D_SIZE gives 2"},
        {"LUT_1D_SIZE 2\n0 0 0\n1 1 1\n1 1 1\n", "4: more than the 2 entries LUT_1D_SIZE gives"},
        {"# c\n0 0 0\n", "2: data before LUT_1D_SIZE"},
        {"LUT_1D_SIZE 2\n0 0\n1 1 1\n", "2: entry: expected 3 numbers, got 2"},
        {"LUT_1D_SIZE 2\n0 0 0\n1 one 1\n", "3: entry: 'one' is not a number"},
        {"LUT_1D_SIZE 1\n", "1: LUT_1D_SIZE must be a whole number from 2 to 65536"},
        {"LUT_1D_SIZE 2.5\n", "1: LUT_1D_SIZE must be a whole number"},
        {"LUT_1D_SIZE 70000\n", "1: LUT_1D_SIZE must be a whole number"},
        {"LUT_1D_SIZE\n", "1: LUT_1D_SIZE: expected 1 numbers, got 0"},
        {"LUT_1D_SIZE 2\nLUT_1D_SIZE 2\n", "2: LUT_1D_SIZE given twice"},
        {"TITLE \"x\"\nLUT_3D_SIZE 17\n", "2: a 3D LUT; kelvane-color applies 1D LUTs only"},
        {"LUT_1D_SIZE 2\nDOMAIN_MIN 0 0\n", "2: DOMAIN_MIN: expected 3 numbers, got 2"},
        {"LUT_1D_SIZE 2\nDOMAIN_MAX 1 0 1\n0 0 0\n1 1 1\n", "4: the domain maximum must lie"},
        {"LUT_1D_SIZE 2\nSHAPER 1\n", "2: unknown keyword 'SHAPER'"},
    };
    for (const malformed_case& c : cases) {
        SCOPED_TRACE(c.text);
        const kv_tool::tool_error e = error_of([&] { kv_tool::parse_cube("bad.cube", c.text); });
        EXPECT_EQ(e.code(), kv_tool::EXIT_FILE);
        EXPECT_EQ(std::string(e.what()).rfind(std::string("bad.cube:") + c.message, 0), 0u)
            << e.what();
    }
}

}  // namespace
}  // namespace kv_tool_test
