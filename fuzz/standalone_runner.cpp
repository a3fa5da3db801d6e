// A main for any fuzz target without libFuzzer: replays the target's regression cases, then the
// corpus given on the command line, then a number of cases made by a seeded generator from
// mutations of the corpus and random bytes. A finding (a crash, a sanitizer report, a failed
// check) saves the case to a file and prints it as hex before the process dies.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)(void));

#if defined(__SANITIZE_ADDRESS__)
#define KV_FUZZ_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KV_FUZZ_ASAN 1
#endif
#endif

#if defined(KV_FUZZ_ASAN)
// Inputs here are small, so an allocation of gigabytes means a size taken on trust from a file:
// let the sanitizer report it instead of the machine running out of memory.
extern "C" const char* __asan_default_options() {
    return "max_allocation_size_mb=1024";
}
#else
#include <sys/resource.h>
#endif

namespace {

using bytes = std::vector<uint8_t>;

constexpr const char* usage =
    "usage: %s [--cases N] [--seed S] [--max-len BYTES] [--findings DIR] [CORPUS...]\n"
    "Runs the regression cases of this target, then every file of CORPUS (files or folders),\n"
    "then N cases generated from a seeded generator (default 10000; the seed defaults to the\n"
    "clock and is printed). A finding is saved to DIR (default: the current folder) and printed\n"
    "as hex; the exit status is then non-zero.\n";

// What runs now, for the report of a process that is dying.
struct current_case {
    const uint8_t* data = nullptr;
    size_t size = 0;
    char path[4096] = {};  // where a finding is saved
    volatile sig_atomic_t reported = 0;
} running;

void write_text(const char* text) {
    size_t left = std::strlen(text);
    while (left > 0) {
        const ssize_t n = ::write(STDERR_FILENO, text, left);
        if (n <= 0) return;
        text += n;
        left -= size_t(n);
    }
}

// Async-signal-safe: only open, write and close.
void report_running_case() {
    if (running.reported || running.data == nullptr) return;
    running.reported = 1;
    write_text("finding: the case being run is saved as ");
    write_text(running.path);
    const int fd = ::open(running.path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    bool saved = fd >= 0;
    for (size_t done = 0; saved && done < running.size;) {
        const ssize_t n = ::write(fd, running.data + done, running.size - done);
        if (n <= 0) saved = false;
        done += n > 0 ? size_t(n) : 0;
    }
    if (fd >= 0 && ::close(fd) != 0) saved = false;
    write_text(saved ? "\n" : " (failed: the file exists or the folder is not writable)\n");
    static const char digits[] = "0123456789abcdef";
    const size_t shown = std::min<size_t>(running.size, 1024);
    char line[16 * 3 + 2];
    for (size_t i = 0; i < shown; i += 16) {
        size_t p = 0;
        for (size_t j = i; j < std::min(shown, i + 16); ++j) {
            line[p++] = digits[running.data[j] >> 4];
            line[p++] = digits[running.data[j] & 15];
            line[p++] = ' ';
        }
        line[p++] = '\n';
        line[p] = '\0';
        write_text(line);
    }
    if (shown < running.size) write_text("... (the rest is in the file)\n");
}

void on_fatal_signal(int signal_number) {
    report_running_case();
    kv_fuzz::discard_private_directory();
    ::signal(signal_number, SIG_DFL);
    ::raise(signal_number);
}

void install_reporters() {
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback([] {
            report_running_case();
            kv_fuzz::discard_private_directory();
        });
    }
    // A sanitizer reports faults itself and then calls the death callback; abort (a failed check,
    // an escaped exception) reaches the handler either way.
    std::vector<int> signals = {SIGABRT};
#if !defined(KV_FUZZ_ASAN)
    signals.insert(signals.end(), {SIGSEGV, SIGBUS, SIGFPE, SIGILL});
#endif
    for (int s : signals) ::signal(s, on_fatal_signal);
}

[[noreturn]] void usage_failure(const char* program, const std::string& message) {
    std::fprintf(stderr, "%s: %s\n", program, message.c_str());
    std::fprintf(stderr, usage, program);
    std::exit(2);
}

bool parse_count(const char* text, uint64_t* value) {
    if (text == nullptr || *text < '0' || *text > '9') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text, &end, 10);
    if (*end != '\0' || errno == ERANGE) return false;
    *value = v;
    return true;
}

// A regular file of at most `limit` bytes; anything else is refused with the reason.
bool read_bounded(const std::string& path, size_t limit, bytes* out, std::string* problem) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        *problem = std::strerror(errno);
        return false;
    }
    struct stat info {};
    bool ok = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    if (!ok) *problem = "not a regular file";
    out->clear();
    uint8_t chunk[1 << 16];
    while (ok) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *problem = std::strerror(errno);
            ok = false;
        } else if (n == 0) {
            break;
        } else if (out->size() + size_t(n) > limit) {
            *problem = "larger than --max-len (" + std::to_string(limit) + " bytes)";
            ok = false;
        } else {
            out->insert(out->end(), chunk, chunk + n);
        }
    }
    ::close(fd);
    return ok;
}

