// CLF (SMPTE ST 2136-1) and CTF process lists that map onto one processor.
#pragma once

#include <cstdint>
#include <string>

#include "color/processor_setup.h"

namespace kv_color {

// Larger process lists are refused before parsing (a LUT1D of 65,536 x 3 values takes ~2 MiB).
constexpr uint64_t max_process_list_bytes = uint64_t(16) << 20;

// The set-up of the list in `text`: [LUT1D...] [Range] [Matrix] [Range] [LUT1D...], adjacent
// LUT1D nodes composed. Throws color_error (process_list_refused) naming `label`, the element and
// its line for malformed XML, another node or shape, or a value the engine cannot hold.
processor_setup setup_from_process_list(const std::string& text, const std::string& label,
                                        int output_bits);

}  // namespace kv_color
