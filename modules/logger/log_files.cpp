// Finding and reading the configuration file, and opening log files. A configuration file sits in
// a folder that anyone may have prepared, so it is opened without waiting on anything, used only
// if it is a regular file, and read no further than its bound.
#include "modules/logger/log_files.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "modules/logger/log_settings.h"

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

namespace kv {
namespace logger {

namespace {

constexpr const char* default_config_name = "kelvane_qor_logger.cfg";

enum class read_result { done, missing, refused };

std::string cannot_read(const std::string& error) {
    return "cannot read it (" + error + ")";
}

std::string not_regular(const char* kind) {
    return std::string("ignored, it is ") + kind + " and not a regular file";
}

// A function, not a static string: a log may be opened from an at-exit handler, after the
// module's statics are gone.
std::string too_large() {
    return "ignored, it is larger than " + std::to_string(max_config_bytes / 1024) + " KiB";
}

// Reads a regular file through `read_some` (bytes read, 0 at its end, below 0 after setting
// `reason`) up to one byte past the bound, which tells a file at the bound from a larger one.
template <typename Read>
read_result read_bounded(Read read_some, std::string& text, std::string& reason) {
    text.resize(max_config_bytes + 1);
    std::size_t size = 0;
    while (size < text.size()) {
        const long long count = read_some(&text[size], text.size() - size);
        if (count < 0) {
            return read_result::refused;
        }
        if (count == 0) {
            break;
        }
        size += static_cast<std::size_t>(count);
    }
    text.resize(size);
    if (size > max_config_bytes) {
        reason = too_large();
        return read_result::refused;
    }
    return read_result::done;
}

#if defined(_WIN32)

std::string system_message(DWORD error) {
    char text[256];
    DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                  nullptr, error, 0, text, sizeof text, nullptr);
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r' ||
                          text[length - 1] == ' ' || text[length - 1] == '.')) {
        --length;
    }
    return length > 0 ? std::string(text, length) : "error " + std::to_string(error);
}

// The backup-semantics flag lets a directory open too, so that it is named as one below.
read_result read_config(const std::string& path, std::string& text, std::string& reason) {
    const HANDLE file = CreateFileA(path.c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) {
            return read_result::missing;
        }
        reason = cannot_read(system_message(error));
        return read_result::refused;
    }
    read_result result = read_result::refused;
    BY_HANDLE_FILE_INFORMATION information{};
    const DWORD type = GetFileType(file);
    if (type == FILE_TYPE_PIPE) {
        reason = not_regular("a pipe");
    } else if (type != FILE_TYPE_DISK) {
        reason = not_regular("a device");
    } else if (!GetFileInformationByHandle(file, &information)) {
        reason = cannot_read(system_message(GetLastError()));
    } else if ((information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        reason = not_regular("a directory");
    } else {
        result = read_bounded(
            [&](char* data, std::size_t size) -> long long {
                DWORD count = 0;
                if (!ReadFile(file, data, static_cast<DWORD>(size), &count, nullptr)) {
                    reason = cannot_read(system_message(GetLastError()));
                    return -1;
                }
                return count;
            },
            text, reason);
    }
    CloseHandle(file);
    return result;
}

#else

const char* kind_of(mode_t mode) {
    if (S_ISDIR(mode)) {
        return "a directory";
    }
    if (S_ISFIFO(mode)) {
        return "a FIFO";
    }
    if (S_ISCHR(mode) || S_ISBLK(mode)) {
        return "a device";
    }
    return S_ISSOCK(mode) ? "a socket" : "of an unknown kind";
}

// Opening with O_NONBLOCK returns at once for a FIFO with no writer; only a regular file is read,
// and that in blocking mode.
read_result read_config(const std::string& path, std::string& text, std::string& reason) {
    const int file = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (file < 0) {
        if (errno == ENOENT || errno == ENOTDIR) {
            return read_result::missing;
        }
        reason = cannot_read(std::strerror(errno));
        return read_result::refused;
    }
    read_result result = read_result::refused;
    struct stat status {};
    const int flags = fcntl(file, F_GETFL);
    if (fstat(file, &status) != 0) {
        reason = cannot_read(std::strerror(errno));
    } else if (!S_ISREG(status.st_mode)) {
        reason = not_regular(kind_of(status.st_mode));
    } else if (flags < 0 || fcntl(file, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        reason = cannot_read(std::strerror(errno));
    } else {
        result = read_bounded(
            [&](char* data, std::size_t size) -> long long {
                ssize_t count = 0;
                do {
                    count = ::read(file, data, size);
                } while (count < 0 && errno == EINTR);
                if (count < 0) {
                    reason = cannot_read(std::strerror(errno));
                }
                return count;
            },
            text, reason);
    }
    ::close(file);
    return result;
}

#endif

}  // namespace

std::FILE* open_for_append(const std::string& path, std::string& reason) {
#if defined(_WIN32)
    const int file =
        _open(path.c_str(), _O_WRONLY | _O_APPEND | _O_CREAT | _O_BINARY | _O_NOINHERIT,
              _S_IREAD | _S_IWRITE);
    if (file < 0) {
        reason = std::strerror(errno);
        return nullptr;
    }
    std::FILE* stream = _fdopen(file, "ab");
    if (stream == nullptr) {
        reason = std::strerror(errno);
        _close(file);
        return nullptr;
    }
#else
    const int file = ::open(
        path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    if (file < 0) {
        reason = std::strerror(errno);
        return nullptr;
    }
    // Blocking from here on: a pipe whose reader is slow holds a line back rather than drop it.
    const int flags = fcntl(file, F_GETFL);
    std::FILE* stream =
        flags >= 0 && fcntl(file, F_SETFL, flags & ~O_NONBLOCK) == 0 ? fdopen(file, "ab") : nullptr;
    if (stream == nullptr) {
        reason = std::strerror(errno);
        ::close(file);
        return nullptr;
    }
#endif
    std::setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

settings_outcome load_settings(const char* config_file_name) {
    const std::string name = config_file_name != nullptr && *config_file_name != '\0'
                                 ? config_file_name
                                 : default_config_name;
    std::vector<std::string> candidates = {name};
    const std::string beside_module = module_directory();
    if (!is_absolute_path(name) && !beside_module.empty()) {
        candidates.push_back(beside_module + name);
    }
    // The first file that is there decides, even when it cannot be used: a refused file in the
    // current folder must not quietly hand over to another one.
    for (const std::string& path : candidates) {
        std::string text;
        std::string reason;
        switch (read_config(path, text, reason)) {
            case read_result::missing:
                continue;
            case read_result::refused:
                return refused_file(path, 0, reason);
            case read_result::done:
                return parse_settings(path, text);
        }
    }
    return {};
}

}  // namespace logger
}  // namespace kv
