// The one error type of kelvane-color: a message that names the file or option at fault, and the
// exit code the program ends with.
#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

namespace kv_tool {

// Exit codes, as documented for users in docs/kelvane-color.md.
enum exit_code : int {
    EXIT_OK = 0,
    EXIT_FILE = 1,       // a file could not be read, parsed or written
    EXIT_USAGE = 2,      // a bad command line
    EXIT_LIBRARY = 3,    // the library could not start or create a processor
    EXIT_TRANSFORM = 4,  // the library refused a transform
    EXIT_MISMATCH = 5,   // bench: a tier's output differs from the scalar output
};

// Text from files, file names and libraries as it may safely reach a terminal: C0 bytes, DEL, the
// C1 controls (as UTF-8 or as lone bytes, which 8-bit terminals obey) and every byte that is not
// part of valid UTF-8 become \xNN; valid UTF-8 passes as it is. Applying it twice changes
// nothing, so every message may go through it again.
std::string printable(const std::string& text);

// A word quoted from a file for a message: escaped, and cut after `limit` bytes so a line of
// megabytes does not flood the terminal.
inline std::string excerpt(const std::string& text, size_t limit = 40) {
    return "'" + printable(text.substr(0, limit)) + (text.size() > limit ? "...'" : "'");
}

class tool_error : public std::runtime_error {
  public:
    tool_error(exit_code code, const std::string& message)
        : std::runtime_error(printable(message)), code_(code) {}
    exit_code code() const { return code_; }

  private:
    exit_code code_;
};

inline tool_error usage_error(const std::string& message) {
    return tool_error(EXIT_USAGE, message);
}
inline tool_error file_error(const std::string& path, const std::string& message) {
    return tool_error(EXIT_FILE, path + ": " + message);
}

}  // namespace kv_tool
