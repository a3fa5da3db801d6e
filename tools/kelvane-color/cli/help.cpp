// The text of --help, built once from the option table.
#include <algorithm>
#include <string>

#include "cli/option_table.h"

namespace kv_tool {
namespace {

std::string build_usage_text() {
    std::string text =
        R"(usage: kelvane-color [OPTIONS] [INPUT...]     process images (none: a built-in test chart)
       kelvane-color bench [OPTIONS] [INPUT]    Mpix/s of each tier next to memcpy
       kelvane-color --info                     tier, modules and back-end of this machine
       kelvane-color --info FILE...             an image's size and colour profile
       kelvane-color --list-spaces              the colour space names of --to and --from
       kelvane-color --raw-input WxH:FMT IN --raw-output FMT -o OUT   raw video frames

Input: PNG, PPM/PGM/PAM (binary, maximum value up to 65535), TIFF; read as 16-bit samples.
)" +
        std::string(system_codecs
                        ? "       On Windows also JPEG, BMP and any other format Windows decodes.\n"
                        : "") +
        R"(       Regular files only (no FIFOs or devices; --raw-input also reads - and FIFOs);
       .cube files up to 64 MiB.
)";
    const char* section = nullptr;
    for (const option_spec& o : all_options()) {
        if (o.help == nullptr) continue;
        if (section == nullptr || std::string(section) != o.section) {
            section = o.section;
            text += std::string(section) + "\n";
        }
        std::string left = o.short_name != nullptr ? std::string(o.short_name) + ", " : "";
        left += o.long_name;
        if (o.value != nullptr) left += std::string(" ") + o.value;
        left.resize(std::max<size_t>(left.size() + 1, 26), ' ');
        text += "  " + left;
        for (const char* c = o.help; *c != '\0'; ++c) {
            text += *c;
            if (*c == '\n') text += std::string(28, ' ');
        }
        text += "\n";
    }
    return text +
           R"(Exit codes: 0 done, 1 file error (standard output included), 2 bad command line,
3 the library could not start, 4 the library refused a transform, 5 bench: a tier's output
differs from scalar.
Reference: docs/kelvane-color.md.
)";
}

}  // namespace

const char* usage_text() {
    static const std::string text = build_usage_text();
    return text.c_str();
}

}  // namespace kv_tool
