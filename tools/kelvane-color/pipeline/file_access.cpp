// Exclusive creation, bounded reading and checked standard output. The tool runs on Windows and
// on POSIX systems, and this file is the one place where that shows.
#include "pipeline/file_access.h"

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <new>
#include <optional>
#include <random>
#include <system_error>
#include <thread>

#include "cli/tool_error.h"
#include "pipeline/interruption.h"

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include "platform/windows_api.h"
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace kv_tool {
namespace {

namespace fs = std::filesystem;

std::string error_text(int error) {
    return std::strerror(error);
}

#if defined(_WIN32)
using stat_type = struct _stat64;
int open_for_reading(const std::string& path) {
    return _open(path.c_str(), _O_RDONLY | _O_BINARY | _O_NOINHERIT);
}
int status_of(int fd, stat_type* st) {
    return _fstat64(fd, st);
}
bool is_regular(const stat_type& st) {
    return (st.st_mode & _S_IFMT) == _S_IFREG;
}
const char* kind_of(const stat_type& st) {
    return (st.st_mode & _S_IFMT) == _S_IFDIR ? "a folder" : "a device or pipe";
}
// Shared for deletion, so that an interruption can remove the file while a writer holds it.
int create_exclusive(const std::string& path) {
    const HANDLE handle =
        CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                    CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        errno = error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS ? EEXIST
                : error == ERROR_PATH_NOT_FOUND                             ? ENOENT
                                                                            : EACCES;
        return -1;
    }
    const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_WRONLY | _O_BINARY);
    if (fd < 0) CloseHandle(handle);
    return fd;
}
std::FILE* stream_of(int fd, const char* mode) {
    return _fdopen(fd, mode);
}
void close_descriptor(int fd) {
    _close(fd);
}
// MoveFileEx replaces an existing file, which rename() on Windows refuses to do.
std::string move_into_place(const std::string& from, const std::string& to) {
    if (MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING)) return std::string();
    return std::error_code(int(GetLastError()), std::system_category()).message();
}
#else
using stat_type = struct stat;
int open_for_reading(const std::string& path) {
    // Non-blocking, so that opening a FIFO with no writer returns at once to be refused.
    return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}
int status_of(int fd, stat_type* st) {
    return ::fstat(fd, st);
}
bool is_regular(const stat_type& st) {
    return S_ISREG(st.st_mode);
}
const char* kind_of(const stat_type& st) {
    if (S_ISDIR(st.st_mode)) return "a folder";
    if (S_ISFIFO(st.st_mode)) return "a FIFO (named pipe)";
    if (S_ISSOCK(st.st_mode)) return "a socket";
    return "a device";
}
int create_exclusive(const std::string& path) {
    // 0666 less the umask: the finished file gets the permissions of any new file.
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
}
std::FILE* stream_of(int fd, const char* mode) {
    return ::fdopen(fd, mode);
}
void close_descriptor(int fd) {
    ::close(fd);
}
std::string move_into_place(const std::string& from, const std::string& to) {
    if (std::rename(from.c_str(), to.c_str()) == 0) return std::string();
    return error_text(errno);
}
#endif

// ".<name>.<16 hex digits>.kv-partial" in the target's folder: hidden, unpredictable, and kept
// within the usual 255-byte limit of a file name. One generator a thread: a batch writes several
// files at once.
std::string random_temporary_name(const std::string& path) {
    thread_local std::mt19937_64 random = [] {
        std::random_device device;
        const auto now = uint64_t(std::chrono::steady_clock::now().time_since_epoch().count());
        std::seed_seq seed{device(), device(), uint32_t(now), uint32_t(now >> 32)};
        return std::mt19937_64(seed);
    }();
    const std::filesystem::path target(path);
    std::string name = target.filename().string().substr(0, 200);
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, ".%016llx.kv-partial",
                  static_cast<unsigned long long>(random()));
    return (target.parent_path() / ("." + name + suffix)).string();
}

// An interruption is removing the temporaries and ending the program: create nothing more.
[[noreturn]] void wait_for_the_end() {
    for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
}

}  // namespace

input_file open_input(const std::string& path, uint64_t limit, const char* what) {
    const int fd = open_for_reading(path);
    if (fd < 0) {
        const int error = errno;
        // Windows refuses to open a folder at all; say what it is rather than "access denied".
        std::error_code ignored;
        if (std::filesystem::is_directory(path, ignored)) {
            throw file_error(path,
                             "is a folder, not a file; kelvane-color reads regular files only");
        }
        throw file_error(path, "cannot open: " + error_text(error));
    }
    stat_type st{};
    if (status_of(fd, &st) != 0) {
        const int error = errno;
        close_descriptor(fd);
        throw file_error(path, "cannot open: " + error_text(error));
    }
    if (!is_regular(st)) {
        close_descriptor(fd);
        throw file_error(path, std::string("is ") + kind_of(st) + ", not a file; kelvane-color " +
                                   "reads regular files only");
    }
    const auto size = uint64_t(st.st_size);
    if (size > limit) {
        close_descriptor(fd);
        throw file_error(path, "is " + std::to_string(size) + " bytes; kelvane-color reads " +
                                   what + " of at most " + std::to_string(limit) + " bytes");
    }
    input_file in;
    in.file.reset(stream_of(fd, "rb"));
    if (!in.file) {
        const int error = errno;
        close_descriptor(fd);
        throw file_error(path, "cannot open: " + error_text(error));
    }
    in.size = size;
    return in;
}