// Files of a folder in name order (hidden ones left out), or the file itself.
std::vector<std::string> files_of(const std::string& path, const char* program) {
    std::error_code error;
    if (!std::filesystem::is_directory(path, error)) return {path};
    std::vector<std::string> files;
    for (std::filesystem::directory_iterator it(path, error), end; !error && it != end;
         it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (!name.empty() && name[0] != '.') files.push_back(it->path().string());
    }
    if (error) {
        std::fprintf(stderr, "%s: %s: cannot list the folder: %s\n", program, path.c_str(),
                     error.message().c_str());
        std::exit(2);
    }
    std::sort(files.begin(), files.end());
    return files;
}

// Changes a copy of a corpus entry the way a byte-level fuzzer does: bit flips, special values,
// copied and deleted ranges, decimal numbers (most inputs here are text) and splices.
class mutator {
  public:
    mutator(uint64_t seed, size_t max_len) : random_(seed), max_len_(max_len) {}

    bytes random_bytes() {
        bytes out(below(below(8) == 0 ? std::min<size_t>(max_len_, 4096) + 1 : 65));
        for (uint8_t& b : out) b = uint8_t(random_());
        return out;
    }

    bytes mutate(const std::vector<bytes>& corpus) {
        bytes out = corpus[below(corpus.size())];
        const size_t rounds = 1 + below(size_t(1) << below(5));
        for (size_t r = 0; r < rounds; ++r) mutate_once(out, corpus);
        if (out.size() > max_len_) out.resize(max_len_);
        return out;
    }

  private:
    size_t below(size_t n) { return n == 0 ? 0 : size_t(random_() % n); }

    void mutate_once(bytes& out, const std::vector<bytes>& corpus) {
        static const uint8_t special_bytes[] = {0,   1,    0x7F, 0x80, 0xFF, '0', '9', '-',
                                                ' ', '\n', '\r', '\t', '=',  ':', '#', ','};
        static const uint64_t special_values[] = {
            0,           1,          2,           0x7F,
            0x80,        0xFF,       0x100,       0x7FFF,
            0x8000,      0xFFFF,     0x10000,     0x7FFFFFFF,
            0x80000000,  0xFFFFFFFF, 0x100000000, 0x7FFFFFFFFFFFFFFF,
            ~uint64_t(0)};
        const size_t at = below(out.size() + 1);
        switch (below(10)) {
            case 0:
                if (!out.empty()) out[below(out.size())] ^= uint8_t(1u << below(8));
                break;
            case 1:
                if (!out.empty())
                    out[below(out.size())] = special_bytes[below(sizeof special_bytes)];
                break;
            case 2: {  // a special integer, either byte order
                const uint64_t v = special_values[below(sizeof special_values / 8)];
                const size_t width = size_t(1) << below(4);
                for (size_t i = 0; i < width && at + i < out.size(); ++i) {
                    const size_t shift = below(2) ? i : width - 1 - i;
                    out[at + i] = uint8_t(v >> (8 * shift));
                }
                break;
            }
            case 3: {  // a decimal number written over or into the text
                static const char* const numbers[] = {
                    "0",          "1",          "-1",    "255", "256", "65535", "65536",
                    "2147483647", "4294967296", "1e308", "nan", "inf", "0.5",   "-0"};
                const std::string text = below(2) ? numbers[below(sizeof numbers / sizeof *numbers)]
                                                  : std::to_string(int64_t(random_()) >> below(64));
                out.insert(out.begin() + at, text.begin(), text.end());
                break;
            }
            case 4:
                if (!out.empty()) {
                    const size_t from = below(out.size());
                    out.erase(
                        out.begin() + from,
                        out.begin() + from + below(std::min<size_t>(out.size() - from, 64) + 1));
                }
                break;
            case 5: {  // a range of this or another entry copied in
                const bytes& source = corpus[below(corpus.size())];
                if (source.empty()) break;
                const size_t from = below(source.size());
                const size_t n = 1 + below(std::min<size_t>(source.size() - from, 128));
                const bytes piece(source.begin() + from, source.begin() + from + n);
                out.insert(out.begin() + at, piece.begin(), piece.end());
                break;
            }
            case 6: {  // splice: this entry's front, another's back
                const bytes& other = corpus[below(corpus.size())];
                const size_t from = below(other.size() + 1);
                out.resize(at);
                out.insert(out.end(), other.begin() + from, other.end());
                break;
            }
            case 7:
                out.resize(at);
                break;
            case 8: {
                const size_t n = 1 + below(16);
                for (size_t i = 0; i < n; ++i) out.insert(out.begin() + at, uint8_t(random_()));
                break;
            }
            default:
                if (!out.empty()) out[below(out.size())] = uint8_t(random_());
                break;
        }
    }

    std::mt19937_64 random_;
    size_t max_len_;
};

struct run_counts {
    uint64_t regressions = 0, corpus = 0, generated = 0;
};

}  // namespace

