// Throughput of every path side by side in one run: the scalar kernels, the three vector modules
// (each followed by the scalar tail, as the library routes a frame), a memcpy of the frame's input
// bytes and, where OpenCV is installed, cv::transform on the same 16-bit 3x3 work. Five workloads
// at three frame sizes, each path also with two threads transforming halves of an interleaved
// frame at once; tables on stdout and, with --json, the same figures as JSON.
//
// --json FILE creates FILE and refuses to overwrite an existing one.
//
//   kv_vector_benchmark [--json FILE] [--modules DIR] [--min-time SECONDS] [--quick]
//                       [--workloads abcde] [--sizes 65536,1920x1080,3840x2160]
#include <fcntl.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#if defined(_WIN32)
#include <io.h>
#include <malloc.h>
#else
#include <unistd.h>
#endif

#if defined(KV_HAVE_OPENCV)
#include <opencv2/core.hpp>
#endif

#include "bench/bench_timing.h"
#include "bench/image_like_frame.h"
#include "kernels/dispatch.h"
#include "kernels/transform_request.h"
#include "modules/vector/instruction_sets.h"
#include "platform/module_loader.h"
#include "services/module_abi.h"
#include "services/module_contract.h"

namespace {

using kv::transform_request;

// ---------------------------------------------------------------------------------------------
// Paths
// ---------------------------------------------------------------------------------------------

struct vector_module {
    const char* label;
    const kv::module_names& names;
    kv::vector::instruction_set set;
    kv::abi::vector_transform_fn transform_8 = nullptr;
    kv::abi::vector_transform_fn transform_16 = nullptr;
    std::string unavailable;  // why the tier is skipped, empty when usable
};

// Loads the module from `directory` exactly (the build's, or --modules), with the library's names.
void load(vector_module& m, const std::string& directory) {
    if (const char* missing = kv::vector::missing_feature(m.set)) {
        m.unavailable = std::string("processor lacks ") + missing;
        return;
    }
    const std::string path = kv::platform::module_file_in(directory, m.names.base_name);
    kv::platform::module_handle handle = kv::platform::load_module_file(path);
    if (handle == nullptr) {
        m.unavailable = "cannot load " + path + ": " + kv::platform::last_error();
        return;
    }
    auto entry = [&](kv::vector_entry e) {
        return kv::platform::module_symbol(handle, m.names.entries[e]);
    };
    auto initialize = reinterpret_cast<kv::abi::vector_initialize_fn>(entry(kv::VECTOR_INITIALIZE));
    m.transform_8 =
        reinterpret_cast<kv::abi::vector_transform_fn>(entry(kv::VECTOR_TRANSFORM_8_BIT_OUTPUT));
    m.transform_16 =
        reinterpret_cast<kv::abi::vector_transform_fn>(entry(kv::VECTOR_TRANSFORM_16_BIT_OUTPUT));
    if (!initialize || !m.transform_8 || !m.transform_16) {
        m.unavailable = "entries missing in " + path;
    } else if (initialize() != 0) {
        m.unavailable = "initialize refused";
    }
}

// ---------------------------------------------------------------------------------------------
// Workloads
// ---------------------------------------------------------------------------------------------

struct workload {
    const char* key;
    const char* title;
    int width;
    kv::pixel_format input_format, output_format;
    bool input_LUTs, output_LUTs;
    int32_t shift;
    bool opencv_comparable;  // cv::transform does the same 3x3 work on 16-bit pixels
    const float* matrix;     // by rows, red, green, blue
};

// A typical camera-to-display matrix, by rows red, green, blue.
const float color_matrix[9] = {1.62f, -0.42f, -0.20f, -0.28f, 1.51f, -0.23f, 0.02f, -0.49f, 1.47f};
// White balance: gains on the diagonal, zeros elsewhere.
const float white_balance[9] = {1.08f, 0, 0, 0, 1.0f, 0, 0, 0, 0.93f};

const workload workloads[] = {
    {"a", "48 to 48 interleaved, matrix only", 16, kv::FORMAT_BGR_INTERLEAVED,
     kv::FORMAT_BGR_INTERLEAVED, false, false, 0, true, color_matrix},
    {"b", "48 to 24, output LUTs, right shift", 8, kv::FORMAT_BGR_INTERLEAVED,
     kv::FORMAT_BGR_INTERLEAVED, false, true, -8, false, color_matrix},
    {"c", "48 to 48, all six LUTs", 16, kv::FORMAT_BGR_INTERLEAVED, kv::FORMAT_BGR_INTERLEAVED,
     true, true, 0, false, color_matrix},
    {"d", "48 planar to 48 interleaved", 16, kv::FORMAT_BGR_PLANES, kv::FORMAT_BGR_INTERLEAVED,
     false, false, 0, false, color_matrix},
    {"e", "48 to 48, white balance, all six LUTs", 16, kv::FORMAT_BGR_INTERLEAVED,
     kv::FORMAT_BGR_INTERLEAVED, true, true, 0, false, white_balance},
};

struct frame_size {
    const char* label;
    int width, height;
};

const frame_size sizes[] = {
    {"65536", 256, 256}, {"1920x1080", 1920, 1080}, {"3840x2160", 3840, 2160}};

// Page-aligned, pre-faulted storage.
struct buffer {
    void* data = nullptr;
    size_t bytes = 0;
    explicit buffer(size_t size) : bytes(size) {
        const size_t rounded = (size + 4095) / 4096 * 4096 + 4096;
#if defined(_WIN32)
        data = _aligned_malloc(rounded, 4096);
#else
        data = std::aligned_alloc(4096, rounded);
#endif
        std::memset(data, 0, rounded);
    }
    ~buffer() {
#if defined(_WIN32)
        _aligned_free(data);
#else
        std::free(data);
#endif
    }
    buffer(const buffer&) = delete;
    buffer& operator=(const buffer&) = delete;
};

// Gamma-like curves: decode on the way in, encode on the way out (16-bit results).
std::vector<uint32_t> curve(double exponent) {
    std::vector<uint32_t> table(65536);
    for (uint32_t i = 0; i < 65536; ++i) {
        table[i] = uint32_t(std::lround(65535.0 * std::pow(i / 65535.0, exponent)));
    }
    return table;
}

using kv::bench::measure;
using kv::bench::timing;

// A second thread that runs a given job whenever asked, so that two threads can transform the
// halves of one frame at once without a thread start in every measurement.
class helper_thread {
  public:
    helper_thread() : thread_([this] { serve(); }) {}
    ~helper_thread() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    // Runs `mine` here and `theirs` on the helper, and returns when both are done.
    void run_both(const std::function<void()>& mine, const std::function<void()>& theirs) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            job_ = &theirs;
            done_.store(false, std::memory_order_relaxed);
        }
        wake_.notify_one();
        mine();
        while (!done_.load(std::memory_order_acquire)) std::this_thread::yield();
    }

  private:
    void serve() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return stop_ || job_ != nullptr; });
            if (stop_) return;
            const std::function<void()>* job = job_;
            job_ = nullptr;
            lock.unlock();
            (*job)();
            done_.store(true, std::memory_order_release);
            lock.lock();
        }
    }
    std::mutex mutex_;
    std::condition_variable wake_;
    const std::function<void()>* job_ = nullptr;
    bool stop_ = false;
    std::atomic<bool> done_{true};
    std::thread thread_;
};