std::string read_small_file(const std::string& path, uint64_t limit, const char* what) {
    input_file in = open_input(path, limit, what);
    return read_whole(path, in.file.get(), in.size);
}

std::string read_whole(const std::string& path, std::FILE* file, uint64_t size) {
    std::string text;
    try {
        text.resize(size_t(size));
    } catch (const std::bad_alloc&) {
        throw file_error(path, "not enough memory to read its " + std::to_string(size) + " bytes");
    }
    if (!seek_to(file, 0)) throw file_error(path, "read error: " + error_text(errno));
    const size_t got = std::fread(&text[0], 1, text.size(), file);
    if (std::ferror(file)) throw file_error(path, "read error: " + error_text(errno));
    // A file that shrank while it was read ends where the reading did; one that grows is read
    // only to the size it had when opened.
    text.resize(got);
    return text;
}

bool seek_to(std::FILE* file, uint64_t offset) {
    if (offset > uint64_t(INT64_MAX)) return false;
#if defined(_WIN32)
    return _fseeki64(file, int64_t(offset), SEEK_SET) == 0;
#else
    return fseeko(file, off_t(offset), SEEK_SET) == 0;
#endif
}

void replace_file(const std::string& path, const file_writer& write) {
    replace_file(path, write, [&](int) { return random_temporary_name(path); });
}

void check_output_target(const std::string& path) {
    std::error_code error;
    const fs::file_status status = fs::symlink_status(path, error);
    const fs::file_type type = status.type();
    if (error || type == fs::file_type::not_found || type == fs::file_type::regular ||
        type == fs::file_type::symlink) {
        return;
    }
    const char* kind = type == fs::file_type::directory ? "a folder"
                       : type == fs::file_type::fifo    ? "a FIFO (named pipe)"
                       : type == fs::file_type::socket  ? "a socket"
                                                        : "a device";
    throw file_error(path, std::string("is ") + kind +
                               "; kelvane-color writes regular files only, not overwritten");
}

bool same_file(const std::string& a, const std::string& b) {
    std::error_code error;
    return fs::equivalent(a, b, error) && !error;
}

std::string file_identity(const std::string& path) {
    std::error_code error;
    fs::path resolved = fs::weakly_canonical(fs::absolute(path), error);
    if (error) resolved = fs::absolute(path).lexically_normal();
    std::string name = resolved.string();
#if defined(_WIN32)
    for (char& c : name) c = char(std::tolower(static_cast<unsigned char>(c)));
#endif
    return name;
}

void refuse_outputs_that_are_read(const std::vector<std::string>& outputs,
                                  const std::vector<read_file>& reads) {
    for (const std::string& output : outputs) {
        for (const read_file& read : reads) {
            if (same_file(output, read.path)) {
                throw file_error(output, "is " + read.what + " " + read.path +
                                             "; not overwritten, and the run writes nothing");
            }
        }
        check_output_target(output);
    }
}

void replace_file(const std::string& path, const file_writer& write,
                  const std::function<std::string(int attempt)>& temporary_name) {
    check_output_target(path);
    std::string temporary;
    std::optional<pending_removal> pending;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        temporary = temporary_name(attempt);
        pending.reset();
        pending.emplace(temporary);
        if (pending_removal::interrupted()) wait_for_the_end();
        fd = create_exclusive(temporary);
        if (fd < 0 && errno != EEXIST) {
            throw file_error(path, "cannot create: " + error_text(errno));
        }
    }
    if (fd < 0) throw file_error(path, "cannot create: no free temporary name beside it");
    if (pending_removal::interrupted()) {
        close_descriptor(fd);
        std::remove(temporary.c_str());
        wait_for_the_end();
    }
    std::FILE* out = stream_of(fd, "wb");
    if (out == nullptr) {
        const int error = errno;
        close_descriptor(fd);
        std::remove(temporary.c_str());
        throw file_error(path, "cannot create: " + error_text(error));
    }
    std::string failure = write(out);
    if (failure.empty() && (std::fflush(out) != 0 || std::ferror(out))) {
        failure = "cannot write: " + error_text(errno);
    }
    if (std::fclose(out) != 0 && failure.empty()) failure = "cannot write: " + error_text(errno);
    if (failure.empty()) {
        const std::string moved = move_into_place(temporary, path);
        if (moved.empty()) return;
        failure = "cannot replace it: " + moved;
    }
    std::remove(temporary.c_str());
    throw file_error(path, failure);
}

void finish_standard_output() {
    errno = 0;
    const bool flushed = std::fflush(stdout) == 0;
    const int error = errno;
    if (flushed && !std::ferror(stdout)) return;
    std::clearerr(stdout);
    throw tool_error(EXIT_FILE, "cannot write to standard output" +
                                    (error != 0 ? ": " + error_text(error) : std::string()));
}

}  // namespace kv_tool
