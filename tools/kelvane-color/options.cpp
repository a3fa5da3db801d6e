// Parsing of the kelvane-color command line, and the defaults that depend on several options.
#include "options.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <thread>

#include "numbers.h"
#include "tool_error.h"

namespace kv_tool {
namespace {

constexpr const char* channel_names[3] = {"blue", "green", "red"};

// Splits "[CHANNELS=]VALUE": CHANNELS is letters of b, g, r or one of blue, green, red; none
// given means all three. Returns the mask, bit 0 blue.
unsigned split_channels(const std::string& text, const std::string& option, std::string* value) {
    const size_t equals = text.find('=');
    if (equals != std::string::npos) {
        const std::string prefix = text.substr(0, equals);
        unsigned mask = 0;
        for (int c = 0; c < 3; ++c) {
            if (prefix == channel_names[c]) mask = 1u << c;
        }
        if (mask == 0 && !prefix.empty() && prefix.find_first_not_of("bgr") == std::string::npos) {
            for (char letter : prefix) mask |= letter == 'b' ? 1u : letter == 'g' ? 2u : 4u;
        }
        if (mask != 0) {
            *value = text.substr(equals + 1);
            return mask;
        }
        if (prefix.find_first_of("/\\.") == std::string::npos) {
            throw usage_error(option + ": '" + prefix +
                              "' is not a channel list (b, g, r, any of them together, or blue, "
                              "green, red)");
        }
    }
    *value = text;
    return 7u;
}

std::array<float, 9> parse_matrix(const std::string& text) {
    std::string spaced = text;
    std::replace(spaced.begin(), spaced.end(), ',', ' ');
    std::vector<std::string> words;
    size_t pos = 0;
    while (pos < spaced.size()) {
        const size_t start = spaced.find_first_not_of(" \t", pos);
        if (start == std::string::npos) break;
        const size_t end = spaced.find_first_of(" \t", start);
        words.push_back(spaced.substr(start, end - start));
        pos = end == std::string::npos ? spaced.size() : end;
    }
    if (words.size() != 9) {
        throw usage_error("--matrix: expected nine numbers (three rows of red, green, blue), got " +
                          std::to_string(words.size()) + " in '" + text + "'");
    }
    std::array<float, 9> m{};
    for (size_t i = 0; i < 9; ++i) {
        double v;
        if (!parse_double(words[i], &v) || std::fabs(v) > 3.4e38) {
            throw usage_error("--matrix: '" + words[i] + "' is not a number in '" + text + "'");
        }
        m[i] = float(v);
    }
    return m;
}

int32_t parse_layout(const std::string& text, const std::string& option) {
    if (text == "planes") return 0;
    if (text == "bgr") return 1;
    if (text == "rgb") return 2;
    int64_t v;
    if (parse_integer(text, INT32_MIN, INT32_MAX, &v)) return int32_t(v);
    throw usage_error(option + ": '" + text + "' is not a layout (planes, bgr, rgb)");
}

int32_t parse_tier(const std::string& text) {
    static const char* names[] = {"scalar", "sse", "avx2", "avx512"};
    for (int32_t t = 0; t < 4; ++t) {
        if (text == names[t]) return t;
    }
    int64_t v;
    if (parse_integer(text, INT32_MIN, INT32_MAX, &v)) return int32_t(v);
    throw usage_error("--tier: '" + text + "' is not a tier (scalar, sse, avx2, avx512 or 0 to 3)");
}

int64_t parse_whole(const std::string& text, const std::string& option, int64_t low, int64_t high) {
    int64_t v;
    if (!parse_integer(text, low, high, &v)) {
        throw usage_error(option + ": '" + text + "' is not a whole number from " +
                          std::to_string(low) + " to " + std::to_string(high));
    }
    return v;
}

void parse_clamp(const std::string& text, settings* s) {
    std::string value;
    const unsigned mask = split_channels(text, "--clamp", &value);
    const size_t colon = value.find(':');
    if (colon == std::string::npos) {
        throw usage_error("--clamp: expected MIN:MAX, as in 0:65535, got '" + text + "'");
    }
    const auto minimum = uint16_t(parse_whole(value.substr(0, colon), "--clamp", 0, 65535));
    const auto maximum = uint16_t(parse_whole(value.substr(colon + 1), "--clamp", 0, 65535));
    for (int c = 0; c < 3; ++c) {
        if (mask & (1u << c)) {
            s->clamp_min[c] = minimum;
            s->clamp_max[c] = maximum;
        }
    }
}

void parse_shift(const std::string& text, settings* s) {
    std::string value;
    const unsigned mask = split_channels(text, "--shift", &value);
    int64_t v;
    if (!parse_integer(value, INT32_MIN, INT32_MAX, &v)) {
        throw usage_error("--shift: '" + value + "' is not a whole number");
    }
    for (int c = 0; c < 3; ++c) {
        if (mask & (1u << c)) s->shift[c] = int32_t(v);
    }
}

void parse_LUT(const std::string& text, const std::string& option, std::array<curve, 3>* LUTs) {
    std::string value;
    const unsigned mask = split_channels(text, option, &value);
    const curve c = parse_curve(value, option);
    for (int ch = 0; ch < 3; ++ch) {
        if (mask & (1u << ch)) (*LUTs)[ch] = c;
    }
}

int bit_length(uint64_t value) {
    int bits = 0;
    while (value != 0) {
        ++bits;
        value >>= 1;
    }
    return bits;
}

// What the options of one command line have said so far, beyond the settings themselves.
struct parse_state {
    settings s;
    bool output_options = false;
    bool bench_options = false;
    bool chart_size_given = false;
    bool stop = false;  // --help or --version: the rest of the line is not looked at
};

// One option: its names, the value it takes (nullptr: none), where --help lists it (nullptr: not
// in the list) and what it does. `name` is the name as written, for messages.
struct option_spec {
    const char* short_name;
    const char* long_name;
    const char* value;
    const char* section;
    const char* help;  // continuation lines start after "\n"
    void (*apply)(parse_state& p, const std::string& name, const std::string& value);
};

constexpr const char* output_section =
    "Output (written to a new file beside the target, then renamed over it):";
constexpr const char* pipeline_section =
    "Pipeline (every CH= prefix is optional: b, g, r, any of them together, or blue, green, "
    "red):";
constexpr const char* other_section = "Other:";

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
     }},
    {nullptr, "--input-layout", "L", output_section,
     "planes, bgr or rgb: the buffer handed to the library (default rgb)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         p.s.input_layout = parse_layout(value, name);
     }},
    {nullptr, "--output-layout", "L", output_section,
     "planes, bgr or rgb: the buffer the library writes (default rgb)",
     [](parse_state& p, const std::string& name, const std::string& value) {
         p.s.output_layout = parse_layout(value, name);
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
     "bench: also write the results as JSON (- for stdout)",
     [](parse_state& p, const std::string&, const std::string& value) {
         p.s.json = value;
         if (p.s.json.empty()) throw usage_error("--json: empty file name (use - for stdout)");
         p.bench_options = true;
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

const option_spec* find_option(const std::string& name) {
    for (const option_spec& o : options) {
        if (name == o.long_name || (o.short_name != nullptr && name == o.short_name)) return &o;
    }
    return nullptr;
}

std::string build_usage_text() {
    std::string text =
        R"(usage: kelvane-color [OPTIONS] [INPUT...]     process images (none: a built-in test chart)
       kelvane-color bench [OPTIONS] [INPUT]    Mpix/s of each tier next to memcpy
       kelvane-color --info                     tier, modules and back-end of this machine

Input: PNG, PPM/PGM/PAM (binary, maximum value up to 65535), TIFF; read as 16-bit samples.
)" +
        std::string(system_codecs
                        ? "       On Windows also JPEG, BMP and any other format Windows decodes.\n"
                        : "") +
        R"(       Regular files only (no FIFOs or devices); .cube files up to 64 MiB.
)";
    const char* section = nullptr;
    for (const option_spec& o : options) {
        if (o.help == nullptr) continue;
        if (section == nullptr || std::string(section) != o.section) {
            section = o.section;
            text += std::string(section) + "\n";
        }
        std::string left = o.short_name != nullptr ? std::string(o.short_name) + ", " : "";
        left += o.long_name;
        if (o.value != nullptr) left += std::string(" ") + o.value;
        left.resize(std::max<size_t>(left.size() + 1, 26), ' ');
        text += "  " + left;
        for (const char* c = o.help; *c != '\0'; ++c) {
            text += *c;
            if (*c == '\n') text += std::string(28, ' ');
        }
        text += "\n";
    }
    return text +
           R"(Exit codes: 0 done, 1 file error (standard output included), 2 bad command line,
3 the library could not start, 4 the library refused a transform, 5 bench: a tier's output
differs from scalar.
Reference: docs/kelvane-color.md.
)";
}

}  // namespace