struct result {
    std::string workload, size, path;
    uint64_t pixels;
    int threads;
    timing time;
    bool exact;  // output identical to the scalar kernels' (always true for memcpy / OpenCV)
    double mpix() const { return pixels / time.best_seconds / 1e6; }
};

// Creates `path` (never an existing file or link) and writes `text` into it; an empty result, or
// what went wrong.
std::string write_new_file(const std::string& path, const std::string& text) {
#if defined(_WIN32)
    const int fd = _open(path.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, 0644);
#else
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0644);
#endif
    if (fd < 0) return std::string("cannot create it (") + std::strerror(errno) + ")";
    size_t done = 0;
    while (done < text.size()) {
#if defined(_WIN32)
        const int n =
            _write(fd, text.data() + done, unsigned(std::min<size_t>(text.size() - done, 1 << 20)));
#else
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
#endif
        if (n <= 0) break;
        done += size_t(n);
    }
#if defined(_WIN32)
    const bool closed = _close(fd) == 0;
#else
    const bool closed = close(fd) == 0;
#endif
    if (done != text.size() || !closed) {
        return "write failed at byte " + std::to_string(done) + " of " +
               std::to_string(text.size());
    }
    return {};
}

// A command-line text as it can be shown: control bytes and bytes above ASCII as \xNN.
std::string printable(const std::string& s) {
    std::string out;
    for (unsigned char c : s) {
        if (c >= 0x20 && c < 0x7F) {
            out += char(c);
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
            out += escaped;
        }
    }
    return out;
}

