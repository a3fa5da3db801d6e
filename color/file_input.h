// Reading a whole input file with a bound on its size.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kv_color {

// The bytes of a regular file of at most `limit` bytes. Throws color_error (unreadable_file)
// naming `what` and the path for a missing, unreadable, irregular or larger file.
std::vector<uint8_t> read_file(const std::string& path, uint64_t limit, const char* what);

// The last part of a path, for labels.
std::string base_name(const std::string& path);

}  // namespace kv_color
