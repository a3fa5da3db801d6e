// kelvane-color on several threads writes byte for byte what it writes on one: a frame cut into
// stripes (interleaved), a planar frame run whole, and a batch of files processed at once.
#include <fstream>
#include <iterator>

#include "application.h"
#include "processing.h"
#include "tool_test_support.h"

namespace kv_tool_test {
namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int run(std::vector<std::string> arguments) {
    arguments.push_back("-q");
    return kv_tool::run_kelvane_color(arguments);
}

// Layout and width settings: interleaved both sides (striped), a planar side (whole frames).
const std::vector<std::string> option_sets[] = {
    {"--output-lut", "srgb", "--matrix", "1.1,-0.1,0,0,1,0,0.2,0,0.8"},
    {"--bits", "16", "--channels", "4", "--input-layout", "bgr", "--output-layout", "bgr"},
    {"--input-layout", "planes", "--output-lut", "gamma:2.2"},
    {"--bits", "16", "--output-layout", "planes"},
};

TEST(Threads, OneFrameIsTheSameOnOneThreadAndOnThree) {
    const fs::path dir = scratch_dir();
    for (const auto& options : option_sets) {
        SCOPED_TRACE(::testing::PrintToString(options));
        std::string outputs[2];
        size_t frame_bytes = 0;
        for (int t = 0; t < 2; ++t) {
            const fs::path file = dir / ("frame" + std::to_string(t) + ".raw");
            fs::remove(file);
            std::vector<std::string> arguments = options;
            for (const char* word : {"--chart-size", "301x7", "--threads", t ? "3" : "1", "-o"}) {
                arguments.push_back(word);
            }
            arguments.push_back(file.string());
            frame_bytes = kv_tool::output_bytes(parse(arguments), 301 * 7);
            ASSERT_EQ(run(arguments), kv_tool::EXIT_OK);
            outputs[t] = contents(file);
        }
        EXPECT_EQ(outputs[0].size(), frame_bytes);
        EXPECT_EQ(outputs[0], outputs[1]);
    }
}

TEST(Threads, ABatchIsTheSameOnOneThreadAndOnThree) {
    const fs::path dir = scratch_dir();
    std::vector<std::string> inputs;
    for (const char* size : {"64x3", "5x1", "333x9", "17x17"}) {
        inputs.push_back((dir / (std::string("in_") + size + ".ppm")).string());
        ASSERT_EQ(run({"--chart-size", size, "--bits", "16", "-o", inputs.back()}),
                  kv_tool::EXIT_OK);
    }
    for (const auto& options : option_sets) {
        SCOPED_TRACE(::testing::PrintToString(options));
        for (const char* threads : {"1", "3"}) {
            std::vector<std::string> arguments = inputs;
            arguments.insert(arguments.end(), options.begin(), options.end());
            const fs::path out = dir / (std::string("out_") + threads);
            fs::remove_all(out);
            for (const std::string& word :
                 {std::string("--threads"), std::string(threads), std::string("--output-type"),
                  std::string("raw"), std::string("--output-dir"), out.string()}) {
                arguments.push_back(word);
            }
            ASSERT_EQ(run(arguments), kv_tool::EXIT_OK);
        }
        for (const std::string& input : inputs) {
            const std::string name = fs::path(input).stem().string() + ".raw";
            const std::string one = contents(dir / "out_1" / name);
            EXPECT_FALSE(one.empty()) << name;
            EXPECT_EQ(one, contents(dir / "out_3" / name)) << name;
        }
    }
}

}  // namespace
}  // namespace kv_tool_test
