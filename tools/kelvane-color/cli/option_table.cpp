// The option table: every option of kelvane-color and what it does to the settings.
#include "cli/option_table.h"

#include <cstdint>

#include "cli/numbers.h"
#include "cli/option_values.h"
#include "cli/tool_error.h"
#include "stream/stream_options.h"

namespace kv_tool {
namespace {

constexpr const char* output_section =
    "Output (written to a new file beside the target, then renamed over it):";
constexpr const char* pipeline_section =
    "Pipeline (every CH= prefix is optional: b, g, r, any of them together, or blue, green, "
    "red):";
constexpr const char* color_section =
    "Colour (instead of the pipeline options; the outputs carry the destination's profile):";
constexpr const char* stream_section =
    "Streams (raw frames as ffmpeg's -f rawvideo reads and writes them; docs/video.md):";
constexpr const char* other_section = "Other:";

// A colour option's value, noted for the checks of how options go together.
void set_color(parse_state& p, const std::string& name, const std::string& value,
               std::string* field) {
    if (value.empty()) throw usage_error(name + ": empty value");
    *field = value;
    if (p.color_option.empty()) p.color_option = name;
}

const option_spec options[] = {
    {"-o", "--output", "FILE", output_section,
     "one output: .png, .tif, .ppm, .pam or .raw (the library's buffer as is)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         p.s.output = value;
         if (p.s.output.empty()) throw usage_error(name + ": empty file name");
         p.output_options = true;
     }},
    {nullptr, "--output-dir", "DIR", output_section,
     "one output per input, DIR/<input name>.<type>",
     [](parse_state& p, const std::string&, const std::string& value) {
         p.s.output_dir = value;
         if (p.s.output_dir.empty()) throw usage_error("--output-dir: empty folder name");
         p.output_options = true;
     }},
    {nullptr, "--output-type", "TYPE", output_section,
     "png (default), tif, ppm, pam or raw, with --output-dir",
     [](parse_state& p, const std::string&, const std::string& value) {
         p.s.output_type = file_type_of("x." + value, "--output-type");
         if (!can_write(p.s.output_type)) {
             throw usage_error(std::string("--output-type: ") + file_type_name(p.s.output_type) +
                               " support is not built into this kelvane-color");
         }
         p.s.output_type_given = true;
         p.output_options = true;
     }},
    {nullptr, "--bits", "8|16", output_section, "output element width (default 8)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         const int64_t bits = parse_whole(value, name, 8, 16);
         if (bits != 8 && bits != 16) throw usage_error("--bits: must be 8 or 16");
         p.s.bits = int(bits);
         p.layout_options = true;
     }},
    {nullptr, "--narrow", "round|truncate", output_section,
     "8-bit image files: round(v x 255 / 65535) of the 16-bit result as\n"
     "other imaging tools do (default), or its top byte; .raw: never rounded",
     [](parse_state& p, const std::string& name, const std::string& value) {
         if (value != "round" && value != "truncate") {
             throw usage_error(name + ": '" + value + "' is not round or truncate");
         }
         p.s.narrow_round = value == "round";
     }},
    {nullptr, "--channels", "3|4", output_section,
     "elements a pixel (default 3; the fourth carries the input's alpha)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         p.s.channels = int(parse_whole(value, name, 3, 4));
         p.layout_options = true;
     }},
    {nullptr, "--input-layout", "L", output_section,
     "planes, bgr or rgb: the buffer handed to the library (default rgb)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         p.s.input_layout = parse_layout(value, name);
         p.layout_options = true;
     }},
    {nullptr, "--output-layout", "L", output_section,
     "planes, bgr or rgb: the buffer the library writes (default rgb)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         p.s.output_layout = parse_layout(value, name);
         p.layout_options = true;
     }},
    {nullptr, "--raw-input", "WxH:FMT", stream_section,
     "frames of that size from INPUT (- for standard input, a FIFO or a\n"
     "file): rgb48le, bgr48le, rgb48be or bgr48be",
     [](parse_state& p, const std::string&, const std::string& value) {
         p.s.raw_input = parse_raw_input(value);
     }},
    {nullptr, "--raw-output", "FMT", stream_section,
     "frames to -o FILE or -o - (standard output): the input formats, rgb24,\n"
     "bgr24 (rounded as 8-bit image files), rgba64le or bgra64le (opaque)",
     [](parse_state& p, const std::string&, const std::string& value) {
         p.s.raw_output = &parse_raw_output(value);
     }},
    {nullptr, "--matrix", "M", pipeline_section,
     "nine numbers by rows, red, green, blue; repeatable, appended in order\n"
     "(the last one given is applied to the pixel first)",
     [](parse_state& p, const std::string&, const std::string& value) {
         p.s.matrices.push_back(parse_matrix(value));
     }},
    {nullptr, "--input-lut", "[CH=]CURVE", pipeline_section,
     "input LUT: identity, srgb, inverse-srgb, gamma:G, inverse-gamma:G,\n"
     "scale:K, off, or FILE.cube (1D)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         parse_LUT(value, name, &p.s.input_LUT);
     }},
    {nullptr, "--output-lut", "[CH=]CURVE", pipeline_section, "output LUT, the same curves",
     [](parse_state& p, const std::string& name, const std::string& value) {
         parse_LUT(value, name, &p.s.output_LUT);
     }},
    {nullptr, "--output-lut-bits", "N", pipeline_section,
     "output LUT size 2^N, 0 to 16 (default 16)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         p.s.output_LUT_bits = int(parse_whole(value, name, 0, 16));
     }},
    {nullptr, "--output-lut-max", "V", pipeline_section,
     "what a curve's 1.0 becomes in the output LUT (default 2^N - 1)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         p.s.output_LUT_max = uint32_t(parse_whole(value, name, 1, 4294967295LL));
     }},
    {nullptr, "--clamp", "[CH=]MIN:MAX", pipeline_section,
     "clamp bounds of the matrix result (default 0:65535)",
     [](parse_state& p, const std::string&, const std::string& value) {
         parse_clamp(value, &p.s);
     }},
    {nullptr, "--shift", "[CH=]N", pipeline_section,
     "-15 to 15; default: the channel's top value to the top output bit",
     [](parse_state& p, const std::string&, const std::string& value) {
         parse_shift(value, &p.s);
     }},
    {nullptr, "--tier", "T", pipeline_section,
     "force a tier: scalar, sse, avx2, avx512 or a number",
     [](parse_state& p, const std::string&, const std::string& value) {
         p.s.tier = parse_tier(value);
     }},
    {nullptr, "--to", "SPACE|FILE.icc", color_section,
     "convert to a named space (--list-spaces) or an ICC RGB matrix-shaper\n"
     "profile, from the input's embedded profile (untagged: sRGB)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         set_color(p, name, value, &p.s.color_to);
     }},
    {nullptr, "--from", "SPACE|FILE.icc", color_section,
     "the source space of every input, instead of its embedded profile",
     [](parse_state& p, const std::string& name, const std::string& value) {
         set_color(p, name, value, &p.s.color_from);
     }},
    {nullptr, "--clf", "FILE", color_section,
     "apply a CLF/CTF process list (LUT1D, Range, Matrix nodes)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         set_color(p, name, value, &p.s.clf);
     }},
    {nullptr, "--list-spaces", nullptr, color_section, "the names --to and --from know",
     [](parse_state& p, const std::string&, const std::string&) {
         p.s.mode = run_mode::list_spaces;
     }},
    {nullptr, "--chart-size", "WxH", other_section,
     "size of the built-in chart (default 1920x1080)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         const size_t x = value.find('x');
         if (x == std::string::npos) {
             throw usage_error("--chart-size: expected WIDTHxHEIGHT, got '" + value + "'");
         }
         p.s.chart_width = int32_t(parse_whole(value.substr(0, x), name, 1, 65536));
         p.s.chart_height = int32_t(parse_whole(value.substr(x + 1), name, 1, 65536));
         if (int64_t(p.s.chart_width) * p.s.chart_height > INT32_MAX) {
             throw usage_error("--chart-size: more pixels than one frame can hold");
         }
         p.chart_size_given = true;
     }},
    {nullptr, "--threads", "N", other_section,
     "1 to 256: an interleaved frame is cut into stripes transformed at once,\n"
     "a batch runs several files at once, bench times frames so (default: the\n"
     "number of cores; the output is the same on any number)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         p.s.threads = unsigned(parse_whole(value, name, 1, max_threads));
     }},
    {"-q", "--quiet", nullptr, other_section, "no summary and no progress line",
     [](parse_state& p, const std::string&, const std::string&) { p.s.quiet = true; }},
    {nullptr, "--json", "FILE", other_section,
     "bench or a stream: also write the results as JSON (- for stdout)",
     [](parse_state& p, const std::string&, const std::string& value) {
         p.s.json = value;
         if (p.s.json.empty()) throw usage_error("--json: empty file name (use - for stdout)");
         p.json_given = true;
     }},
    {nullptr, "--svg", "FILE", other_section, "bench: also draw the results as an SVG bar chart",
     [](parse_state& p, const std::string&, const std::string& value) {
         p.s.svg = value;
         if (p.s.svg.empty()) throw usage_error("--svg: empty file name");
         p.bench_options = true;
     }},
    {nullptr, "--min-time", "S", other_section,
     "bench: seconds of frames for each tier (default 0.5)",
     [](parse_state& p, const std::string&, const std::string& value) {
         double seconds;
         if (!parse_double(value, &seconds) || seconds <= 0 || seconds > 60) {
             throw usage_error("--min-time: '" + value +
                               "' is not a number of seconds above 0 and at most 60");
         }
         p.s.min_time = seconds;
         p.bench_options = true;
     }},
    {"-h", "--help", nullptr, other_section, "this text",
     [](parse_state& p, const std::string&, const std::string&) {
         p.s.mode = run_mode::help;
         p.stop = true;
     }},
    {nullptr, "--version", nullptr, other_section, "version of kelvane-color",
     [](parse_state& p, const std::string&, const std::string&) {
         p.s.mode = run_mode::version;
         p.stop = true;
     }},
    // Listed in the usage lines at the top of --help rather than among the options.
    {nullptr, "--info", nullptr, nullptr, nullptr,
     [](parse_state& p, const std::string&, const std::string&) {
         if (p.s.mode == run_mode::bench) throw usage_error("--info: not an option of bench");
         p.s.mode = run_mode::info;
     }},
};

}  // namespace

option_list all_options() {
    return {options, sizeof options / sizeof *options};
}

const option_spec* find_option(const std::string& name) {
    for (const option_spec& o : options) {
        if (name == o.long_name || (o.short_name != nullptr && name == o.short_name)) return &o;
    }
    return nullptr;
}

}  // namespace kv_tool
