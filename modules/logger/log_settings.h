// The settings of one log and where they come from: the configuration file, found in the current
// directory or beside the module, and its parser.
#pragma once

#include <cstdint>
#include <string>

namespace kv {
namespace logger {

enum class destination_kind { standard_error, standard_output, file };

struct log_settings {
    int32_t highest_level = 3;  // levels 0 to this one are written
    destination_kind destination = destination_kind::standard_error;
    std::string file_path;  // the file appended to, for destination_kind::file
    std::string origin;     // "file:line" that chose the destination, for messages about it
};

// The settings for a new log, and the one warning that a bad configuration file deserves (empty if
// none); with a warning the settings are the defaults.
struct settings_outcome {
    log_settings settings;
    std::string warning;
};

settings_outcome load_settings(const char* config_file_name);

// How the defaults read in messages.
std::string describe(const log_settings& settings);

// The folder this module was loaded from, with its trailing separator; empty if unknown.
std::string module_directory();

}  // namespace logger
}  // namespace kv
