// kelvane-color's modes behind one entry point: --help, --version, --info, bench and the process
// mode, and the error reporting around them.
#include "cli/application.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>

#include "bench/bench.h"
#include "cli/tool_error.h"
#include "pipeline/batch.h"
#include "pipeline/color.h"
#include "pipeline/plan.h"
#include "pipeline/profile_info.h"
#include "pipeline/run.h"
#include "pipeline/system_probe.h"
#include "stream/stream_mode.h"

#if !defined(KV_TOOL_VERSION)
#define KV_TOOL_VERSION "0"
#endif

namespace kv_tool {
namespace {

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

// --info FILE...: each image's size and the profile it carries; a file that cannot be read is
// reported and the others go on.
int run_file_info(const settings& s) {
    int code = EXIT_OK;
    for (const std::string& input : s.inputs) {
        try {
            const image picture = read_image(input);
            std::printf("%s: %dx%d, %s\n", printable(input).c_str(), picture.width, picture.height,
                        picture.channels == 4 ? "RGBA" : "RGB");
            std::printf("  profile: %s\n", printable(profile_text(picture.profile)).c_str());
            const std::string refusal = profile_refusal(picture.profile);
            if (!refusal.empty()) {
                std::printf("  refused as a source: %s\n", printable(refusal).c_str());
            }
        } catch (const tool_error& e) {
            std::fflush(stdout);
            std::fprintf(stderr, "kelvane-color: %s\n", e.what());
            code = e.code();
        }
    }
    return code;
}

int run_list_spaces() {
    for (const std::string& name : kelvane::color_space_names()) std::printf("%s\n", name.c_str());
    return EXIT_OK;
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
    std::optional<color_run> color;
    if (color_requested(s)) color.emplace(s);
    const bench_result result = run_bench(s, system, picture, source, color ? &*color : nullptr);
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
            // The text outgrows stdio's buffer: a full disk shows here, with its reason.
            if (std::fputs(usage_text(), stdout) == EOF) {
                const int error = errno;
                std::clearerr(stdout);  // said once, here
                errno = error;
                throw tool_error(EXIT_FILE, std::string("cannot write to standard output: ") +
                                                std::strerror(errno));
            }
            return EXIT_OK;
        case run_mode::version:
            std::printf("kelvane-color %s\n", KV_TOOL_VERSION);
            return EXIT_OK;
        case run_mode::info:
            return s.inputs.empty() ? run_info(s) : run_file_info(s);
        case run_mode::list_spaces:
            return run_list_spaces();
        case run_mode::bench:
            return run_bench_mode(s);
        case run_mode::process:
            return s.raw_input ? run_stream(s) : run_process(s);
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
