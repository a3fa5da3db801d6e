// The command line read against the option table, then the checks of how options go together.
#include <algorithm>
#include <thread>

#include "cli/option_table.h"
#include "cli/tool_error.h"
#include "stream/stream_options.h"

namespace kv_tool {
namespace {

// Options that set what a colour conversion sets: the matrix, the tables, clamps, shifts and the
// 8-bit rounding.
void note_conversion_part(parse_state& p, const std::string& name) {
    static const char* const parts[] = {"--matrix",          "--input-lut",      "--output-lut",
                                        "--output-lut-bits", "--output-lut-max", "--clamp",
                                        "--shift",           "--narrow"};
    for (const char* part : parts) {
        if (name == part && p.pipeline_option.empty()) p.pipeline_option = name;
    }
}

// Every word of the line: "bench" first, options (with "--name=value" or the next word as
// value), and input files.
void read_arguments(const std::vector<std::string>& arguments, parse_state& p) {
    size_t first = 0;
    if (!arguments.empty() && arguments[0] == "bench") {
        p.s.mode = run_mode::bench;
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
            p.s.inputs.push_back(arg);
            continue;
        }
        if (option->value == nullptr && has_value) throw usage_error(arg + " takes no value");
        if (option->value != nullptr && !has_value) {
            if (a + 1 >= arguments.size()) throw usage_error(arg + " needs a value");
            value = arguments[++a];
        }
        option->apply(p, arg, value);
        note_conversion_part(p, option->long_name);
    }
}

// Options that belong to another mode, and inputs a mode does not take.
void check_modes(const parse_state& p) {
    const settings& s = p.s;
    if (s.mode == run_mode::list_spaces && (!s.inputs.empty() || p.output_options)) {
        throw usage_error("--list-spaces: takes no input files and writes no image");
    }
    if (s.mode == run_mode::info && !p.color_option.empty()) {
        throw usage_error("--info: " + p.color_option +
                          " is not one of its options (it shows the profile a file carries)");
    }
    if (s.mode == run_mode::bench) {
        if (p.output_options)
            throw usage_error(
                "bench writes no image: drop -o, --output-dir and "
                "--output-type");
        if (s.inputs.size() > 1) throw usage_error("bench: one input image at most");
    } else if (p.bench_options) {
        throw usage_error("--svg and --min-time are options of bench");
    } else if (p.json_given && !s.raw_input) {
        throw usage_error("--json goes with bench or --raw-input");
    }
}

// How the colour options go together, and with the pipeline options they replace.
void check_color(const parse_state& p) {
    const settings& s = p.s;
    if (p.color_option.empty()) return;
    if (!p.pipeline_option.empty()) {
        throw usage_error(p.color_option + " and " + p.pipeline_option +
                          ": the colour conversion sets the matrix, LUTs, clamps, shifts and "
                          "8-bit rounding itself; give one or the other");
    }
    if (!s.clf.empty() && (!s.color_to.empty() || !s.color_from.empty())) {
        throw usage_error(std::string("--clf and ") + (s.color_to.empty() ? "--from" : "--to") +
                          ": a process list is the whole conversion; give one or the other");
    }
    if (!s.color_from.empty() && s.color_to.empty()) {
        throw usage_error("--from: needs --to (the space to convert to)");
    }
}

// Where the outputs go.
void check_output_places(const settings& s) {
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
}

// Whether the outputs' types can hold what is written.
void check_output_types(const settings& s) {
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
}

}  // namespace

settings parse_command_line(const std::vector<std::string>& arguments) {
    parse_state p;
    read_arguments(arguments, p);
    if (p.stop) return p.s;
    check_modes(p);
    check_color(p);
    if (p.s.raw_input || p.s.raw_output) {
        check_stream_options(p.s, p.layout_options);
        return p.s;
    }
    check_output_places(p.s);
    if (p.chart_size_given && !p.s.inputs.empty()) {
        throw usage_error("--chart-size: only without input files");
    }
    check_output_types(p.s);
    return p.s;
}

unsigned default_threads() {
    return std::clamp(std::thread::hardware_concurrency(), 1u, max_threads);
}

}  // namespace kv_tool
