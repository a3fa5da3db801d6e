// The process mode: the jobs of a run planned in input order, run, and reported.
#include "pipeline/run.h"

#include <cstdio>
#include <filesystem>
#include <set>
#include <system_error>

#include "pipeline/batch.h"
#include "pipeline/plan.h"
#include "pipeline/system_probe.h"

namespace kv_tool {

std::vector<read_file> files_read(const settings& s) {
    std::vector<read_file> reads;
    for (const std::string& input : s.inputs) reads.push_back({input, "the input"});
    for (const std::array<curve, 3>* curves : {&s.input_LUT, &s.output_LUT}) {
        for (const curve& c : *curves) {
            if (c.kind == curve_kind::cube) reads.push_back({c.text, "the .cube file"});
        }
    }
    return reads;
}

namespace {

namespace fs = std::filesystem;

std::string format_text(const settings& s, bool raw, file_type type) {
    std::string text = std::to_string(s.bits) + "-bit " + (s.channels == 4 ? "RGBA" : "RGB");
    if (raw) {
        return std::to_string(s.bits * s.channels) + "-bit raw " + layout_name(s.output_layout);
    }
    return text + " " + file_type_name(type);
}

class progress_line {
  public:
    progress_line(bool shown, size_t total)
        : shown_(shown && total > 1), terminal_(stderr_is_terminal()), total_(total) {}
    void show(size_t index, const std::string& name) {
        if (!shown_) return;
        std::fprintf(stderr, terminal_ ? "\r[%zu/%zu] %s\x1b[K" : "[%zu/%zu] %s\n", index + 1,
                     total_, printable(name).c_str());
        std::fflush(stderr);
    }
    // Before any other message, so it does not run into the progress line.
    void interrupt() {
        if (shown_ && terminal_) std::fputc('\n', stderr);
    }
    void finish() { interrupt(); }

  private:
    bool shown_, terminal_;
    size_t total_;
};

std::string output_path_for(const settings& s, const job& j, file_type* type) {
    if (!s.output.empty()) {
        *type = file_type_of(s.output, "-o");
        return s.output;
    }
    *type = s.output_type;
    const std::string stem = j.input.empty() ? "chart" : fs::path(j.input).stem().string();
    return (fs::path(s.output_dir) / (stem + file_type_extension(*type))).string();
}

// The jobs of a run, the chart's when there is no input, with every output decided before any
// work starts: refused when it is a file the run reads, or written already by an earlier job.
// The settings are refused, if at all, before a file is read or written: every frame of the run
// would be refused alike.
std::vector<job> plan_jobs(const settings& s, const output_route& route, const processor& p) {
    std::vector<job> jobs;
    if (s.inputs.empty()) jobs.emplace_back("", "chart");
    for (const std::string& input : s.inputs) jobs.emplace_back(input, input);
    {
        uint16_t in[3] = {}, out[4] = {};
        check_transform(run_transform(p, route.library, route.plan, in, out, 0), jobs[0].name,
                        route.library, route.plan);
    }
    std::vector<std::string> targets;
    for (job& j : jobs) {
        if (s.output.empty() && s.output_dir.empty()) continue;
        targets.push_back(output_path_for(s, j, &j.type));
    }
    refuse_outputs_that_are_read(targets, files_read(s));
    if (!s.output_dir.empty()) {
        std::error_code error;
        fs::create_directories(s.output_dir, error);
        if (error || !fs::is_directory(s.output_dir)) {
            throw file_error(s.output_dir, "cannot create the output folder" +
                                               (error ? ": " + error.message() : std::string()));
        }
    }
    std::set<std::string> written;
    for (size_t i = 0; i < targets.size(); ++i) {
        if (written.insert(file_identity(targets[i])).second) {
            jobs[i].target = targets[i];
        } else {
            jobs[i].refusal = file_error(targets[i],
                                         "written already by an earlier input of this run; not "
                                         "overwritten by " +
                                             jobs[i].name);
        }
    }
    return jobs;
}

// What a run says as its jobs are done: a file error of a batch is reported and the batch goes
// on; any other error ends the run. One input gets its own lines, a batch a summary.
class run_report {
  public:
    run_report(const settings& s, const system_report& system, int32_t backend, size_t jobs)
        : s_(s),
          tier_(tier_text(s, system)),
          backend_(backend_text(backend)),
          batch_(jobs > 1),
          progress_(!s.quiet, jobs) {}

    // After job `i`; false ends the run.
    bool job_done(size_t i, const job& j) {
        progress_.show(i, j.name);
        if (j.fatal) {
            fatal_ = j.fatal;
            return false;
        }
        const std::optional<tool_error>& error = j.refusal ? j.refusal : j.failure;
        if (error) {
            if (!batch_) {
                fatal_ = std::make_exception_ptr(*error);
                return false;
            }
            progress_.interrupt();
            std::fprintf(stderr, "kelvane-color: %s\n", error->what());
            result_ = EXIT_FILE;
            return true;
        }
        ++done_;
        total_pixels_ += double(j.width) * j.height;
        total_seconds_ += j.seconds;
        if (!batch_ && !s_.quiet) one_input(j);
        return true;
    }

    // After the last job: the error that ended the run, or the summary; the exit code.
    int finish(size_t jobs) {
        progress_.finish();
        if (fatal_) std::rethrow_exception(fatal_);
        if (batch_ && !s_.quiet) {
            std::printf(
                "kelvane-color: %zu of %zu files done; tier %s: %s; %u threads; %.2f Mpix, %.1f "
                "Mpix/s a transform\n",
                done_, jobs, tier_.c_str(), backend_.c_str(), s_.threads, total_pixels_ / 1e6,
                total_seconds_ > 0 ? total_pixels_ / total_seconds_ / 1e6 : 0);
        }
        return result_;
    }

  private:
    void one_input(const job& j) const {
        const double pixels = double(j.width) * j.height;
        std::printf("kelvane-color: %s %dx%d%s%s%s\n", printable(j.name).c_str(), j.width, j.height,
                    j.target.empty() ? "" : " -> ", printable(j.target).c_str(),
                    j.target.empty()
                        ? ""
                        : (" (" + format_text(s_, j.type == file_type::raw, j.type) + ")").c_str());
        std::printf("  tier %s: %s; %u threads; %.2f Mpix in %.2f ms, %.1f Mpix/s\n", tier_.c_str(),
                    backend_.c_str(), s_.threads, pixels / 1e6, j.seconds * 1e3,
                    j.seconds > 0 ? pixels / j.seconds / 1e6 : 0);
    }

    const settings& s_;
    const std::string tier_, backend_;
    const bool batch_;
    progress_line progress_;
    int result_ = EXIT_OK;
    size_t done_ = 0;
    double total_pixels_ = 0, total_seconds_ = 0;
    std::exception_ptr fatal_;
};

}  // namespace

int run_process(const settings& s) {
    const system_report system = probe_system();
    // Without an output file only the library's own frame is timed.
    const output_route route = route_output(s, !s.output.empty()      ? file_type_of(s.output, "-o")
                                               : s.output_dir.empty() ? file_type::raw
                                                                      : s.output_type);
    const processor p(route.library, route.plan, s.tier);
    const int32_t backend = routed_backend(s.tier.value_or(system.cpu.tier), system.vector);
    std::vector<job> jobs = plan_jobs(s, route, p);
    run_report report(s, system, backend, jobs.size());
    run_jobs(jobs, s, route, p, [&](size_t i) { return report.job_done(i, jobs[i]); });
    return report.finish(jobs.size());
}

}  // namespace kv_tool
