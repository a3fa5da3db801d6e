// The options of kelvane-color, one entry each: names, value, where --help lists it, what it
// does, and how it changes the settings. The parser (parse.cpp) and --help (help.cpp) read it.
#pragma once

#include <cstddef>
#include <string>

#include "cli/settings.h"

namespace kv_tool {

// What the options of one command line have said so far, beyond the settings themselves.
struct parse_state {
    settings s;
    bool output_options = false;
    bool bench_options = false;
    bool chart_size_given = false;
    std::string color_option;     // the first of --from, --to, --clf given
    std::string pipeline_option;  // the first option given that sets what a conversion sets
    bool layout_options = false;  // --bits, --channels, --input-layout, --output-layout
    bool json_given = false;
    bool stop = false;  // --help or --version: the rest of the line is not looked at
};

// One option: its names, the value it takes (nullptr: none), where --help lists it (nullptr: not
// in the list) and what it does. `name` is the name as written, for messages.
struct option_spec {
    const char* short_name;
    const char* long_name;
    const char* value;
    const char* section;
    const char* help;  // continuation lines start after "\n"
    void (*apply)(parse_state& p, const std::string& name, const std::string& value);
};

// The table, in the order --help lists it.
struct option_list {
    const option_spec* first;
    std::size_t count;
    const option_spec* begin() const { return first; }
    const option_spec* end() const { return first + count; }
};
option_list all_options();

// The option of that short or long name; null for none.
const option_spec* find_option(const std::string& name);

}  // namespace kv_tool
