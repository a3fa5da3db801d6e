// Tests of kelvane_qor_logger: configuration, filtering, destinations, line format, handles and
// many threads at once. Each test runs in a fresh temporary current directory.
#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "modules/logger/kelvane_qor_logger.h"
#include "modules/logger/log_settings.h"
#include "services/module_abi.h"
#include "tests/module_support/loaded_module.h"

#if defined(_WIN32)
#include "platform/windows_api.h"
#else
#include <sys/stat.h>  // mkfifo
#endif

namespace fs = std::filesystem;

namespace {

const std::string module_file = std::string("kelvane_qor_logger") + kv::test::module_suffix;
const char* const config_name = "kelvane_qor_logger.cfg";
const std::string warning_start = "kelvane_qor_logger: warning: ";
const std::string defaults_note = "; using the defaults (levels 0 to 3 to stderr)";

// One log line taken apart. The module id must be one word here; the tests that use two ids
// check their lines whole.
struct log_line {
    std::string timestamp;  // to the second, as "2025-03-14T09:26:53"
    std::string level, module_id, file, function, message;
    int line = 0;
};

constexpr std::size_t timestamp_length = 28;  // "2025-03-14T09:26:53.589793Z "

// The timestamp of a line to the second, if the line starts with a well-formed one.
std::optional<std::string> timestamp_of(const std::string& text) {
    const std::string shape = "dddd-dd-ddTdd:dd:dd.ddddddZ ";
    if (text.size() < shape.size()) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < shape.size(); ++i) {
        if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(text[i]))
                            : text[i] != shape[i]) {
            return std::nullopt;
        }
    }
    return text.substr(0, 19);
}

