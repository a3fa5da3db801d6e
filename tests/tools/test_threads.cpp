// kelvane-color on several threads writes byte for byte what it writes on one: a batch of files
// processed at once, each interleaved frame cut into stripes and each planar one run whole.
#include "application.h"
#include "processing.h"
#include "tool_test_support.h"

namespace kv_tool_test {
namespace {

namespace fs = std::filesystem;

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

// Eight threads for four files: all four at once, each interleaved frame in two stripes.
TEST(Threads, ABatchIsTheSameOnOneThreadAndOnEight) {
    const fs::path dir = scratch_dir();
    std::vector<std::string> inputs;
    for (const char* size : {"64x3", "5x1", "333x9", "17x17"}) {
        inputs.push_back((dir / (std::string("in_") + size + ".ppm")).string());
        ASSERT_EQ(run({"--chart-size", size, "--bits", "16", "-o", inputs.back()}),
                  kv_tool::EXIT_OK);
    }
    for (const auto& options : option_sets) {
        SCOPED_TRACE(::testing::PrintToString(options));
        for (const char* threads : {"1", "8"}) {
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
            EXPECT_EQ(one, contents(dir / "out_8" / name)) << name;
        }
    }
}

}  // namespace
}  // namespace kv_tool_test
