// The checks of the stream options once the whole command line is read.
#include "stream/stream_options.h"

#include "cli/tool_error.h"

namespace kv_tool {

void check_stream_options(settings& s, bool layout_options) {
    if (!s.raw_input) throw usage_error("--raw-output goes with --raw-input");
    if (s.raw_output == nullptr) {
        throw usage_error("--raw-input needs --raw-output FORMAT (" + raw_format_names(false) +
                          ")");
    }
    if (s.mode != run_mode::process) {
        throw usage_error("--raw-input: bench and --info read no stream");
    }
    if (s.inputs.size() != 1) {
        throw usage_error("--raw-input reads one stream: a file, a FIFO or - for standard input");
    }
    if (s.output.empty() || !s.output_dir.empty()) {
        throw usage_error("--raw-output writes to -o FILE, or -o - for standard output");
    }
    if (layout_options) {
        throw usage_error(
            "--raw-input and --raw-output set the element width, channels and "
            "layouts: drop --bits, --channels, --input-layout and --output-layout");
    }
    if (s.json == "-" && s.output == "-") {
        throw usage_error("--json -: standard output carries the frames; name a file");
    }
    s.input_layout = s.raw_input->format->layout;
    s.output_layout = s.raw_output->layout;
    s.bits = s.raw_output->bits;
    s.channels = s.raw_output->channels;
}

}  // namespace kv_tool
