// The settings of one run of kelvane-color, as its command line gives them: the option table
// (option_table.cpp) fills them, parse.cpp checks how they go together.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "image/image.h"
#include "pipeline/curves.h"
#include "stream/raw_format.h"

namespace kv_tool {

enum class run_mode { process, bench, info, list_spaces, help, version };

// The number of cores, 1 to max_threads: what --threads is without a value.
constexpr unsigned max_threads = 256;
unsigned default_threads();

// Every list of three runs blue, green, red, as in the library.
struct settings {
    run_mode mode = run_mode::process;
    std::vector<std::string> inputs;  // none: the built-in chart
    std::string output;               // -o: one file
    std::string output_dir;           // --output-dir: one file per input
    file_type output_type = file_type::png;
    bool output_type_given = false;

    std::vector<std::array<float, 9>> matrices;  // appended in this order
    std::array<curve, 3> input_LUT;
    std::array<curve, 3> output_LUT;
    int output_LUT_bits = 16;
    std::optional<uint32_t> output_LUT_max;  // what a curve's 1.0 becomes; default 2^bits - 1
    std::array<std::optional<uint16_t>, 3> clamp_min, clamp_max;
    std::array<std::optional<int32_t>, 3> shift;
    int bits = 8;               // output element width
    bool narrow_round = true;   // 8-bit image files: round the 16-bit result (false: top byte)
    int channels = 3;           // output elements a pixel
    int32_t input_layout = 2;   // KV_FORMAT_RGB_INTERLEAVED
    int32_t output_layout = 2;  // KV_FORMAT_RGB_INTERLEAVED
    std::optional<int32_t> tier;

    // Colour conversion: each of --from and --to a space name or an ICC profile file; --clf a
    // CLF/CTF process list. Empty: not given.
    std::string color_from, color_to, clf;
    int32_t chart_width = 1920;
    int32_t chart_height = 1080;
    bool quiet = false;
    unsigned threads = default_threads();     // stripes of a frame, files of a batch, bench frames
    std::optional<raw_input_spec> raw_input;  // --raw-input: frames from one raw stream
    const raw_format* raw_output = nullptr;   // --raw-output

    std::string json;       // bench, streams: "" none, "-" stdout, else a file
    std::string svg;        // bench: "" none, else a file for the bar chart
    double min_time = 0.5;  // bench: seconds of frames per tier
};

// Throws a usage error (exit code 2) whose message names the option at fault.
settings parse_command_line(const std::vector<std::string>& arguments);

// The text of --help.
const char* usage_text();

}  // namespace kv_tool