struct options {
    std::string json_path, module_directory = KV_VECTOR_MODULE_DIRECTORY;
    std::string only_workloads = "abcde", only_sizes = "65536,1920x1080,3840x2160";
    double min_time = 0.4;
    int min_runs = 5;
};

// False, after the usage, on an argument it does not know.
bool parse_arguments(int argc, char** argv, options& o) {
    for (int a = 1; a < argc; ++a) {
        const std::string arg = argv[a];
        if (arg == "--json" && a + 1 < argc) {
            o.json_path = argv[++a];
        } else if (arg == "--modules" && a + 1 < argc) {
            o.module_directory = argv[++a];
        } else if (arg == "--min-time" && a + 1 < argc) {
            o.min_time = std::atof(argv[++a]);
        } else if (arg == "--workloads" && a + 1 < argc) {
            o.only_workloads = argv[++a];
        } else if (arg == "--sizes" && a + 1 < argc) {
            o.only_sizes = "," + std::string(argv[++a]) + ",";
        } else if (arg == "--quick") {
            o.min_time = 0.05;
            o.min_runs = 2;
        } else {
            std::fprintf(stderr,
                         "usage: %s [--json FILE] [--modules DIR] [--min-time SECONDS] "
                         "[--quick] [--workloads abcde] [--sizes 65536,1920x1080,3840x2160]\n"
                         "(unknown argument \"%s\")\n",
                         printable(argv[0]).c_str(), printable(arg).c_str());
            return false;
        }
    }
    return true;
}

// The gamma-like tables every workload with LUTs uses.
struct curves {
    std::vector<uint32_t> decode = curve(2.2), encode = curve(1.0 / 2.2);
};

// The request of workload `w` over the whole frame.
transform_request request_for(const workload& w, const frame_size& size, const buffer& input,
                              buffer& output, const kv::color_correction_head& matrix,
                              const curves& tables) {
    transform_request r;
    std::memset(&r, 0, sizeof r);
    r.input_buffer = static_cast<const uint16_t*>(input.data);
    r.input_format = w.input_format;
    r.output_buffer = output.data;
    r.output_format = w.output_format;
    r.pixel_count = int32_t(uint64_t(size.width) * size.height);
    r.processor = reinterpret_cast<const kv::color_correction*>(&matrix);
    r.blue_output_max = r.green_output_max = r.red_output_max = 0xFFFF;
    r.blue_input_LUT = r.green_input_LUT = r.red_input_LUT = tables.decode.data();
    r.blue_output_LUT = r.green_output_LUT = r.red_output_LUT = tables.encode.data();
    r.blue_input_LUT_enabled = r.green_input_LUT_enabled = r.red_input_LUT_enabled = w.input_LUTs;
    r.blue_output_LUT_enabled = r.green_output_LUT_enabled = r.red_output_LUT_enabled =
        w.output_LUTs;
    r.blue_shift_distance = r.green_shift_distance = r.red_shift_distance = w.shift;
    return r;
}

// What measure_case needs beside the workload and the frame size.
struct bench_context {
    const options& o;
    const std::vector<vector_module>& modules;
    const curves& tables;
    helper_thread& helper;
    std::vector<result>& results;
};

