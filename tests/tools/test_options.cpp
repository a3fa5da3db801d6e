// The command line: what each option turns into, the message of every kind of mistake, and the
// defaults that depend on several options.
#include <functional>

#include "tool_test_support.h"

namespace kv_tool_test {
namespace {

using kv_tool::settings;
using words = std::vector<std::string>;

struct good_case {
    words arguments;
    std::function<void(const settings&)> check;
};

TEST(Options, GoodCommandLines) {
    const good_case cases[] = {
        {{},
         [](const settings& s) {
             EXPECT_EQ(s.mode, kv_tool::run_mode::process);
             EXPECT_TRUE(s.inputs.empty());
             EXPECT_EQ(s.bits, 8);
             EXPECT_EQ(s.channels, 3);
             EXPECT_EQ(s.input_layout, 2);
             EXPECT_FALSE(s.tier.has_value());
             EXPECT_GE(s.threads, 1u);
         }},
        {{"bench", "--threads", "256", "--tier", "-1"},
         [](const settings& s) {
             EXPECT_EQ(s.mode, kv_tool::run_mode::bench);
             EXPECT_EQ(s.threads, 256u);
             EXPECT_EQ(*s.tier, -1);
         }},
        {{"a.png", "-o", "b.ppm", "--bits=16", "--channels", "3", "--matrix", "1,0,0, 0,1,0, 0,0,1",
          "--matrix", "2 0 0 0 2 0 0 0 -0.5"},
         [](const settings& s) {
             EXPECT_EQ(s.inputs, words{"a.png"});
             EXPECT_EQ(s.output, "b.ppm");
             EXPECT_EQ(s.bits, 16);
             EXPECT_EQ(s.matrices,
                       (std::vector<std::array<float, 9>>{{1, 0, 0, 0, 1, 0, 0, 0, 1},
                                                          {2, 0, 0, 0, 2, 0, 0, 0, -0.5f}}));
         }},
        {{"--input-lut", "srgb", "--input-lut", "r=gamma:2.2", "--output-lut", "bg=scale:0.5",
          "--clamp", "100:200", "--clamp", "green=5:6", "--shift", "rb=-3"},
         [](const settings& s) {
             EXPECT_EQ(s.input_LUT[0].kind, kv_tool::curve_kind::srgb);
             EXPECT_EQ(s.input_LUT[1].kind, kv_tool::curve_kind::srgb);
             EXPECT_EQ(s.input_LUT[2].kind, kv_tool::curve_kind::gamma);
             EXPECT_DOUBLE_EQ(s.input_LUT[2].parameter, 2.2);
             EXPECT_EQ(s.output_LUT[0].kind, kv_tool::curve_kind::scale);
             EXPECT_EQ(s.output_LUT[1].kind, kv_tool::curve_kind::scale);
             EXPECT_EQ(s.output_LUT[2].kind, kv_tool::curve_kind::off);
             using limits = std::array<std::optional<uint16_t>, 3>;
             EXPECT_EQ(s.clamp_min, (limits{100, 5, 100}));
             EXPECT_EQ(s.clamp_max, (limits{200, 6, 200}));
             EXPECT_EQ(s.shift, (std::array<std::optional<int32_t>, 3>{-3, std::nullopt, -3}));
         }},
        {{"--info", "--tier", "avx2", "--input-layout", "planes", "--output-layout", "7"},
         [](const settings& s) {
             EXPECT_EQ(s.mode, kv_tool::run_mode::info);
             EXPECT_EQ(*s.tier, 2);
             EXPECT_EQ(s.input_layout, 0);
             EXPECT_EQ(s.output_layout, 7);  // left for the library to refuse
         }},
        {{"--bits", "16", "--help", "--nonsense"},
         [](const settings& s) { EXPECT_EQ(s.mode, kv_tool::run_mode::help); }},
    };
    for (const good_case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.arguments));
        c.check(parse(c.arguments));
    }
}

struct bad_case {
    words arguments;
    const char* message;
};