settings parse_command_line(const std::vector<std::string>& arguments) {
    parse_state p;
    settings& s = p.s;
    size_t first = 0;
    if (!arguments.empty() && arguments[0] == "bench") {
        s.mode = run_mode::bench;
        first = 1;
    }
    for (size_t a = first; a < arguments.size() && !p.stop; ++a) {
        std::string arg = arguments[a];
        std::string value;
        bool has_value = false;
        if (arg.size() > 2 && arg[0] == '-' && arg[1] == '-') {
            const size_t equals = arg.find('=');
            if (equals != std::string::npos) {
                value = arg.substr(equals + 1);
                arg = arg.substr(0, equals);
                has_value = true;
            }
        }
        const option_spec* option = find_option(arg);
        if (option == nullptr) {
            if (arg.size() > 1 && arg[0] == '-') {
                throw usage_error("unknown option '" + arg + "' (see kelvane-color --help)");
            }
            s.inputs.push_back(arg);
            continue;
        }
        if (option->value == nullptr && has_value) throw usage_error(arg + " takes no value");
        if (option->value != nullptr && !has_value) {
            if (a + 1 >= arguments.size()) throw usage_error(arg + " needs a value");
            value = arguments[++a];
        }
        option->apply(p, arg, value);
    }
    if (p.stop) return s;
    const bool output_options = p.output_options;
    const bool bench_options = p.bench_options;
    const bool chart_size_given = p.chart_size_given;

    if (s.mode == run_mode::info && !s.inputs.empty()) {
        throw usage_error("--info: takes no input files");
    }
    if (s.mode == run_mode::bench) {
        if (output_options)
            throw usage_error(
                "bench writes no image: drop -o, --output-dir and "
                "--output-type");
        if (s.inputs.size() > 1) throw usage_error("bench: one input image at most");
    } else if (bench_options) {
        throw usage_error("--json, --svg and --min-time are options of bench");
    }
    if (!s.output.empty() && !s.output_dir.empty()) {
        throw usage_error("-o and --output-dir: give one of them");
    }
    if (!s.output.empty() && s.inputs.size() > 1) {
        throw usage_error("-o names one file, but there are " + std::to_string(s.inputs.size()) +
                          " inputs: use --output-dir");
    }
    if (s.output_type_given && s.output_dir.empty()) {
        throw usage_error(
            "--output-type goes with --output-dir (-o takes the type from its "
            "extension)");
    }
    if (chart_size_given && !s.inputs.empty()) {
        throw usage_error("--chart-size: only without input files");
    }
    if (!s.output.empty()) {
        const file_type type = file_type_of(s.output, "-o");
        if (!can_write(type)) {
            throw usage_error(std::string("-o: ") + file_type_name(type) +
                              " support is not built into this kelvane-color");
        }
        if (type == file_type::ppm && s.channels == 4) {
            throw usage_error(
                "-o: PPM holds three channels; write --channels 4 to .pam, .png or "
                ".raw");
        }
    }
    if (!s.output_dir.empty() && s.output_type == file_type::ppm && s.channels == 4) {
        throw usage_error(
            "--output-type: PPM holds three channels; use pam, png or raw with "
            "--channels 4");
    }
    return s;
}

