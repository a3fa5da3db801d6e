// Whole runs of kelvane-color that would write over a file the run reads, or over something that
// is not a file: each is refused before the first write, with a message naming both paths, and
// the folder holds afterwards exactly what it held before.
#include <map>

#include "cli/application.h"
#include "image/image.h"
#include "tool_test_support.h"

#if !defined(_WIN32)
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#endif

namespace kv_tool_test {
namespace {

namespace fs = std::filesystem;

void write_picture(const fs::path& path) {
    kv_tool::image picture;
    picture.width = 3;
    picture.height = 2;
    picture.samples = {1, 2, 3, 400, 500, 600, 7000, 8000, 9000, 0, 65535, 1, 2, 3, 4, 5, 6, 7};
    kv_tool::write_image(path.string(), kv_tool::file_type::ppm, picture);
}

struct refusal_case {
    const char* name;
    std::vector<std::string> arguments;  // {dir} stands for the scratch folder
    const char* message;                 // after "kelvane-color: {dir}/"
    bool posix_only;
};

TEST(RunSafety, OutputsThatAreReadOrNotFilesRefuseTheWholeRun) {
    const refusal_case cases[] = {
        {"a later input of the batch",
         {"{dir}/src/a.ppm", "{dir}/a.ppm", "--output-dir", "{dir}/", "--output-type", "ppm"},
         "a.ppm: is the input {dir}/a.ppm; not overwritten, and the run writes nothing",
         false},
        {"an earlier input of the batch",
         {"{dir}/a.ppm", "{dir}/src/a.ppm", "--output-dir", "{dir}/src/", "--output-type", "ppm"},
         "src/a.ppm: is the input {dir}/src/a.ppm; not overwritten",
         false},
        {"the input through ..",
         {"{dir}/a.ppm", "-o", "{dir}/src/../a.ppm"},
         "src/../a.ppm: is the input {dir}/a.ppm",
         false},
        {"the .cube file's hard link",
         {"{dir}/a.ppm", "--output-lut", "{dir}/warm.cube", "-o", "{dir}/hard.ppm"},
         "hard.ppm: is the .cube file {dir}/warm.cube",
         true},
        {"a link to the input",
         {"{dir}/a.ppm", "-o", "{dir}/link.ppm"},
         "link.ppm: is the input {dir}/a.ppm",
         true},
        {"bench JSON over its input",
         {"bench", "{dir}/a.ppm", "--json", "{dir}/a.ppm"},
         "a.ppm: is the input {dir}/a.ppm",
         false},
        {"a folder",
         {"{dir}/a.ppm", "-o", "{dir}/folder.ppm"},
         "folder.ppm: is a folder; kelvane-color writes regular files only, not overwritten",
         false},
        {"a FIFO in a batch",
         {"{dir}/a.ppm", "{dir}/src/fifo.ppm", "--output-dir", "{dir}/out", "--output-type", "ppm"},
         "out/fifo.ppm: is a FIFO (named pipe); kelvane-color writes",
         true},
        {"a socket", {"{dir}/a.ppm", "-o", "{dir}/socket.ppm"}, "socket.ppm: is a socket", true},
    };
    for (const refusal_case& c : cases) {
#if defined(_WIN32)
        if (c.posix_only) continue;  // links, FIFOs and sockets as tested here are POSIX's
#endif
        SCOPED_TRACE(c.name);
        const fs::path dir = scratch_dir();
        const std::string root = dir.generic_string();
        fs::create_directories(dir / "src");
        fs::create_directories(dir / "out");
        fs::create_directories(dir / "folder.ppm");
        write_picture(dir / "a.ppm");
        write_picture(dir / "src" / "a.ppm");
        write_picture(dir / "src" / "fifo.ppm");
        write_text(dir / "warm.cube", "LUT_1D_SIZE 2\n0 0 0\n1 1 1\n");
#if !defined(_WIN32)
        fs::create_hard_link(dir / "warm.cube", dir / "hard.ppm");
        fs::create_symlink("a.ppm", dir / "link.ppm");
        ASSERT_EQ(::mkfifo((dir / "out" / "fifo.ppm").c_str(), 0600), 0);
        const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string socket_path = (dir / "socket.ppm").string();
        ASSERT_LT(socket_path.size(), sizeof address.sun_path);
        socket_path.copy(address.sun_path, socket_path.size());
        ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
#endif
        std::vector<std::string> arguments;
        for (std::string a : c.arguments) {
            if (a.rfind("{dir}", 0) == 0) a = root + a.substr(5);
            arguments.push_back(a);
        }
        std::string expected = std::string("kelvane-color: ") + root + "/" + c.message;
        for (size_t at; (at = expected.find("{dir}")) != std::string::npos;) {
            expected.replace(at, 5, root);
        }
        const auto before = folder_snapshot(dir);
        ::testing::internal::CaptureStderr();
        const int code = kv_tool::run_kelvane_color(arguments);
        const std::string message = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(code, kv_tool::EXIT_FILE);
        EXPECT_EQ(message.rfind(expected, 0), 0u) << message;
        EXPECT_EQ(folder_snapshot(dir), before);
#if !defined(_WIN32)
        ::close(listener);
#endif
    }
}

}  // namespace
}  // namespace kv_tool_test
