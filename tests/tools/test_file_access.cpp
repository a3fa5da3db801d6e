// Output files in a folder others can write to (links and files planted at temporary names, a
// link as the output, a failed write), inputs that are not regular files or too large, and the
// escaping of text that reaches the terminal.
#include <cstring>
#include <map>

#include "image/image.h"
#include "pipeline/curves.h"
#include "pipeline/file_access.h"
#include "pipeline/interruption.h"
#include "tool_test_support.h"

#if !defined(_WIN32)
#include <sys/stat.h>
#include <sys/types.h>
#endif

namespace kv_tool_test {
namespace {

namespace fs = std::filesystem;

struct planting_case {
    const char* name;
    const char* output;  // out.raw at the start: none (NULL), a link to the victim ("->"), or bytes
    bool links_at_names;  // links (else regular files) planted at the first temporary names
    bool writer_fails;
};

TEST(OutputFiles, NothingPlantedIsFollowedOrReplaced) {
    const planting_case cases[] = {
#if !defined(_WIN32)  // symbolic links need privileges on Windows
        {"links at the temporary names", nullptr, true, false},
        {"output is a link", "->", true, false},
        {"failed write", "->", false, true},
#endif
        {"files at the temporary names", nullptr, false, false},
        {"output is a longer file", "old bytes, longer than the new", false, false},
    };
    for (const planting_case& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path dir = scratch_dir();
        write_text(dir / "victim.txt", "victim");
        const std::string out = (dir / "out.raw").string();
        if (c.output != nullptr && std::string(c.output) == "->") {
            fs::create_symlink("victim.txt", out);
        } else if (c.output != nullptr) {
            write_text(out, c.output);
        }
        // The old fixed name, and the names this run will try first.
        const std::string planted[] = {out + ".kv-partial", out + ".0", out + ".1"};
        for (const std::string& p : planted) {
            if (c.links_at_names) {
                fs::create_symlink("victim.txt", p);
            } else {
                write_text(p, "planted");
            }
        }
        const auto names = [&](int attempt) {
            return attempt < 2 ? planted[attempt + 1] : out + ".2";
        };
        // The writer puts its bytes and then succeeds, or reports a broken PNG.
        const auto writer = [&c](std::FILE* f) {
            std::fputs(c.writer_fails ? "half" : "new bytes", f);
            return std::string(c.writer_fails ? "PNG: broken" : "");
        };
        auto expected = folder_snapshot(dir);
        if (!c.writer_fails) expected["out.raw"] = "new bytes";
        std::string message;
        try {
            kv_tool::replace_file(out, writer, names);
        } catch (const kv_tool::tool_error& e) {
            message = e.what();
        }
        EXPECT_EQ(message, c.writer_fails ? out + ": PNG: broken" : "");
        EXPECT_EQ(folder_snapshot(dir),
                  expected);  // victim, planted names untouched, no temporary left
#if !defined(_WIN32)
        const mode_t mask = ::umask(0);
        ::umask(mask);
        if (!c.writer_fails) {
            EXPECT_EQ(unsigned(fs::status(out).permissions()), 0666u & ~unsigned(mask));
        }
#endif
    }
}

TEST(InputFiles, OnlyRegularFilesWithinTheirBoundAreRead) {
    const fs::path dir = scratch_dir();
    struct refusal {
        std::string path;
        const char* message;
    };
    std::vector<refusal> cases = {{dir.string(), "is a folder, not a file"}};
    // A sparse file one byte over the .cube bound costs no disk.
    const fs::path big = dir / "big.cube";
    std::ofstream(big, std::ios::binary).put('#');
    fs::resize_file(big, kv_tool::max_cube_file + 1);
    cases.push_back({big.string(),
                     "is 67108865 bytes; kelvane-color reads .cube files of at most "
                     "67108864 bytes"});
#if !defined(_WIN32)
    const fs::path fifo = dir / "pipe.png";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    cases.push_back({fifo.string(), "is a FIFO (named pipe), not a file"});
    cases.push_back({"/dev/zero", "is a device, not a file"});
#endif
    for (const refusal& c : cases) {
        SCOPED_TRACE(c.path);
        for (int reader = 0; reader < 2; ++reader) {
            const kv_tool::tool_error e = error_of([&] {
                if (reader == 0) kv_tool::read_image(c.path);
                if (reader == 1) kv_tool::load_cube(c.path);
            });
            EXPECT_EQ(e.code(), kv_tool::EXIT_FILE);
            const std::string message = e.what();
            if (c.path != big.string() || reader == 1) {
                EXPECT_EQ(message.rfind(c.path + ": ", 0), 0u) << message;
                EXPECT_NE(message.find(c.message), std::string::npos) << message;
            }
        }
    }
}

// What an interruption removes: the names registered at that moment, whether or not their file
// exists yet, and nothing whose registration has ended.
TEST(Interruption, RemovesTheRegisteredTemporariesOnly) {
    const fs::path dir = scratch_dir();
    const std::string names[] = {(dir / "a.kv-partial").string(), (dir / "b.kv-partial").string(),
                                 (dir / "done.kv-partial").string()};
    { kv_tool::pending_removal finished(names[2]); }
    kv_tool::pending_removal a(names[0]), b(names[1]), never_created((dir / "none").string());
    for (const std::string& name : names) write_text(name, "partial");
    kv_tool::remove_pending_files();
    EXPECT_EQ(folder_snapshot(dir),
              (std::map<std::string, std::string>{{"done.kv-partial", "partial"}}));
}

struct escape_case {
    std::string text;
    std::string shown;
};

TEST(Messages, ControlBytesAreEscaped) {
    using namespace std::string_literals;
    const escape_case cases[] = {
        {"\x1b]0;title\x07", "\\x1B]0;title\\x07"},
        {"tab\there\r\n", "tab\\x09here\\x0D\\x0A"},
        {"del\x7f unit\x1f", "del\\x7F unit\\x1F"},
        {"nul\0end"s, "nul\\x00end"},
        {"csi \xc2\x9b"
         "31m",
         "csi \\xC2\\x9B31m"},
        {"caf\xc3\xa9 \xc2\xa0 \\x41", "caf\xc3\xa9 \xc2\xa0 \\x41"},  // UTF-8 and backslashes kept
        // Lone C1 bytes and whatever is not UTF-8: cut sequences, overlong forms, surrogates,
        // values past U+10FFFF. Four-byte characters pass.
        {"a\x9b[31mb \x85", "a\\x9B[31mb \\x85"},
        {"cut \xc3", "cut \\xC3"},
        {"\xe2\x82 \xe0\x80\xaf \xc0\xaf", "\\xE2\\x82 \\xE0\\x80\\xAF \\xC0\\xAF"},
        {"\xed\xa0\x80 \xf4\x90\x80\x80 \xf5", "\\xED\\xA0\\x80 \\xF4\\x90\\x80\\x80 \\xF5"},
        {"\xf0\x9f\x8e\xa8 \xe2\x82\xac", "\xf0\x9f\x8e\xa8 \xe2\x82\xac"},
    };
    for (const escape_case& c : cases) {
        EXPECT_EQ(kv_tool::printable(c.text), c.shown);
        EXPECT_EQ(kv_tool::printable(c.shown), c.shown);  // escaping twice changes nothing
        EXPECT_EQ(std::string(kv_tool::file_error(c.text, c.text).what()),
                  c.shown + ": " + c.shown);
    }
    // A line of megabytes is quoted by its start only.
    const std::string line(20 << 20, 'A');
    const kv_tool::tool_error e = error_of([&] { kv_tool::parse_cube("long.cube", line + "\n"); });
    EXPECT_LT(std::strlen(e.what()), 120u) << e.what();
    EXPECT_NE(std::string(e.what()).find("long.cube:1: unknown keyword 'AAAA"), std::string::npos);
}

}  // namespace
}  // namespace kv_tool_test