#if defined(KV_HAVE_OPENCV)
// cv::transform on the same 16-bit 3x3 work.
timing opencv_timing(const frame_size& size, const buffer& input, buffer& output,
                     const options& o) {
    const cv::Mat source(size.height, size.width, CV_16UC3, input.data);
    cv::Mat destination(size.height, size.width, CV_16UC3, output.data);
    // cv::transform's matrix maps source channels (B, G, R) to destination channels.
    const float* m = color_matrix;
    const cv::Matx33f bgr(m[8], m[7], m[6], m[5], m[4], m[3], m[2], m[1], m[0]);
    return measure([&] { cv::transform(source, destination, bgr); }, o.min_time, o.min_runs);
}
#endif

// The same frame as two halves of whole pixels, one a thread.
std::array<transform_request, 2> halves(const transform_request& r, int width, void* output) {
    const uint64_t n = uint64_t(r.pixel_count);
    std::array<transform_request, 2> half = {r, r};
    half[0].pixel_count = int32_t(n / 2);
    half[1].pixel_count = int32_t(n - n / 2);
    half[1].input_buffer = r.input_buffer + 3 * (n / 2);
    half[1].output_buffer = static_cast<uint8_t*>(output) + 3 * (width / 8) * (n / 2);
    return half;
}

// Every path on one workload at one frame size, each output compared with the scalar kernels'.
void measure_case(const workload& w, const frame_size& size, const bench_context& c) {
    kv::color_correction_head matrix;
    std::memcpy(matrix.matrix, w.matrix, sizeof matrix.matrix);
    const uint64_t n = uint64_t(size.width) * size.height;
    const size_t input_bytes = 6 * n, output_bytes = n * 3 * (w.width / 8);
    buffer input(input_bytes), output(output_bytes), expected(output_bytes), copy(input_bytes);
    kv_bench::image_like_frame(static_cast<uint16_t*>(input.data), size.width, size.height,
                               w.input_format == kv::FORMAT_BGR_PLANES);
    const transform_request r = request_for(w, size, input, output, matrix, c.tables);
    const double min_time = c.o.min_time;
    const int min_runs = c.o.min_runs;

    auto scalar = [&](const transform_request& request, int32_t start) {
        if (w.width == 8) {
            kv::dispatch_kernel_8(&request, start);
        } else {
            kv::dispatch_kernel_16(&request, start);
        }
    };
    auto add = [&](const char* path, int threads, const timing& t, bool exact) {
        c.results.push_back({w.key, size.label, path, n, threads, t, exact});
        std::fflush(stdout);
    };
    // Two threads on halves of interleaved frames only: planes are tied to the pixel count.
    const bool stripes = w.input_format != kv::FORMAT_BGR_PLANES;
    const std::array<transform_request, 2> half = halves(r, w.width, output.data);
    auto two_threads = [&](const std::function<void(const transform_request&)>& run) {
        std::memset(output.data, 0xEE, output_bytes);
        return measure([&] { c.helper.run_both([&] { run(half[0]); }, [&] { run(half[1]); }); },
                       min_time, min_runs);
    };
    auto matches = [&] { return std::memcmp(output.data, expected.data, output_bytes) == 0; };

    transform_request scalar_request = r;
    scalar_request.output_buffer = expected.data;
    add("scalar", 1, measure([&] { scalar(scalar_request, 0); }, min_time, 2), true);
    if (stripes) {
        const timing t = two_threads([&](const transform_request& q) { scalar(q, 0); });
        add("scalar", 2, t, matches());
    }
    for (const vector_module& m : c.modules) {
        if (!m.unavailable.empty()) continue;
        const auto transform = w.width == 8 ? m.transform_8 : m.transform_16;
        std::memset(output.data, 0xEE, output_bytes);
        const timing t = measure([&] { scalar(r, transform(&r)); }, min_time, min_runs);
        add(m.label, 1, t, matches());
        if (!stripes) continue;
        const timing t2 =
            two_threads([&](const transform_request& q) { scalar(q, transform(&q)); });
        add(m.label, 2, t2, matches());
    }
    add("memcpy", 1,
        measure([&] { std::memcpy(copy.data, input.data, input_bytes); }, min_time, min_runs),
        true);
#if defined(KV_HAVE_OPENCV)
    if (w.opencv_comparable) add("OpenCV", 1, opencv_timing(size, input, output, c.o), true);
#endif
}

