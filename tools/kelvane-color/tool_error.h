// The one error type of kelvane-color: a message that names the file or option at fault, and the
// exit code the program ends with.
#pragma once

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

class tool_error : public std::runtime_error {
  public:
    tool_error(exit_code code, const std::string& message)
        : std::runtime_error(message), code_(code) {}
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
