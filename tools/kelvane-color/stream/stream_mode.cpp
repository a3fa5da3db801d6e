// The stream mode: the processor and its frame step, the output and the report of a run.
#include "stream/stream_mode.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <functional>
#include <optional>
#include <vector>

#include "cli/tool_error.h"
#include "image/image.h"
#include "pipeline/color.h"
#include "pipeline/file_access.h"
#include "pipeline/processing.h"
#include "pipeline/run.h"
#include "pipeline/system_probe.h"
#include "stream/frame_pipeline.h"
#include "stream/raw_format.h"
#include "stream/stream_report.h"

namespace kv_tool {
namespace {

// Before the first write: the frames and the record go over no file the run reads (the input,
// a .cube file), under any name, nor over each other.
void check_outputs(const settings& s) {
    std::vector<std::string> outputs;
    for (const std::string& path : {s.output, s.json}) {
        if (!path.empty() && path != "-") outputs.push_back(path);
    }
    std::vector<read_file> reads = files_read(s);
    if (s.inputs[0] == "-") reads.erase(reads.begin());  // standard input, not a file
    refuse_outputs_that_are_read(outputs, reads);
    if (outputs.size() == 2 && file_identity(outputs[0]) == file_identity(outputs[1])) {
        throw file_error(s.json, "is the output of the frames; not overwritten by the record");
    }
}

int32_t frame_pixels(const settings& s) {
    return s.raw_input->width * s.raw_input->height;
}

// The processor and what it makes of one frame as read: the frame in the output format's bytes.
// With --to or --clf the colour layer sets the processor up, the stream taken as untagged
// (--from, else sRGB, said once); otherwise the pipeline options do.
class frame_converter {
  public:
    frame_converter(const settings& s, const std::string& source) : s_(s), source_(source) {
        if (color_requested(s)) {
            color_.emplace(s);
            color_->note_output_type(file_type::raw);
            const color_setup& setup = color_->setup_for_untagged(source);
            route_ = &setup.route;
            processor_ = &setup.p;
        } else {
            // 8-bit frames are rounded as 8-bit image files are.
            own_route_.emplace(
                route_output(s, s.raw_output->bits == 8 ? file_type::pam : file_type::raw));
            own_processor_.emplace(own_route_->library, own_route_->plan, s.tier);
            route_ = &*own_route_;
            processor_ = &*own_processor_;
        }
        // Settings the library refuses are refused before a frame is read.
        uint16_t in[3] = {}, out[4] = {};
        check(run_transform(*processor_, route_->library, route_->plan, in, out, 0));
    }

    void operator()(uint16_t* input, void* output, size_t first, size_t count) {
        input_to_library(*s_.raw_input->format, input, 3 * count);
        auto* out = static_cast<uint8_t*>(output) + first * raw_frame_bytes(*s_.raw_output, 1);
        uint16_t* wide = nullptr;
        if (route_->how == narrowing::rounding_pass) {
            if (wide_.size() < 3 * count) wide_.resize(3 * count);
            wide = wide_.data();
        }
        check(run_transform(*processor_, route_->library, route_->plan, input,
                            wide != nullptr ? static_cast<void*>(wide) : out, int32_t(count),
                            s_.threads));
        for (size_t i = 0; wide != nullptr && i < 3 * count; ++i) out[i] = round_to_8_bits(wide[i]);
        output_to_raw(*s_.raw_output, out, count);
    }

  private:
    void check(kv_status status) const {
        check_transform(status, source_, route_->library, route_->plan);
    }

    const settings& s_;
    std::string source_;
    std::optional<color_run> color_;
    std::optional<output_route> own_route_;
    std::optional<processor> own_processor_;
    const output_route* route_ = nullptr;
    const processor* processor_ = nullptr;
    std::vector<uint16_t> wide_;  // a band's 16-bit result that the tool rounds to 8 bits
};

frame_pipeline_shape shape_of(const settings& s) {
    frame_pipeline_shape shape;
    shape.pixels = size_t(frame_pixels(s));
    shape.input_bytes = raw_frame_bytes(*s.raw_input->format, frame_pixels(s));
    shape.output_bytes = raw_frame_bytes(*s.raw_output, frame_pixels(s));
    shape.output_name = s.output == "-" ? "standard output" : s.output;
    return shape;
}

// Runs the stream into standard output, or into a file through a temporary renamed into place
// once the stream has ended; an error removes the temporary and is thrown as it was.
frame_pipeline_result write_stream(const settings& s, raw_source& source, const frame_step& step,
                                   const frame_written& written) {
    const frame_pipeline_shape shape = shape_of(s);
    if (s.output == "-") {
        return run_frame_pipeline(source, standard_output_sink(), shape, step, written);
    }
    frame_pipeline_result result;
    std::exception_ptr stopped;
    try {
        replace_file(s.output, [&](std::FILE* out) -> std::string {
            try {
                result = run_frame_pipeline(source, file_sink(out), shape, step, written);
                return std::string();
            } catch (...) {
                stopped = std::current_exception();
                return "the stream stopped";
            }
        });
    } catch (const tool_error&) {
        if (stopped) std::rethrow_exception(stopped);
        throw;
    }
    return result;
}

void finish_summary(const settings& s, stream_summary& summary, size_t short_bytes,
                    std::chrono::steady_clock::time_point start) {
    const frame_pipeline_shape shape = shape_of(s);
    summary.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    summary.bytes_in = summary.frames * shape.input_bytes + short_bytes;
    summary.bytes_out = summary.frames * shape.output_bytes;
    if (s.json.empty()) return;
    const std::string json = summary_json(summary);
    if (s.json == "-") {
        std::fputs(json.c_str(), stdout);
    } else {
        write_file(s.json, json.data(), json.size());
    }
}

stream_summary start_summary(const settings& s) {
    const system_report system = probe_system();
    stream_summary summary;
    summary.width = s.raw_input->width;
    summary.height = s.raw_input->height;
    summary.input_format = s.raw_input->format->name;
    summary.output_format = s.raw_output->name;
    summary.tier = tier_name(routed_backend(s.tier.value_or(system.cpu.tier), system.vector));
    summary.threads = s.threads;
    return summary;
}

}  // namespace

int run_stream(const settings& s) {
    check_outputs(s);
    raw_source source(s.inputs[0]);
    frame_converter convert(s, source.name());
    stream_summary summary = start_summary(s);
    stream_progress progress(!s.quiet, stderr_is_terminal());
    const auto start = std::chrono::steady_clock::now();
    frame_pipeline_result result;
    try {
        result = write_stream(s, source, std::ref(convert), [&](uint64_t frames) {
            summary.frames = frames;
            progress.frame_written(frames);
        });
    } catch (...) {
        progress.finish();
        summary.complete = false;
        try {
            finish_summary(s, summary, 0, start);
        } catch (const tool_error&) {
            // The error that ended the stream is the one to report.
        }
        throw;
    }
    progress.finish();
    summary.complete = result.short_bytes == 0;
    finish_summary(s, summary, result.short_bytes, start);
    if (result.short_bytes > 0) {
        const size_t whole = shape_of(s).input_bytes;
        throw file_error(source.name(), "frame " + std::to_string(result.frames + 1) +
                                            " is cut short: the stream ended after " +
                                            std::to_string(result.short_bytes) + " of its " +
                                            std::to_string(whole) + " bytes; the " +
                                            std::to_string(result.frames) +
                                            " whole frames before it were written");
    }
    if (!s.quiet) std::fputs(summary_line(summary).c_str(), stderr);
    return EXIT_OK;
}

}  // namespace kv_tool