// "2025-03-14T09:26:53.589793Z ERROR MODULE file:12 function: message", or nothing.
std::optional<log_line> parse_line(const std::string& text) {
    const std::optional<std::string> timestamp = timestamp_of(text);
    if (!timestamp) {
        return std::nullopt;
    }
    log_line l;
    l.timestamp = *timestamp;
    std::size_t at = timestamp_length;
    auto word = [&](char end) {
        const std::size_t stop = text.find(end, at);
        std::string w = text.substr(at, stop == std::string::npos ? std::string::npos : stop - at);
        at = stop == std::string::npos ? text.size() : stop + 1;
        return w;
    };
    l.level = word(' ');
    l.module_id = word(' ');
    const std::string place = word(' ');
    const std::size_t colon = place.rfind(':');
    if (colon == std::string::npos || colon + 1 == place.size()) {
        return std::nullopt;
    }
    l.file = place.substr(0, colon);
    l.line = std::stoi(place.substr(colon + 1));
    l.function = word(' ');
    if (l.function.empty() || l.function.back() != ':' || at > text.size()) {
        return std::nullopt;
    }
    l.function.pop_back();
    l.message = text.substr(at);
    return l;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string read_text(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_text(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

std::string utc_now_to_the_second() {
    const std::time_t now = std::time(nullptr);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", std::gmtime(&now));
    return text;
}

// What a piece of code wrote to stdout and stderr.
struct output {
    std::string out;
    std::string err;
};

template <typename Code>
output capture(Code code) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    code();
    output o;
    o.out = testing::internal::GetCapturedStdout();
    o.err = testing::internal::GetCapturedStderr();
    return o;
}

// The three functions, from the linked module or from one loaded from a given file.
struct logger_functions {
    kv::abi::qor_get_log_fn get = &qor_get_log;
    kv::abi::qor_log_fn log = &qor_log;
    kv::abi::qor_free_log_fn free = &qor_free_log;
};

// Opens a log, writes "message N" at every level N from 0 to 7, and closes it. Each call must
// succeed, unless `results` is given to collect what they returned.
void log_every_level(const logger_functions& f, const char* config = config_name,
                     std::vector<int32_t>* results = nullptr) {
    void* handle = f.get("TEST_MODULE", "", config);
    ASSERT_NE(handle, nullptr);
    for (int32_t level = 0; level <= 7; ++level) {
        const std::string message = "message " + std::to_string(level);
        const int32_t result =
            f.log(handle, level, "test.cpp", 10 + level, "log_every_level", message.c_str());
        if (results != nullptr) {
            results->push_back(result);
        } else {
            EXPECT_EQ(result, QOR_LOG_SUCCESS);
        }
    }
    EXPECT_EQ(f.free("TEST_MODULE", ""), QOR_LOG_SUCCESS);
}

// The levels found in the log lines of `text`, in order; any other line is returned in `others`.
std::vector<int> levels_in(const std::string& text, std::vector<std::string>* others = nullptr) {
    std::vector<int> levels;
    for (const std::string& line : lines_of(text)) {
        const std::optional<log_line> l = parse_line(line);
        if (l && l->module_id == "TEST_MODULE") {
            levels.push_back(std::stoi(l->message.substr(std::string("message ").size())));
        } else if (others != nullptr) {
            others->push_back(line);
        }
    }
    return levels;
}

std::vector<int> levels_up_to(int highest) {
    std::vector<int> levels;
    for (int level = 0; level <= highest; ++level) {
        levels.push_back(level);
    }
    return levels;
}

class LoggerTest : public testing::Test {
  protected:
    void SetUp() override {
        previous_ = fs::current_path();
        std::random_device random;
        for (;;) {
            directory_ = fs::temp_directory_path() / ("kv_logger_test_" + std::to_string(random()));
            if (fs::create_directory(directory_)) {
                break;
            }
        }
        fs::current_path(directory_);
    }
    void TearDown() override {
        fs::current_path(previous_);
        fs::remove_all(directory_);
    }

    fs::path directory_;
    fs::path previous_;
};

TEST(LoggerModuleLoading, ExportsExactlyTheThreeFunctions) {
    kv::test::loaded_module module(module_file);
    ASSERT_TRUE(module.loaded()) << module_file << " not found by name";
    EXPECT_EQ(module.exported_names(),
              (std::set<std::string>{"qor_get_log", "qor_log", "qor_free_log"}));
    EXPECT_EQ(module.symbol<kv::abi::qor_get_log_fn>("qor_get_log"), &qor_get_log);
    EXPECT_EQ(module.symbol<kv::abi::qor_log_fn>("qor_log"), &qor_log);
    EXPECT_EQ(module.symbol<kv::abi::qor_free_log_fn>("qor_free_log"), &qor_free_log);
}

struct config_case {
    const char* name;
    const char* text;  // NULL: no configuration file at all
    int highest_level;
    const char* destination;  // "stderr", "stdout" or a file name in the test directory
    const char* warning;      // the one warning line between the file name and the defaults note
};

void PrintTo(const config_case& c, std::ostream* os) {
    *os << c.name;
}

class LoggerConfiguration : public LoggerTest, public testing::WithParamInterface<config_case> {};

TEST_P(LoggerConfiguration, ChoosesLevelsAndDestination) {
    const config_case& c = GetParam();
    if (c.text != nullptr) {
        write_text(config_name, c.text);
    }
    const output o = capture([] { log_every_level(logger_functions{}); });

    std::vector<std::string> other_err;
    const std::vector<int> on_err = levels_in(o.err, &other_err);
    const std::vector<int> on_out = levels_in(o.out);
    const std::string destination = c.destination;
    const std::vector<int> in_file = destination == "stderr" || destination == "stdout"
                                         ? std::vector<int>{}
                                         : levels_in(read_text(c.destination));
    const std::vector<int> expected = levels_up_to(c.highest_level);
    EXPECT_EQ(on_err, destination == "stderr" ? expected : std::vector<int>{});
    EXPECT_EQ(on_out, destination == "stdout" ? expected : std::vector<int>{});
    if (destination != "stderr" && destination != "stdout") {
        EXPECT_EQ(in_file, expected);
    }
    if (c.warning == nullptr) {
        EXPECT_TRUE(other_err.empty()) << other_err.front();
    } else {
        ASSERT_EQ(other_err.size(), 1u) << o.err;
        EXPECT_EQ(other_err[0], warning_start + config_name + c.warning + defaults_note);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LoggerConfiguration,
    testing::Values(
        config_case{"NoFile", nullptr, 3, "stderr", nullptr},
        config_case{"EmptyFile", "", 3, "stderr", nullptr},
        config_case{"NumberAndStdout", "level = 7\ndestination = stdout\n", 7, "stdout", nullptr},
        config_case{"NamesCommentsCaseBlanks",
                    "# written by hand\n\n  LEVEL=Warning \n\tDestination\t=\tSTDERR", 4, "stderr",
                    nullptr},
        config_case{"ByteOrderMarkAndWindowsLineEnds",
                    "\xEF\xBB\xBFlevel = crit\r\n# note\r\ndestination = stdout\r\n", 2, "stdout",
                    nullptr},
        config_case{"LevelZero", "level = emergency", 0, "stderr", nullptr},
        config_case{"FileBesideTheConfiguration", "destination = out.log\nlevel = debug\n", 7,
                    "out.log", nullptr},
        config_case{"MissingEquals", "# levels\nlevel 7\n", 3, "stderr",
                    ":2: expected \"key = value\", found \"level 7\""},
        config_case{"UnknownKeyDiscardsTheWholeFile", "level = 7\ncolour = red\n", 3, "stderr",
                    ":2: unknown key \"colour\" (the keys are level and destination)"},
        config_case{"LevelOutOfRange", "level = 8", 3, "stderr",
                    ":1: bad level \"8\" (give 0 to 7, or a name from emergency to debug)"},
        config_case{"LevelWithTrailingComment", "level = 7 # all", 3, "stderr",
                    ":1: bad level \"7 # all\" (give 0 to 7, or a name from emergency to debug)"},
        config_case{"KeyGivenTwice", "level = 1\ndestination = stdout\nlevel = 2\n", 3, "stderr",
                    ":3: \"level\" is set again (first on line 1)"},
        config_case{"NoValue", "level = 5\ndestination =\n", 3, "stderr",
                    ":2: \"destination\" has no value"},
        config_case{"NoKey", "= stdout\n", 3, "stderr",
                    ":1: expected \"key = value\", found \"= stdout\""},
        config_case{"ControlBytesAreEscaped", "level = \x1B]0;title\x07\n", 3, "stderr",
                    ":1: bad level \"\\x1B]0;title\\x07\" (give 0 to 7, or a name from "
                    "emergency to debug)"},
        config_case{"NonAsciiIsEscaped", "d\xC3\xA9tail = 1", 3, "stderr",
                    ":1: unknown key \"d\\xC3\\xA9tail\" (the keys are level and destination)"},
        config_case{"LongLineIsCut",
                    "level 7 <--------------------- sixty ----------------------> cut here", 3,
                    "stderr",
                    ":1: expected \"key = value\", found \"level 7 <--------------------- sixty "
                    "---------------------->...\""}));

// Configuration files that are there but must not be used: each gives the defaults and one
// warning at once, whatever it is (a FIFO must not hold up the start, a device must not be read).
TEST_F(LoggerTest, ConfigurationOtherThanASmallRegularFileIsRefusedAtOnce) {
    struct planted {
        const char* name;
        const char* config;           // the name the log is opened with
        std::function<void()> plant;  // makes it, or a link to what is tried
        const char* warning;          // after the file name; NULL: the file is used
    };
    const std::string bound_text = "level = 7\n" + std::string(65536 - 11, '#') + "\n";
    const planted cases[] = {
        {"Directory", config_name, [] { fs::create_directory(config_name); },
         ": ignored, it is a directory and not a regular file"},
        {"ExactlyAtTheBound", config_name, [&] { write_text(config_name, bound_text); }, nullptr},
        {"OneBytePastTheBound", config_name, [&] { write_text(config_name, bound_text + "#"); },
         ": ignored, it is larger than 64 KiB"},
#if defined(_WIN32)
        {"Device", "NUL", [] {}, ": ignored, it is a device and not a regular file"},
#else
        {"Fifo", config_name, [] { ASSERT_EQ(mkfifo(config_name, 0600), 0); },
         ": ignored, it is a FIFO and not a regular file"},
        {"LinkToAnEndlessDevice", config_name, [] { fs::create_symlink("/dev/zero", config_name); },
         ": ignored, it is a device and not a regular file"},
        {"LinkToARegularFile", config_name,
         [&] {
             write_text("elsewhere.cfg", "level = 7");
             fs::create_symlink("elsewhere.cfg", config_name);
         },
         nullptr},
#endif
    };
    for (const planted& c : cases) {
        SCOPED_TRACE(c.name);
#if defined(_WIN32)
        // Wine reports NUL as a disk file, so only a Windows host can show the device refusal.
        if (std::strcmp(c.name, "Device") == 0 &&
            GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr) {
            std::printf("[ NOTE ] Device: left to a Windows host, Wine gives NUL as a disk\n");
            continue;
        }
#endif
        fs::remove_all(config_name);
        c.plant();
        const output o = capture([&] { log_every_level(logger_functions{}, c.config); });
        std::vector<std::string> other_err;
        EXPECT_EQ(levels_in(o.err, &other_err), levels_up_to(c.warning ? 3 : 7));
        if (c.warning == nullptr) {
            EXPECT_TRUE(other_err.empty()) << o.err;
        } else {
            ASSERT_EQ(other_err.size(), 1u) << o.err;
            EXPECT_EQ(other_err[0], warning_start + c.config + c.warning + defaults_note);
        }
    }
}

// Parsing alone, as a fuzzer drives it: no text is echoed beyond its excerpt, however long.
TEST(LoggerSettings, AHugeValueIsQuotedAsAShortExcerpt) {
    const kv::logger::settings_outcome outcome =
        kv::logger::parse_settings("dir/x.cfg", "level = " + std::string(20 << 20, 'x'));
    EXPECT_EQ(outcome.warning, "dir/x.cfg:1: bad level \"" + std::string(60, 'x') +
                                   "...\" (give 0 to 7, or a name from emergency to debug)" +
                                   defaults_note);
    const kv::logger::settings_outcome good =
        kv::logger::parse_settings("dir/x.cfg", "destination = out.log");
    EXPECT_EQ(good.warning, "");
    EXPECT_EQ(good.settings.file_path, "dir/out.log");
}

// A destination that cannot be opened, or that stops taking lines, hands over to stderr with one
// warning; the line it refused is reported failed but still reaches stderr, and none is lost.
TEST_F(LoggerTest, UnwritableDestinationFallsBackToStderrLosingNoLine) {
    struct unwritable {
        const char* name;
        const char* destination;
        std::function<void()> plant;
        const char* reason;  // NULL: refused when opened; else when written, for this reason
    };
    const unwritable cases[] = {
        {"MissingFolder", "no_such_folder/out.log", [] {}, nullptr},
        {"Directory", "folder", [] { fs::create_directory("folder"); }, nullptr},
#if !defined(_WIN32)
        {"FifoWithoutReader", "pipe", [] { ASSERT_EQ(mkfifo("pipe", 0600), 0); }, nullptr},
        {"FullDisk", "/dev/full", [] {}, std::strerror(ENOSPC)},
#endif
    };
    for (const unwritable& c : cases) {
        SCOPED_TRACE(c.name);
        c.plant();
        write_text(config_name, std::string("level = 5\ndestination = ") + c.destination);
        std::vector<int32_t> results;
        const output o =
            capture([&] { log_every_level(logger_functions{}, config_name, &results); });
        std::vector<std::string> other_err;
        EXPECT_EQ(levels_in(o.err, &other_err), levels_up_to(5));
        std::vector<int32_t> expected(8, QOR_LOG_SUCCESS);
        if (c.reason != nullptr) {
            expected[0] = QOR_LOG_WRITE_FAILED;  // the line the destination refused
        }
        EXPECT_EQ(results, expected);
        ASSERT_EQ(other_err.size(), 1u) << o.err;
        const std::string start = warning_start + config_name + ":2: ";
        const std::string expected_text =
            c.reason == nullptr
                ? start + "cannot open the log file \"" + c.destination + "\" ("
                : start + "cannot write to the log file \"" + c.destination + "\" (" + c.reason +
                      "); writing the lines of TEST_MODULE to stderr from now on";
        const std::string end = c.reason == nullptr ? "); writing levels 0 to 5 to stderr" : "";
        EXPECT_EQ(other_err[0].rfind(expected_text, 0), 0u) << other_err[0];
        EXPECT_TRUE(other_err[0].size() >= end.size() &&
                    other_err[0].compare(other_err[0].size() - end.size(), end.size(), end) == 0)
            << other_err[0];
    }
}

TEST_F(LoggerTest, FileDestinationAppendsToWhatIsThere) {
    write_text("out.log", "an earlier line\n");
    write_text(config_name, "destination = out.log\nlevel = 7");
    const output o = capture([] {
        log_every_level(logger_functions{});
        log_every_level(logger_functions{});  // a second open appends as well
    });
    EXPECT_EQ(o.err, "");
    const std::vector<std::string> lines = lines_of(read_text("out.log"));
    ASSERT_EQ(lines.size(), 17u);
    EXPECT_EQ(lines[0], "an earlier line");
    std::vector<int> twice = levels_up_to(7);
    twice.insert(twice.end(), twice.begin(), twice.end());
    EXPECT_EQ(levels_in(read_text("out.log")), twice);
}

TEST_F(LoggerTest, HonoursTheConfigurationNameItIsGiven) {
    write_text(config_name, "level = 0");
    write_text("custom.cfg", "level = 6\ndestination = stdout");
    fs::create_directory("sub");
    write_text(directory_ / "sub" / "absolute.cfg", "level = 1\ndestination = stdout");
    const std::string absolute = (directory_ / "sub" / "absolute.cfg").string();
    struct named {
        const char* name;
        std::vector<int> on_out, on_err;
    };
    for (const named& n :
         {named{"custom.cfg", levels_up_to(6), {}}, named{absolute.c_str(), levels_up_to(1), {}},
          named{nullptr, {}, levels_up_to(0)}, named{"", {}, levels_up_to(0)},
          named{"absent.cfg", {}, levels_up_to(3)}}) {
        const output o = capture([&] { log_every_level(logger_functions{}, n.name); });
        EXPECT_EQ(levels_in(o.out), n.on_out) << (n.name ? n.name : "NULL");
        EXPECT_EQ(levels_in(o.err), n.on_err) << (n.name ? n.name : "NULL");
    }
}

// Copies the built module into `folder` and loads the copy, a module of its own with its own
// state, reached through the returned functions.
logger_functions load_copy(const fs::path& folder, std::unique_ptr<kv::test::loaded_module>& copy) {
    const std::string built = kv::test::module_file_of(reinterpret_cast<const void*>(&qor_log));
    fs::create_directories(folder);
    fs::copy_file(built, folder / module_file, fs::copy_options::overwrite_existing);
    copy = std::make_unique<kv::test::loaded_module>((folder / module_file).string());
    logger_functions f{nullptr, nullptr, nullptr};
    if (copy->loaded()) {
        f.get = copy->symbol<kv::abi::qor_get_log_fn>("qor_get_log");
        f.log = copy->symbol<kv::abi::qor_log_fn>("qor_log");
        f.free = copy->symbol<kv::abi::qor_free_log_fn>("qor_free_log");
    }
    return f;
}

// A copy of the module in a folder of its own, with its configuration beside it and none in the
// current directory, until one is put there: the current directory wins.
TEST_F(LoggerTest, ReadsTheConfigurationBesideTheModuleUnlessTheCurrentDirectoryHasOne) {
    const fs::path module_folder = directory_ / "module";
    fs::create_directories(module_folder);
    write_text(module_folder / config_name, "level = 6\ndestination = beside.log");
    fs::create_directory("work");
    fs::current_path("work");

    std::unique_ptr<kv::test::loaded_module> copy;
    const logger_functions f = load_copy(module_folder, copy);
    ASSERT_TRUE(f.get && f.log && f.free);
    ASSERT_NE(f.log, &qor_log) << "the copy must be a module of its own";

    const output beside = capture([&] { log_every_level(f); });
    EXPECT_EQ(beside.err, "");
    EXPECT_EQ(levels_in(read_text(module_folder / "beside.log")), levels_up_to(6));

    write_text(config_name, "level = 2\ndestination = stdout");
    const output current = capture([&] { log_every_level(f); });
    EXPECT_EQ(levels_in(current.out), levels_up_to(2));
}

// The library frees its log from an at-exit handler of its own, which runs after the static
// destructors of a logging module loaded later than the library. The log must still work then.
TEST_F(LoggerTest, LogStillWorksFromAnAtExitHandlerThatRunsAfterTheModuleStatics) {
    EXPECT_EXIT(
        {
            static logger_functions f;
            static void* log = nullptr;
            // Keeps the copy loaded through a plain pointer, whose end unloads nothing.
            static kv::test::loaded_module* kept = nullptr;
            std::atexit([] {
                if (kept == nullptr) {
                    return;
                }
                const int32_t logged = f.log(log, 3, "exit.cpp", 1, "at_exit", "after statics");
                const int32_t freed = f.free("EXITING", "");
                std::fprintf(stderr, "at exit: %d %d\n", logged, freed);
            });
            // Loaded after the handler was registered, so its statics go first.
            std::unique_ptr<kv::test::loaded_module> copy;
            f = load_copy(directory_ / "module", copy);
            kept = copy.release();
            log = f.get != nullptr ? f.get("EXITING", "", config_name) : nullptr;
            std::exit(log != nullptr ? 0 : 1);
        },
        testing::ExitedWithCode(0), "at_exit: after statics\nat exit: 0 0");
}

TEST_F(LoggerTest, LineCarriesTimestampLevelIdsPlaceFunctionAndMessage) {
    write_text(config_name, "level = debug\ndestination = out.log");
    const std::string before = utc_now_to_the_second();
    void* plain = qor_get_log("KELVANE_QOR_COLOR_PROCESSING", "", config_name);
    void* second = qor_get_log("KELVANE_QOR_COLOR_PROCESSING", "unit 2", config_name);
    ASSERT_NE(plain, nullptr);
    ASSERT_NE(second, nullptr);
    struct message_case {
        void* handle;
        int32_t level;
        const char* file;
        int32_t line;
        const char* function;
        const char* message;
        const char* expected;  // the line after the timestamp
    };
    const message_case cases[] = {
        {plain, 2, "kelvane_qor_color_processing", 412, "kv_color_append_matrix",
         "ERROR:  The specified color processor handle is NULL!",
         "CRITICAL KELVANE_QOR_COLOR_PROCESSING kelvane_qor_color_processing:412 "
         "kv_color_append_matrix: ERROR:  The specified color processor handle is NULL!"},
        {plain, 7, "color_correction", 9, "`anonymous-namespace'::create_color_processor_impl",
         "Creating a color processor instance!",
         "DEBUG KELVANE_QOR_COLOR_PROCESSING color_correction:9 "
         "`anonymous-namespace'::create_color_processor_impl: Creating a color processor "
         "instance!"},
        {second, 0, "a.cpp", 0, "f", "",
         "EMERGENCY KELVANE_QOR_COLOR_PROCESSING/unit 2 a.cpp:0 f: "},
        {plain, 4, "b.cpp", -1, "g", "trailing line breaks go\r\n\n",
         "WARNING KELVANE_QOR_COLOR_PROCESSING b.cpp:-1 g: trailing line breaks go"},
        {plain, 5, "c.cpp", 3, "h", "inner\tblanks  stay",
         "NOTICE KELVANE_QOR_COLOR_PROCESSING c.cpp:3 h: inner\tblanks  stay"},
        {plain, 1, "d", 1, "i", "x", "ALERT KELVANE_QOR_COLOR_PROCESSING d:1 i: x"},
        {plain, 3, "d", 1, "i", "x", "ERROR KELVANE_QOR_COLOR_PROCESSING d:1 i: x"},
        {plain, 6, "d", 1, "i", "x", "INFO KELVANE_QOR_COLOR_PROCESSING d:1 i: x"},
        {plain, 3, "e\x01", 4, "f\x7F",
         "two\nlines\x1B[31m r\xC3\xA9"
         "d\r\n",
         "ERROR KELVANE_QOR_COLOR_PROCESSING e\\x01:4 f\\x7F: two\\x0Alines\\x1B[31m r\xC3\xA9"
         "d"},
    };
    for (const message_case& c : cases) {
        EXPECT_EQ(qor_log(c.handle, c.level, c.file, c.line, c.function, c.message), 0);
    }
    const std::string after = utc_now_to_the_second();
    EXPECT_EQ(qor_free_log("KELVANE_QOR_COLOR_PROCESSING", ""), 0);
    EXPECT_EQ(qor_free_log("KELVANE_QOR_COLOR_PROCESSING", "unit 2"), 0);

    const std::vector<std::string> lines = lines_of(read_text("out.log"));
    ASSERT_EQ(lines.size(), std::size(cases));
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::optional<std::string> timestamp = timestamp_of(lines[i]);
        ASSERT_TRUE(timestamp) << lines[i];
        EXPECT_LE(before, *timestamp);  // ISO 8601 texts sort as times do
        EXPECT_GE(after, *timestamp);
        EXPECT_EQ(lines[i].substr(timestamp_length), cases[i].expected);
    }
}

TEST_F(LoggerTest, BadArgumentsWriteNothing) {
    write_text(config_name, "level = 7\ndestination = out.log");
    void* log = qor_get_log("M", "", config_name);
    ASSERT_NE(log, nullptr);
    struct bad_call {
        void* handle;
        int32_t level;
        const char* file;
        const char* function;
        const char* message;
        int32_t expected;
    };
    int32_t local = 0;
    for (const bad_call& c : {bad_call{nullptr, 3, "f", "g", "m", QOR_LOG_BAD_ARGUMENT},
                              bad_call{&local, 3, "f", "g", "m", QOR_LOG_BAD_ARGUMENT},
                              bad_call{log, 3, nullptr, "g", "m", QOR_LOG_BAD_ARGUMENT},
                              bad_call{log, 3, "f", nullptr, "m", QOR_LOG_BAD_ARGUMENT},
                              bad_call{log, 3, "f", "g", nullptr, QOR_LOG_BAD_ARGUMENT},
                              bad_call{log, -1, "f", "g", "m", QOR_LOG_BAD_LEVEL},
                              bad_call{log, 8, "f", "g", "m", QOR_LOG_BAD_LEVEL},
                              bad_call{log, INT32_MIN, "f", "g", "m", QOR_LOG_BAD_LEVEL}}) {
        EXPECT_EQ(qor_log(c.handle, c.level, c.file, 1, c.function, c.message), c.expected);
    }
    EXPECT_EQ(qor_get_log(nullptr, "", config_name), nullptr);
    EXPECT_EQ(qor_free_log(nullptr, ""), QOR_LOG_BAD_ARGUMENT);
    EXPECT_EQ(qor_free_log("M", ""), QOR_LOG_SUCCESS);
    EXPECT_EQ(read_text("out.log"), "");
}

TEST_F(LoggerTest, SameIdsShareOneReferenceCountedLog) {
    write_text(config_name, "level = 7\ndestination = out.log");
    void* a = qor_get_log("M", "", config_name);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(qor_get_log("M", nullptr, config_name), a);  // NULL second id is ""
    EXPECT_EQ(qor_get_log("M", "", "other.cfg"), a);       // an open log keeps its settings
    void* b = qor_get_log("M", "2", config_name);
    void* c = qor_get_log("N", "", config_name);
    EXPECT_NE(b, a);
    EXPECT_NE(c, a);
    EXPECT_NE(c, b);

    for (int reference = 3; reference > 1; --reference) {
        EXPECT_EQ(qor_free_log("M", ""), QOR_LOG_SUCCESS);
        EXPECT_EQ(qor_log(a, 3, "f", reference, "g", "still open"), QOR_LOG_SUCCESS);
    }
    EXPECT_EQ(qor_free_log("M", ""), QOR_LOG_SUCCESS);
    EXPECT_EQ(qor_log(a, 3, "f", 0, "g", "closed"), QOR_LOG_BAD_ARGUMENT);
    EXPECT_EQ(qor_free_log("M", ""), QOR_LOG_BAD_ARGUMENT);
    EXPECT_EQ(qor_log(b, 3, "f", 0, "g", "other ids live on"), QOR_LOG_SUCCESS);
    EXPECT_EQ(qor_free_log("M", "2"), QOR_LOG_SUCCESS);
    EXPECT_EQ(qor_free_log("N", ""), QOR_LOG_SUCCESS);
    EXPECT_EQ(qor_free_log("never opened", ""), QOR_LOG_BAD_ARGUMENT);
    EXPECT_EQ(lines_of(read_text("out.log")).size(), 3u);
}

TEST_F(LoggerTest, ReopenedLogReadsTheConfigurationAgain) {
    write_text(config_name, "level = 1\ndestination = stdout");
    const output first = capture([] { log_every_level(logger_functions{}); });
    write_text(config_name, "level = 7\ndestination = stdout");
    const output second = capture([] { log_every_level(logger_functions{}); });
    EXPECT_EQ(levels_in(first.out), levels_up_to(1));
    EXPECT_EQ(levels_in(second.out), levels_up_to(7));
}

// Threads log to one file while others open and close logs of their own and log and free one
// shared log: every accepted line must arrive once, whole.
TEST_F(LoggerTest, ManyThreadsLoseAndTearNoLine) {
    write_text(config_name, "level = 7\ndestination = out.log");
    void* log = qor_get_log("SHARED", "", config_name);
    ASSERT_NE(log, nullptr);
    constexpr int writers = 8;
    constexpr int messages = 400;
    std::atomic<int> failures{0};
    std::atomic<int> churn_lines{0};
    std::atomic<bool> writing{true};
    std::vector<std::thread> threads;
    for (int t = 0; t < writers; ++t) {
        threads.emplace_back([t, log, &failures] {
            const std::string padding(t * 40, 'x');  // lines of different lengths
            for (int i = 0; i < messages; ++i) {
                const std::string text =
                    std::to_string(t) + "." + std::to_string(i) + " " + padding;
                if (qor_log(log, i % 8, "threads.cpp", t, "writer", text.c_str()) != 0) {
                    ++failures;
                }
            }
        });
    }
    threads.emplace_back([&] {
        for (int round = 0; writing; ++round) {
            const std::string id = "CHURN" + std::to_string(round % 3);
            void* own = qor_get_log(id.c_str(), "", config_name);
            if (own == nullptr || qor_log(own, 3, "churn.cpp", round, "churn", "churn") != 0 ||
                qor_free_log(id.c_str(), "") != 0) {
                ++failures;
            } else {
                ++churn_lines;
            }
        }
    });
    for (int t = 0; t < writers; ++t) {
        threads[t].join();
    }
    writing = false;
    threads.back().join();
    EXPECT_EQ(qor_free_log("SHARED", ""), QOR_LOG_SUCCESS);
    EXPECT_EQ(failures.load(), 0);

    const std::vector<std::string> lines = lines_of(read_text("out.log"));
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(writers * messages + churn_lines.load()));
    std::set<std::string> seen;
    for (const std::string& line : lines) {
        const std::optional<log_line> l = parse_line(line);
        ASSERT_TRUE(l) << line;
        if (l->module_id == "SHARED") {
            const std::string text = l->message;
            const std::string key = text.substr(0, text.find(' '));
            const int t = std::stoi(key);
            EXPECT_EQ(text, key + " " + std::string(t * 40, 'x'));
            EXPECT_TRUE(seen.insert(key).second) << "twice: " << key;
        }
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(writers * messages));
}

// Closing a log while other threads still log to it: each call either writes or is refused.
TEST_F(LoggerTest, LoggingWhileTheLogClosesIsRefusedCleanly) {
    write_text(config_name, "level = 7\ndestination = out.log");
    void* log = qor_get_log("RACE", "", config_name);
    ASSERT_NE(log, nullptr);
    std::atomic<int> written{0};
    std::atomic<int> unexpected{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            while (!go) {
            }
            for (int i = 0; i < 2000; ++i) {
                const int32_t result = qor_log(log, 3, "race.cpp", i, "racer", "m");
                if (result == QOR_LOG_SUCCESS) {
                    ++written;
                } else if (result != QOR_LOG_BAD_ARGUMENT) {
                    ++unexpected;
                }
            }
        });
    }
    go = true;
    std::this_thread::yield();
    EXPECT_EQ(qor_free_log("RACE", ""), QOR_LOG_SUCCESS);
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(unexpected.load(), 0);
    EXPECT_EQ(lines_of(read_text("out.log")).size(), static_cast<std::size_t>(written.load()));
}

}  // namespace
