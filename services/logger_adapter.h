// The adapter around the logging module: finds it by name, keeps what is needed to talk to it,
// and turns a printf-like call into the one finished text the module takes. Without the module,
// or with an incomplete one, the adapter exists and stays silent.
#pragma once

#include <cstdint>
#include <string>

#include "platform/module_loader.h"
#include "platform/source_name.h"
#include "services/module_abi.h"
#include "services/module_contract.h"

#if defined(__GNUC__) || defined(__clang__)
#define KV_PRINTF_FORMAT(format_index, first_argument) \
    __attribute__((format(printf, format_index, first_argument)))
#else
#define KV_PRINTF_FORMAT(format_index, first_argument)
#endif

namespace kv {

// The two levels the library uses; their meaning belongs to the logging module.
constexpr int32_t LOG_LEVEL_ERROR = 2;
constexpr int32_t LOG_LEVEL_TRACE = 7;

// Every error format starts with "%s " and gets this for it, which makes two blanks after the
// colon in the delivered text.
constexpr const char* ERROR_PREFIX = "ERROR: ";

constexpr const char* LOGGER_MODULE_BASE_NAME = LOGGER_MODULE.base_name;

struct logger_adapter {
    platform::module_handle module_handle;
    void* log_handle;
    abi::qor_log_fn log_function;
    uint8_t is_available;
    std::string module_id;
    std::string second_id;  // never assigned, but handed to the logging module all the same
    std::string config_file_name;

    explicit logger_adapter(const char* id);
    ~logger_adapter();
    logger_adapter(const logger_adapter&) = delete;
    logger_adapter& operator=(const logger_adapter&) = delete;

    // True when the logging module took the message. Throws std::bad_alloc when the text cannot
    // be held.
    bool log_message(int32_t level, const char* file, int32_t line, const char* function,
                     const char* format, ...) const KV_PRINTF_FORMAT(6, 7);
};

}  // namespace kv

// A log call site: logs through `logger` unless it is NULL, with this source file's base name and
// the line of the statement. The result is of no interest to any caller.
#define KV_LOG(logger, level, function_label, ...)                                          \
    do {                                                                                    \
        if (::kv::logger_adapter* kv_log_target = (logger)) {                               \
            kv_log_target->log_message((level), ::kv::platform::source_base_name(__FILE__), \
                                       __LINE__, (function_label), __VA_ARGS__);            \
        }                                                                                   \
    } while (0)
