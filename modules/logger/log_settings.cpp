// The configuration file's parser and the message texts built from it. Any problem in the file
// discards it whole: a log that half follows a file its user got wrong is harder to notice than one
// warning and defaults. Nothing here touches a file, so any text can be fed to it.
#include "modules/logger/log_settings.h"

namespace kv {
namespace logger {

namespace {

struct level_name {
    int32_t level;
    const char* names[2];  // the full name, then the syslog short form if it differs
};
constexpr level_name level_names[] = {{0, {"emergency", "emerg"}},    {1, {"alert", nullptr}},
                                      {2, {"critical", "crit"}},      {3, {"error", "err"}},
                                      {4, {"warning", "warn"}},       {5, {"notice", nullptr}},
                                      {6, {"info", "informational"}}, {7, {"debug", nullptr}}};

// ASCII only: the host's locale must not change what a key or a level name means.
std::string lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
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

std::string directory_of(const std::string& path) {
    const std::size_t separator = path.find_last_of("/\\");
    return separator == std::string::npos ? std::string() : path.substr(0, separator + 1);
}

std::string quoted(const std::string& text) {
    return "\"" + printable(text, excerpt_bytes) + "\"";
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

// Reads "key = value" lines into `settings`; blank lines and lines starting with '#' are skipped.
// Returns the problem of the first bad line, with `line_number` set to it, or "" if there is none.
std::string parse(const std::string& file_name, const std::string& text, log_settings& settings,
                  std::size_t& line_number) {
    std::size_t level_line = 0;
    std::size_t destination_line = 0;
    std::size_t start = 0;
    for (std::size_t number = 1; start < text.size(); ++number) {
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
        line_number = number;
        const std::size_t equals = line.find('=');
        const std::string key =
            equals == std::string::npos ? "" : lower(trim(line.substr(0, equals)));
        const std::string value = equals == std::string::npos ? "" : trim(line.substr(equals + 1));
        if (key.empty()) {
            return "expected \"key = value\", found " + quoted(line);
        }
        std::size_t* seen_on = key == "level"         ? &level_line
                               : key == "destination" ? &destination_line
                                                      : nullptr;
        if (seen_on == nullptr) {
            return "unknown key " + quoted(key) + " (the keys are level and destination)";
        }
        if (*seen_on != 0) {
            return "\"" + key + "\" is set again (first on line " + std::to_string(*seen_on) + ")";
        }
        *seen_on = number;
        if (value.empty()) {
            return "\"" + key + "\" has no value";
        }
        if (key == "level") {
            if (!parse_level(value, settings.highest_level)) {
                return "bad level " + quoted(value) +
                       " (give 0 to 7, or a name from emergency to debug)";
            }
            continue;
        }
        settings.origin = printable(file_name, path_bytes) + ":" + std::to_string(number);
        if (lower(value) == "stderr") {
            settings.destination = destination_kind::standard_error;
        } else if (lower(value) == "stdout") {
            settings.destination = destination_kind::standard_output;
        } else {
            settings.destination = destination_kind::file;
            settings.file_path = is_absolute_path(value) ? value : directory_of(file_name) + value;
        }
    }
    return {};
}

}  // namespace

bool is_absolute_path(const std::string& path) {
    return (!path.empty() && (path[0] == '/' || path[0] == '\\')) ||
           (path.size() > 2 &&
            ((path[0] >= 'a' && path[0] <= 'z') || (path[0] >= 'A' && path[0] <= 'Z')) &&
            path[1] == ':' && (path[2] == '/' || path[2] == '\\'));
}

void append_escaped(std::string& out, const char* data, std::size_t size, escaping which) {
    static constexpr char hex[] = "0123456789ABCDEF";
    for (std::size_t i = 0; i < size; ++i) {
        const auto byte = static_cast<unsigned char>(data[i]);
        const bool control = (byte < 0x20 && byte != '\t') || byte == 0x7F;
        const bool escaped = which == escaping::controls ? control : byte < 0x20 || byte >= 0x7F;
        if (escaped) {
            const char code[] = {'\\', 'x', hex[byte >> 4], hex[byte & 15]};
            out.append(code, sizeof code);
        } else {
            out += static_cast<char>(byte);
        }
    }
}

std::string printable(const std::string& text, std::size_t limit) {
    std::string out;
    append_escaped(out, text.data(), text.size() < limit ? text.size() : limit,
                   escaping::all_but_printable_ascii);
    if (text.size() > limit) {
        out += "...";
    }
    return out;
}

settings_outcome parse_settings(const std::string& file_name, const std::string& text) {
    settings_outcome outcome;
    std::size_t line_number = 0;
    const std::string problem = parse(file_name, text, outcome.settings, line_number);
    return problem.empty() ? outcome : refused_file(file_name, line_number, problem);
}

settings_outcome refused_file(const std::string& file_name, std::size_t line,
                              const std::string& problem) {
    const std::string place =
        printable(file_name, path_bytes) + (line != 0 ? ":" + std::to_string(line) : "");
    return {log_settings{},
            place + ": " + problem + "; using the defaults (" + describe(log_settings{}) + ")"};
}

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
    return text + "\"" + printable(settings.file_path, path_bytes) + "\"";
}

}  // namespace logger
}  // namespace kv
