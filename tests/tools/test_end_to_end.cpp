// The tool's processing through the built library (with the fake LUT module) against the
// reference model: option sets covering LUTs, curves, clamps, shifts, widths and layouts, the
// order of appended matrices, the alpha of four-channel images and refused transforms.
#include <cstring>

#include "chart.h"
#include "processing.h"
#include "tests/common/reference_model.h"
#include "tool_test_support.h"

namespace kv_tool_test {
namespace {

using kv_tool::settings;

class ToolPipeline : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { session_ = new kv_tool::library_session(); }
    static void TearDownTestSuite() {
        delete session_;
        session_ = nullptr;
    }

    // The tool's output for `picture`, and the reference model's for the same settings with
    // `matrix` as the whole stored matrix.
    static void run_both(const settings& s, const kv_tool::image& picture,
                         const std::array<float, 9>& matrix, std::optional<int32_t> tier,
                         std::vector<uint8_t>* tool, std::vector<uint8_t>* reference) {
        const kv_tool::pipeline_plan plan = kv_tool::plan_pipeline(s);
        const kv_tool::processor p(s, plan, tier);
        const std::vector<uint16_t> input = kv_tool::to_input_buffer(picture, s.input_layout);
        const auto pixels = int32_t(picture.pixel_count());
        const size_t bytes = kv_tool::output_bytes(s, picture.pixel_count());
        // 16-bit elements need an aligned buffer; the extra bytes catch writes past the frame.
        std::vector<uint16_t> out(bytes / 2 + 8, 0x5A5A), expected(bytes / 2 + 8, 0x5A5A);
        ASSERT_EQ(kv_tool::run_transform(p, s, plan, input.data(), out.data(), pixels),
                  KV_STATUS_SUCCESS);

        std::vector<uint32_t> tables[6];
        kv::color_correction_head head;
        std::memcpy(head.matrix, matrix.data(), sizeof head.matrix);
        kv::transform_request r{};
        r.input_buffer = input.data();
        r.input_format = kv::pixel_format(s.input_layout);
        r.processor = reinterpret_cast<const kv::color_correction*>(&head);
        const uint32_t* input_tables[3] = {};
        const uint32_t* output_tables[3] = {};
        for (int c = 0; c < 3; ++c) {
            if (plan.channel[c].input_LUT) {
                tables[c].resize(65536);
                kv_tool::fill_table(s.input_LUT[c], c, tables[c].data(), 65536, 65535);
                input_tables[c] = tables[c].data();
            }
            if (plan.channel[c].output_LUT) {
                const uint32_t entries = 1u << plan.output_LUT_bits;
                tables[3 + c].resize(entries);
                kv_tool::fill_table(s.output_LUT[c], c, tables[3 + c].data(), entries,
                                    plan.output_LUT_max);
                output_tables[c] = tables[3 + c].data();
            }
        }
        r.blue_input_LUT = input_tables[0];
        r.green_input_LUT = input_tables[1];
        r.red_input_LUT = input_tables[2];
        r.blue_input_LUT_enabled = input_tables[0] != nullptr;
        r.green_input_LUT_enabled = input_tables[1] != nullptr;
        r.red_input_LUT_enabled = input_tables[2] != nullptr;
        r.blue_output_LUT = output_tables[0];
        r.green_output_LUT = output_tables[1];
        r.red_output_LUT = output_tables[2];
        r.blue_output_LUT_enabled = output_tables[0] != nullptr;
        r.green_output_LUT_enabled = output_tables[1] != nullptr;
        r.red_output_LUT_enabled = output_tables[2] != nullptr;
        r.blue_output_min = plan.channel[0].minimum;
        r.blue_output_max = plan.channel[0].maximum;
        r.green_output_min = plan.channel[1].minimum;
        r.green_output_max = plan.channel[1].maximum;
        r.red_output_min = plan.channel[2].minimum;
        r.red_output_max = plan.channel[2].maximum;
        r.blue_shift_distance = plan.channel[0].shift;
        r.green_shift_distance = plan.channel[1].shift;
        r.red_shift_distance = plan.channel[2].shift;
        r.output_buffer = expected.data();
        r.output_format = kv::pixel_format(s.output_layout);
        r.fourth_channel = s.channels == 4;
        r.pixel_count = pixels;
        kv::reference::run_request(r, s.bits, 0);

        const auto* a = reinterpret_cast<const uint8_t*>(out.data());
        const auto* b = reinterpret_cast<const uint8_t*>(expected.data());
        tool->assign(a, a + out.size() * 2);
        reference->assign(b, b + expected.size() * 2);
    }