int main(int argc, char** argv) {
    const std::string program_path = argv[0];
    const std::string program = std::filesystem::path(program_path).filename().string();
    uint64_t cases = 10000;
    uint64_t seed = uint64_t(std::chrono::system_clock::now().time_since_epoch().count());
    uint64_t max_len = 1 << 20;
    std::string findings = ".";
    std::vector<std::string> corpus_paths;
    for (int a = 1; a < argc; ++a) {
        const std::string arg = argv[a];
        const char* value = a + 1 < argc ? argv[a + 1] : nullptr;
        if (arg == "-h" || arg == "--help") {
            std::printf(usage, program.c_str());
            return std::fflush(stdout) == 0 && !std::ferror(stdout) ? 0 : 2;
        } else if (arg == "--cases" || arg == "--seed" || arg == "--max-len") {
            uint64_t v = 0;
            if (!parse_count(value, &v)) {
                usage_failure(program.c_str(), arg + " needs a whole number");
            }
            (arg == "--cases" ? cases : arg == "--seed" ? seed : max_len) = v;
            ++a;
        } else if (arg == "--findings") {
            if (value == nullptr || *value == '\0') {
                usage_failure(program.c_str(), "--findings needs a folder");
            }
            findings = value;
            ++a;
        } else if (arg.size() > 1 && arg[0] == '-') {
            usage_failure(program.c_str(), "unknown option '" + arg + "'");
        } else {
            corpus_paths.push_back(arg);
        }
    }
    if (max_len == 0) usage_failure(program.c_str(), "--max-len must be above 0");

    // Everything is read before the run moves into its private folder, so relative names work.
    std::vector<std::pair<std::string, bytes>> regressions;
    std::vector<std::pair<std::string, bytes>> given;
    const auto load = [&](const std::string& path, bool is_regression) {
        for (const std::string& file : files_of(path, program.c_str())) {
            bytes content;
            std::string problem;
            if (!read_bounded(file, max_len, &content, &problem)) {
                if (is_regression && problem == std::strerror(ENOENT)) continue;
                std::fprintf(stderr, "%s: %s: %s\n", program.c_str(), file.c_str(),
                             problem.c_str());
                std::exit(2);
            }
            (is_regression ? regressions : given).emplace_back(file, std::move(content));
        }
    };
#if defined(KV_FUZZ_REGRESSIONS)
    load(KV_FUZZ_REGRESSIONS, true);
#endif
    for (const std::string& path : corpus_paths) load(path, false);
    const std::string findings_folder =
        std::filesystem::absolute(findings).lexically_normal().string();

#if !defined(KV_FUZZ_ASAN)
    // The same bound on allocations as under AddressSanitizer, through the address space.
    const rlim_t address_space = rlim_t(4) << 30;
    struct rlimit limit {};
    if (::getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur > address_space) {
        limit.rlim_cur = address_space;
        ::setrlimit(RLIMIT_AS, &limit);
    }
#endif
    install_reporters();
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    // Targets may name files in their input: they find only our own scratch folder.
    if (::chdir(kv_fuzz::private_directory().c_str()) != 0) {
        std::fprintf(stderr, "%s: cannot enter %s: %s\n", program.c_str(),
                     kv_fuzz::private_directory().c_str(), std::strerror(errno));
        return 2;
    }

    std::printf("%s: seed %" PRIu64 ", %zu regression cases, %zu corpus files, %" PRIu64
                " generated cases\n",
                program.c_str(), seed, regressions.size(), given.size(), cases);
    std::fflush(stdout);
    const auto start = std::chrono::steady_clock::now();
    const auto run = [&](const bytes& input, const std::string& label) {
        std::snprintf(running.path, sizeof running.path, "%s/%s-seed%" PRIu64 "-%s.bin",
                      findings_folder.c_str(), program.c_str(), seed, label.c_str());
        running.data = input.data();
        running.size = input.size();
        LLVMFuzzerTestOneInput(input.data(), input.size());
        running.data = nullptr;
    };
    run_counts counts;
    for (size_t i = 0; i < regressions.size(); ++i, ++counts.regressions) {
        run(regressions[i].second, "regression" + std::to_string(i));
    }
    std::vector<bytes> corpus;
    for (size_t i = 0; i < given.size(); ++i, ++counts.corpus) {
        run(given[i].second, "corpus" + std::to_string(i));
        corpus.push_back(std::move(given[i].second));
    }
    for (auto& r : regressions) corpus.push_back(std::move(r.second));
    mutator generator(seed, size_t(max_len));
    for (uint64_t i = 0; i < cases; ++i, ++counts.generated) {
        const bytes input =
            corpus.empty() || (i % 8 == 7) ? generator.random_bytes() : generator.mutate(corpus);
        run(input, "case" + std::to_string(i));
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%s: no finding in %" PRIu64 " cases (%" PRIu64 " regression, %" PRIu64
                " corpus, %" PRIu64 " generated) in %.1f s, seed %" PRIu64 "\n",
                program.c_str(), counts.regressions + counts.corpus + counts.generated,
                counts.regressions, counts.corpus, counts.generated, seconds, seed);
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "%s: cannot write to standard output\n", program.c_str());
        return 2;
    }
    return 0;
}
