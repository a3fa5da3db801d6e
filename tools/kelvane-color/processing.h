// kelvane-color as a host of the library: starting and stopping it, a processor configured from
// the settings, and images turned into the library's buffers and back.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "image_io.h"
#include "kelvane_qor_color_processing.h"
#include "options.h"

namespace kv_tool {

// "KV_STATUS_INVALID_CLAMP" and so on; "status N" for a number the header does not name.
std::string status_name(kv_status status);

// kv_color_processing_module_initialize now, terminate at the end. A result of 1 (the LUT module
// missing or incomplete) is terminated at once and thrown as a library error.
class library_session {
  public:
    library_session();
    ~library_session();
    library_session(const library_session&) = delete;
    library_session& operator=(const library_session&) = delete;
};

// A processor with the settings' matrices, LUTs and enable flags. `tier` set: created through
// kv_color_create_color_processor_test with it.
class processor {
  public:
    processor(const settings& s, const pipeline_plan& plan, std::optional<int32_t> tier);
    ~processor();
    processor(const processor&) = delete;
    processor& operator=(const processor&) = delete;
    kv_color_processor_handle handle() const { return handle_; }

  private:
    kv_color_processor_handle handle_ = nullptr;
};

// The bytes one frame of `pixels` takes at this output width and element count.
size_t output_bytes(const settings& s, uint64_t pixels);

// The image's RGB samples laid out for the library (any layout other than bgr and rgb: planes).
std::vector<uint16_t> to_input_buffer(const image& picture, int32_t layout);

// Runs the transform of the settings' output width and element count.
kv_status run_transform(kv_color_processor_handle handle, const settings& s,
                        const pipeline_plan& plan, const uint16_t* input, void* output,
                        int32_t pixels);

// Throws the transform error for a non-zero status, naming `source` and the option to look at.
void check_transform(kv_status status, const std::string& source, const settings& s,
                     const pipeline_plan& plan);

// The library's output buffer as an image of interleaved RGB(A). The fourth element is the
// library's padding (0); the image carries the source's alpha there instead, or opaque.
image from_output_buffer(const void* output, const settings& s, const image& source);

}  // namespace kv_tool
