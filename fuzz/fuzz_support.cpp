// Shared pieces of the fuzz targets (POSIX only: the fuzz build is a Linux build).
#include "fuzz/fuzz_support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace kv_fuzz {

namespace {

std::string scratch_folder;
// The same folder and its files as plain text, for discard_private_directory().
char folder_path[256];
char file_paths[4][300];

void remove_scratch_folder() {
    if (scratch_folder.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(scratch_folder, ignored);
}

[[noreturn]] void fatal(const std::string& what) {
    std::fprintf(stderr, "fuzz: %s\n", what.c_str());
    std::exit(2);
}

}  // namespace

void finding(const std::string& what) {
    std::fprintf(stderr, "finding: %s\n", what.c_str());
    std::fflush(stderr);
    std::abort();
}

const std::string& private_directory() {
    if (scratch_folder.empty()) {
        struct stat shm {};
        const bool have_shm = ::stat("/dev/shm", &shm) == 0 && S_ISDIR(shm.st_mode) &&
                              ::access("/dev/shm", W_OK) == 0;
        std::string pattern = std::string(have_shm ? "/dev/shm" : "/tmp") + "/kv-fuzz-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            fatal("cannot create a folder from " + pattern + ": " + std::strerror(errno));
        }
        scratch_folder = pattern;
        std::snprintf(folder_path, sizeof folder_path, "%s", pattern.c_str());
        std::atexit(remove_scratch_folder);
    }
    return scratch_folder;
}

void discard_private_directory() {
    for (const char* file : file_paths) {
        if (file[0] != '\0') ::unlink(file);
    }
    if (folder_path[0] != '\0') ::rmdir(folder_path);
}

std::string write_private_file(const char* name, const uint8_t* data, size_t size) {
    const std::string path = private_directory() + "/" + name;
    for (char* slot : file_paths) {
        if (path == slot) break;
        if (slot[0] == '\0') {
            std::snprintf(slot, sizeof file_paths[0], "%s", path.c_str());
            break;
        }
    }
    // The folder is ours alone, so replacing our own earlier file is safe; O_NOFOLLOW still
    // refuses a link, should one appear there.
    const int fd =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) fatal("cannot create " + path + ": " + std::strerror(errno));
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, data + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) fatal("cannot write " + path + ": " + std::strerror(errno));
        done += size_t(n);
    }
    if (::close(fd) != 0) fatal("cannot write " + path + ": " + std::strerror(errno));
    return path;
}

}  // namespace kv_fuzz
