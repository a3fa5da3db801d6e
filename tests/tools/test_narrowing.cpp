// The whole program: 8-bit image output against narrowing computed here in plain integers (every
// 16-bit value in each channel, on each way the program reaches 8 bits), a batch on several threads
// byte for byte as on one, and the bar chart of bench as text that stays inside its markup.
#include <algorithm>
#include <functional>

#include "bench/bench.h"
#include "cli/application.h"
#include "image/image.h"
#include "pipeline/file_access.h"
#include "pipeline/processing.h"
#include "tool_test_support.h"

namespace kv_tool_test {
namespace {

using kv_tool::narrowing;

uint32_t rounded(uint32_t v) {
    return (v * 255 + 32767) / 65535;
}

TEST(Narrowing, EveryValueMatchesAnIndependentRounding) {
    // 256x256 pixels: red runs through all 65536 values, green backwards, blue scrambled.
    kv_tool::image input;
    input.width = input.height = 256;
    input.samples.resize(65536 * 3);
    const auto value = [](int channel, uint32_t v) {
        return channel == 0 ? v : channel == 1 ? 65535 - v : v ^ 0x5A5Au;
    };
    for (uint32_t v = 0; v < 65536; ++v) {
        for (int c = 0; c < 3; ++c) input.samples[v * 3 + c] = uint16_t(value(c, v));
    }
    const auto dir = scratch_dir();
    const std::string source = (dir / "all.pam").string();
    kv_tool::write_image(source, kv_tool::file_type::pam, input);

    struct case_t {
        std::vector<std::string> options;
        const char* output;
        narrowing route;
        std::function<uint32_t(uint32_t)> expected;
    };
    const std::string identity = "1 0 0 0 1 0 0 0 1";
    const case_t cases[] = {
        {{}, "fold.pam", narrowing::scale_matrix, rounded},
        {{"--clamp", "1000:60100"},
         "clamp.ppm",
         narrowing::scale_matrix,
         [](uint32_t v) { return rounded(std::clamp(v, 1000u, 60100u)); }},
        {{"--matrix", identity}, "matrix.pam", narrowing::rounding_pass, rounded},
        {{"--shift", "1"},
         "shift.pam",
         narrowing::rounding_pass,
         [](uint32_t v) { return rounded((v << 1) & 0xFFFF); }},
        {{"--output-lut", "identity"}, "table.pam", narrowing::tables, rounded},
        // A 4096-entry table: its 16-bit output is the clamped value moved up four bits.
        {{"--output-lut", "identity", "--output-lut-bits", "12"},
         "small_table.pam",
         narrowing::tables,
         [](uint32_t v) { return rounded(std::min(v, 4095u) << 4); }},
        {{"--narrow", "truncate"},
         "truncate.pam",
         narrowing::library,
         [](uint32_t v) { return v >> 8; }},
        {{"--output-lut", "identity", "--narrow", "truncate"},
         "table_truncate.pam",
         narrowing::library,
         [](uint32_t v) { return v >> 8; }},
        {{}, "library.raw", narrowing::library, [](uint32_t v) { return v >> 8; }},
    };
    for (const case_t& c : cases) {
        const std::string target = (dir / c.output).string();
        std::vector<std::string> words = c.options;
        words.insert(words.end(), {"-q", source, "-o", target});
        SCOPED_TRACE(target);
        const kv_tool::settings s = parse(words);
        EXPECT_EQ(kv_tool::route_output(s, kv_tool::file_type_of(target, "-o")).how, c.route);
        ASSERT_EQ(kv_tool::run_kelvane_color(words), 0);

        std::vector<uint16_t> got;
        if (kv_tool::file_type_of(target, "-o") == kv_tool::file_type::raw) {
            const std::string bytes = kv_tool::read_small_file(target, 1 << 20, "raw");
            got.assign(bytes.begin(), bytes.end());
            for (uint16_t& g : got) g = uint8_t(g);
        } else {
            const kv_tool::image out = kv_tool::read_image(target);
            ASSERT_EQ(out.samples.size(), input.samples.size());
            for (uint16_t sample : out.samples) got.push_back(uint16_t(sample / 257));
        }
        ASSERT_EQ(got.size(), input.samples.size());
        int wrong = 0;
        for (uint32_t v = 0; v < 65536 && wrong < 5; ++v) {
            for (int ch = 0; ch < 3; ++ch) {
                const uint32_t want = c.expected(value(ch, v));
                if (got[v * 3 + ch] != want && ++wrong <= 5) {
                    ADD_FAILURE() << "channel " << ch << " of value " << value(ch, v) << ": got "
                                  << got[v * 3 + ch] << ", expected " << want;
                }
            }
        }
    }
}

TEST(BenchChart, DrawsOneBarPerMeasuredTierWithEscapedText) {
    kv_tool::bench_result r;
    r.source = "a<b>&\"c'\x01.png";
    r.processor = "CPU \x1b[31m";
    r.width = 4;
    r.height = 2;
    for (int32_t tier = 0; tier < 4; ++tier) {
        kv_tool::bench_row row;
        row.tier = tier;
        row.measured = tier != 2;
        row.mpix_per_s = 100.0 * (tier + 1);
        r.tiers.push_back(row);
    }
    r.memcpy_mpix_per_s = 1000;
    const std::string svg = kv_tool::bench_svg(r, kv_tool::settings());
    size_t bars = 0;
    for (size_t at = svg.find("class=\"tier-bar\""); at != std::string::npos;
         at = svg.find("class=\"tier-bar\"", at + 1)) {
        ++bars;
    }
    EXPECT_EQ(bars, 3u);
    EXPECT_NE(svg.find("a&lt;b&gt;&amp;&quot;c&apos;\\x01.png"), std::string::npos) << svg;
    EXPECT_NE(svg.find("CPU \\x1B[31m"), std::string::npos) << svg;
    for (char ch : svg) EXPECT_TRUE(ch == '\n' || static_cast<unsigned char>(ch) >= 0x20);
}

int run(std::vector<std::string> arguments) {
    arguments.push_back("-q");
    return kv_tool::run_kelvane_color(arguments);
}

// Layout and width settings: interleaved both sides (striped), a planar side (whole frames).
const std::vector<std::string> option_sets[] = {
    {"--output-lut", "srgb", "--matrix", "1.1,-0.1,0,0,1,0,0.2,0,0.8"},
    {"--bits", "16", "--channels", "4", "--input-layout", "bgr", "--output-layout", "bgr"},
    {"--input-layout", "planes", "--output-lut", "gamma:2.2"},
    {"--bits", "16", "--output-layout", "planes"},
};

// Eight threads for four files: all four at once, each interleaved frame in two stripes.
TEST(Threads, ABatchIsTheSameOnOneThreadAndOnEight) {
    const std::filesystem::path dir = scratch_dir();
    std::vector<std::string> inputs;
    for (const char* size : {"64x3", "5x1", "333x9", "17x17"}) {
        inputs.push_back((dir / (std::string("in_") + size + ".ppm")).string());
        ASSERT_EQ(run({"--chart-size", size, "--bits", "16", "-o", inputs.back()}),
                  kv_tool::EXIT_OK);
    }
    for (const auto& options : option_sets) {
        SCOPED_TRACE(::testing::PrintToString(options));
        for (const char* threads : {"1", "8"}) {
            std::vector<std::string> arguments = inputs;
            arguments.insert(arguments.end(), options.begin(), options.end());
            const std::filesystem::path out = dir / (std::string("out_") + threads);
            std::filesystem::remove_all(out);
            arguments.insert(arguments.end(), {"--threads", threads, "--output-type", "raw",
                                               "--output-dir", out.string()});
            ASSERT_EQ(run(arguments), kv_tool::EXIT_OK);
        }
        for (const std::string& input : inputs) {
            const std::string name = std::filesystem::path(input).stem().string() + ".raw";
            const std::string one = contents(dir / "out_1" / name);
            EXPECT_FALSE(one.empty()) << name;
            EXPECT_EQ(one, contents(dir / "out_8" / name)) << name;
        }
    }
}

}  // namespace
}  // namespace kv_tool_test
