// Temporaries that an interrupted run removes: SIGINT, SIGTERM, SIGHUP and SIGPIPE on POSIX
// systems, the console's Ctrl-C, Ctrl-Break and close events on Windows.
#pragma once

#include <string>

namespace kv_tool {

// Installs the handlers once. An interruption removes every registered name, then ends the
// program as the signal would have (status 128 + its number; on Windows 130 for Ctrl-C, 149 for
// Ctrl-Break and 129 for a closed console).
void install_interruption_cleanup();

// Registers `path` for removal by an interruption while this lives. Register a temporary before
// creating it: a name removed before it exists costs nothing, a file created unregistered would
// be left behind. Throws a file error when the name does not fit the fixed table.
class pending_removal {
  public:
    explicit pending_removal(const std::string& path);
    ~pending_removal();
    pending_removal(const pending_removal&) = delete;
    pending_removal& operator=(const pending_removal&) = delete;

    // True once an interruption has begun: the caller must not create the file any more, and
    // removes one it created meanwhile.
    static bool interrupted();

  private:
    int slot_;
};

// What an interruption does before the program ends; also for tests.
void remove_pending_files();

}  // namespace kv_tool
