// The process mode of kelvane-color: every input (or the chart) through one processor, each to
// its output, with a summary line or a progress line and a summary for a batch.
#pragma once

#include <vector>

#include "cli/settings.h"
#include "pipeline/file_access.h"

namespace kv_tool {

// The files a run reads: its images and the .cube files of its curves.
std::vector<read_file> files_read(const settings& s);

// Returns the exit code; throws the error that ends a run of one input.
int run_process(const settings& s);

}  // namespace kv_tool
