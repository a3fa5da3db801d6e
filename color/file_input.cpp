// Bounded whole-file reads: the size is checked on the open file and again while reading, so a
// file that grows meanwhile is refused rather than read without end.
#include "color/file_input.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "color/color_error.h"

namespace kv_color {
namespace {

struct file_closer {
    void operator()(std::FILE* f) const { std::fclose(f); }
};

[[noreturn]] void refuse(const char* what, const std::string& path, const std::string& why) {
    throw color_error(status::unreadable_file,
                      std::string(what) + " '" + escaped(path) + "': " + why);
}

}  // namespace

std::vector<uint8_t> read_file(const std::string& path, uint64_t limit, const char* what) {
    if (path.empty() || path.find('\0') != std::string::npos) refuse(what, path, "no valid path");
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) refuse(what, path, std::strerror(errno));
    if (!S_ISREG(info.st_mode)) refuse(what, path, "not a regular file");
    if (uint64_t(info.st_size) > limit) {
        refuse(what, path,
               std::to_string(info.st_size) + " bytes, more than the " + std::to_string(limit) +
                   " accepted");
    }
    std::unique_ptr<std::FILE, file_closer> file(std::fopen(path.c_str(), "rb"));
    if (!file) refuse(what, path, std::strerror(errno));
    std::vector<uint8_t> bytes(size_t(info.st_size) + 1);
    const size_t got = std::fread(bytes.data(), 1, bytes.size(), file.get());
    if (std::ferror(file.get())) refuse(what, path, "read error");
    if (got > uint64_t(info.st_size) || got > limit) refuse(what, path, "the file grew while read");
    bytes.resize(got);
    return bytes;
}

std::string base_name(const std::string& path) {
    const size_t slash = path.find_last_of("/\\");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace kv_color
