// The logging module's file access: its configuration file read within a bound from regular files
// only, and log files opened to append to. Neither ever waits on a FIFO or a device.
#pragma once

#include <cstdio>
#include <string>

namespace kv {
namespace logger {

// Opens `path` to append log lines to, creating the file if it is missing. A link is followed, as
// logs kept elsewhere through a link are common; a FIFO with no reader is refused at once instead
// of stopping the host. The stream is unbuffered (each line goes out in one write, and a failed
// write leaves nothing behind to go out later) and is not inherited by child processes. Returns
// NULL, with the system's reason in `reason`, when the file cannot be opened.
std::FILE* open_for_append(const std::string& path, std::string& reason);

}  // namespace logger
}  // namespace kv
