// kelvane-color bench: every tier the machine runs, through the library's exports, timed with
// bench/bench_timing.h and compared with the scalar tier's output.
#include "bench/bench.h"

#include <algorithm>
#include <cstring>

#include "bench/bench_timing.h"
#include "cli/tool_error.h"
#include "pipeline/processing.h"

namespace kv_tool {
namespace {

std::string module_problem(const module_report& module) {
    return "module " + module.file_name + " " + module_state_name(module.state) +
           (module.detail.empty() ? "" : " (" + module.detail + ")");
}

}  // namespace

bench_result run_bench(const settings& s, const system_report& system, const image& picture,
                       const std::string& source) {
    bench_result result;
    result.source = source;
    result.width = picture.width;
    result.height = picture.height;
    result.detected_tier = system.cpu.tier;
    result.processor = system.cpu.name;
    result.threads = s.threads;
    const pipeline_plan plan = plan_pipeline(s);
    const auto pixels = int32_t(picture.pixel_count());
    const std::vector<uint16_t> input = to_input_buffer(picture, s.input_layout);
    const size_t out_size = output_bytes(s, picture.pixel_count());
    std::vector<uint16_t> scalar_output((out_size + 1) / 2), output((out_size + 1) / 2);

    for (int32_t tier = 0; tier < 4; ++tier) {
        bench_row row;
        row.tier = tier;
        if (!cpu_supports(system.cpu, tier)) {
            row.status = "not supported by this processor";
        } else if (tier > 0 && system.vector[tier - 1].state != module_state::ready) {
            row.status = module_problem(system.vector[tier - 1]);
        } else {
            processor p(s, plan, tier);
            std::vector<uint16_t>& target = tier == 0 ? scalar_output : output;
            std::fill(target.begin(), target.end(), uint16_t(0xA5A5));
            kv_status status = KV_STATUS_SUCCESS;
            const kv::bench::timing t = kv::bench::measure(
                [&] {
                    status =
                        run_transform(p, s, plan, input.data(), target.data(), pixels, s.threads);
                },
                s.min_time, 3);
            check_transform(status, source, s, plan);
            row.measured = true;
            row.status = "measured";
            row.frames = t.runs;
            row.mpix_per_s = pixels / t.median_seconds / 1e6;
            row.best_mpix_per_s = pixels / t.best_seconds / 1e6;
            row.matches_scalar =
                tier == 0 || std::memcmp(target.data(), scalar_output.data(), out_size) == 0;
        }
        result.tiers.push_back(row);
    }

    const size_t in_size = input.size() * sizeof(uint16_t);
    std::vector<uint16_t> copy(input.size());
    const kv::bench::timing t =
        kv::bench::measure([&] { std::memcpy(copy.data(), input.data(), in_size); }, s.min_time, 3);
    result.memcpy_mpix_per_s = pixels / t.median_seconds / 1e6;
    result.memcpy_gb_per_s = double(in_size) / t.median_seconds / 1e9;
    return result;
}

}  // namespace kv_tool