    static kv_tool::library_session* session_;
};

kv_tool::library_session* ToolPipeline::session_ = nullptr;

constexpr std::array<float, 9> identity = {1, 0, 0, 0, 1, 0, 0, 0, 1};

struct pipeline_case {
    std::vector<std::string> arguments;
    std::array<float, 9> matrix;  // the one --matrix given, or the identity
};

TEST_F(ToolPipeline, OptionSetsMatchTheReferenceModel) {
    const auto dir = scratch_dir();
    const std::string cube = write_text(dir / "warm.cube",
                                        "LUT_1D_SIZE 4\n0 0 0\n0.4 0.3 0.2\n0.8 0.6 0.5\n1 0.9 "
                                        "0.8\n");
    const std::string saturate = "1.2,-0.1,-0.1,-0.1,1.2,-0.1,-0.1,-0.1,1.2";
    const pipeline_case cases[] = {
        {{}, identity},
        {{"--matrix", saturate}, {1.2f, -0.1f, -0.1f, -0.1f, 1.2f, -0.1f, -0.1f, -0.1f, 1.2f}},
        {{"--output-lut", "srgb", "--bits", "8"}, identity},
        {{"--input-lut", "inverse-srgb", "--output-lut", "srgb", "--bits", "16", "--channels", "4",
          "--output-layout", "planes"},
         identity},
        {{"--input-lut", "r=gamma:2.2", "--input-layout", "planes", "--output-layout", "bgr",
          "--channels", "4"},
         identity},
        {{"--clamp", "g=1000:50000", "--shift", "b=-4", "--output-lut-bits", "12", "--output-lut",
          "b=scale:0.5", "--bits", "16"},
         identity},
        {{"--output-lut", cube, "--output-lut-max", "255", "--input-layout", "bgr"}, identity},
        {{"--input-layout", "-3", "--output-layout", "-1"}, identity},  // negative: planes
        {{"--matrix", "0.5,0.25,0.25,0,1,0,-1,0,2", "--shift", "3", "--bits", "16", "--clamp",
          "0:8191"},
         {0.5f, 0.25f, 0.25f, 0, 1, 0, -1, 0, 2}},
    };
    const kv_tool::image chart = kv_tool::make_chart(37, 9);
    for (const pipeline_case& c : cases) {
        for (std::optional<int32_t> tier :
             {std::optional<int32_t>(), std::optional<int32_t>(0), std::optional<int32_t>(3)}) {
            SCOPED_TRACE(::testing::PrintToString(c.arguments) + " tier " +
                         (tier ? std::to_string(*tier) : "auto"));
            std::vector<uint8_t> tool, reference;
            run_both(parse(c.arguments), chart, c.matrix, tier, &tool, &reference);
            EXPECT_EQ(tool, reference);
        }
    }
}

TEST_F(ToolPipeline, LastMatrixGivenIsAppliedFirst) {
    // Swapping red and blue after halving red and doubling blue: every product is exact.
    const settings s =
        parse({"--matrix", "0,0,1,0,1,0,1,0,0", "--matrix", "0.5,0,0,0,1,0,0,0,2", "--bits", "16"});
    const kv_tool::image chart = kv_tool::make_chart(16, 8);
    std::vector<uint8_t> tool, swap_of_scaled, scale_of_swapped;
    run_both(s, chart, {0, 0, 2, 0, 1, 0, 0.5f, 0, 0}, 0, &tool, &swap_of_scaled);
    EXPECT_EQ(tool, swap_of_scaled);
    run_both(s, chart, {0, 0, 0.5f, 0, 1, 0, 2, 0, 0}, 0, &tool, &scale_of_swapped);
    EXPECT_NE(tool, scale_of_swapped);
}

TEST_F(ToolPipeline, FourChannelImagesCarryTheInputAlpha) {
    kv_tool::image picture;
    picture.width = 3;
    picture.height = 1;
    picture.channels = 4;
    picture.samples = {65535, 0, 0, 0, 0, 65535, 0, 32896, 1, 2, 3, 65535};
    const kv_tool::image opaque = kv_tool::make_chart(3, 1);
    struct expectation {
        const kv_tool::image* source;
        int bits;
        std::vector<uint16_t> alpha;
    };
    const expectation cases[] = {{&picture, 8, {0, 128, 255}},
                                 {&picture, 16, {0, 32896, 65535}},
                                 {&opaque, 8, {255, 255, 255}},
                                 {&opaque, 16, {65535, 65535, 65535}}};
    for (const expectation& c : cases) {
        SCOPED_TRACE(std::to_string(c.bits) + " bits");
        settings s = parse(
            {"--channels", "4", "--bits", std::to_string(c.bits), "--output-layout", "planes"});
        const kv_tool::pipeline_plan plan = kv_tool::plan_pipeline(s);
        const kv_tool::processor p(s, plan, 0);
        const std::vector<uint16_t> input = kv_tool::to_input_buffer(*c.source, s.input_layout);
        std::vector<uint16_t> out(kv_tool::output_bytes(s, 3) / 2 + 1);
        ASSERT_EQ(kv_tool::run_transform(p, s, plan, input.data(), out.data(), 3),
                  KV_STATUS_SUCCESS);
        const kv_tool::image result = kv_tool::from_output_buffer(out.data(), s, *c.source);
        ASSERT_EQ(result.channels, 4);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(result.samples[i * 4 + 3], c.alpha[i]) << "pixel " << i;
            // The color survives the trip through planes: red of pixel 0, green of pixel 1.
        }
        const uint16_t full = c.bits == 8 ? 255 : 65535;
        if (c.source == &picture) {
            EXPECT_EQ(result.samples[0], full);
            EXPECT_EQ(result.samples[5], full);
        }
    }
}

