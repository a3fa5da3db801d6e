// A run's inputs as jobs, and running them on threads: files at once in a batch, each frame cut
// into stripes with the threads left over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/settings.h"
#include "cli/tool_error.h"
#include "pipeline/processing.h"

namespace kv_tool {

// One input of a run and what became of it. Everything but the outcome is settled in input order
// before any work starts, so that a batch run on several threads decides as one thread would.
struct job {
    job(std::string input_file, std::string message_name)
        : input(std::move(input_file)), name(std::move(message_name)) {}
    std::string input;   // "" for the chart
    std::string name;    // for messages
    std::string target;  // "" when nothing is written
    file_type type = file_type::raw;
    std::optional<tool_error> refusal;  // found before the work: the job does not run

    bool claimed = false, finished = false;
    std::optional<tool_error> failure;  // a file error: reported, a batch goes on
    std::exception_ptr fatal;           // anything else ends the run
    int32_t width = 0, height = 0;
    double seconds = 0;  // in the transform
};

// The input image, or the chart for "".
image read_source(const std::string& input, const settings& s);

// Runs the jobs on up to s.threads threads: files at once in a batch, each frame in stripes with
// the threads left over. `report(i)` is called on this thread for every job in input order, as
// soon as it and those before it are done, until a job ends the run or `report` returns false.
void run_jobs(std::vector<job>& jobs, const settings& s, const output_route& route,
              const processor& p, const std::function<bool(size_t)>& report);

}  // namespace kv_tool