TEST(Options, BadCommandLinesNameTheOption) {
    const bad_case cases[] = {
        {{"--nope"}, "unknown option '--nope' (see kelvane-color --help)"},
        {{"-o"}, "-o needs a value"},
        {{"--quiet=1"}, "--quiet takes no value"},
        {{"--matrix", "1,2,3"},
         "--matrix: expected nine numbers (three rows of red, green, "
         "blue), got 3 in '1,2,3'"},
        {{"--matrix", "1,0,0,0,x,0,0,0,1"}, "--matrix: 'x' is not a number in"},
        {{"--matrix", "1,0,0,0,1e39,0,0,0,1"}, "--matrix: '1e39' is not a number"},
        {{"--bits", "12"}, "--bits: must be 8 or 16"},
        {{"--bits", "32"}, "--bits: '32' is not a whole number from 8 to 16"},
        {{"--channels", "2"}, "--channels: '2' is not a whole number from 3 to 4"},
        {{"--clamp", "5"}, "--clamp: expected MIN:MAX, as in 0:65535, got '5'"},
        {{"--clamp", "0:70000"}, "--clamp: '70000' is not a whole number from 0 to 65535"},
        {{"--clamp", "x=0:5"}, "--clamp: 'x' is not a channel list"},
        {{"--shift", "r=left"}, "--shift: 'left' is not a whole number"},
        {{"--input-lut", "gamma"}, "--input-lut: 'gamma' needs a value, as in gamma:2.2"},
        {{"--input-lut", "gamma:0"}, "--input-lut: '0' is not a positive number in 'gamma:0'"},
        {{"--output-lut", "scale:-1"}, "--output-lut: '-1' is not a non-negative number"},
        {{"--output-lut", "sigmoid"}, "--output-lut: 'sigmoid' is not a curve"},
        {{"--output-lut", "srgb:2"}, "--output-lut: 'srgb:2' is not a curve"},
        {{"--output-lut-bits", "17"}, "--output-lut-bits: '17' is not a whole number from 0 to 16"},
        {{"--tier", "fast"}, "--tier: 'fast' is not a tier"},
        {{"--threads", "0"}, "--threads: '0' is not a whole number from 1 to 256"},
        {{"bench", "--threads", "257"}, "--threads: '257' is not a whole number from 1 to 256"},
        {{"--input-layout", "grb"}, "--input-layout: 'grb' is not a layout (planes, bgr, rgb)"},
        {{"--chart-size", "10"}, "--chart-size: expected WIDTHxHEIGHT, got '10'"},
        {{"--chart-size", "65536x65536"}, "--chart-size: more pixels than one frame can hold"},
        {{"a.png", "--chart-size", "8x8"}, "--chart-size: only without input files"},
        {{"a.png", "b.png", "-o", "c.png"}, "-o names one file, but there are 2 inputs"},
        {{"-o", "c.png", "--output-dir", "d"}, "-o and --output-dir: give one of them"},
        {{"-o", "c.jpg"}, "-o: cannot tell the file type of 'c.jpg'"},
        {{"-o", "c.ppm", "--channels", "4"}, "-o: PPM holds three channels"},
        {{"--output-type", "png"}, "--output-type goes with --output-dir"},
        {{"--json", "-"}, "--json goes with bench or --raw-input"},
        {{"--svg", "x.svg"}, "--svg and --min-time are options of bench"},
        {{"--narrow", "floor"}, "--narrow: 'floor' is not round or truncate"},
        {{"bench", "-o", "x.png"}, "bench writes no image"},
        {{"bench", "a.png", "b.png"}, "bench: one input image at most"},
        {{"bench", "--min-time", "0"}, "--min-time: '0' is not a number of seconds"},
        {{"--info", "a.png", "--to", "srgb"}, "--info: --to is not one of its options"},
        {{"--to", "srgb", "--clf", "a.clf"}, "--clf and --to: a process list is the whole"},
        {{"--clf", "a.clf", "--narrow", "round"}, "--clf and --narrow: the colour conversion"},
        {{"--list-spaces", "a.png"}, "--list-spaces: takes no input files"},
        {{"--input-lut", "no_such_file.cube"}, "no_such_file.cube: cannot open"},
    };
    for (const bad_case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.arguments));
        const kv_tool::tool_error e = error_of([&] { parse(c.arguments); });
        EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        // A missing .cube file is a file error, everything else a usage error.
        const bool file = std::string(c.message).find(".cube") != std::string::npos;
        EXPECT_EQ(e.code(), file ? kv_tool::EXIT_FILE : kv_tool::EXIT_USAGE);
    }
}

struct plan_case {
    words arguments;
    int channel;  // 0 blue, 1 green, 2 red
    uint16_t maximum;
    int32_t shift;
    int32_t output_LUT_bits;
};

TEST(Options, PlanFillsClampAndShiftDefaults) {
    const plan_case cases[] = {
        {{}, 0, 65535, -8, 0},                                   // 16-bit data to 8 bits
        {{"--bits", "16"}, 1, 65535, 0, 0},                      // nothing to move
        {{"--clamp", "0:4095", "--bits", "16"}, 2, 4095, 4, 0},  // 12-bit data to the top
        {{"--clamp", "r=0:1023"}, 2, 1023, -2, 0},
        {{"--clamp", "r=0:1023"}, 1, 65535, -8, 0},
        {{"--output-lut", "srgb", "--output-lut-bits", "12"}, 0, 4095, -4, 12},
        {{"--output-lut", "g=srgb", "--output-lut-max", "255"}, 1, 65535, 0, 16},
        {{"--output-lut", "g=srgb", "--output-lut-max", "255"}, 0, 65535, -8, 16},
        {{"--shift", "b=3", "--bits", "16"}, 0, 65535, 3, 0},
        {{"--clamp", "0:0"}, 0, 0, 0, 0},  // a top of 0 needs no shift
    };
    for (const plan_case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.arguments));
        const kv_tool::pipeline_plan plan = kv_tool::plan_pipeline(parse(c.arguments));
        EXPECT_EQ(plan.channel[c.channel].maximum, c.maximum);
        EXPECT_EQ(plan.channel[c.channel].shift, c.shift);
        EXPECT_EQ(plan.output_LUT_bits, c.output_LUT_bits);
        EXPECT_EQ(plan.input_LUT_bits, 0);
    }
    EXPECT_EQ(kv_tool::plan_pipeline(parse({"--input-lut", "g=srgb"})).input_LUT_bits, 16);
}

}  // namespace
}  // namespace kv_tool_test
