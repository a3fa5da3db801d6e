// The colour options of a run (--from, --to, --clf) as processors: the destination and any forced
// source built once, one processor for each distinct source profile the inputs carry, shared by
// every thread of a batch, and the profile the outputs carry.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cli/settings.h"
#include "kelvane_qor_color.hpp"
#include "pipeline/file_access.h"
#include "pipeline/processing.h"

namespace kv_tool {

// Whether the settings convert colours (--to or --clf).
bool color_requested(const settings& s);

// The files the colour options name: ICC profiles and the process list.
void add_color_reads(const settings& s, std::vector<read_file>* reads);

// A space of --from or --to: a name of kelvane::color_space_names(), else an ICC profile file.
// An unknown name that is no file is a usage error; a refused profile a file error.
kelvane::color_space space_of(const std::string& value, const char* option);

// The processor of one conversion and how its frames run: the layer's tables round 8-bit outputs
// themselves, so the route never narrows a second time.
struct color_setup {
    color_setup(const kelvane::color_conversion& conversion, const settings& s,
                std::optional<int32_t> tier);
    output_route route;
    processor p;
};

class color_run {
  public:
    explicit color_run(const settings& s);

    // The set-up for frames whose file carries `embedded` (ignored with --from and --clf; none:
    // sRGB, said once a run unless quiet). Built on first use. A profile the layer refuses is a
    // file error naming `input`.
    const color_setup& setup_for(const color_profile& embedded, const std::string& input);
    // For frames with no profile of their own (raw streams): --from, else sRGB with the note.
    const color_setup& setup_for_untagged(const std::string& input);

    // The conversion for frames whose file carries `embedded`, made anew (bench makes a
    // processor of it for each tier).
    kelvane::color_conversion conversion_for(const color_profile& embedded,
                                             const std::string& input) const;

    // The profile written into PNG and TIFF outputs (none for --clf).
    const color_profile& output_profile() const { return output_profile_; }
    // Says once, unless quiet, that outputs of `type` (Netpbm, raw) carry no profile.
    void note_output_type(file_type type);

  private:
    const settings& s_;
    std::optional<kelvane::color_space> destination_, source_;
    std::optional<kelvane::color_conversion> clf_;
    color_profile output_profile_;
    std::mutex mutex_;
    std::map<std::string, std::unique_ptr<color_setup>> setups_;
    std::atomic<bool> untagged_said_{false}, no_profile_said_{false};
};

}  // namespace kv_tool
