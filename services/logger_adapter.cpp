// Construction, destruction and message formatting of the logging adapter.
#include "services/logger_adapter.h"

#include <cstdarg>
#include <cstdio>

#include "services/symbol_slots.h"

namespace kv {

logger_adapter::logger_adapter(const char* id)
    : module_handle(nullptr),
      log_handle(nullptr),
      log_function(nullptr),
      is_available(0),
      module_id(id),
      second_id(),
      config_file_name(LOGGER_CONFIG_FILE_NAME) {
    // Each missing piece ends construction quietly: there is nobody to tell.
    module_handle = platform::load_module(LOGGER_MODULE.base_name);
    if (module_handle == nullptr) {
        return;
    }
    // qor_log is found with qor_get_log but kept only once the module has given a log.
    abi::qor_get_log_fn get_log = nullptr;
    abi::qor_log_fn log = nullptr;
    const symbol_slot slots[] = {
        slot_for(LOGGER_MODULE.entries[QOR_GET_LOG], &get_log),
        slot_for(LOGGER_MODULE.entries[QOR_LOG], &log),
    };
    const bool complete = fill_slots(module_handle, slots);
    if (get_log == nullptr) {
        return;
    }
    log_handle = get_log(module_id.c_str(), second_id.c_str(), config_file_name.c_str());
    if (log_handle == nullptr || !complete) {
        return;
    }
    log_function = log;
    is_available = 1;
}

logger_adapter::~logger_adapter() {
    if (module_handle == nullptr) {
        return;
    }
    // The log is named by its two ids, so it is freed whether or not a log was ever obtained.
    try {
        abi::qor_free_log_fn free_log = nullptr;
        const symbol_slot slots[] = {slot_for(LOGGER_MODULE.entries[QOR_FREE_LOG], &free_log)};
        if (fill_slots(module_handle, slots)) {
            free_log(module_id.c_str(), second_id.c_str());
        }
        platform::release_module(module_handle);
    } catch (...) {
        // Teardown has nobody to report to and must not throw.
    }
}

bool logger_adapter::log_message(int32_t level, const char* file, int32_t line,
                                 const char* function, const char* format, ...) const {
    if (!is_available) {
        return false;
    }
    va_list arguments;
    va_start(arguments, format);
    va_list second_pass;
    va_copy(second_pass, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    if (length < 0) {
        va_end(second_pass);
        return false;
    }
    std::string text;
    try {
        text.resize(static_cast<std::size_t>(length));
    } catch (...) {
        va_end(second_pass);
        throw;
    }
    // resize() leaves room for the terminator behind the last character.
    std::vsnprintf(&text[0], static_cast<std::size_t>(length) + 1, format, second_pass);
    va_end(second_pass);
    return log_function(log_handle, level, file, line, function, text.c_str()) == 0;
}

}  // namespace kv
