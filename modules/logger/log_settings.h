// The settings of one log and where they come from: the configuration file, found in the current
// directory or beside the module, read within a bound, and its parser.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kv {
namespace logger {

enum class destination_kind { standard_error, standard_output, file };

struct log_settings {
    int32_t highest_level = 3;  // levels 0 to this one are written
    destination_kind destination = destination_kind::standard_error;
    std::string file_path;  // the file appended to, for destination_kind::file
    std::string origin;     // "file:line" that chose the destination, printable, for messages
};

// The settings for a new log, and the one warning that a bad configuration file deserves (empty if
// none); with a warning the settings are the defaults.
struct settings_outcome {
    log_settings settings;
    std::string warning;
};

// A configuration file larger than this is refused whole: no real one comes near it, and reading
// stops here whatever the file claims to be.
constexpr std::size_t max_config_bytes = 64 * 1024;

// Bytes of user text quoted in a message about a bad line, and of a path in any message.
constexpr std::size_t excerpt_bytes = 60;
constexpr std::size_t path_bytes = 4096;

// Finds the configuration file (see docs/modules.md), reads at most max_config_bytes of it from a
// regular file only, and parses it. A file that is there but cannot be used gives the defaults and
// a warning, as a bad line does; no file at all gives the defaults and no warning.
settings_outcome load_settings(const char* config_file_name);

// Parses the text of a configuration file. `file_name` names it in warnings, and its folder is
// where relative destinations are taken from. Any text is safe to give, of any length.
settings_outcome parse_settings(const std::string& file_name, const std::string& text);

// The defaults, and the warning that the file `file_name` (at `line`, unless it is 0) is not used
// because of `problem`.
settings_outcome refused_file(const std::string& file_name, std::size_t line,
                              const std::string& problem);

// "/x", "\x" or "C:\x" (either separator): a path that is used as it stands.
bool is_absolute_path(const std::string& path);

// How settings read in messages.
std::string describe(const log_settings& settings);

// Which bytes are written as \xNN: control bytes only (tab kept), or everything outside printable
// ASCII.
enum class escaping { controls, all_but_printable_ascii };

// Appends `size` bytes of `data` to `out` with the chosen bytes escaped.
void append_escaped(std::string& out, const char* data, std::size_t size, escaping which);

// `text` fit for a one-line message on a terminal: at most `limit` of its bytes, everything outside
// printable ASCII escaped, and "..." when it was cut.
std::string printable(const std::string& text, std::size_t limit);

// The folder this module was loaded from, with its trailing separator; empty if unknown.
std::string module_directory();

}  // namespace logger
}  // namespace kv
