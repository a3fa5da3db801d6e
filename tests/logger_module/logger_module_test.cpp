// Tests of kelvane_qor_logger: configuration, destinations, line format, handles and many threads
// at once. Each test runs in a fresh temporary current directory.
#include <gtest/gtest.h>

#include <algorithm>
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
#include <numeric>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "modules/logger/kelvane_qor_logger.h"
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

constexpr std::size_t timestamp_length = 28;  // "2025-03-14T09:26:53.589793Z "

// The time of a line to the second, if the line starts with a well-formed timestamp.
std::optional<std::string> timestamp_of(const std::string& text) {
    const std::string shape = "dddd-dd-ddTdd:dd:dd.ddddddZ ";
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const auto c = static_cast<unsigned char>(i < text.size() ? text[i] : '\0');
        if (shape[i] == 'd' ? !std::isdigit(c) : c != shape[i]) {
            return std::nullopt;
        }
    }
    return text.substr(0, 19);
}

// The module id and the message of "<timestamp> ERROR MODULE file:12 function: message", if the
// line starts with a timestamp and has those words; the id must be one word here. The exact shape
// of a line is the line format test's.
std::optional<std::pair<std::string, std::string>> id_and_message(const std::string& text) {
    std::istringstream in(text);
    std::string time, level, id, place, function, message;
    if (!timestamp_of(text) || !(in >> time >> level >> id >> place >> function)) {
        return std::nullopt;
    }
    std::getline(in.ignore(1), message);
    return std::make_pair(id, message);
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

// The three functions, from the linked module or from one loaded from a given file.
struct logger_functions {
    kv::abi::qor_get_log_fn get = &qor_get_log;
    kv::abi::qor_log_fn log = &qor_log;
    kv::abi::qor_free_log_fn free = &qor_free_log;
};

// What the calls returned (a line at each level, then the free) and what reached stdout and stderr.
struct logged {
    std::vector<int32_t> results;
    std::string out, err;
};

// Opens a log with `config`, writes "message N" at every level N from 0 to 7, and closes it.
logged log_every_level(const logger_functions& f = {}, const char* config = config_name) {
    logged l;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    void* handle = f.get("TEST_MODULE", "", config);
    for (int32_t level = 0; handle != nullptr && level <= 7; ++level) {
        const std::string message = "message " + std::to_string(level);
        l.results.push_back(
            f.log(handle, level, "test.cpp", 10 + level, "log_every_level", message.c_str()));
    }
    l.results.push_back(f.free("TEST_MODULE", ""));
    l.out = testing::internal::GetCapturedStdout();
    l.err = testing::internal::GetCapturedStderr();
    return l;
}

// The levels of the TEST_MODULE lines in `text`, in order; any other line goes to `others`.
std::vector<int> levels_in(const std::string& text, std::vector<std::string>* others = nullptr) {
    std::vector<int> levels;
    for (const std::string& line : lines_of(text)) {
        const auto parsed = id_and_message(line);
        if (parsed && parsed->first == "TEST_MODULE") {
            levels.push_back(std::stoi(parsed->second.substr(std::strlen("message "))));
        } else if (others != nullptr) {
            others->push_back(line);
        }
    }
    return levels;
}

std::vector<int> levels_up_to(int highest) {
    std::vector<int> levels(highest + 1);
    std::iota(levels.begin(), levels.end(), 0);
    return levels;
}

class LoggerTest : public testing::Test {
  protected:
    void SetUp() override {
        previous_ = fs::current_path();
        // In the build folder CTest runs the test in, so that the same test running at once in
        // another build has a folder of its own; a run that crashed leaves its folder to remove.
        const auto* test = testing::UnitTest::GetInstance()->current_test_info();
        directory_ = previous_ / ("kv_logger_" + std::string(test->name()));
        fs::remove_all(directory_);
        ASSERT_TRUE(fs::create_directory(directory_)) << directory_;
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
}

// What the configuration holds and where it is found; what stands in its place instead of a small
// regular file (a FIFO must not hold up the start, a device must not be read); destinations that
// cannot take lines, which hand over to stderr losing none. Each case: which levels reach which
// destination, and the one warning on stderr, if any.
TEST_F(LoggerTest, ConfigurationChoosesLevelsAndDestination) {
    struct config_case {
        const char* name;
        std::function<void()> plant;  // writes the configuration, or what is found in its place
        int highest;                  // levels 0 to this one are written
        const char* destination;      // "stderr", "stdout" or a file in the test directory
        std::string warning;  // after the configuration's name; '*' stands for a system's reason
        const char* config = config_name;  // the name the log is opened with
        bool first_refused = false;        // the destination refused the first line
    };
    const auto text = [](const std::string& t) { return [t] { write_text(config_name, t); }; };
    const auto destination = [](const char* to, std::function<void()> plant) {
        return [to, plant] {
            plant();
            write_text(config_name, std::string("level = 5\ndestination = ") + to);
        };
    };
    const std::string absolute = (directory_ / "sub" / "absolute.cfg").string();
    const auto named = [&] {
        write_text(config_name, "level = 0");
        write_text("custom.cfg", "level = 6\ndestination = stdout");
        fs::create_directory("sub");
        write_text(absolute, "level = 1\ndestination = stdout");
    };
    const std::string bound_text = "level = 7\n" + std::string(65536 - 11, '#') + "\n";
    const std::string& note = defaults_note;
    const std::string bad_level = "\" (give 0 to 7, or a name from emergency to debug)" + note;
    const std::string unknown_key = "\" (the keys are level and destination)" + note;
    const std::string not_opened = "\" (*); writing levels 0 to 5 to stderr";
    const config_case cases[] = {
        {"NoFile", [] {}, 3, "stderr", ""},
        {"NumberAndStdout", text("level = 7\ndestination = stdout\n"), 7, "stdout", ""},
        {"NamesCommentsCaseBlanks",
         text("# written by hand\n\n  LEVEL=Warning \n\tDestination\t=\tSTDERR"), 4, "stderr", ""},
        {"ByteOrderMarkAndWindowsLineEnds",
         text("\xEF\xBB\xBFlevel = crit\r\n# note\r\ndestination = stdout\r\n"), 2, "stdout", ""},
        {"FileBesideTheConfiguration", text("destination = out.log\nlevel = debug\n"), 7, "out.log",
         ""},
        {"UnknownKeyDiscardsTheWholeFile", text("level = 7\ncolour = red\n"), 3, "stderr",
         ":2: unknown key \"colour" + unknown_key},
        {"LevelOutOfRange", text("level = 8"), 3, "stderr", ":1: bad level \"8" + bad_level},
        {"KeyGivenTwice", text("level = 1\ndestination = stdout\nlevel = 2\n"), 3, "stderr",
         ":3: \"level\" is set again (first on line 1)" + note},
        {"NoValue", text("level = 5\ndestination =\n"), 3, "stderr",
         ":2: \"destination\" has no value" + note},
        {"ControlAndNonAsciiBytesAreEscaped", text("d\xC3\xA9tail\x1B]0;t\x07 = 1"), 3, "stderr",
         ":1: unknown key \"d\\xC3\\xA9tail\\x1B]0;t\\x07" + unknown_key},
        {"NoEqualsAndALongLineIsCut",
         text("# levels\nlevel 7 <--------------------- sixty ----------------------> cut"), 3,
         "stderr",
         ":2: expected \"key = value\", found \"level 7 <--------------------- sixty "
         "---------------------->...\"" +
             note},
        {"Directory", [] { fs::create_directory(config_name); }, 3, "stderr",
         ": ignored, it is a directory and not a regular file" + note},
        {"ExactlyAtTheBound", text(bound_text), 7, "stderr", ""},
        {"OneBytePastTheBound", text(bound_text + "#"), 3, "stderr",
         ": ignored, it is larger than 64 KiB" + note},
#if defined(_WIN32)
        {"Device", [] {}, 3, "stderr", ": ignored, it is a device and not a regular file" + note,
         "NUL"},
#else
        {"Fifo", [] { ASSERT_EQ(mkfifo(config_name, 0600), 0); }, 3, "stderr",
         ": ignored, it is a FIFO and not a regular file" + note},
        {"LinkToAnEndlessDevice", [] { fs::create_symlink("/dev/zero", config_name); }, 3,
         "stderr", ": ignored, it is a device and not a regular file" + note},
        {"LinkToARegularFile",
         [] {
             write_text("elsewhere.cfg", "level = 7");
             fs::create_symlink("elsewhere.cfg", config_name);
         },
         7, "stderr", ""},
#endif
        {"CustomName", named, 6, "stdout", "", "custom.cfg"},
        {"AbsoluteName", named, 1, "stdout", "", absolute.c_str()},
        {"NullNameIsTheDefault", named, 0, "stderr", "", nullptr},
        {"EmptyNameIsTheDefault", named, 0, "stderr", "", ""},
        {"DestinationIsAFolder", destination("folder", [] { fs::create_directory("folder"); }), 5,
         "stderr", ":2: cannot open the log file \"folder" + not_opened},
#if !defined(_WIN32)
        {"DestinationIsAFifoWithoutReader",
         destination("pipe", [] { ASSERT_EQ(mkfifo("pipe", 0600), 0); }), 5, "stderr",
         ":2: cannot open the log file \"pipe" + not_opened},
        {"DestinationIsFull", destination("/dev/full", [] {}), 5, "stderr",
         ":2: cannot write to the log file \"/dev/full\" (" + std::string(std::strerror(ENOSPC)) +
             "); writing the lines of TEST_MODULE to stderr from now on",
         config_name, true},
#endif
    };
    for (const config_case& c : cases) {
        SCOPED_TRACE(c.name);
#if defined(_WIN32)
        // Wine reports NUL as a disk file, so only a Windows host can show the device refusal.
        if (std::strcmp(c.name, "Device") == 0 &&
            GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr) {
            std::printf("[ NOTE ] Device: left to a Windows host, Wine gives NUL as a disk\n");
            continue;
        }
#endif
        for (const fs::directory_entry& entry : fs::directory_iterator(directory_)) {
            fs::remove_all(entry.path());
        }
        c.plant();
        const logged l = log_every_level({}, c.config);
        std::vector<int32_t> results(9, QOR_LOG_SUCCESS);
        results[0] = c.first_refused ? QOR_LOG_WRITE_FAILED : QOR_LOG_SUCCESS;
        EXPECT_EQ(l.results, results);

        const std::string to = c.destination;
        const std::vector<int> expected = levels_up_to(c.highest), none;
        std::vector<std::string> others;
        EXPECT_EQ(levels_in(l.err, &others), to == "stderr" ? expected : none);
        EXPECT_EQ(levels_in(l.out), to == "stdout" ? expected : none);
        if (to != "stderr" && to != "stdout") {
            EXPECT_EQ(levels_in(read_text(to)), expected);
        }
        if (c.warning.empty()) {
            EXPECT_TRUE(others.empty()) << l.err;
            continue;
        }
        ASSERT_EQ(others.size(), 1u) << l.err;
        // A system's reason, where the warning has one, is taken as it comes.
        const std::string want = warning_start + c.config + c.warning;
        const std::size_t any = std::min(want.find('*'), want.size());
        const std::size_t tail = want.size() - std::min(any + 1, want.size());
        std::string got = others[0];
        if (any < want.size() && got.size() > any + tail)
            got.replace(any, got.size() - any - tail, "*");
        EXPECT_EQ(got, want);
    }
}

// Copies the built module into `folder` and loads the copy, a module of its own with its own
// state, reached through the returned functions.
logger_functions load_copy(const fs::path& folder, std::unique_ptr<kv::test::loaded_module>& copy) {
    const std::string built = kv::platform::module_path_of(reinterpret_cast<const void*>(&qor_log));
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
// current directory, until one is put there: the current directory wins. A log opened again reads
// the configuration again, and a file destination is appended to.
TEST_F(LoggerTest, ConfigurationBesideTheModuleUnlessTheCurrentDirectoryHasOne) {
    const fs::path module_folder = directory_ / "module";
    fs::create_directories(module_folder);
    write_text(module_folder / config_name, "level = 6\ndestination = beside.log");
    write_text(module_folder / "beside.log", "an earlier line\n");
    fs::create_directory("work");
    fs::current_path("work");

    std::unique_ptr<kv::test::loaded_module> copy;
    const logger_functions f = load_copy(module_folder, copy);
    ASSERT_TRUE(f.get && f.log && f.free);
    ASSERT_NE(f.log, &qor_log) << "the copy must be a module of its own";

    EXPECT_EQ(log_every_level(f).err + log_every_level(f).err, "");
    const std::vector<int> once = levels_up_to(6);
    std::vector<int> twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    std::vector<std::string> others;
    EXPECT_EQ(levels_in(read_text(module_folder / "beside.log"), &others), twice);
    EXPECT_EQ(others, std::vector<std::string>{"an earlier line"});

    write_text(config_name, "level = 2\ndestination = stdout");
    EXPECT_EQ(levels_in(log_every_level(f).out), levels_up_to(2));
}

// The library frees its log from an at-exit handler of its own, which runs after the static
// destructors of a logging module loaded later than the library. The log must still work then.
// No fixture: on Windows the child starts over in the test's first folder, where removing the
// folder its parent works in would fail.
TEST(LoggerAtExit, LogStillWorksFromAnAtExitHandlerThatRunsAfterTheModuleStatics) {
    const fs::path folder = fs::current_path() / "kv_logger_at_exit";
    const std::string absent_config = (folder / "absent.cfg").string();
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
            f = load_copy(folder, copy);
            kept = copy.release();
            log = f.get != nullptr ? f.get("EXITING", "", absent_config.c_str()) : nullptr;
            std::exit(log != nullptr ? 0 : 1);
        },
        testing::ExitedWithCode(0), "at_exit: after statics\nat exit: 0 0");
    fs::remove_all(folder);
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
        {plain, 2, "kelvane_qor_color_processing", 412, "kv_color_append_matrix", "ERROR:  x!",
         "CRITICAL KELVANE_QOR_COLOR_PROCESSING kelvane_qor_color_processing:412 "
         "kv_color_append_matrix: ERROR:  x!"},
        {plain, 7, "c", 9, "`anonymous-namespace'::f", "y",
         "DEBUG KELVANE_QOR_COLOR_PROCESSING c:9 `anonymous-namespace'::f: y"},
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
        const std::optional<std::string> time = timestamp_of(lines[i]);
        ASSERT_TRUE(time) << lines[i];
        EXPECT_LE(before, *time);  // ISO 8601 texts sort as times do
        EXPECT_GE(after, *time);
        EXPECT_EQ(lines[i].substr(timestamp_length), cases[i].expected);
    }
}

