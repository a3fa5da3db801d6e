// The pipeline plan: what each channel's stages become once the options' defaults are filled in.
#include "pipeline/plan.h"

#include <algorithm>

namespace kv_tool {
namespace {

int bit_length(uint64_t value) {
    int bits = 0;
    while (value != 0) {
        ++bits;
        value >>= 1;
    }
    return bits;
}

// Entry `value` of `names`, or `what` and the number for a value past them.
template <size_t N>
std::string name_in(const char* const (&names)[N], int32_t value, const char* what) {
    if (value >= 0 && size_t(value) < N) return names[value];
    return std::string(what) + " " + std::to_string(value);
}

}  // namespace

pipeline_plan plan_pipeline(const settings& s) {
    pipeline_plan plan;
    bool any_input = false, any_output = false;
    for (int c = 0; c < 3; ++c) {
        plan.channel[c].input_LUT = s.input_LUT[c].kind != curve_kind::off;
        plan.channel[c].output_LUT = s.output_LUT[c].kind != curve_kind::off;
        any_input = any_input || plan.channel[c].input_LUT;
        any_output = any_output || plan.channel[c].output_LUT;
    }
    // Any 16-bit value may index an input table, so it always has 2^16 entries.
    plan.input_LUT_bits = any_input ? 16 : 0;
    plan.output_LUT_bits = any_output ? s.output_LUT_bits : 0;
    const uint32_t last_entry = (1u << s.output_LUT_bits) - 1;
    plan.output_LUT_max = s.output_LUT_max.value_or(last_entry);
    for (int c = 0; c < 3; ++c) {
        channel_plan& p = plan.channel[c];
        p.minimum = s.clamp_min[c].value_or(0);
        p.maximum = s.clamp_max[c].value_or(p.output_LUT ? uint16_t(std::min(last_entry, 65535u))
                                                         : uint16_t(65535));
        const uint32_t top = p.output_LUT ? plan.output_LUT_max : p.maximum;
        const int automatic = std::clamp(s.bits - bit_length(top), -15, 15);
        p.shift = s.shift[c].value_or(top == 0 ? 0 : automatic);
    }
    return plan;
}

std::string layout_name(int32_t layout) {
    static const char* const names[] = {"BGR planes", "BGR interleaved", "RGB interleaved"};
    return name_in(names, layout, "layout");
}

std::string tier_name(int32_t tier) {
    static const char* const names[] = {"scalar", "sse", "avx2", "avx512"};
    return name_in(names, tier, "tier");
}

std::string backend_text(int32_t backend) {
    return backend == 0 ? std::string("the scalar kernels do the whole frame")
                        : tier_name(backend) + " module, the scalar kernels finish the frame";
}

std::string tier_text(const settings& s, const system_report& system) {
    return s.tier ? tier_name(*s.tier) + " (forced)" : tier_name(system.cpu.tier) + " (detected)";
}

}  // namespace kv_tool
