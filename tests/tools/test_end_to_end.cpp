// The tool's processing through the built library (with the fake LUT module) against the
// reference model: option sets covering LUTs, curves, clamps, shifts, widths and layouts, the
// order of appended matrices and the alpha of four-channel images. Refused transforms are runs of
// the program (CMakeLists.txt).
#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "image/chart.h"
#include "pipeline/processing.h"
#include "tests/common/frames.h"
#include "tests/common/reference_model.h"
#include "tool_test_support.h"

namespace kv_tool_test {
namespace {

using kv_tool::settings;

// The tool's output for `picture` equals the reference model's for the same settings with `matrix`
// as the whole stored matrix.
void expect_reference_output(const settings& s, const kv_tool::image& picture,
                             const std::array<float, 9>& matrix, std::optional<int32_t> tier) {
    const kv_tool::pipeline_plan plan = kv_tool::plan_pipeline(s);
    const kv_tool::processor p(s, plan, tier);
    const std::vector<uint16_t> input = kv_tool::to_input_buffer(picture, s.input_layout);
    const auto pixels = int32_t(picture.pixel_count());
    const size_t bytes = kv_tool::output_bytes(s, picture.pixel_count());
    // 16-bit elements need an aligned buffer; the extra bytes catch writes past the frame.
    std::vector<uint16_t> out(bytes / 2 + 8, 0x5A5A), expected(bytes / 2 + 8, 0x5A5A);
    ASSERT_EQ(kv_tool::run_transform(p, s, plan, input.data(), out.data(), pixels),
              KV_STATUS_SUCCESS);

    kv::testing::frame_settings f;
    f.input_format = s.input_layout;
    f.output_format = s.output_layout;
    f.fourth_channel = s.channels == 4;
    std::copy(matrix.begin(), matrix.end(), f.matrix);
    std::vector<uint32_t> tables[6];
    for (int c = 0; c < 3; ++c) {
        const kv_tool::channel_plan& channel = plan.channel[c];
        f.minimum[c] = channel.minimum;
        f.maximum[c] = channel.maximum;
        f.shift_distance[c] = channel.shift;
        if (channel.input_LUT) {
            tables[c].resize(65536);
            kv_tool::fill_table(s.input_LUT[c], c, tables[c].data(), 65536, 65535);
            f.input_LUT[c] = tables[c].data();
        }
        if (channel.output_LUT) {
            tables[3 + c].resize(size_t(1) << plan.output_LUT_bits);
            kv_tool::fill_table(s.output_LUT[c], c, tables[3 + c].data(),
                                uint32_t(tables[3 + c].size()), plan.output_LUT_max);
            f.output_LUT[c] = tables[3 + c].data();
        }
    }
    kv::color_correction_head head;
    std::memcpy(head.matrix, f.matrix, sizeof head.matrix);
    kv::reference::run_request(
        kv::testing::make_request(f, input.data(), pixels, expected.data(), &head), s.bits, 0);
    EXPECT_EQ(out, expected);
}

constexpr std::array<float, 9> identity = {1, 0, 0, 0, 1, 0, 0, 0, 1};

struct pipeline_case {
    std::vector<std::string> arguments;
    std::array<float, 9> matrix;  // the product of the --matrix options given, or the identity
};

TEST(ToolPipeline, OptionSetsMatchTheReferenceModel) {
    const auto dir = scratch_dir();
    const std::string cube = write_text(dir / "warm.cube",
                                        "LUT_1D_SIZE 4\n0 0 0\n0.4 0.3 0.2\n0.8 0.6 0.5\n1 0.9 "
                                        "0.8\n");
    const std::string saturate = "1.2,-0.1,-0.1,-0.1,1.2,-0.1,-0.1,-0.1,1.2";
    const pipeline_case cases[] = {
        {{}, identity},
        {{"--matrix", saturate}, {1.2f, -0.1f, -0.1f, -0.1f, 1.2f, -0.1f, -0.1f, -0.1f, 1.2f}},
        // The last matrix given is applied first: red halved and blue doubled, then swapped.
        {{"--matrix", "0,0,1,0,1,0,1,0,0", "--matrix", "0.5,0,0,0,1,0,0,0,2", "--bits", "16"},
         {0, 0, 2, 0, 1, 0, 0.5f, 0, 0}},
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
            expect_reference_output(parse(c.arguments), chart, c.matrix, tier);
        }
    }
}

// The alpha of four-channel output is the input's, every 16-bit value narrowed to
// round(v x 255 / 65535) at 8 bits; a three-channel input gives opaque pixels. The color survives
// the trip through planes.
TEST(ToolPipeline, FourChannelImagesCarryTheInputAlpha) {
    kv_tool::image picture = kv_tool::make_chart(256, 256);
    picture.channels = 4;
    picture.samples.assign(4 * 65536, 0);
    for (uint32_t v = 0; v < 65536; ++v) {
        picture.samples[4 * v] = 65535;  // red
        picture.samples[4 * v + 3] = uint16_t(v);
    }
    const kv_tool::image opaque = kv_tool::make_chart(256, 256);
    for (const kv_tool::image* source : {&std::as_const(picture), &opaque}) {
        for (const int bits : {8, 16}) {
            SCOPED_TRACE(std::to_string(source->channels) + " channels in, " +
                         std::to_string(bits) + " bits");
            const settings s = parse(
                {"--channels", "4", "--bits", std::to_string(bits), "--output-layout", "planes"});
            const kv_tool::pipeline_plan plan = kv_tool::plan_pipeline(s);
            const std::vector<uint16_t> input = kv_tool::to_input_buffer(*source, s.input_layout);
            std::vector<uint16_t> out(kv_tool::output_bytes(s, 65536) / 2 + 1);
            ASSERT_EQ(kv_tool::run_transform(kv_tool::processor(s, plan, 0), s, plan, input.data(),
                                             out.data(), 65536),
                      KV_STATUS_SUCCESS);
            const std::vector<uint16_t> got =
                kv_tool::from_output_buffer(out.data(), s, *source).samples;
            const uint16_t full = bits == 8 ? 255 : 65535;
            ASSERT_EQ(got.size(), 4u * 65536);
            for (uint32_t v = 0; v < 65536; ++v) {
                const auto alpha = source == &opaque ? full
                                   : bits == 8       ? uint16_t(std::lround(v * 255.0 / 65535.0))
                                                     : uint16_t(v);
                ASSERT_EQ(got[4 * v + 3], alpha) << "alpha " << v;
                if (source == &picture) {
                    ASSERT_EQ(got[4 * v], full) << "red of pixel " << v;
                }
            }
        }
    }
}

}  // namespace
}  // namespace kv_tool_test
