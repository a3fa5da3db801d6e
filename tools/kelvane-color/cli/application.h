// kelvane-color's modes (process, bench, info) behind one entry point that returns the exit code
// and prints every error as "kelvane-color: <message>" on stderr.
#pragma once

#include <string>
#include <vector>

namespace kv_tool {

int run_kelvane_color(const std::vector<std::string>& arguments);

}  // namespace kv_tool