pipeline_plan plan_pipeline(const settings& s) {
    pipeline_plan plan;
    bool any_input = false, any_output = false;
    for (int c = 0; c < 3; ++c) {
        plan.channel[c].input_LUT = s.input_LUT[c].kind != curve_kind::off;
        plan.channel[c].output_LUT = s.output_LUT[c].kind != curve_kind::off;
        any_input = any_input || plan.channel[c].input_LUT;
        any_output = any_output || plan.channel[c].output_LUT;
    }
    // Any 16-bit value may index an input table, so it always has 2^16 entries.
    plan.input_LUT_bits = any_input ? 16 : 0;
    plan.output_LUT_bits = any_output ? s.output_LUT_bits : 0;
    const uint32_t last_entry = (1u << s.output_LUT_bits) - 1;
    plan.output_LUT_max = s.output_LUT_max.value_or(last_entry);
    for (int c = 0; c < 3; ++c) {
        channel_plan& p = plan.channel[c];
        p.minimum = s.clamp_min[c].value_or(0);
        p.maximum = s.clamp_max[c].value_or(p.output_LUT ? uint16_t(std::min(last_entry, 65535u))
                                                         : uint16_t(65535));
        const uint32_t top = p.output_LUT ? plan.output_LUT_max : p.maximum;
        const int automatic = std::clamp(s.bits - bit_length(top), -15, 15);
        p.shift = s.shift[c].value_or(top == 0 ? 0 : automatic);
    }
    return plan;
}

unsigned default_threads() {
    return std::clamp(std::thread::hardware_concurrency(), 1u, max_threads);
}

std::string layout_name(int32_t layout) {
    switch (layout) {
        case 0:
            return "BGR planes";
        case 1:
            return "BGR interleaved";
        case 2:
            return "RGB interleaved";
        default:
            return "layout " + std::to_string(layout);
    }
}

std::string tier_name(int32_t tier) {
    switch (tier) {
        case 0:
            return "scalar";
        case 1:
            return "sse";
        case 2:
            return "avx2";
        case 3:
            return "avx512";
        default:
            return "tier " + std::to_string(tier);
    }
}

const char* usage_text() {
    static const std::string text = build_usage_text();
    return text.c_str();
}

}  // namespace kv_tool
