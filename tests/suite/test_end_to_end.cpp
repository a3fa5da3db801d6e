// Pixels through the built library against the reference model: every export, layout and LUT
// pattern, with matrices, clamps and shifts, and a vector back-end doing part of the frame.
#include <cstring>
#include <random>

#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

class EndToEnd : public ::testing::Test {
  protected:
    void SetUp() override {
        kv_journal_reset();
        ASSERT_EQ(kv_color_processing_module_initialize(), KV_STATUS_SUCCESS);
    }
    void TearDown() override {
        EXPECT_EQ(kv_color_processing_module_terminate(), KV_STATUS_SUCCESS);
        kv_journal_reset();
    }
};

TEST_F(EndToEnd, ScalarPathMatchesTheReferenceModel) {
    std::mt19937 random(2024);
    for (int round = 0; round < 96; ++round) {
        const int32_t input_depth = 16;  // random pixels need every entry of an input table
        const int32_t output_depth = static_cast<int32_t>(random() % 17);
        const int32_t tier = static_cast<int32_t>(random() % 5) - 1;
        kv_color_processor_handle p =
            kv_color_create_color_processor_test(input_depth, output_depth, tier);
        ASSERT_NE(p, nullptr);
        kv_journal_set("sse.count", 0);
        kv_journal_set("avx2.count", 0);
        kv_journal_set("avx512.count", 0);

        uint32_t* (*const getters[])(kv_color_processor_handle) = {
            kv_color_get_blue_input_LUT,   kv_color_get_green_input_LUT,
            kv_color_get_red_input_LUT,    kv_color_get_blue_output_LUT,
            kv_color_get_green_output_LUT, kv_color_get_red_output_LUT};
        for (int t = 0; t < 6; ++t) {
            uint32_t* table = getters[t](p);
            const uint32_t entries = 1u << (t < 3 ? input_depth : output_depth);
            for (uint32_t i = 0; i < entries; ++i) {
                table[i] = static_cast<uint32_t>(random());
            }
        }
        uint8_t input_on[3], output_on[3];
        for (int c = 0; c < 3; ++c) {
            input_on[c] = static_cast<uint8_t>(random() & 1);
            output_on[c] = static_cast<uint8_t>(random() & 1);
        }
        ASSERT_EQ(kv_color_enable_input_LUTs(p, input_on[0], input_on[1] * 0x100, input_on[2]),
                  KV_STATUS_SUCCESS);
        ASSERT_EQ(kv_color_enable_output_LUTs(p, output_on[0] ? -1 : 0, output_on[1], output_on[2]),
                  KV_STATUS_SUCCESS);
        std::uniform_real_distribution<float> coefficient(-2.0f, 2.0f);
        for (int appends = static_cast<int>(random() % 3); appends > 0; --appends) {
            float m[9];
            for (float& v : m) {
                v = coefficient(random);
            }
            ASSERT_EQ(kv_color_append_matrix(p, m), KV_STATUS_SUCCESS);
        }

        const transform_export e = all_exports[round % 4];
        const int32_t pixels = static_cast<int32_t>(random() % 70);
        frame_buffers buffers(e, pixels, static_cast<uint32_t>(random()));
        frame_arguments a;
        a.handle = p;
        a.input = buffers.input();
        a.input_format = static_cast<int32_t>(random() % 4) - 1;
        a.output = buffers.output();
        a.output_format = static_cast<int32_t>(random() % 4) - 1;
        a.pixel_count = pixels;
        const int32_t limit = (1 << output_depth) - 1;
        for (int c = 0; c < 3; ++c) {
            const uint16_t x = static_cast<uint16_t>(random() % (limit + 1));
            const uint16_t y = static_cast<uint16_t>(random() % (limit + 1));
            a.minimum[c] = std::min(x, y);
            a.maximum[c] = output_on[c] ? std::max(x, y) : static_cast<uint16_t>(random());
            if (a.minimum[c] > a.maximum[c]) {
                a.minimum[c] = a.maximum[c];
            }
            a.shift[c] = static_cast<int32_t>(random() % 31) - 15;
        }
        SCOPED_TRACE("round " + std::to_string(round) + " " + name_of(e));
        const std::vector<uint8_t> before = buffers.output_copy();
        ASSERT_EQ(run_transform(e, a), KV_STATUS_SUCCESS);
        EXPECT_EQ(buffers.output_copy(), expected_output(e, a, input_on, output_on, before, 0));
        EXPECT_TRUE(buffers.guards_intact());
        ASSERT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
    }
}

TEST_F(EndToEnd, BackEndPixelsThenScalarTail) {
    kv_color_processor_handle p = kv_color_create_color_processor_test(0, 0, KV_TIER_SSE);
    ASSERT_NE(p, nullptr);
    kv_journal_set("sse.count", 5);
    const float m[9] = {0.5f, 0, 0, 0.25f, 0.25f, 0.5f, 0, 0, 3};
    ASSERT_EQ(kv_color_append_matrix(p, m), KV_STATUS_SUCCESS);
    const transform_export e = transform_export::to_24;
    frame_buffers buffers(e, 8, 77);
    frame_arguments a;
    a.handle = p;
    a.input = buffers.input();
    a.output = buffers.output();
    a.pixel_count = 8;
    a.shift[0] = -8;
    a.shift[1] = -8;
    a.shift[2] = -8;
    std::vector<uint8_t> marked = buffers.output_copy();
    std::memset(marked.data(), 0x51, 5 * 3);
    ASSERT_EQ(run_transform(e, a), KV_STATUS_SUCCESS);
    const uint8_t off[3] = {0, 0, 0};
    EXPECT_EQ(buffers.output_copy(), expected_output(e, a, off, off, marked, 5));
    ASSERT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
}

}  // namespace
}  // namespace kv_test
