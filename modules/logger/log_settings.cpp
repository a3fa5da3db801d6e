// Finding and reading the configuration file. Any problem in it discards the whole file: a log
// that half follows a file its user got wrong is harder to notice than one warning and defaults.
#include "modules/logger/log_settings.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace kv {
namespace logger {

namespace {

constexpr const char* default_config_name = "kelvane_qor_logger.cfg";

struct level_name {
    int32_t level;
    const char* names[2];  // the full name, then the syslog short form if it differs
};
constexpr level_name level_names[] = {{0, {"emergency", "emerg"}},    {1, {"alert", nullptr}},
                                      {2, {"critical", "crit"}},      {3, {"error", "err"}},
                                      {4, {"warning", "warn"}},       {5, {"notice", nullptr}},
                                      {6, {"info", "informational"}}, {7, {"debug", nullptr}}};

std::string lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string trim(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool is_absolute(const std::string& path) {
    return (!path.empty() && (path[0] == '/' || path[0] == '\\')) ||
           (path.size() > 2 && std::isalpha(static_cast<unsigned char>(path[0])) &&
            path[1] == ':' && (path[2] == '/' || path[2] == '\\'));
}

std::string directory_of(const std::string& path) {
    const std::size_t separator = path.find_last_of("/\\");
    return separator == std::string::npos ? std::string() : path.substr(0, separator + 1);
}

// A number from 0 to 7 or a level name, in any case.
bool parse_level(const std::string& value, int32_t& level) {
    if (value.size() == 1 && value[0] >= '0' && value[0] <= '7') {
        level = value[0] - '0';
        return true;
    }
    const std::string name = lower(value);
    for (const level_name& entry : level_names) {
        for (const char* candidate : entry.names) {
            if (candidate != nullptr && name == candidate) {
                level = entry.level;
                return true;
            }
        }
    }
    return false;
}

struct parse_failure {
    int line = 0;
    std::string problem;
};

// Reads "key = value" lines; blank lines and lines starting with '#' are skipped. Relative file
// destinations are taken from the configuration file's own folder.
bool parse(const std::string& text, const std::string& config_path, log_settings& settings,
           parse_failure& failure) {
    int level_line = 0;
    int destination_line = 0;
    std::size_t start = 0;
    for (int number = 1; start < text.size(); ++number) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        std::string line = text.substr(start, end - start);
        start = end + 1;
        if (number == 1 && line.compare(0, 3, "\xEF\xBB\xBF") == 0) {
            line.erase(0, 3);  // byte order mark of editors that write one
        }
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        line = trim(line);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        failure.line = number;
        const std::size_t equals = line.find('=');
        const std::string key =
            equals == std::string::npos ? "" : lower(trim(line.substr(0, equals)));
        const std::string value = equals == std::string::npos ? "" : trim(line.substr(equals + 1));
        if (key.empty()) {
            failure.problem = "expected \"key = value\", found \"" + line + "\"";
            return false;
        }
        int* seen_on = key == "level"         ? &level_line
                       : key == "destination" ? &destination_line
                                              : nullptr;
        if (seen_on == nullptr) {
            failure.problem = "unknown key \"" + key + "\" (the keys are level and destination)";
            return false;
        }
        if (*seen_on != 0) {
            failure.problem =
                "\"" + key + "\" is set again (first on line " + std::to_string(*seen_on) + ")";
            return false;
        }
        *seen_on = number;
        if (value.empty()) {
            failure.problem = "\"" + key + "\" has no value";
            return false;
        }
        if (key == "level") {
            if (!parse_level(value, settings.highest_level)) {
                failure.problem =
                    "bad level \"" + value + "\" (give 0 to 7, or a name from emergency to debug)";
                return false;
            }
        } else if (lower(value) == "stderr") {
            settings.destination = destination_kind::standard_error;
        } else if (lower(value) == "stdout") {
            settings.destination = destination_kind::standard_output;
        } else {
            settings.destination = destination_kind::file;
            settings.file_path = is_absolute(value) ? value : directory_of(config_path) + value;
            settings.origin = config_path + ":" + std::to_string(number);
        }
    }
    return true;
}

enum class read_result { done, missing, failed };

read_result read_file(const std::string& path, std::string& text, std::string& error) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        if (errno == ENOENT || errno == ENOTDIR) {
            return read_result::missing;
        }
        error = std::strerror(errno);
        return read_result::failed;
    }
    char buffer[4096];
    std::size_t count = 0;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        text.append(buffer, count);
    }
    const bool failed = std::ferror(file) != 0;
    error = failed ? std::strerror(errno) : "";
    std::fclose(file);
    return failed ? read_result::failed : read_result::done;
}

}  // namespace

std::string describe(const log_settings& settings) {
    std::string text = "levels 0 to " + std::to_string(settings.highest_level) + " to ";
    switch (settings.destination) {
        case destination_kind::standard_error:
            return text + "stderr";
        case destination_kind::standard_output:
            return text + "stdout";
        case destination_kind::file:
            break;
    }
    return text + "\"" + settings.file_path + "\"";
}

settings_outcome load_settings(const char* config_file_name) {
    const std::string name = config_file_name != nullptr && *config_file_name != '\0'
                                 ? config_file_name
                                 : default_config_name;
    std::vector<std::string> candidates = {name};
    const std::string beside_module = module_directory();
    if (!is_absolute(name) && !beside_module.empty()) {
        candidates.push_back(beside_module + name);
    }

    const log_settings defaults;
    const std::string fallback = "; using the defaults (" + describe(defaults) + ")";
    for (const std::string& path : candidates) {
        std::string text;
        std::string error;
        switch (read_file(path, text, error)) {
            case read_result::missing:
                continue;
            case read_result::failed:
                return {defaults, path + ": cannot read it (" + error + ")" + fallback};
            case read_result::done:
                break;
        }
        log_settings settings;
        parse_failure failure;
        if (!parse(text, path, settings, failure)) {
            return {defaults,
                    path + ":" + std::to_string(failure.line) + ": " + failure.problem + fallback};
        }
        return {settings, {}};
    }
    return {defaults, {}};
}

}  // namespace logger
}  // namespace kv
