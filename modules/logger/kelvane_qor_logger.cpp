// The logging module: open logs named by two ids, one formatted line per accepted message, and
// one lock around all writing so that lines from many threads never mix.
#include "modules/logger/kelvane_qor_logger.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "modules/common/lasting_state.h"
#include "modules/logger/log_files.h"
#include "modules/logger/log_settings.h"
#include "services/module_abi.h"

namespace {

using kv::logger::destination_kind;

struct open_log {
    std::string label;  // module id, and "/second id" if there is one, printable
    int32_t highest_level;
    int references;  // qor_get_log calls not yet matched by qor_free_log
    // Where lines go, guarded by the write lock: it turns to stderr once, when it fails.
    std::FILE* stream;
    bool owns_stream;
    std::string destination;  // how messages name it, as "stdout" or "the log file \"x.log\""
    std::string origin;       // the "file:line" of the configuration that chose it, if any

    ~open_log() {
        if (owns_stream) {
            std::fclose(stream);
        }
    }
};

struct logger_state {
    // Held only to look up, open or close a log, never while a line is written. A message being
    // written holds its own reference to its log, so closing waits for nobody.
    std::mutex logs_lock;
    std::map<std::pair<std::string, std::string>, std::shared_ptr<open_log>> by_ids;
    std::unordered_map<const void*, std::shared_ptr<open_log>> by_handle;
    // Held for each whole line written, to any destination.
    std::mutex write_lock;

    bool idle() const { return by_ids.empty(); }
};

kv::modules::lasting_state<logger_state> state;
kv::modules::release_at_unload<logger_state> release_state{state};

constexpr const char* level_labels[] = {"EMERGENCY", "ALERT",  "CRITICAL", "ERROR",
                                        "WARNING",   "NOTICE", "INFO",     "DEBUG"};

// Writes `text` whole and flushes it, so that a crash after a message keeps the message.
bool put(std::FILE* stream, const std::string& text) {
    const bool written = std::fwrite(text.data(), 1, text.size(), stream) == text.size();
    return std::fflush(stream) == 0 && written;
}

void warn(logger_state& s, const std::string& text) {
    std::lock_guard<std::mutex> guard(s.write_lock);
    put(stderr, "kelvane_qor_logger: warning: " + text + "\n");
}

// Writes one line of `log`. A destination that refuses it is given up for stderr, with one notice
// that says so, and the line goes there too: a full disk loses no later line in silence. The
// refused line still counts as failed, as the destination the host chose did not take it.
bool write_line(logger_state& s, open_log& log, const std::string& text) {
    std::lock_guard<std::mutex> guard(s.write_lock);
    errno = 0;
    if (put(log.stream, text)) {
        return true;
    }
    if (log.stream == stderr) {
        return false;  // nowhere left to turn
    }
    const int error = errno;
    if (log.owns_stream) {
        std::fclose(log.stream);  // unbuffered: nothing is left in it to go out later
    }
    log.stream = stderr;
    log.owns_stream = false;
    put(stderr, "kelvane_qor_logger: warning: " + log.origin + (log.origin.empty() ? "" : ": ") +
                    "cannot write to " + log.destination + " (" +
                    (error != 0 ? std::strerror(error) : "the write failed") +
                    "); writing the lines of " + log.label + " to stderr from now on\n");
    put(stderr, text);
    return false;
}

// "2025-03-14T09:26:53.589793Z": the civil date from the day count is computed here rather than
// with gmtime, whose thread-safe forms differ between platforms.
void append_utc_timestamp(std::string& line) {
    const int64_t microseconds = std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count();
    const int64_t per_day = int64_t{86400} * 1000000;
    int64_t days = microseconds / per_day;
    int64_t of_day = microseconds % per_day;
    if (of_day < 0) {
        of_day += per_day;
        --days;
    }
    // Days since 1970-01-01 to year, month, day in the proleptic Gregorian calendar.
    const int64_t z = days + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t day_of_era = z - era * 146097;
    const int64_t year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const int64_t day_of_year =
        day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const int64_t month_index = (5 * day_of_year + 2) / 153;
    const int64_t day = day_of_year - (153 * month_index + 2) / 5 + 1;
    const int64_t month = month_index < 10 ? month_index + 3 : month_index - 9;
    const int64_t year = year_of_era + era * 400 + (month <= 2 ? 1 : 0);

    const int64_t seconds = of_day / 1000000;
    char text[128];  // room for any 64-bit field, so no truncation is possible
    std::snprintf(text, sizeof text, "%04lld-%02lld-%02lldT%02lld:%02lld:%02lld.%06lldZ",
                  static_cast<long long>(year), static_cast<long long>(month),
                  static_cast<long long>(day), static_cast<long long>(seconds / 3600),
                  static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60),
                  static_cast<long long>(of_day % 1000000));
    line += text;
}

std::string printable_label(const std::string& module_id, const std::string& second_id) {
    std::string label;
    kv::logger::append_escaped(label, module_id.data(), module_id.size(),
                               kv::logger::escaping::controls);
    if (!second_id.empty()) {
        label += '/';
        kv::logger::append_escaped(label, second_id.data(), second_id.size(),
                                   kv::logger::escaping::controls);
    }
    return label;
}

