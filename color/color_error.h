// The colour layer's one error type: what was refused, why and where, with a status for the C ABI.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace kv_color {

// The C ABI's statuses (kelvane_qor_color.h repeats them for hosts).
enum class status : int32_t {
    ok = 0,
    invalid_argument = 1,  // a caller's value: an unknown name, a depth other than 8 or 16, NULL
    unreadable_file = 2,   // a file that cannot be opened, read, or is too large
    profile_refused = 3,   // an ICC profile that is damaged or is no RGB matrix-shaper
    process_list_refused = 4,  // a CLF/CTF file that is malformed or needs more than one processor
    library_failed = 5,        // the processing library refused a call
    out_of_memory = 6,
    internal = 7,
};

class color_error : public std::runtime_error {
  public:
    color_error(status s, const std::string& message) : std::runtime_error(message), status_(s) {}
    status code() const noexcept { return status_; }

  private:
    status status_;
};

// Text from outside (names, file names, XML content) made safe to print: control bytes, bytes
// above 126 and backslashes become \xNN escapes, and the result is cut at `limit` characters.
std::string escaped(const std::string& text, size_t limit = 200);

}  // namespace kv_color
