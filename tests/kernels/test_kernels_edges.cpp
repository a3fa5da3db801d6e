// The edges of a run that the random walk over every kernel does not reach: empty and negative
// counts and start indices at or past the end with no buffers at all, the layouts' worked
// examples, and frames whose element offsets exceed 32 bits.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ostream>
#include <vector>

#include "kernels/dispatch.h"
#include "tests/common/frames.h"
#include "tests/common/reference_model.h"

namespace kv {
namespace {

TEST(EmptyRuns, NothingIsReadOrWritten) {
    struct {
        int32_t pixel_count, start_index;
    } const rows[] = {{0, 0}, {-1, 0}, {INT32_MIN, 0}, {-3, 0}, {5, 5}, {5, 6}, {5, INT32_MAX}};
    const color_correction_head matrix{};
    for (const auto& row : rows) {
        for (int width : {8, 16}) {
            for (int32_t format : {0, 1, 2}) {
                testing::frame_settings s;
                s.input_format = s.output_format = format;
                s.fourth_channel = true;
                // No buffers when the count is empty: a single read or write would fault. Else a
                // real frame, started at or past its end.
                const std::vector<uint16_t> input(3 * 5, 1);
                std::vector<uint8_t> out(64, 0x77);
                const bool empty = row.pixel_count <= 0;
                const transform_request r =
                    testing::make_request(s, empty ? nullptr : input.data(), row.pixel_count,
                                          empty ? nullptr : out.data(), &matrix);
                width == 8 ? dispatch_kernel_8(&r, row.start_index)
                           : dispatch_kernel_16(&r, row.start_index);
                EXPECT_EQ(out, std::vector<uint8_t>(64, 0x77)) << row.pixel_count;
            }
        }
    }
}

struct layout_case {
    int32_t input_format;
    std::vector<uint16_t> input;  // two pixels
    int32_t output_format;
    bool fourth;
    std::vector<uint16_t> expected;
};

void PrintTo(const layout_case& c, std::ostream* os) {
    *os << "formats " << c.input_format << " -> " << c.output_format
        << (c.fourth ? " + fourth" : "");
}

class LayoutExamples : public ::testing::TestWithParam<layout_case> {};

// Two pixels (blue 1 2, green 3 4, red 5 6) through an identity pass, by the kernels and by the
// model, with a sentinel after the frame.
TEST_P(LayoutExamples, IdentityPassPlacesEveryElement) {
    const layout_case c = GetParam();
    testing::frame_settings s;
    s.input_format = c.input_format;
    s.output_format = c.output_format;
    s.fourth_channel = c.fourth;
    const color_correction_head matrix{{1, 0, 0, 0, 1, 0, 0, 0, 1}};
    std::vector<uint16_t> expected = c.expected;
    expected.insert(expected.end(), {0xBEEF, 0xBEEF});
    for (const bool through_model : {false, true}) {
        std::vector<uint16_t> out(expected.size(), 0xBEEF);
        const transform_request r =
            testing::make_request(s, c.input.data(), 2, out.data(), &matrix);
        through_model ? reference::run_request(r, 16, 0) : dispatch_kernel_16(&r, 0);
        EXPECT_EQ(out, expected) << (through_model ? "reference model" : "kernels");
    }
}

const std::vector<uint16_t> planes = {1, 2, 3, 4, 5, 6};
INSTANTIATE_TEST_SUITE_P(
    Examples, LayoutExamples,
    ::testing::Values(layout_case{0, planes, 0, false, {1, 2, 3, 4, 5, 6}},
                      layout_case{0, planes, 0, true, {1, 2, 3, 4, 5, 6, 0, 0}},
                      layout_case{0, planes, 1, false, {1, 3, 5, 2, 4, 6}},
                      layout_case{0, planes, 2, false, {5, 3, 1, 6, 4, 2}},
                      layout_case{0, planes, 1, true, {1, 3, 5, 0, 2, 4, 6, 0}},
                      layout_case{0, planes, 2, true, {5, 3, 1, 0, 6, 4, 2, 0}},
                      layout_case{1, {1, 3, 5, 2, 4, 6}, 0, false, planes},
                      layout_case{2, {5, 3, 1, 6, 4, 2}, 1, false, {1, 3, 5, 2, 4, 6}}));

// A frame of more than 2^31 / 4 pixels: 4i, 3n + i and 2n + i exceed 32 bits. Only the last pixels
// run, so the untouched pages of the huge buffers are never committed.
TEST(Layouts, OffsetsBeyond32BitsAddressCorrectly) {
    const int32_t n = (1 << 29) + 3;
    uint16_t* input = static_cast<uint16_t*>(std::calloc(3 * static_cast<size_t>(n), 2));
    uint16_t* output = static_cast<uint16_t*>(std::calloc(4 * static_cast<size_t>(n), 2));
    if (input == nullptr || output == nullptr) {
        std::free(input);
        std::free(output);
        GTEST_SKIP() << "cannot reserve the 7.5 GB of address space this test needs";
    }
    const color_correction_head matrix{{1, 0, 0, 0, 1, 0, 0, 0, 1}};
    const int32_t last = n - 1;
    for (int32_t input_format : {0, 1, 2}) {
        for (int32_t output_format : {0, 1, 2}) {
            testing::frame_settings s;
            s.input_format = input_format;
            s.output_format = output_format;
            s.fourth_channel = true;
            for (int c = 0; c < 3; ++c)
                input[reference::element_place(input_format, c, last, n, false)] =
                    uint16_t(100 + c);
            for (int c = 0; c < 4; ++c)
                output[reference::element_place(output_format, c, last, n, true)] = 0xFFFF;
            const transform_request r = testing::make_request(s, input, n, output, &matrix);
            dispatch_kernel_16(&r, last);
            for (int c = 0; c < 4; ++c) {
                const uint64_t at = reference::element_place(output_format, c, last, n, true);
                EXPECT_EQ(output[at], c < 3 ? 100 + c : 0)
                    << "formats " << input_format << "/" << output_format << " channel " << c;
            }
        }
    }
    std::free(input);
    std::free(output);
}

}  // namespace
}  // namespace kv