std::shared_ptr<open_log> open(logger_state& s, const std::string& module_id,
                               const std::string& second_id, const char* config_file_name) {
    const kv::logger::settings_outcome outcome = kv::logger::load_settings(config_file_name);
    if (!outcome.warning.empty()) {
        warn(s, outcome.warning);
    }
    const kv::logger::log_settings& settings = outcome.settings;

    auto log = std::make_shared<open_log>();
    log->label = printable_label(module_id, second_id);
    log->highest_level = settings.highest_level;
    log->references = 1;
    const bool to_stdout = settings.destination == destination_kind::standard_output;
    log->stream = to_stdout ? stdout : stderr;
    log->owns_stream = false;
    log->destination = to_stdout ? "stdout" : "stderr";
    log->origin = settings.origin;
    if (settings.destination == destination_kind::file) {
        const std::string named =
            "the log file \"" + kv::logger::printable(settings.file_path, kv::logger::path_bytes) +
            "\"";
        std::string reason;
        std::FILE* file = kv::logger::open_for_append(settings.file_path, reason);
        if (file != nullptr) {
            log->stream = file;
            log->owns_stream = true;
            log->destination = named;
        } else {
            kv::logger::log_settings fallback = settings;
            fallback.destination = destination_kind::standard_error;
            warn(s, settings.origin + ": cannot open " + named + " (" + reason + "); writing " +
                        kv::logger::describe(fallback));
        }
    }
    return log;
}

}  // namespace

KV_MODULE_EXPORT void* qor_get_log(const char* module_id, const char* second_id,
                                   const char* config_file_name) {
    if (module_id == nullptr) {
        return nullptr;
    }
    try {
        logger_state& s = state.get();
        std::pair<std::string, std::string> ids(module_id, second_id != nullptr ? second_id : "");
        std::lock_guard<std::mutex> guard(s.logs_lock);
        auto found = s.by_ids.find(ids);
        if (found != s.by_ids.end()) {
            ++found->second->references;
            return found->second.get();
        }
        std::shared_ptr<open_log> log = open(s, ids.first, ids.second, config_file_name);
        s.by_handle.emplace(log.get(), log);
        try {
            s.by_ids.emplace(std::move(ids), log);
        } catch (...) {
            s.by_handle.erase(log.get());
            throw;
        }
        return log.get();
    } catch (...) {
        return nullptr;  // out of memory, or a lock that failed: no log
    }
}

KV_MODULE_EXPORT int32_t qor_log(void* log_handle, int32_t level, const char* file, int32_t line,
                                 const char* function, const char* message) {
    if (log_handle == nullptr || file == nullptr || function == nullptr || message == nullptr) {
        return QOR_LOG_BAD_ARGUMENT;
    }
    if (level < QOR_LEVEL_EMERGENCY || level > QOR_LEVEL_DEBUG) {
        return QOR_LOG_BAD_LEVEL;
    }
    try {
        logger_state& s = state.get();
        std::shared_ptr<open_log> log;
        {
            std::lock_guard<std::mutex> guard(s.logs_lock);
            auto found = s.by_handle.find(log_handle);
            if (found == s.by_handle.end()) {
                return QOR_LOG_BAD_ARGUMENT;
            }
            if (level > found->second->highest_level) {
                return QOR_LOG_SUCCESS;
            }
            log = found->second;
        }
        std::size_t message_length = std::strlen(message);
        while (message_length > 0 &&
               (message[message_length - 1] == '\n' || message[message_length - 1] == '\r')) {
            --message_length;
        }
        const std::size_t file_length = std::strlen(file);
        const std::size_t function_length = std::strlen(function);
        std::string text;
        text.reserve(96 + log->label.size() + file_length + function_length + message_length);
        append_utc_timestamp(text);
        text += ' ';
        text += level_labels[level];
        text += ' ';
        text += log->label;
        text += ' ';
        // Control bytes are escaped so that a message is one line and cannot steer a terminal.
        kv::logger::append_escaped(text, file, file_length, kv::logger::escaping::controls);
        text += ':';
        text += std::to_string(line);
        text += ' ';
        kv::logger::append_escaped(text, function, function_length, kv::logger::escaping::controls);
        text += ": ";
        kv::logger::append_escaped(text, message, message_length, kv::logger::escaping::controls);
        text += '\n';
        return write_line(s, *log, text) ? QOR_LOG_SUCCESS : QOR_LOG_WRITE_FAILED;
    } catch (...) {
        return QOR_LOG_WRITE_FAILED;  // out of memory for the line
    }
}

KV_MODULE_EXPORT int32_t qor_free_log(const char* module_id, const char* second_id) {
    if (module_id == nullptr) {
        return QOR_LOG_BAD_ARGUMENT;
    }
    try {
        logger_state& s = state.get();
        const std::pair<std::string, std::string> ids(module_id,
                                                      second_id != nullptr ? second_id : "");
        std::lock_guard<std::mutex> guard(s.logs_lock);
        auto found = s.by_ids.find(ids);
        if (found == s.by_ids.end()) {
            return QOR_LOG_BAD_ARGUMENT;
        }
        if (--found->second->references == 0) {
            s.by_handle.erase(found->second.get());
            s.by_ids.erase(found);  // the file closes when the last message in flight is out
        }
        return QOR_LOG_SUCCESS;
    } catch (...) {
        return QOR_LOG_BAD_ARGUMENT;
    }
}

// The definitions above must keep the exact types under which the library looks them up.
static_assert(std::is_same_v<decltype(&qor_get_log), kv::abi::qor_get_log_fn>);
static_assert(std::is_same_v<decltype(&qor_log), kv::abi::qor_log_fn>);
static_assert(std::is_same_v<decltype(&qor_free_log), kv::abi::qor_free_log_fn>);
