// The corners of the arithmetic and of memory, at every tier: the worked pixel cases, rounding
// sweeps, buffers that end or begin at an inaccessible page, misaligned starts,
// overlapping buffers, frames past the cache size (non-temporal stores) and counts of 0 or less.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "tests/common/pixel_cases.h"
#include "tests/common/reference_model.h"
#include "tests/vector/vector_test_support.h"

namespace kv {
namespace testing {
namespace {

// Three blocks of the widest tier and a bit: every lane position and the overlapping last block.
constexpr int32_t corner_pixels = 3 * 64 + 5;

uint16_t element_at(const std::vector<uint8_t>& output, const frame& f, int channel,
                    int32_t pixel) {
    const frame_settings& s = f.settings();
    const uint64_t place =
        reference::element_place(s.output_format, channel, static_cast<uint64_t>(pixel),
                                 static_cast<uint64_t>(f.pixel_count()), s.fourth_channel);
    if (s.width == 8) return output[place];
    return static_cast<uint16_t>(output[2 * place] | output[2 * place + 1] << 8);
}

// The same pixel n times, in the given input layout.
std::vector<uint16_t> repeated_pixel(int32_t n, int32_t format, uint16_t blue, uint16_t green,
                                     uint16_t red) {
    const uint16_t channel[3] = {blue, green, red};
    std::vector<uint16_t> input(3 * static_cast<size_t>(n));
    for (int32_t i = 0; i < n; ++i) {
        for (int c = 0; c < 3; ++c) {
            input[reference::element_place(format, c, static_cast<uint64_t>(i),
                                           static_cast<uint64_t>(n), false)] = channel[c];
        }
    }
    return input;
}

// The worked pixel cases (tests/common/pixel_cases.h) over whole blocks of the same pixel, in
// planes and interleaved: every lane stores what the rules say.
class PixelRules : public tier_test {};

TEST_P(PixelRules, EveryLaneStoresTheWorkedValues) {
    for (const pixel_case& c : pixel_cases()) {
        case_tables tables;
        frame_settings s = tables.settings(c);
        for (int32_t layout : {FORMAT_BGR_PLANES, FORMAT_BGR_INTERLEAVED}) {
            s.input_format = s.output_format = layout;
            const frame f(
                s, repeated_pixel(corner_pixels, layout, c.element[0], c.element[1], c.element[2]),
                1);
            int32_t count = 0;
            const std::vector<uint8_t> out = f.run_routed(module(), &count);
            EXPECT_EQ(count, corner_pixels) << c.name;
            for (int32_t p = 0; p < corner_pixels; ++p) {
                for (int ch = 0; ch < (c.fourth ? 4 : 3); ++ch) {
                    ASSERT_EQ(element_at(out, f, ch, p), ch < 3 ? c.expected[ch] : 0u)
                        << c.name << ", layout " << layout << ", pixel " << p << ", element " << ch;
                }
            }
            EXPECT_EQ(out, f.run_reference()) << c.name;
        }
    }
}

class ArithmeticCorners : public tier_test {};

// Sums that sweep the fractions: one factor times every element value, for factors whose
// products land on, just below and just above the halves.
TEST_P(ArithmeticCorners, RoundingSweepsOverEveryElementValue) {
    const float factors[] = {1.0f / 3, 0.5f,         0.25f + 1.0f / 65536, 0.99999994f, 1.0000001f,
                             0.1f,     1.5f / 65536, 0.49999997f,          2.5f,        -0.5f,
                             0.75f};
    std::vector<uint16_t> input;
    for (uint32_t i = 0; i < 65536; ++i) {
        input.insert(input.end(), {static_cast<uint16_t>(65535 - i), static_cast<uint16_t>(i * 7),
                                   static_cast<uint16_t>(i)});
    }
    for (float factor : factors) {
        frame_settings s;
        const float matrix[9] = {factor, 0, 0, 0, factor, 0, 0, 0, factor};
        std::memcpy(s.matrix, matrix, sizeof matrix);
        const frame f(s, input, 2);
        EXPECT_EQ(f.run_routed(module()), f.run_reference()) << "factor " << factor;
    }
}

// ---------------------------------------------------------------------------------------------
// Memory: page boundaries, misaligned starts, overlap, counts of 0 or less, large frames.
// ---------------------------------------------------------------------------------------------

class MemoryBounds : public tier_test {};

// Input, output and tables flush against inaccessible pages on either side; input and tables are
// read-only. Every layout pair at both widths, with LUTs on both sides.
TEST_P(MemoryBounds, BuffersEndingOrBeginningAtAPageBoundary) {
    std::mt19937 rng(17);
    guarded_buffer input_LUT(65536 * 4), output_LUT(65536 * 4, 1, 0, guarded_buffer::before);
    std::memcpy(input_LUT.data(), table_pool(1).data(), 65536 * 4);
    std::memcpy(output_LUT.data(), table_pool(0).data(), 65536 * 4);
    input_LUT.make_read_only();
    output_LUT.make_read_only();
    for (int width : {8, 16}) {
        for (int32_t in_format : {0, 1, 2}) {
            for (int32_t out_format : {0, 1, 2}) {
                for (bool fourth : {false, true}) {
                    for (bool flush_with_end : {true, false}) {
                        frame_settings s;
                        s.width = width;
                        s.input_format = in_format;
                        s.output_format = out_format;
                        s.fourth_channel = fourth;
                        s.input_LUT[0] = reinterpret_cast<const uint32_t*>(input_LUT.data());
                        s.output_LUT[2] = reinterpret_cast<const uint32_t*>(output_LUT.data());
                        s.shift_distance[1] = -3;
                        const int32_t n = 3 * module().block(width) + 3;
                        const frame f(s, random_input(n, rng), 6);

                        const auto side =
                            flush_with_end ? guarded_buffer::after : guarded_buffer::before;
                        // Starts placed so that the ends touch the fence exactly.
                        const size_t in_bytes = 6 * static_cast<size_t>(n);
                        guarded_buffer input(in_bytes, 2, (64 - in_bytes % 64) % 64, side);
                        guarded_buffer output(f.output_bytes(), 3,
                                              (64 - f.output_bytes() % 64) % 64, side);
                        const std::vector<uint8_t> expected = f.run_reference();
                        std::memcpy(output.data(), expected.data(), expected.size());
                        for (size_t b = 0; b < expected.size(); ++b) output.data()[b] ^= 0x5A;
                        // The reference read the frame's own copy of the same elements.
                        const transform_request original = f.request(output.data());
                        std::memcpy(input.data(), original.input_buffer, 6 * size_t(n));
                        input.make_read_only();
                        color_correction_head matrix;
                        std::memcpy(matrix.matrix, s.matrix, sizeof matrix.matrix);
                        const transform_request r =
                            make_request(s, reinterpret_cast<const uint16_t*>(input.data()), n,
                                         output.data(), &matrix);

                        EXPECT_EQ(module().transform(width, r), n);
                        EXPECT_EQ(0, std::memcmp(output.data(), expected.data(), expected.size()))
                            << "width " << width << ", formats " << in_format << " -> "
                            << out_format << (fourth ? " + fourth" : "")
                            << (flush_with_end ? ", ending" : ", beginning")
                            << " at a page boundary";
                    }
                }
            }
        }
    }
}

// Every element-aligned start of input and output within a cache line.
TEST_P(MemoryBounds, MisalignedStarts) {
    std::mt19937 rng(19);
    for (int width : {8, 16}) {
        for (int32_t in_format : {0, 1}) {
            for (int32_t out_format : {0, 2}) {
                frame_settings s = random_settings(0, rng);
                s.width = width;
                s.input_format = in_format;
                s.output_format = out_format;
                s.fourth_channel = out_format == 0;
                const int32_t n = 4 * module().block(width) + 1;
                const std::vector<uint16_t> input = random_input(n, rng);
                for (size_t shift = 0; shift < 32; ++shift) {
                    const frame f(s, input, 8, shift, shift * static_cast<size_t>(width / 8));
                    ASSERT_EQ(f.run_routed(module()), f.run_reference())
                        << "width " << width << ", start shifted by " << shift << " elements";
                }
            }
        }
    }
}

// Overlapping buffers are declined (the scalar kernels define what such a call does); buffers
// that touch without overlapping are not.
TEST_P(MemoryBounds, OverlapIsDeclinedAndTouchingIsNot) {
    const int32_t n = 200;
    std::mt19937 rng(23);
    const std::vector<uint16_t> input = random_input(n, rng);
    frame_settings s;
    const frame f(s, input, 9);
    const std::vector<uint8_t> expected = f.run_reference();
    const size_t input_bytes = 6 * size_t(n), output_bytes = f.output_bytes();
    color_correction_head matrix;
    std::memcpy(matrix.matrix, s.matrix, sizeof matrix.matrix);

    struct placement {
        const char* name;
        ptrdiff_t output_from_input;  // bytes
        bool overlapping;
    };
    const placement placements[] = {
        {"output inside input", 2, true},
        {"input inside output", -2, true},
        {"output one element before input's end", ptrdiff_t(input_bytes) - 2, true},
        {"output right behind input", ptrdiff_t(input_bytes), false},
        {"input right behind output", -ptrdiff_t(output_bytes), false},
    };
    for (const placement& p : placements) {
        std::vector<uint8_t> storage(input_bytes + output_bytes + 256, 0xEE);
        uint8_t* const input_at =
            storage.data() + 64 + (p.output_from_input < 0 ? output_bytes : 0);
        uint8_t* const output_at = input_at + p.output_from_input;
        std::memcpy(input_at, input.data(), input_bytes);
        const std::vector<uint8_t> before = storage;
        const transform_request r =
            make_request(s, reinterpret_cast<const uint16_t*>(input_at), n, output_at, &matrix);
        const int32_t count = module().transform(16, r);
        if (p.overlapping) {
            EXPECT_EQ(count, 0) << p.name;
            EXPECT_EQ(storage, before) << p.name;
        } else {
            EXPECT_EQ(count, n) << p.name;
            EXPECT_EQ(0, std::memcmp(output_at, expected.data(), output_bytes)) << p.name;
            EXPECT_EQ(0, std::memcmp(input_at, input.data(), input_bytes)) << p.name;
        }
    }
}

TEST_P(MemoryBounds, CountsOfZeroOrLessDoNothing) {
    for (int32_t n : {0, -1, -64, std::numeric_limits<int32_t>::min()}) {
        for (int width : {8, 16}) {
            std::vector<uint16_t> input(3 * 256, 1000);
            std::vector<uint8_t> output(8 * 256, 0x3C);
            frame_settings s;
            s.width = width;
            color_correction_head matrix;
            std::memcpy(matrix.matrix, s.matrix, sizeof matrix.matrix);
            const transform_request r = make_request(s, input.data(), n, output.data(), &matrix);
            EXPECT_EQ(module().transform(width, r), 0) << n;
            EXPECT_EQ(output, std::vector<uint8_t>(8 * 256, 0x3C)) << n;
        }
    }
}

// Frames beyond any last-level cache are written with non-temporal stores between aligned
// boundaries; their start is misaligned on purpose, and planar outputs come with plane spacings
// that do and do not keep the planes aligned alike.
TEST_P(MemoryBounds, FramesLargerThanTheCache) {
    struct large_case {
        int width;
        int32_t input_format, output_format;
        bool fourth;
        int32_t pixels;
        size_t output_shift;  // bytes
    };
    // Starts chosen so that an aligned boundary exists for each store pattern: three and four
    // elements a pixel at both widths, and planes whose spacing keeps them aligned alike.
    const large_case cases[] = {
        {16, 1, 1, false, 5600000 + 3, 2},
        {16, 0, 2, true, 5600000 + 17, 8},
        {8, 2, 0, true, 7500032, 1},
        {8, 1, 1, false, 7500000 + 5, 3},
    };
    std::mt19937 rng(29);
    for (const large_case& c : cases) {
        frame_settings s = random_settings(0, rng);
        s.width = c.width;
        s.input_format = c.input_format;
        s.output_format = c.output_format;
        s.fourth_channel = c.fourth;
        s.output_LUT[0] = table_pool(5).data();
        s.shift_distance[0] = -2;
        const frame f(s, random_input(c.pixels, rng), 10, 1, c.output_shift);
        EXPECT_EQ(f.run_routed(module()), f.run_scalar())
            << "width " << c.width << ", formats " << c.input_format << " -> " << c.output_format;
    }
}

KV_INSTANTIATE_FOR_TIERS(PixelRules);
KV_INSTANTIATE_FOR_TIERS(ArithmeticCorners);
KV_INSTANTIATE_FOR_TIERS(MemoryBounds);

}  // namespace
}  // namespace testing
}  // namespace kv