const char* const paths[] = {"scalar", "SSE", "AVX2", "AVX-512", "memcpy", "OpenCV"};

// A figure of a table, or "-" when there is none.
void print_figure(double value, double shown, const char* format) {
    if (value > 0) {
        std::printf(format, shown);
    } else {
        std::printf(" %9s", "-");
    }
}

// One row per workload and size: Mpix/s per path, and the ratios the targets are stated in
// (path over reference path, both from this run).
void print_single_thread_table(const std::vector<result>& results) {
    struct ratio_column {
        const char* label;
        int path, reference;
    };
    const ratio_column ratios[] = {{"512/mcpy", 3, 4},
                                   {"512/OCV", 3, 5},
                                   {"AVX2/mcpy", 2, 4},
                                   {"SSE/scal", 1, 0},
                                   {"512/scal", 3, 0}};
    std::printf("\nMpix/s, best of repeated runs, single thread\n");
    std::printf("%-3s %-10s %9s %9s %9s %9s %9s %9s ", "", "size", "scalar", "SSE", "AVX2",
                "AVX-512", "memcpy", "OpenCV");
    for (const ratio_column& r : ratios) std::printf(" %9s", r.label);
    std::printf("\n");
    for (const workload& w : workloads) {
        for (const frame_size& size : sizes) {
            double value[6] = {0, 0, 0, 0, 0, 0};
            bool inexact = false, measured = false;
            for (const result& x : results) {
                if (x.workload != w.key || x.size != size.label || x.threads != 1) continue;
                for (int p = 0; p < 6; ++p) {
                    if (x.path == paths[p]) value[p] = x.mpix();
                }
                inexact = inexact || !x.exact;
                measured = true;
            }
            if (!measured) continue;
            std::printf("(%s) %-10s", w.key, size.label);
            for (double v : value) print_figure(v, v, " %9.0f");
            std::printf(" ");
            for (const ratio_column& r : ratios) {
                const double a = value[r.path], b = value[r.reference];
                print_figure(a > 0 && b > 0 ? a : 0, b > 0 ? a / b : 0, " %9.2f");
            }
            std::printf("%s\n", inexact ? "  OUTPUT DIFFERS FROM SCALAR" : "");
        }
    }
}

// Two threads on halves of the same frame, beside one thread of the same path.
void print_two_thread_table(const std::vector<result>& results) {
    std::printf(
        "\nMpix/s with 2 threads (halves of one interleaved frame), and x: over 1 thread\n");
    std::printf("%-3s %-10s", "", "size");
    for (int p = 0; p < 4; ++p) std::printf(" %9s %5s", paths[p], "x");
    std::printf("\n");
    for (const workload& w : workloads) {
        for (const frame_size& size : sizes) {
            double one[4] = {0, 0, 0, 0}, two[4] = {0, 0, 0, 0};
            bool inexact = false, measured = false;
            for (const result& x : results) {
                if (x.workload != w.key || x.size != size.label) continue;
                for (int p = 0; p < 4; ++p) {
                    if (x.path != paths[p]) continue;
                    (x.threads == 2 ? two : one)[p] = x.mpix();
                    measured = measured || x.threads == 2;
                    inexact = inexact || !x.exact;
                }
            }
            if (!measured) continue;
            std::printf("(%s) %-10s", w.key, size.label);
            for (int p = 0; p < 4; ++p) {
                if (two[p] > 0 && one[p] > 0) {
                    std::printf(" %9.0f %5.2f", two[p], two[p] / one[p]);
                } else {
                    std::printf(" %9s %5s", "-", "-");
                }
            }
            std::printf("%s\n", inexact ? "  OUTPUT DIFFERS FROM SCALAR" : "");
        }
    }
}

