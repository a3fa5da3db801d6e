/* kelvane_qor_logger: the logging module of the color processing library. The library loads it by
 * file name ("kelvane_qor_logger.so" / "kelvane_qor_logger.dll") and finds these three functions
 * by name; a missing module only turns logging off.
 *
 * A log is named by two ids. Its settings come from a configuration file (see docs/modules.md):
 * the highest level written and where lines go. Each written message is one line:
 *
 *   2025-03-14T09:26:53.589793Z ERROR MODULE_ID[/SECOND_ID] file:line function: message
 *
 * with a UTC timestamp. Control bytes in the texts (all but tab) are written as \xNN, so that a
 * message stays one line. All functions are safe to call from several threads at once; lines from
 * different threads never mix. */
#ifndef KELVANE_QOR_LOGGER_H
#define KELVANE_QOR_LOGGER_H

#include <stdint.h>

/* Windows hosts that link the module import its functions (so that a function's address is the
 * module's own); the module's build defines KV_LOGGER_BUILD and exports them by its .def file. */
#if defined(_WIN32) && !defined(KV_LOGGER_BUILD)
#define QOR_LOG_API __declspec(dllimport)
#else
#define QOR_LOG_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Levels, as in syslog: the lower, the more severe. */
#define QOR_LEVEL_EMERGENCY 0
#define QOR_LEVEL_ALERT 1
#define QOR_LEVEL_CRITICAL 2
#define QOR_LEVEL_ERROR 3
#define QOR_LEVEL_WARNING 4
#define QOR_LEVEL_NOTICE 5
#define QOR_LEVEL_INFO 6
#define QOR_LEVEL_DEBUG 7

/* Results of qor_log and qor_free_log. */
#define QOR_LOG_SUCCESS 0
#define QOR_LOG_BAD_ARGUMENT (-1) /* NULL text, or a handle or ids of no open log */
#define QOR_LOG_BAD_LEVEL (-2)    /* a level outside 0 to 7; nothing is written */
#define QOR_LOG_WRITE_FAILED (-3) /* the destination refused the line (see qor_log) */

/* Opens the log named by `module_id` and `second_id` (NULL counts as ""), or takes one more
 * reference to it if it is open already, and returns its handle: the same handle for the same ids
 * until the last reference is freed. A new log reads its settings from the configuration file
 * `config_file_name` (NULL: "kelvane_qor_logger.cfg"): an absolute path is used as it stands, any
 * other name is looked for in the current directory and then beside this module. Without a file,
 * levels 0 to 3 go to stderr. A file that is there but cannot be used (not a regular file, larger
 * than 64 KiB, unreadable, or with a bad line) gives the same defaults and one warning on stderr;
 * opening never waits on a FIFO or a device. Returns NULL for a NULL `module_id` or when memory
 * runs out. */
QOR_LOG_API void* qor_get_log(const char* module_id, const char* second_id,
                              const char* config_file_name);

/* Writes one message if `level` is within the log's settings. `file`, `line` and `function` name
 * the place that logs; a trailing line break of `message` is dropped. Returns QOR_LOG_SUCCESS
 * also for a message that the settings filter out. When a file or stdout destination refuses a
 * line, this call returns QOR_LOG_WRITE_FAILED, one warning on stderr says so, and that line and
 * all later ones of the log go to stderr; QOR_LOG_WRITE_FAILED then means stderr refused it. */
QOR_LOG_API int32_t qor_log(void* log_handle, int32_t level, const char* file, int32_t line,
                            const char* function, const char* message);

/* Drops one reference to the log named by the two ids; the last one closes it, and its handle is
 * refused from then on. Returns QOR_LOG_SUCCESS, or QOR_LOG_BAD_ARGUMENT if no such log is open. */
QOR_LOG_API int32_t qor_free_log(const char* module_id, const char* second_id);

#ifdef __cplusplus
}
#endif

#endif /* KELVANE_QOR_LOGGER_H */
