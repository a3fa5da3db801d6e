// The bytes of a frame stream: read from standard input, a FIFO or a regular file with every read
// bounded, written to standard output or an opened file with every write checked.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>

namespace kv_tool {

class raw_source {
  public:
    // "-" is standard input. Another path must be a regular file or a FIFO (opening it does not
    // wait for a writer); a folder, device or socket is refused.
    explicit raw_source(const std::string& path);
    ~raw_source();
    raw_source(const raw_source&) = delete;
    raw_source& operator=(const raw_source&) = delete;

    // Reads into `data` until `size` bytes are there, the stream ends or `stop` is set (checked
    // while waiting for data); never asks for more than `size`. Returns the bytes read. Throws a
    // file error on a read error.
    size_t read_up_to(void* data, size_t size, const std::atomic<bool>& stop);
    const std::string& name() const { return name_; }

  private:
    int fd_ = -1;
    bool owned_ = false;
    std::string name_;
};

// Writes all `size` bytes; returns "" or what went wrong, in words for the user.
using raw_sink = std::function<std::string(const void* data, size_t size)>;

// Standard output, switched to binary where that matters, with SIGPIPE ignored so that a closed
// pipe is an error this program reports rather than a silent death. Refuses a terminal.
raw_sink standard_output_sink();
raw_sink file_sink(std::FILE* out);

// Asks the system to back a frame buffer with large pages where it can: a frame of megabytes then
// costs a few page faults rather than thousands. Only a hint.
void advise_large_pages(void* data, size_t size);

}  // namespace kv_tool
