// Files as kelvane-color opens them in folders others may share: inputs are regular files read
// within a size bound, outputs are created exclusively under a fresh name beside their target and
// renamed into place, and every write, standard output included, is checked.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kv_tool {

struct file_closer {
    void operator()(std::FILE* f) const {
        if (f != nullptr) std::fclose(f);
    }
};
using file_ptr = std::unique_ptr<std::FILE, file_closer>;

struct input_file {
    file_ptr file;
    uint64_t size = 0;  // bytes, as the file was when opened
};

// Opens `path` for reading. Anything but a regular file (a folder, FIFO, device or socket) is
// refused without blocking, and so is a file larger than `limit` bytes; `what` names the kind of
// file in that message ("image files", ".cube files").
input_file open_input(const std::string& path, uint64_t limit, const char* what);

// The whole of a regular file of at most `limit` bytes.
std::string read_small_file(const std::string& path, uint64_t limit, const char* what);

// The whole of an opened file of `size` bytes (as found when it was opened), from its start.
std::string read_whole(const std::string& path, std::FILE* file, uint64_t size);

// Moves the reading position to `offset` bytes from the start; false when that fails.
bool seek_to(std::FILE* file, uint64_t offset);

// Writes the whole file to `out`; returns "" or what went wrong, in words for the user.
using file_writer = std::function<std::string(std::FILE* out)>;

// An existing `path` that is not a regular file or a symbolic link (a folder, FIFO, device or
// socket) is refused with a file error: writing would replace it by a file.
void check_output_target(const std::string& path);

// One name for every spelling of a path: links, "." and ".." resolved as far as the path exists,
// and on Windows, whose file names ignore case, in one case.
std::string file_identity(const std::string& path);

// A file a run reads, and what it is to the user ("the input", "the .cube file").
struct read_file {
    std::string path;
    std::string what;
};

// Before the first write of a run: refuses the whole run when an output is any file the run
// reads, under any name (links, "./", "..", hard links, the case of a name on Windows), and when
// an output exists as anything but a regular file or link.
void refuse_outputs_that_are_read(const std::vector<std::string>& outputs,
                                  const std::vector<read_file>& reads);

// Writes `path` through a temporary created exclusively in the same folder (never following or
// replacing anything found at its name) and renames it over `path`: an existing file there is
// replaced, a symbolic link there is replaced by the file rather than followed, anything else is
// refused. On failure or interruption the temporary is removed and `path` keeps what it had; the
// error names `path` only.
void replace_file(const std::string& path, const file_writer& write);

// The same with the names to try given: attempt n (from 0) creates `temporary_name(n)`.
void replace_file(const std::string& path, const file_writer& write,
                  const std::function<std::string(int attempt)>& temporary_name);

// Flushes standard output and throws a file error (exit code 1) if any write to it failed.
void finish_standard_output();

}  // namespace kv_tool
