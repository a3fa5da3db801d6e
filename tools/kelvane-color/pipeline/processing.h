// kelvane-color as a host of the library through its C++ interface: starting and stopping it, a
// processor configured from the settings, frames transformed on several threads, and images
// turned into the library's buffers and back.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/settings.h"
#include "image/image.h"
#include "kelvane_qor_color_processing.hpp"
#include "pipeline/plan.h"

namespace kv_tool {

// "KV_STATUS_INVALID_CLAMP" and so on; "status N" for a number the header does not name.
std::string status_name(kv_status status);

// The library started for as long as this lives (shared with every processor). A failed start
// (the LUT module missing or incomplete) is thrown as a library error that says what to do.
class library_session {
  public:
    library_session();
    const kelvane::session& get() const { return session_; }

  private:
    kelvane::session session_;
};

// A processor with the settings' matrices, LUTs and enable flags. `tier` set: created through
// kv_color_create_color_processor_test with it. Keeps the library started while it lives.
class processor {
  public:
    processor(const settings& s, const pipeline_plan& plan, std::optional<int32_t> tier);
    const kelvane::processor& get() const { return processor_; }
    kv_color_processor_handle handle() const { return processor_.handle(); }

  private:
    library_session session_;
    kelvane::processor processor_;
};

// The bytes one frame of `pixels` takes at this output width and element count.
size_t output_bytes(const settings& s, uint64_t pixels);

// How the library is set up for one kind of output file. 8-bit image files with --narrow round
// get round(v x 255 / 65535) of the 16-bit result: through the output tables when every channel
// has one, through a scale of 1/257 in the matrix when no channel has one and nothing else
// moves the result (exact for every integer input), else by the tool from a 16-bit frame.
enum class narrowing { library, tables, scale_matrix, rounding_pass };
struct output_route {
    settings library;  // what the processor and the transform are set up with
    pipeline_plan plan;
    narrowing how = narrowing::library;
};
output_route route_output(const settings& s, file_type type);

// The library's frame as the settings' `s` expect it: a 16-bit frame of the rounding pass
// becomes 8-bit; other frames are returned as they are.
std::vector<uint16_t> finish_frame(const output_route& route, std::vector<uint16_t> frame,
                                   uint64_t pixels);

// round(v x 255 / 65535) in integers, as other imaging tools narrow 16-bit samples.
inline uint8_t round_to_8_bits(uint32_t v) {
    return uint8_t((v * 255u + 32767u) / 65535u);
}

// The image's RGB samples laid out for the library (any layout other than bgr and rgb: planes).
std::vector<uint16_t> to_input_buffer(const image& picture, int32_t layout);

// Runs the transform of the settings' output width and element count over buffers of exactly
// 3 x `pixels` input elements and output_bytes(s, pixels) bytes. An interleaved frame is cut into
// up to `threads` stripes transformed at once; a planar one runs whole. Returns the library's
// status (a refused frame is left untouched).
kv_status run_transform(const processor& p, const settings& s, const pipeline_plan& plan,
                        const uint16_t* input, void* output, int32_t pixels, unsigned threads = 1);

// Throws the transform error for a non-zero status, naming `source` and the option to look at.
void check_transform(kv_status status, const std::string& source, const settings& s,
                     const pipeline_plan& plan);

// The library's output buffer as an image of interleaved RGB(A). The fourth element is the
// library's padding (0); the image carries the source's alpha there instead, or opaque.
image from_output_buffer(const void* output, const settings& s, const image& source);

}  // namespace kv_tool
