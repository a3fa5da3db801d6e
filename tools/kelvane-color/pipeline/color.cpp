// Colour conversions of a run through the colour layer (include/kelvane_qor_color.hpp).
#include "pipeline/color.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "cli/tool_error.h"

namespace kv_tool {
namespace {

constexpr uint64_t max_process_list = uint64_t(16) << 20;  // as the layer bounds them

// The layer's refusal as the tool's: names and depths are the command line's fault, the
// processing library's refusals end the run, the rest belongs to the file named.
tool_error layer_error(const kelvane::color_error& e, const std::string& where) {
    switch (e.status()) {
        case KV_COLOR_LAYER_INVALID_ARGUMENT:
            return usage_error(where + e.what());
        case KV_COLOR_LAYER_LIBRARY_FAILED:
        case KV_COLOR_LAYER_INTERNAL:
            return tool_error(EXIT_LIBRARY, where + e.what());
        default:
            return tool_error(EXIT_FILE, where + e.what());
    }
}

template <typename Make>
auto through_layer(const std::string& where, Make&& make) -> decltype(make()) {
    try {
        return make();
    } catch (const kelvane::color_error& e) {
        throw layer_error(e, where);
    }
}

bool is_space_name(const std::string& value) {
    const std::vector<std::string> names = kelvane::color_space_names();
    return std::find(names.begin(), names.end(), value) != names.end();
}

std::vector<uint8_t> bytes_of(const std::string& text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

}  // namespace

bool color_requested(const settings& s) {
    return !s.color_to.empty() || !s.clf.empty();
}

void add_color_reads(const settings& s, std::vector<read_file>* reads) {
    for (const std::string* value : {&s.color_from, &s.color_to}) {
        if (!value->empty() && !is_space_name(*value))
            reads->push_back({*value, "the ICC profile"});
    }
    if (!s.clf.empty()) reads->push_back({s.clf, "the process list"});
}

kelvane::color_space space_of(const std::string& value, const char* option) {
    const std::string where = std::string(option) + ": ";
    if (is_space_name(value)) {
        return through_layer(where, [&] { return kelvane::color_space::named(value); });
    }
    std::error_code error;
    if (value.find_first_of("./\\") == std::string::npos &&
        !std::filesystem::exists(value, error)) {
        throw usage_error(where + "'" + value +
                          "' is neither a colour space (kelvane-color --list-spaces) nor a file");
    }
    const std::string bytes = read_small_file(value, max_embedded_profile, "ICC profiles");
    return through_layer(
        where, [&] { return kelvane::color_space::from_icc(bytes_of(bytes), "profile " + value); });
}

color_setup::color_setup(const kelvane::color_conversion& conversion, const settings& s,
                         std::optional<int32_t> tier)
    : route{s, pipeline_plan{}, narrowing::library}, p(conversion, tier) {
    const kelvane::frame_settings f = conversion.settings();
    const kelvane::channel_settings* channels[3] = {&f.blue, &f.green, &f.red};
    pipeline_plan& plan = route.plan;
    plan.input_LUT_bits = 16;
    plan.output_LUT_bits = 16;
    plan.output_LUT_max = 65535;
    for (int c = 0; c < 3; ++c) {
        plan.channel[c].input_LUT = !conversion.LUT(false, kelvane::channel(c)).empty();
        plan.channel[c].output_LUT = !conversion.LUT(true, kelvane::channel(c)).empty();
        plan.channel[c].minimum = channels[c]->minimum;
        plan.channel[c].maximum = channels[c]->maximum;
        plan.channel[c].shift = channels[c]->shift;
    }
}

color_run::color_run(const settings& s) : s_(s) {
    if (!s.clf.empty()) {
        const std::string text = read_small_file(s.clf, max_process_list, "process lists");
        clf_ = through_layer(
            "--clf: ", [&] { return kelvane::color_conversion::from_clf(text, s.clf, s.bits); });
        return;
    }
    destination_ = space_of(s.color_to, "--to");
    if (!s.color_from.empty()) source_ = space_of(s.color_from, "--from");
    output_profile_.icc = through_layer("--to: ", [&] { return destination_->icc(); });
    output_profile_.srgb = s.color_to == "srgb";
}

const color_setup& color_run::setup_for_untagged(const std::string& input) {
    return setup_for(color_profile{}, input);
}

const color_setup& color_run::setup_for(const color_profile& embedded, const std::string& input) {
    const bool own_source = !clf_ && !source_;
    if (own_source && !embedded.fault.empty()) {
        throw file_error(input, "cannot convert: " + embedded.fault + " (--from sets the source)");
    }
    if (own_source && !embedded.present() && !s_.quiet && !untagged_said_.exchange(true)) {
        std::fprintf(stderr,
                     "kelvane-color: %s has no colour profile: taken as sRGB (--from sets the "
                     "source)\n",
                     printable(input).c_str());
    }
    const std::string key = clf_      ? "clf"
                            : source_ ? "from"
                            : embedded.icc.empty()
                                ? "srgb"
                                : "icc:" + std::string(embedded.icc.begin(), embedded.icc.end());
    std::lock_guard<std::mutex> lock(mutex_);
    std::unique_ptr<color_setup>& setup = setups_[key];
    if (!setup) setup = std::make_unique<color_setup>(conversion_for(embedded, input), s_, s_.tier);
    return *setup;
}

kelvane::color_conversion color_run::conversion_for(const color_profile& embedded,
                                                    const std::string& input) const {
    if (clf_) return *clf_;
    const kelvane::color_space source =
        source_ ? *source_
        : embedded.icc.empty()
            ? kelvane::color_space::named("srgb")
            : through_layer(input + ": ", [&] {
                  return kelvane::color_space::from_icc(embedded.icc, "embedded profile");
              });
    return through_layer("",
                         [&] { return kelvane::color_conversion(source, *destination_, s_.bits); });
}

void color_run::note_output_type(file_type type) {
    if (clf_ || s_.quiet ||
        (type != file_type::ppm && type != file_type::pam && type != file_type::raw)) {
        return;
    }
    if (!no_profile_said_.exchange(true)) {
        std::fprintf(stderr,
                     "kelvane-color: %s outputs carry no colour profile: the pixels are in %s\n",
                     type == file_type::raw ? "raw" : "Netpbm", printable(s_.color_to).c_str());
    }
}

}  // namespace kv_tool
