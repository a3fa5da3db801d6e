// The edges of a run: split runs, empty and negative counts, start indices at or past the end,
// flag bytes and formats outside the canonical values, disabled LUTs with NULL addresses, the
// layouts' worked examples and frames whose element offsets exceed 32 bits.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "kernels/dispatch.h"
#include "tests/common/frames.h"
#include "tests/common/reference_model.h"

namespace kv {
namespace {

constexpr float identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

transform_request blank_request() {
    return testing::make_request(testing::frame_settings{}, nullptr, 0, nullptr, nullptr);
}

void dispatch(int width, const transform_request& r, int32_t start_index) {
    if (width == 8) {
        dispatch_kernel_8(&r, start_index);
    } else {
        dispatch_kernel_16(&r, start_index);
    }
}

// A random but fixed frame with every stage on, for the tests that compare runs with each other.
struct random_frame {
    std::vector<uint32_t> tables[6];
    std::vector<uint16_t> input;
    color_correction_head matrix{};
    transform_request request = blank_request();

    random_frame(int32_t n, uint32_t seed, int32_t input_format, int32_t output_format,
                 bool fourth) {
        std::mt19937 rng(seed);
        for (auto& t : tables) {
            t.resize(65536);
            for (auto& e : t) e = rng();
        }
        input = testing::random_input(n, rng);
        for (float& m : matrix.matrix) m = std::uniform_real_distribution<float>(-1, 2)(rng);
        transform_request& r = request;
        r.input_buffer = input.data();
        r.input_format = static_cast<pixel_format>(input_format);
        r.output_format = static_cast<pixel_format>(output_format);
        r.fourth_channel = fourth;
        r.pixel_count = n;
        r.processor = reinterpret_cast<const color_correction*>(&matrix);
        r.blue_input_LUT = tables[0].data();
        r.green_input_LUT = tables[1].data();
        r.red_input_LUT = tables[2].data();
        r.blue_output_LUT = tables[3].data();
        r.green_output_LUT = tables[4].data();
        r.red_output_LUT = tables[5].data();
        r.blue_input_LUT_enabled = r.red_input_LUT_enabled = 1;
        r.green_output_LUT_enabled = r.red_output_LUT_enabled = 1;
        r.blue_output_min = 10;
        r.blue_output_max = 60000;
        r.green_shift_distance = 3;
        r.red_shift_distance = -5;
    }