// Bad arguments are refused and write nothing; logs with the same ids are one, counted per open.
TEST_F(LoggerTest, HandlesAreCheckedSharedAndCounted) {
    write_text(config_name, "level = 7\ndestination = out.log");
    void* a = qor_get_log("M", "", config_name);
    ASSERT_NE(a, nullptr);
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
                              bad_call{a, 3, nullptr, "g", "m", QOR_LOG_BAD_ARGUMENT},
                              bad_call{a, 3, "f", nullptr, "m", QOR_LOG_BAD_ARGUMENT},
                              bad_call{a, 3, "f", "g", nullptr, QOR_LOG_BAD_ARGUMENT},
                              bad_call{a, -1, "f", "g", "m", QOR_LOG_BAD_LEVEL},
                              bad_call{a, 8, "f", "g", "m", QOR_LOG_BAD_LEVEL},
                              bad_call{a, INT32_MIN, "f", "g", "m", QOR_LOG_BAD_LEVEL}}) {
        EXPECT_EQ(qor_log(c.handle, c.level, c.file, 1, c.function, c.message), c.expected);
    }
    EXPECT_EQ(qor_get_log(nullptr, "", config_name), nullptr);
    EXPECT_EQ(qor_free_log(nullptr, ""), QOR_LOG_BAD_ARGUMENT);

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
    EXPECT_EQ(lines_of(read_text("out.log")).size(), 3u);  // the bad calls wrote nothing
}

