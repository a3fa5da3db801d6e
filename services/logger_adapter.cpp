// Construction, destruction and message formatting of the logging adapter.
#include "services/logger_adapter.h"

#include <cstdarg>
#include <cstdio>

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
    module_handle = platform::load_module(LOGGER_MODULE_BASE_NAME);
    if (module_handle == nullptr) {
        return;
    }
    auto get_log = reinterpret_cast<abi::qor_get_log_fn>(
        platform::module_symbol(module_handle, "qor_get_log"));
    if (get_log == nullptr) {
        return;
    }
    log_handle = get_log(module_id.c_str(), second_id.c_str(), config_file_name.c_str());
    if (log_handle == nullptr) {
        return;
    }
    log_function =
        reinterpret_cast<abi::qor_log_fn>(platform::module_symbol(module_handle, "qor_log"));
    if (log_function == nullptr) {
        return;
    }
    is_available = 1;
}

logger_adapter::~logger_adapter() {
    if (module_handle == nullptr) {
        return;
    }
    // The log is named by its two ids, so it is freed whether or not a log was ever obtained.
    try {
        auto free_log = reinterpret_cast<abi::qor_free_log_fn>(
            platform::module_symbol(module_handle, "qor_free_log"));
        if (free_log != nullptr) {
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
