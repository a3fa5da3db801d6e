// The three modes of kelvane-color and the error reporting around them.
#include "cli/application.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "bench.h"
#include "cli/tool_error.h"
#include "file_access.h"
#include "image/chart.h"
#include "pipeline/plan.h"
#include "processing.h"
#include "system_probe.h"

#if !defined(KV_TOOL_VERSION)
#define KV_TOOL_VERSION "0"
#endif

namespace kv_tool {
namespace {

namespace fs = std::filesystem;

std::string backend_text(int32_t backend) {
    return backend == 0 ? std::string("the scalar kernels do the whole frame")
                        : tier_name(backend) + " module, the scalar kernels finish the frame";
}

std::string tier_text(const settings& s, const system_report& system) {
    return s.tier ? tier_name(*s.tier) + " (forced)" : tier_name(system.cpu.tier) + " (detected)";
}

std::string format_text(const settings& s, bool raw, file_type type) {
    std::string text = std::to_string(s.bits) + "-bit " + (s.channels == 4 ? "RGBA" : "RGB");
    if (raw) {
        return std::to_string(s.bits * s.channels) + "-bit raw " + layout_name(s.output_layout);
    }
    return text + " " + file_type_name(type);
}

int run_info(const settings& s) {
    const system_report system = probe_system();
    std::printf("kelvane-color %s\n", KV_TOOL_VERSION);
    const std::string library = library_path();
    std::printf("library:   %s\n",
                library.empty() ? "(location unknown)" : printable(library).c_str());
    const cpu_report& cpu = system.cpu;
    std::printf("processor: avx512 %s, avx2 %s, sse %s; tier %s (%d)\n", cpu.avx512 ? "yes" : "no",
                cpu.avx2 ? "yes" : "no", cpu.sse ? "yes" : "no", tier_name(cpu.tier).c_str(),
                cpu.tier);
    std::printf("modules (found by file name through the platform's search order):\n");
    const module_report* modules[] = {&system.LUT, &system.logger, &system.vector[0],
                                      &system.vector[1], &system.vector[2]};
    for (const module_report* m : modules) {
        std::string where = m->path.empty() ? m->detail : m->path;
        if (!m->path.empty() && !m->detail.empty()) where = m->detail + ", " + m->path;
        std::printf("  %-46s %-10s %s\n", m->file_name.c_str(), module_state_name(m->state),
                    printable(where).c_str());
    }
    const int32_t tier = s.tier.value_or(cpu.tier);
    std::printf("frames at tier %s: %s\n", tier_text(s, system).c_str(),
                backend_text(routed_backend(tier, system.vector)).c_str());
    const kv_status status = kv_color_processing_module_initialize();
    kv_color_processing_module_terminate();
    std::printf("library start: kv_color_processing_module_initialize returned %s\n",
                status_name(status).c_str());
    if (status != KV_STATUS_SUCCESS) {
        std::fprintf(stderr,
                     "kelvane-color: the library cannot start: the LUT module is missing or "
                     "incomplete\n");
        return EXIT_LIBRARY;
    }
    return EXIT_OK;
}

// The input image, or the chart for "".
image read_source(const std::string& input, const settings& s) {
    if (!input.empty()) return read_image(input);
    try {
        return make_chart(s.chart_width, s.chart_height);
    } catch (const std::bad_alloc&) {
        throw file_error("chart", "not enough memory for its " + std::to_string(s.chart_width) +
                                      "x" + std::to_string(s.chart_height) + " pixels");
    }
}

// The files a run reads: its images and the .cube files of its curves.
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

// Reads, transforms and writes one job; `threads` stripes for its frame.
void run_job(job& j, const settings& s, const output_route& route, const processor& p,
             unsigned threads) {
    try {
        const image picture = read_source(j.input, s);
        j.width = picture.width;
        j.height = picture.height;
        const std::vector<uint16_t> input = to_input_buffer(picture, s.input_layout);
        const size_t out_size = output_bytes(s, picture.pixel_count());
        std::vector<uint16_t> output((output_bytes(route.library, picture.pixel_count()) + 1) / 2);
        const auto pixels = int32_t(picture.pixel_count());
        const auto start = std::chrono::steady_clock::now();
        const kv_status status = run_transform(p, route.library, route.plan, input.data(),
                                               output.data(), pixels, threads);
        j.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        check_transform(status, j.name, route.library, route.plan);
        output = finish_frame(route, std::move(output), picture.pixel_count());
        if (j.target.empty()) return;
        if (j.type == file_type::raw) {
            write_file(j.target, output.data(), out_size);
        } else {
            write_image(j.target, j.type, from_output_buffer(output.data(), s, picture));
        }
    } catch (const std::bad_alloc&) {
        // The image was read (its reader reports its own shortage), so the buffers of the
        // transform or of the output image are what did not fit.
        j.failure = file_error(j.name, "not enough memory for the buffers that process it");
    } catch (const tool_error& e) {
        if (e.code() == EXIT_FILE) {
            j.failure = e;
        } else {
            j.fatal = std::current_exception();
        }
    } catch (...) {
        j.fatal = std::current_exception();
    }
}

// Runs the jobs on up to s.threads threads: files at once in a batch, each frame in stripes with
// the threads left over. `report(i)` is called on this thread for every job in input order, as
// soon as it and those before it are done, until a job ends the run.
void run_jobs(std::vector<job>& jobs, const settings& s, const output_route& route,
              const processor& p, const std::function<bool(size_t)>& report) {
    const size_t workers = std::min<size_t>(s.threads, jobs.size());
    const unsigned stripes = std::max(1u, s.threads / unsigned(workers));
    std::mutex mutex;
    std::condition_variable changed;
    size_t next = 0;
    bool stop = false;
    auto work = [&] {
        for (;;) {
            size_t i;
            {
                std::lock_guard<std::mutex> lock(mutex);
                while (next < jobs.size() && jobs[next].refusal) jobs[next++].finished = true;
                if (stop || next == jobs.size()) break;
                i = next++;
                jobs[i].claimed = true;
            }
            run_job(jobs[i], s, route, p, stripes);
            std::lock_guard<std::mutex> lock(mutex);
            jobs[i].finished = true;
            stop = stop || jobs[i].fatal;
            changed.notify_all();
        }
        std::lock_guard<std::mutex> lock(mutex);
        changed.notify_all();
    };
    std::vector<std::thread> threads;
    if (workers > 1) {
        try {
            for (size_t w = 0; w < workers; ++w) threads.emplace_back(work);
        } catch (const std::system_error&) {
            // Fewer threads than asked for: those that started share the work.
        }
    }
    if (threads.empty()) work();
    auto stop_all = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        stop = true;
    };
    try {
        for (size_t i = 0; i < jobs.size(); ++i) {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [&] {
                return jobs[i].finished || jobs[i].refusal || (stop && !jobs[i].claimed);
            });
            if (!jobs[i].finished && !jobs[i].refusal) break;  // the run ended before this job
            lock.unlock();
            if (!report(i)) {
                stop_all();
                break;
            }
        }
    } catch (...) {
        // The workers are joined before anything leaves this function.
        stop_all();
        for (std::thread& t : threads) t.join();
        throw;
    }
    for (std::thread& t : threads) t.join();
}