struct refusal_case {
    std::vector<std::string> arguments;
    const char* message;
};

TEST_F(ToolPipeline, RefusedTransformsNameTheStatusAndTheOption) {
    const refusal_case cases[] = {
        {{"--clamp", "g=9:8"},
         "frame: transform failed with KV_STATUS_INVALID_CLAMP (12): check "
         "--clamp"},
        {{"--output-lut", "srgb", "--output-lut-bits", "8", "--clamp", "0:256"},
         "KV_STATUS_INVALID_CLAMP (12): check --clamp: each maximum must not lie below its "
         "minimum nor above the last output LUT entry, 255 (--output-lut-bits 8)"},
        {{"--shift", "r=16"}, "KV_STATUS_INVALID_SHIFT (11): check --shift"},
        {{"--input-layout", "3"},
         "KV_STATUS_INVALID_INPUT_FORMAT (9): check --input-layout: "
         "layout 3 is refused"},
        {{"--output-layout", "5"}, "KV_STATUS_INVALID_OUTPUT_FORMAT (10)"},
    };
    const kv_tool::image chart = kv_tool::make_chart(4, 2);
    for (const refusal_case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.arguments));
        const settings s = parse(c.arguments);
        const kv_tool::pipeline_plan plan = kv_tool::plan_pipeline(s);
        const kv_tool::processor p(s, plan, std::nullopt);
        const std::vector<uint16_t> input = kv_tool::to_input_buffer(chart, s.input_layout);
        std::vector<uint16_t> out(kv_tool::output_bytes(s, 8), 0x1234);
        const kv_status status = kv_tool::run_transform(p, s, plan, input.data(), out.data(), 8);
        EXPECT_EQ(std::count(out.begin(), out.end(), 0x1234), ptrdiff_t(out.size()))
            << "a refused frame touched the output";
        const kv_tool::tool_error e =
            error_of([&] { kv_tool::check_transform(status, "frame", s, plan); });
        EXPECT_EQ(e.code(), kv_tool::EXIT_TRANSFORM);
        EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
    }
}

}  // namespace
}  // namespace kv_tool_test