    std::vector<uint8_t> run(int width, int32_t start_index, uint8_t fill = 0x5A) {
        std::vector<uint8_t> out(
            testing::output_bytes(width, request.fourth_channel != 0, request.pixel_count) + 16,
            fill);
        transform_request r = request;
        r.output_buffer = out.data();
        dispatch(width, r, start_index);
        return out;
    }
};

struct format_pair {
    int32_t input_format, output_format;
    bool fourth;
};

class SplitRuns : public ::testing::TestWithParam<format_pair> {};

TEST_P(SplitRuns, AnyStartIndexContinuesTheSameFrame) {
    const format_pair p = GetParam();
    const int32_t n = 37;
    for (int width : {8, 16}) {
        random_frame frame(n, 99, p.input_format, p.output_format, p.fourth);
        const std::vector<uint8_t> whole = frame.run(width, 0);
        const size_t element = static_cast<size_t>(width / 8);
        for (int32_t k = 0; k <= n; ++k) {
            // The tail alone: everything a run from k stores equals the whole run, nothing of the
            // pixels below k is touched.
            const std::vector<uint8_t> tail = frame.run(width, k, 0x5A);
            std::vector<uint8_t> expected(tail.size(), 0x5A);
            transform_request r = frame.request;
            r.output_buffer = expected.data();
            reference::run_request(r, width, k);
            ASSERT_EQ(tail, expected) << "width " << width << " start " << k;
            for (int64_t i = k; i < n; ++i) {
                for (int c = 0; c < (p.fourth ? 4 : 3); ++c) {
                    const size_t at =
                        reference::element_place(p.output_format, c, i, n, p.fourth) * element;
                    ASSERT_EQ(tail[at], whole[at]);
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, SplitRuns,
                         ::testing::Values(format_pair{0, 0, false}, format_pair{0, 0, true},
                                           format_pair{1, 2, true}, format_pair{2, 0, false},
                                           format_pair{1, 1, false}));

TEST(EmptyRuns, NothingIsReadOrWritten) {
    struct {
        int32_t pixel_count, start_index;
    } const rows[] = {{0, 0}, {-1, 0}, {INT32_MIN, 0}, {5, 5}, {5, 6}, {5, INT32_MAX}, {-3, 0}};
    color_correction_head matrix{};
    for (const auto& row : rows) {
        for (int width : {8, 16}) {
            for (int32_t format : {0, 1, 2}) {
                // NULL buffers: a single read or write would fault.
                transform_request r = blank_request();
                r.processor = reinterpret_cast<const color_correction*>(&matrix);
                r.input_format = r.output_format = static_cast<pixel_format>(format);
                r.pixel_count = row.pixel_count;
                r.fourth_channel = 1;
                if (row.start_index >= 0 && row.pixel_count > 0) {
                    // A real frame, started at or past its end.
                    static std::vector<uint16_t> input(3 * 5, 1);
                    static std::vector<uint8_t> out(64, 0x77);
                    r.input_buffer = input.data();
                    r.output_buffer = out.data();
                    dispatch(width, r, row.start_index);
                    EXPECT_EQ(out, std::vector<uint8_t>(64, 0x77));
                } else {
                    dispatch(width, r, row.start_index);
                }
            }
        }
    }
}

// Flag bytes other than 1 are on, zero is off whatever the reserved bytes beside it hold, and
// formats other than 1 and 2 are planes.
TEST(SettingBytes, SelectTheSameKernelAsTheirCanonicalValue) {
    const int32_t n = 11;
    for (int width : {8, 16}) {
        random_frame canonical(n, 5, 0, 0, true);
        canonical.request.blue_input_LUT_enabled = 1;
        canonical.request.blue_output_LUT_enabled = 0;
        const std::vector<uint8_t> expected = canonical.run(width, 0);
        for (uint8_t on : {2, 128, 255}) {
            random_frame frame(n, 5, 0, 0, true);
            frame.request.blue_input_LUT_enabled = on;
            frame.request.red_input_LUT_enabled = on;
            frame.request.green_output_LUT_enabled = on;
            frame.request.red_output_LUT_enabled = on;
            frame.request.fourth_channel = on;
            frame.request.blue_output_LUT_enabled = 0;
            std::memset(frame.request.reserved_97, 0xFF, sizeof frame.request.reserved_97);
            EXPECT_EQ(frame.run(width, 0), expected) << "flag byte " << int(on);
        }
        for (int32_t format : {-1, INT32_MIN, 3, 1000, INT32_MAX}) {
            random_frame frame(n, 5, format, format, true);
            frame.request.blue_input_LUT_enabled = 1;
            frame.request.blue_output_LUT_enabled = 0;
            EXPECT_EQ(frame.run(width, 0), expected) << "format " << format;
        }
    }
}

TEST(SettingBytes, DisabledLUTAddressesAreNeverRead) {
    random_frame with_tables(9, 3, 1, 1, false);
    with_tables.request.blue_input_LUT_enabled = with_tables.request.red_input_LUT_enabled = 0;
    with_tables.request.green_output_LUT_enabled = with_tables.request.red_output_LUT_enabled = 0;
    random_frame without = with_tables;
    without.request.input_buffer = without.input.data();
    without.request.processor = reinterpret_cast<const color_correction*>(&without.matrix);
    without.request.blue_input_LUT = without.request.green_input_LUT = nullptr;
    without.request.red_input_LUT = without.request.blue_output_LUT = nullptr;
    without.request.green_output_LUT = without.request.red_output_LUT = nullptr;
    EXPECT_EQ(without.run(16, 0), with_tables.run(16, 0));
}

struct layout_case {
    int32_t output_format;
    bool fourth;
    std::vector<uint16_t> expected;
};

class PlanarInputLayouts : public ::testing::TestWithParam<layout_case> {};

// Two planar pixels (blue 1 2, green 3 4, red 5 6) through an identity pass.
TEST_P(PlanarInputLayouts, IdentityPassPlacesEveryElement) {
    const layout_case c = GetParam();
    const uint16_t input[6] = {1, 2, 3, 4, 5, 6};
    color_correction_head matrix{};
    std::memcpy(matrix.matrix, identity, sizeof identity);
    transform_request r = blank_request();
    r.input_buffer = input;
    r.input_format = FORMAT_BGR_PLANES;
    r.output_format = static_cast<pixel_format>(c.output_format);
    r.fourth_channel = c.fourth;
    r.pixel_count = 2;
    r.processor = reinterpret_cast<const color_correction*>(&matrix);
    std::vector<uint16_t> out(c.expected.size() + 2, 0xBEEF);
    r.output_buffer = out.data();
    dispatch_kernel_16(&r, 0);
    std::vector<uint16_t> expected = c.expected;
    expected.push_back(0xBEEF);
    expected.push_back(0xBEEF);
    EXPECT_EQ(out, expected);
    std::vector<uint16_t> model(out.size(), 0xBEEF);
    r.output_buffer = model.data();
    reference::run_request(r, 16, 0);
    EXPECT_EQ(model, expected);
}

INSTANTIATE_TEST_SUITE_P(Examples, PlanarInputLayouts,
                         ::testing::Values(layout_case{0, false, {1, 2, 3, 4, 5, 6}},
                                           layout_case{0, true, {1, 2, 3, 4, 5, 6, 0, 0}},
                                           layout_case{1, false, {1, 3, 5, 2, 4, 6}},
                                           layout_case{2, false, {5, 3, 1, 6, 4, 2}},
                                           layout_case{1, true, {1, 3, 5, 0, 2, 4, 6, 0}},
                                           layout_case{2, true, {5, 3, 1, 0, 6, 4, 2, 0}}));

TEST(Layouts, RGBToBGRSwapsAndChannelsKeepTheirIdentity) {
    const uint16_t input[3] = {30, 20, 10};  // red, green, blue
    std::vector<uint32_t> blue_LUT(65536, 0);
    blue_LUT[10] = 99;
    color_correction_head matrix{};
    std::memcpy(matrix.matrix, identity, sizeof identity);
    transform_request r = blank_request();
    r.input_buffer = input;
    r.input_format = FORMAT_RGB_INTERLEAVED;
    r.output_format = FORMAT_BGR_INTERLEAVED;
    r.pixel_count = 1;
    r.processor = reinterpret_cast<const color_correction*>(&matrix);
    r.blue_input_LUT = blue_LUT.data();
    r.blue_input_LUT_enabled = 1;
    uint16_t out[3] = {};
    r.output_buffer = out;
    dispatch_kernel_16(&r, 0);
    EXPECT_EQ(out[0], 99);  // blue, through its LUT, now first
    EXPECT_EQ(out[1], 20);
    EXPECT_EQ(out[2], 30);
}

// A frame of more than 2^31 / 4 pixels: 4i, 3n + i and 2n + i exceed 32 bits. Only the last pixels
// run, so the untouched pages of the huge buffers are never committed.
TEST(Layouts, OffsetsBeyond32BitsAddressCorrectly) {
    const int32_t n = (1 << 29) + 3;
    const size_t input_elements = 3 * static_cast<size_t>(n);
    const size_t output_elements = 4 * static_cast<size_t>(n);
    uint16_t* input = static_cast<uint16_t*>(std::calloc(input_elements, sizeof(uint16_t)));
    uint16_t* output = static_cast<uint16_t*>(std::calloc(output_elements, sizeof(uint16_t)));
    if (input == nullptr || output == nullptr) {
        std::free(input);
        std::free(output);
        GTEST_SKIP() << "cannot reserve the 7.5 GB of address space this test needs";
    }
    color_correction_head matrix{};
    std::memcpy(matrix.matrix, identity, sizeof identity);
    const int32_t last = n - 1;
    for (int32_t input_format : {0, 1, 2}) {
        for (int32_t output_format : {0, 1, 2}) {
            for (int c = 0; c < 3; ++c) {
                input[reference::element_place(input_format, c, last, n, false)] =
                    static_cast<uint16_t>(100 + c);
            }
            transform_request r = blank_request();
            r.input_buffer = input;
            r.input_format = static_cast<pixel_format>(input_format);
            r.output_format = static_cast<pixel_format>(output_format);
            r.fourth_channel = 1;
            r.pixel_count = n;
            r.processor = reinterpret_cast<const color_correction*>(&matrix);
            r.output_buffer = output;
            for (int c = 0; c < 4; ++c)
                output[reference::element_place(output_format, c, last, n, true)] = 0xFFFF;
            dispatch_kernel_16(&r, last);
            for (int c = 0; c < 4; ++c) {
                const uint64_t at = reference::element_place(output_format, c, last, n, true);
                EXPECT_EQ(output[at], c < 3 ? 100 + c : 0)
                    << "formats " << input_format << "/" << output_format << " channel " << c;
                output[at] = 0;
            }
            for (int c = 0; c < 3; ++c)
                input[reference::element_place(input_format, c, last, n, false)] = 0;
        }
    }
    std::free(input);
    std::free(output);
}

}  // namespace
}  // namespace kv
