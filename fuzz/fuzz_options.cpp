// The kelvane-color command line: the input is the argument list, split at NUL bytes. A usage
// error is the parser's clean answer; anything else escaping is a finding.
#include <string>
#include <vector>

#include "cli/settings.h"
#include "cli/tool_error.h"
#include "fuzz/fuzz_support.h"
#include "pipeline/plan.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> arguments(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == '\0') {
            arguments.emplace_back();
        } else {
            arguments.back() += char(data[i]);
        }
    }
    if (size == 0) arguments.clear();
    kv_fuzz::expect_only<kv_tool::tool_error>([&] {
        const kv_tool::settings s = kv_tool::parse_command_line(arguments);
        // What the tool does next with accepted settings.
        kv_tool::plan_pipeline(s);
        kv_tool::layout_name(s.input_layout);
        kv_tool::layout_name(s.output_layout);
        if (s.tier) kv_tool::tier_name(*s.tier);
    });
    return 0;
}