// Writers log to one file while another thread opens, logs to and frees logs of its own, and two
// more log to a log that is closed under them: every accepted line arrives once and whole, and a
// call on the closing log either writes or is refused.
TEST_F(LoggerTest, ManyThreadsLoseAndTearNoLine) {
    write_text(config_name, "level = 7\ndestination = out.log");
    void* log = qor_get_log("SHARED", "", config_name);
    void* closing = qor_get_log("RACE", "", config_name);
    ASSERT_TRUE(log != nullptr && closing != nullptr);
    constexpr int racers = 2;
    constexpr int writers = 8;
    constexpr int messages = 400;
    std::atomic<int> failures{0};
    std::atomic<int> other_lines{0};
    std::atomic<bool> writing{true};
    std::vector<std::thread> threads;
    for (int t = 0; t < racers; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                const int32_t result = qor_log(closing, 3, "race.cpp", i, "racer", "m");
                if (result == QOR_LOG_SUCCESS) {
                    ++other_lines;
                } else if (result != QOR_LOG_BAD_ARGUMENT) {
                    ++failures;
                }
            }
        });
    }
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
                ++other_lines;
            }
        }
    });
    EXPECT_EQ(qor_free_log("RACE", ""), QOR_LOG_SUCCESS);
    for (int t = 0; t < racers + writers; ++t) {
        threads[t].join();
    }
    writing = false;
    threads.back().join();
    EXPECT_EQ(qor_free_log("SHARED", ""), QOR_LOG_SUCCESS);
    EXPECT_EQ(failures.load(), 0);

    const std::vector<std::string> lines = lines_of(read_text("out.log"));
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(writers * messages + other_lines.load()));
    std::set<std::string> seen;
    for (const std::string& line : lines) {
        const auto parsed = id_and_message(line);
        ASSERT_TRUE(parsed) << line;
        if (parsed->first == "SHARED") {
            const std::string& text = parsed->second;
            const std::string key = text.substr(0, text.find(' '));
            EXPECT_EQ(text, key + " " + std::string(std::stoi(key) * 40, 'x'));
            EXPECT_TRUE(seen.insert(key).second) << "twice: " << key;
        }
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(writers * messages));
}

}  // namespace
