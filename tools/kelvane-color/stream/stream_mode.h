// kelvane-color --raw-input: frames of a raw stream (a pipe, a FIFO or a file) transformed and
// written as a raw stream, to standard output or a file.
#pragma once

#include "cli/settings.h"

namespace kv_tool {

// Runs the stream to its end; returns the exit code or throws the tool's error.
int run_stream(const settings& s);

}  // namespace kv_tool
