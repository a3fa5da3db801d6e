// The bench subcommand: Mpix/s of one setting on every tier the machine supports, each forced
// through kv_color_create_color_processor_test and run on --threads threads, next to a memcpy of
// the same input bytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/settings.h"
#include "image/image.h"
#include "pipeline/system_probe.h"

namespace kv_tool {

struct bench_row {
    int32_t tier = 0;
    std::string status;  // "measured", or why not
    bool measured = false;
    double mpix_per_s = 0;  // from the median frame time
    double best_mpix_per_s = 0;
    int frames = 0;
    bool matches_scalar = true;  // output identical to the scalar tier's, byte for byte
};

struct bench_result {
    std::string source;
    int32_t width = 0, height = 0;
    int32_t detected_tier = 0;
    std::string processor;  // cpu_report::name
    unsigned threads = 1;   // each frame cut into this many stripes (interleaved layouts)
    std::vector<bench_row> tiers;
    double memcpy_mpix_per_s = 0;
    double memcpy_gb_per_s = 0;
};

// Runs with the library started. Every tier's output is compared with the scalar tier's.
bench_result run_bench(const settings& s, const system_report& system, const image& picture,
                       const std::string& source);

// Written by report.cpp.
std::string bench_table(const bench_result& result, const settings& s);
std::string bench_json(const bench_result& result, const settings& s);

// A horizontal bar chart of the median Mpix/s of each measured tier and of memcpy, as a
// self-contained SVG whose title names the processor and the settings. Every bar of a tier is a
// rect of class "tier-bar".
std::string bench_svg(const bench_result& result, const settings& s);

}  // namespace kv_tool