std::string results_json(const std::vector<result>& results) {
    std::ostringstream json;
    json << "{\n  \"unit\": \"Mpix/s\",\n  \"results\": [\n";
    for (size_t i = 0; i < results.size(); ++i) {
        const result& x = results[i];
        const workload* w = nullptr;
        for (const workload& candidate : workloads) {
            if (x.workload == candidate.key) w = &candidate;
        }
        json << "    {\"workload\": \"" << x.workload
             << "\", \"title\": " << kv::bench::json_string(w->title) << ", \"size\": \"" << x.size
             << "\", \"pixels\": " << x.pixels << ", \"path\": \"" << x.path
             << "\", \"threads\": " << x.threads << ", \"mpix_per_s\": " << x.mpix()
             << ", \"best_ms\": " << x.time.best_seconds * 1e3
             << ", \"median_ms\": " << x.time.median_seconds * 1e3 << ", \"runs\": " << x.time.runs
             << ", \"exact\": " << (x.exact ? "true" : "false") << "}"
             << (i + 1 < results.size() ? "," : "") << "\n";
    }
    json << "  ]\n}\n";
    return json.str();
}

// The three modules from `directory`, each with why it is skipped when it is.
std::vector<vector_module> load_modules(const std::string& directory) {
    std::vector<vector_module> modules = {
        {"SSE", kv::VECTOR_MODULES[0], kv::vector::instruction_set::sse41, nullptr, nullptr, {}},
        {"AVX2", kv::VECTOR_MODULES[1], kv::vector::instruction_set::avx2, nullptr, nullptr, {}},
        {"AVX-512",
         kv::VECTOR_MODULES[2],
         kv::vector::instruction_set::avx512,
         nullptr,
         nullptr,
         {}}};
    for (vector_module& m : modules) {
        load(m, directory);
        if (!m.unavailable.empty())
            std::printf("# %s skipped: %s\n", m.label, m.unavailable.c_str());
    }
    return modules;
}

}  // namespace

int main(int argc, char** argv) {
    options o;
    if (!parse_arguments(argc, argv, o)) return 2;
    const std::vector<vector_module> modules = load_modules(o.module_directory);
#if defined(KV_HAVE_OPENCV)
    cv::setNumThreads(1);
    std::printf("# OpenCV %s, cv::transform single-threaded\n", CV_VERSION);
#else
    std::printf("# OpenCV not found at build time: no cv::transform column\n");
#endif

    const curves tables;
    helper_thread helper;
    std::vector<result> results;
    const bench_context context{o, modules, tables, helper, results};
    for (const workload& w : workloads) {
        if (o.only_workloads.find(w.key) == std::string::npos) continue;
        for (const frame_size& size : sizes) {
            if (("," + o.only_sizes + ",").find("," + std::string(size.label) + ",") ==
                std::string::npos) {
                continue;
            }
            measure_case(w, size, context);
        }
    }

    print_single_thread_table(results);
    for (const workload& w : workloads) {
        if (o.only_workloads.find(w.key) != std::string::npos)
            std::printf("(%s) %s\n", w.key, w.title);
    }
    std::printf("memcpy copies the frame's input bytes (6 per pixel); OCV: cv::transform.\n");
    print_two_thread_table(results);

    bool all_exact = true;
    for (const result& x : results) all_exact = all_exact && x.exact;
    if (!o.json_path.empty()) {
        const std::string failure = write_new_file(o.json_path, results_json(results));
        if (!failure.empty()) {
            std::fprintf(stderr, "kv_vector_benchmark: --json %s: %s\n",
                         printable(o.json_path).c_str(), failure.c_str());
            return 2;
        }
        std::printf("JSON written to %s\n", printable(o.json_path).c_str());
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "kv_vector_benchmark: writing the tables to standard output failed\n");
        return 2;
    }
    return all_exact ? 0 : 1;
}
