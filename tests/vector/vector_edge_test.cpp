// The corners of the arithmetic and of memory, at every tier: the worked pixel cases, rounding of
// every float below 2^16, the module's exports and repeated initialisation, buffers that end or
// begin at an inaccessible page, overlapping buffers, frames past the cache size (non-temporal
// stores) and counts of 0 or less.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <string>

#include "platform/module_loader.h"
#include "tests/common/export_table.h"
#include "tests/common/pixel_cases.h"
#include "tests/common/reference_model.h"
#include "tests/vector/vector_test_support.h"

namespace kv {
namespace testing {
namespace {

// Three blocks of the widest tier and a bit: every lane position and the overlapping last block.
constexpr int32_t corner_pixels = 3 * 64 + 5;

// The worked pixel cases (tests/common/pixel_cases.h) over whole blocks of the same pixel, in
// planes and interleaved: every lane stores what the rules say.
class PixelRules : public tier_test {};

TEST_P(PixelRules, EveryLaneStoresTheWorkedValues) {
    for (const pixel_case& c : pixel_cases()) {
        case_tables tables;
        frame_settings s = tables.settings(c);
        for (int32_t layout : {FORMAT_BGR_PLANES, FORMAT_BGR_INTERLEAVED}) {
            s.input_format = s.output_format = layout;
            // The same pixel everywhere: interleaved, channel c takes every third place; in
            // planes, it fills plane c.
            std::vector<uint16_t> input(3 * static_cast<size_t>(corner_pixels));
            for (size_t i = 0; i < input.size(); ++i)
                input[i] = c.element[layout == FORMAT_BGR_PLANES ? i / corner_pixels : i % 3];
            const frame f(s, input, 1);
            int32_t count = 0;
            const std::vector<uint8_t> out = f.run_routed(module(), &count);
            EXPECT_EQ(count, corner_pixels) << c.name;
            std::vector<uint8_t> expected;  // the elements of every pixel, in layout order
            for (int32_t p = 0; p < corner_pixels; ++p) {
                for (int ch = 0; ch < (c.fourth ? 4 : 3); ++ch) {
                    const uint32_t value = ch < 3 ? c.expected[ch] : 0u;
                    expected.push_back(static_cast<uint8_t>(value));
                    if (c.width == 16) expected.push_back(static_cast<uint8_t>(value >> 8));
                }
            }
            EXPECT_EQ(f.bytes_of_pixels_from(out, 0), expected) << c.name << ", layout " << layout;
            EXPECT_EQ(out, f.run_reference()) << c.name;
        }
    }
}

// The vector modules' rounding against the rule, for every float sum that can land in [0, 65535]:
// each binade of non-negative floats below 2^16 (and the subnormals) is one frame whose red sums
// R * u + G * 65536u are exactly the binade's 2^23 floats (u the binade's spacing, G the high
// mantissa bits, R the low 16). What each module stores must be cvttsd2si(double(sum) + 0.5)
// clamped to [0, 65535], the scalar rule. Negative sums, sums past 2^16, infinities and NaN clamp
// or fold on both sides alike; the worked pixel cases check those.
class EveryFloat : public tier_test {};

TEST_P(EveryFloat, RoundsLikeTheScalarRuleBelow65536) {
    constexpr int32_t n = 1 << 23;
    // Planes: blue (zeros), green (the high bits), red (the low 16 bits).
    std::vector<uint16_t> input(3 * static_cast<size_t>(n), 0);
    for (int32_t i = 0; i < n; ++i) {
        input[n + i] = static_cast<uint16_t>(i >> 16);
        input[2 * static_cast<size_t>(n) + i] = static_cast<uint16_t>(i & 0xFFFF);
    }
    std::vector<uint16_t> output(3 * static_cast<size_t>(n));
    uint64_t differing = 0;
    // Exponent -149 stands for the subnormals (mantissas below 2^23 at spacing 2^-149); from
    // -126 on, a binade's mantissas run from 2^23 to 2^24 - 1 at spacing 2^(e - 23).
    for (int e = -127; e <= 15 && differing == 0; ++e) {
        const bool subnormal = e == -127;
        const float spacing = std::ldexp(1.0f, subnormal ? -149 : e - 23);
        const uint32_t top = subnormal ? 0 : 1u << 23;  // the implicit bit, through G
        frame_settings s;
        s.input_format = s.output_format = FORMAT_BGR_PLANES;
        const color_correction_head head{{spacing, 65536 * spacing, 0, 0, 0, 0, 0, 0, 0}};
        // G carries the mantissa's high bits, so the implicit bit goes in through the input.
        if (!subnormal) {
            for (int32_t i = 0; i < n; ++i) input[n + i] = static_cast<uint16_t>((i | top) >> 16);
        }
        const transform_request r = make_request(s, input.data(), n, output.data(), &head);
        ASSERT_EQ(module().transform(16, r), n) << "exponent " << e;
        const uint16_t* red = output.data() + 2 * static_cast<size_t>(n);
        for (int32_t i = 0; i < n; ++i) {
            const float sum = static_cast<float>(static_cast<uint32_t>(i) | top) * spacing;
            const double rounded = std::trunc(static_cast<double>(sum) + 0.5);
            const uint16_t expected = rounded > 65535 ? 65535 : static_cast<uint16_t>(rounded);
            if (red[i] != expected && differing++ == 0) {
                ADD_FAILURE() << module().suffix << ": sum " << sum << " (exponent " << e
                              << ") stored " << red[i] << ", the rule gives " << expected;
            }
        }
    }
    EXPECT_EQ(differing, 0u);
}

// The modules as the library meets them: exactly four exports each (read from the ELF or PE
// file), and a module that keeps working across several initialize/terminate pairs, as one
// module serves many processors.
class ModuleInterface : public ::testing::TestWithParam<tier_index> {};

// Checked on every machine: the export list does not depend on the processor.
TEST_P(ModuleInterface, ExportsExactlyItsFourNames) {
    const std::string suffix = module_for(GetParam()).suffix;
    const std::string path = platform::module_file_in(
        KV_VECTOR_MODULE_DIRECTORY, ("kelvane_qor_color_processing_vector_" + suffix).c_str());
    const std::set<std::string> expected = {
        "kv_color_processing_vector_" + suffix + "_module_initialize",
        "kv_color_processing_transform_8_bit_output_vector_" + suffix,
        "kv_color_processing_transform_16_bit_output_vector_" + suffix,
        "kv_color_processing_vector_" + suffix + "_module_terminate",
    };
    EXPECT_EQ(read_module_file(path).exports, expected) << path;
}

class ModuleLifecycle : public tier_test {};

// One processor's terminate must not spoil the module for another processor still using it.
TEST_P(ModuleLifecycle, WorksAcrossRepeatedInitializeAndTerminate) {
    const vector_module& m = module();
    std::mt19937 rng(31);
    const frame f(random_settings(12345, rng), random_input(1000, rng), 12);
    const std::vector<uint8_t> expected = f.run_reference();
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(m.initialize(), 0);
        EXPECT_EQ(m.initialize(), 0);
        m.terminate();
        EXPECT_EQ(f.run_routed(m), expected) << "round " << round;
    }
}

// Memory: page boundaries, overlap, counts of 0 or less, large frames.

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
                    for (const auto side : {guarded_buffer::after, guarded_buffer::before}) {
                        frame_settings s;
                        s.width = width;
                        s.input_format = in_format;
                        s.output_format = out_format;
                        s.fourth_channel = fourth;
                        s.input_LUT[0] = reinterpret_cast<const uint32_t*>(input_LUT.data());
                        s.output_LUT[2] = reinterpret_cast<const uint32_t*>(output_LUT.data());
                        s.shift_distance[1] = -3;
                        const int32_t n = 3 * module().block(width) + 3;
                        const std::vector<uint16_t> pixels = random_input(n, rng);
                        const frame f(s, pixels, 6);
                        const std::vector<uint8_t> expected = f.run_reference();
                        // Starts placed so that the fenced end touches the fence exactly.
                        const auto flush = [side](size_t bytes) {
                            return side == guarded_buffer::after ? (64 - bytes % 64) % 64 : 0;
                        };
                        const size_t in_bytes = 6 * static_cast<size_t>(n);
                        guarded_buffer input(in_bytes, 2, flush(in_bytes), side);
                        guarded_buffer output(expected.size(), 3, flush(expected.size()), side);
                        std::memcpy(input.data(), pixels.data(), in_bytes);
                        input.make_read_only();
                        transform_request r = f.request(output.data());
                        r.input_buffer = reinterpret_cast<const uint16_t*>(input.data());

                        EXPECT_EQ(module().transform(width, r), n);
                        EXPECT_EQ(0, std::memcmp(output.data(), expected.data(), expected.size()))
                            << "width " << width << ", formats " << in_format << " -> "
                            << out_format << (fourth ? " + fourth" : "")
                            << (side == guarded_buffer::after ? ", ending" : ", beginning")
                            << " at a page boundary";
                    }
                }
            }
        }
    }
}

