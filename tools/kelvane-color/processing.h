// kelvane-color as a host of the library through its C++ interface: starting and stopping it, a
// processor configured from the settings, frames transformed on several threads, and images
// turned into the library's buffers and back.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "image_io.h"
#include "kelvane_qor_color_processing.hpp"
#include "options.h"

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