int run_process(const settings& s) {
    const system_report system = probe_system();
    // Without an output file only the library's own frame is timed.
    const output_route route = route_output(s, !s.output.empty()      ? file_type_of(s.output, "-o")
                                               : s.output_dir.empty() ? file_type::raw
                                                                      : s.output_type);
    const settings& library = route.library;
    const pipeline_plan& plan = route.plan;
    const processor p(library, plan, s.tier);
    const int32_t tier = s.tier.value_or(system.cpu.tier);
    const int32_t backend = routed_backend(tier, system.vector);

    std::vector<job> jobs;
    if (s.inputs.empty()) jobs.emplace_back("", "chart");
    for (const std::string& input : s.inputs) jobs.emplace_back(input, input);
    // The settings are refused, if at all, before a file is read or written: every frame of the
    // run would be refused alike.
    {
        uint16_t in[3] = {}, out[4] = {};
        check_transform(run_transform(p, library, plan, in, out, 0), jobs[0].name, library, plan);
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

    const bool batch = jobs.size() > 1;
    progress_line progress(!s.quiet, jobs.size());
    int result = EXIT_OK;
    size_t done = 0;
    double total_pixels = 0, total_seconds = 0;
    std::exception_ptr fatal;
    run_jobs(jobs, s, route, p, [&](size_t i) {
        const job& j = jobs[i];
        progress.show(i, j.name);
        if (j.fatal) {
            fatal = j.fatal;
            return false;
        }
        const std::optional<tool_error>& error = j.refusal ? j.refusal : j.failure;
        if (error) {
            if (!batch) {
                fatal = std::make_exception_ptr(*error);
                return false;
            }
            progress.interrupt();
            std::fprintf(stderr, "kelvane-color: %s\n", error->what());
            result = EXIT_FILE;
            return true;
        }
        const double pixels = double(j.width) * j.height;
        ++done;
        total_pixels += pixels;
        total_seconds += j.seconds;
        if (!batch && !s.quiet) {
            std::printf(
                "kelvane-color: %s %dx%d%s%s%s\n", printable(j.name).c_str(), j.width, j.height,
                j.target.empty() ? "" : " -> ", printable(j.target).c_str(),
                j.target.empty()
                    ? ""
                    : (" (" + format_text(s, j.type == file_type::raw, j.type) + ")").c_str());
            std::printf("  tier %s: %s; %u threads; %.2f Mpix in %.2f ms, %.1f Mpix/s\n",
                        tier_text(s, system).c_str(), backend_text(backend).c_str(), s.threads,
                        pixels / 1e6, j.seconds * 1e3,
                        j.seconds > 0 ? pixels / j.seconds / 1e6 : 0);
        }
        return true;
    });
    progress.finish();
    if (fatal) std::rethrow_exception(fatal);
    if (batch && !s.quiet) {
        std::printf(
            "kelvane-color: %zu of %zu files done; tier %s: %s; %u threads; %.2f Mpix, %.1f "
            "Mpix/s a transform\n",
            done, jobs.size(), tier_text(s, system).c_str(), backend_text(backend).c_str(),
            s.threads, total_pixels / 1e6,
            total_seconds > 0 ? total_pixels / total_seconds / 1e6 : 0);
    }
    return result;
}

int run_bench_mode(const settings& s) {
    std::vector<std::string> outputs;
    if (!s.json.empty() && s.json != "-") outputs.push_back(s.json);
    if (!s.svg.empty()) outputs.push_back(s.svg);
    refuse_outputs_that_are_read(outputs, files_read(s));
    library_session session;
    const system_report system = probe_system();
    const std::string source = s.inputs.empty() ? "chart" : s.inputs[0];
    const image picture = read_source(s.inputs.empty() ? std::string() : s.inputs[0], s);
    const bench_result result = run_bench(s, system, picture, source);
    if (s.json != "-" && !s.quiet) std::fputs(bench_table(result, s).c_str(), stdout);
    if (!s.json.empty()) {
        const std::string json = bench_json(result, s);
        if (s.json == "-") {
            std::fputs(json.c_str(), stdout);
        } else {
            write_file(s.json, json.data(), json.size());
        }
    }
    if (!s.svg.empty()) {
        const std::string svg = bench_svg(result, s);
        write_file(s.svg, svg.data(), svg.size());
    }
    for (const bench_row& row : result.tiers) {
        if (row.measured && !row.matches_scalar) {
            std::fprintf(stderr,
                         "kelvane-color: bench: the %s output differs from the scalar "
                         "output\n",
                         tier_name(row.tier).c_str());
            return EXIT_MISMATCH;
        }
    }
    return EXIT_OK;
}

int run_selected(const settings& s) {
    switch (s.mode) {
        case run_mode::help:
            std::fputs(usage_text(), stdout);
            return EXIT_OK;
        case run_mode::version:
            std::printf("kelvane-color %s\n", KV_TOOL_VERSION);
            return EXIT_OK;
        case run_mode::info:
            return run_info(s);
        case run_mode::bench:
            return run_bench_mode(s);
        case run_mode::process:
            return run_process(s);
    }
    return EXIT_OK;
}

}  // namespace

int run_kelvane_color(const std::vector<std::string>& arguments) {
    int code = EXIT_OK;
    try {
        code = run_selected(parse_command_line(arguments));
    } catch (const tool_error& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "kelvane-color: %s\n", e.what());
        code = e.code();
    } catch (const std::bad_alloc&) {
        std::fflush(stdout);
        std::fprintf(stderr, "kelvane-color: not enough memory\n");
        code = EXIT_FILE;
    }
    // A full disk or a closed pipe on standard output is a failure like any other write's.
    try {
        finish_standard_output();
    } catch (const tool_error& e) {
        std::fprintf(stderr, "kelvane-color: %s\n", e.what());
        if (code == EXIT_OK) code = e.code();
    }
    return code;
}

}  // namespace kv_tool