// Overlapping buffers and counts of 0 or less are declined without a write (the scalar kernels
// define what an overlapping call does); buffers that touch without overlapping are not. An
// output that ends in the input only by its fourth elements overlaps it too.
TEST_P(MemoryBounds, OverlapAndEmptyCountsAreDeclined) {
    const int32_t n = 200;
    std::mt19937 rng(23);
    const std::vector<uint16_t> input = random_input(n, rng);
    const std::pair<int, bool> forms[] = {{8, false}, {16, false}, {8, true}, {16, true}};
    for (const auto& [width, fourth] : forms) {
        frame_settings s;
        s.width = width;
        s.fourth_channel = fourth;
        const frame f(s, input, 9);
        const std::vector<uint8_t> expected = f.run_reference();
        const ptrdiff_t input_bytes = 6 * n, output_bytes = ptrdiff_t(f.output_bytes());
        const ptrdiff_t element = width / 8, three_elements = 3 * n * element;
        struct placement {
            const char* name;
            ptrdiff_t output_from_input;  // bytes
            int32_t pixel_count;
            bool declined;
        };
        const placement placements[] = {
            {"output inside input", 2, n, true},
            {"input inside output", -2, n, true},
            {"output two bytes before input's end", input_bytes - 2, n, true},
            {"output right behind input", input_bytes, n, false},
            {"input right behind output", -output_bytes, n, false},
            {"output's fourth elements reach the input", -(three_elements + element), n, fourth},
            {"no pixels", input_bytes, 0, true},
            {"-1 pixels", input_bytes, -1, true},
            {"-64 pixels", input_bytes, -64, true},
            {"the most negative count", input_bytes, std::numeric_limits<int32_t>::min(), true},
        };
        for (const placement& p : placements) {
            std::vector<uint8_t> storage(size_t(input_bytes + output_bytes) + 256, 0xEE);
            uint8_t* const input_at =
                storage.data() + 64 + (p.output_from_input < 0 ? output_bytes : 0);
            uint8_t* const output_at = input_at + p.output_from_input;
            std::memcpy(input_at, input.data(), size_t(input_bytes));
            const std::vector<uint8_t> before = storage;
            transform_request r = f.request(output_at);
            r.input_buffer = reinterpret_cast<const uint16_t*>(input_at);
            r.pixel_count = p.pixel_count;
            const int32_t count = module().transform(width, r);
            if (p.declined) {
                EXPECT_EQ(count, 0) << p.name << ", width " << width << ", fourth " << fourth;
                EXPECT_EQ(storage, before)
                    << p.name << ", width " << width << ", fourth " << fourth;
            } else {
                EXPECT_EQ(count, n) << p.name << ", width " << width << ", fourth " << fourth;
                EXPECT_EQ(0, std::memcmp(output_at, expected.data(), size_t(output_bytes)))
                    << p.name << ", width " << width << ", fourth " << fourth;
                EXPECT_EQ(0, std::memcmp(input_at, input.data(), size_t(input_bytes))) << p.name;
            }
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
KV_INSTANTIATE_FOR_TIERS(MemoryBounds);
KV_INSTANTIATE_FOR_TIERS(EveryFloat);
INSTANTIATE_TEST_SUITE_P(Tiers, ModuleInterface, ::testing::Values(SSE, AVX2, AVX512), tier_name);
KV_INSTANTIATE_FOR_TIERS(ModuleLifecycle);

}  // namespace
}  // namespace testing
}  // namespace kv
