// Turning the settings into a processor set-up: the defaults that depend on several options (LUT
// sizes, clamp bounds, shifts), and the names of the library's layouts, tiers and back-ends in
// messages.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "cli/settings.h"
#include "pipeline/system_probe.h"

namespace kv_tool {

// What the pipeline gets once defaults are filled in, per channel blue, green, red.
struct channel_plan {
    bool input_LUT = false;
    bool output_LUT = false;
    uint16_t minimum = 0;
    uint16_t maximum = 65535;
    int32_t shift = 0;
};
struct pipeline_plan {
    std::array<channel_plan, 3> channel;
    int32_t input_LUT_bits = 0;
    int32_t output_LUT_bits = 0;
    uint32_t output_LUT_max = 0;
    // Output tables rewritten to the 8-bit rounding of what they give at 16 bits, after the
    // shift of that channel's 16-bit output (the library's own shift then stays off).
    bool tables_to_8_bits = false;
    std::array<int32_t, 3> table_shift_at_16{};
};

// Clamp maximum: 2^bits - 1 of the output LUT when it is on, else 65535. Shift: moves the top of
// the channel's range (the LUT maximum when the output LUT is on, else the clamp maximum) to the
// top bit of the output element.
pipeline_plan plan_pipeline(const settings& s);

std::string layout_name(int32_t layout);
std::string tier_name(int32_t tier);
// Who does a frame: the vector module of `backend` (1 to 3) with the scalar kernels, or these
// alone.
std::string backend_text(int32_t backend);
// The tier frames run at: the forced one or the detected one, saying which.
std::string tier_text(const settings& s, const system_report& system);

}  // namespace kv_tool
