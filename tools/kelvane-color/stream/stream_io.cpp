// Reading and writing frame streams. The tool runs on Windows and on POSIX systems; this file and
// file_access.cpp are where that shows.
#include "stream/stream_io.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "cli/tool_error.h"

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#else
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace kv_tool {
namespace {

constexpr const char* standard_input_name = "standard input";
// The largest request of one read or write call: Windows' calls take an unsigned int.
constexpr size_t max_call = size_t(1) << 30;

#if defined(_WIN32)
int open_source(const std::string& path) {
    const int fd = _open(path.c_str(), _O_RDONLY | _O_BINARY | _O_NOINHERIT);
    if (fd < 0) throw file_error(path, std::string("cannot open: ") + std::strerror(errno));
    struct _stat64 st {};
    if (_fstat64(fd, &st) != 0 || (st.st_mode & _S_IFMT) != _S_IFREG) {
        _close(fd);
        throw file_error(path,
                         "is not a regular file; kelvane-color reads frames from regular "
                         "files and standard input");
    }
    return fd;
}
bool wait_readable(int, const std::atomic<bool>& stop) {
    return !stop;
}
long read_some(int fd, void* data, size_t size) {
    return _read(fd, data, unsigned(size));
}
long write_some(int fd, const void* data, size_t size) {
    return _write(fd, data, unsigned(size));
}
void close_source(int fd) {
    _close(fd);
}
void enlarge_pipe(int) {}
void advise_pages(void*, size_t) {}
void prepare_standard_streams() {
    _setmode(0, _O_BINARY);
    _setmode(1, _O_BINARY);
}
bool is_terminal(int fd) {
    return _isatty(fd) != 0;
}
#else
const char* refused_kind(const struct stat& st) {
    if (S_ISREG(st.st_mode) || S_ISFIFO(st.st_mode)) return nullptr;
    if (S_ISDIR(st.st_mode)) return "a folder";
    if (S_ISSOCK(st.st_mode)) return "a socket";
    return "a device";
}
int open_source(const std::string& path) {
    // Non-blocking, so that a FIFO without a writer opens at once; reads wait in poll().
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) throw file_error(path, std::string("cannot open: ") + std::strerror(errno));
    struct stat st {};
    const char* kind = ::fstat(fd, &st) == 0 ? refused_kind(st) : "unreadable";
    if (kind != nullptr) {
        ::close(fd);
        throw file_error(path, std::string("is ") + kind +
                                   "; kelvane-color reads frames from "
                                   "regular files, FIFOs and standard input");
    }
    return fd;
}
// Waits until a read will not block, checking `stop` every tenth of a second; false once stopped.
bool wait_readable(int fd, const std::atomic<bool>& stop) {
    for (;;) {
        if (stop) return false;
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, 100);
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return true;  // let the read report it
    }
}
long read_some(int fd, void* data, size_t size) {
    return long(::read(fd, data, size));
}
long write_some(int fd, const void* data, size_t size) {
    return long(::write(fd, data, size));
}
void close_source(int fd) {
    ::close(fd);
}
// A pipe of 1 MiB (Linux's limit for unprivileged programs) rather than 64 KiB: a sixteenth of
// the system calls and context switches for frames of megabytes. Best effort.
void enlarge_pipe(int fd) {
#if defined(F_SETPIPE_SZ)
    constexpr int size = 1 << 20;
    struct stat st {};
    if (::fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode) && ::fcntl(fd, F_GETPIPE_SZ) < size) {
        ::fcntl(fd, F_SETPIPE_SZ, size);
    }
#else
    (void)fd;
#endif
}
void advise_pages(void* data, size_t size) {
#if defined(MADV_HUGEPAGE)
    constexpr uintptr_t page = uintptr_t(1) << 21;
    const uintptr_t first = (uintptr_t(data) + page - 1) & ~(page - 1);
    const uintptr_t end = (uintptr_t(data) + size) & ~(page - 1);
    if (end > first) ::madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
#else
    (void)data;
    (void)size;
#endif
}
void prepare_standard_streams() {
    ::signal(SIGPIPE, SIG_IGN);
}
bool is_terminal(int fd) {
    return ::isatty(fd) != 0;
}
#endif

std::string write_error(int error) {
    std::string text = std::string("cannot write: ") + std::strerror(error);
    if (error == EPIPE) text += " (the program reading the output has closed it)";
    return text;
}

}  // namespace

raw_source::raw_source(const std::string& path)
    : fd_(path == "-" ? 0 : open_source(path)),
      owned_(path != "-"),
      name_(path == "-" ? standard_input_name : path) {
    enlarge_pipe(fd_);
    if (owned_) return;
    prepare_standard_streams();
    if (is_terminal(0)) {
        throw tool_error(EXIT_USAGE,
                         "-: standard input is a terminal; send the frames through a "
                         "pipe or name a file");
    }
}

raw_source::~raw_source() {
    if (owned_) close_source(fd_);
}

size_t raw_source::read_up_to(void* data, size_t size, const std::atomic<bool>& stop) {
    auto* bytes = static_cast<unsigned char*>(data);
    size_t got = 0;
    while (got < size && wait_readable(fd_, stop)) {
        const long n = read_some(fd_, bytes + got, std::min(size - got, max_call));
        if (n == 0) break;
        if (n > 0) {
            got += size_t(n);
        } else if (errno != EINTR && errno != EAGAIN) {
            throw file_error(name_, std::string("read error: ") + std::strerror(errno));
        }
    }
    return got;
}

raw_sink standard_output_sink() {
    prepare_standard_streams();
    if (is_terminal(1)) {
        throw tool_error(
            EXIT_USAGE, "-o -: standard output is a terminal; send the frames to a pipe or a file");
    }
    return [](const void* data, size_t size) -> std::string {
        const auto* bytes = static_cast<const unsigned char*>(data);
        while (size > 0) {
            const long n = write_some(1, bytes, std::min(size, max_call));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return write_error(n < 0 ? errno : EIO);
            bytes += n;
            size -= size_t(n);
        }
        return std::string();
    };
}

void advise_large_pages(void* data, size_t size) {
    advise_pages(data, size);
}

raw_sink file_sink(std::FILE* out) {
    return [out](const void* data, size_t size) -> std::string {
        if (std::fwrite(data, 1, size, out) == size) return std::string();
        return write_error(errno);
    };
}

}  // namespace kv_tool
