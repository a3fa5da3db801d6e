// Routing of a frame: which back-end a tier and the failed flags choose, the split between the
// back-end's count and the scalar tail, the record as a back-end receives it, and many threads
// on one processor.
#include <climits>
#include <cstring>
#include <thread>

#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

enum backend_state { good, failed, any };

// The routing table of the library, row by row: the first row that matches decides.
struct routing_row {
    bool (*tier_matches)(int32_t);
    backend_state avx512, avx2, sse;
    const char* called;  // NULL: the scalar kernels alone
};

const routing_row routing_table[] = {
    {[](int32_t t) { return t == 3; }, good, any, any, "avx512"},
    {[](int32_t t) { return t == 3; }, failed, any, good, "sse"},
    {[](int32_t t) { return t == 3; }, failed, any, failed, nullptr},
    {[](int32_t t) { return t == 2; }, any, good, any, "avx2"},
    {[](int32_t t) { return t == 2; }, any, failed, good, "sse"},
    {[](int32_t t) { return t == 2; }, any, failed, failed, nullptr},
    {[](int32_t t) { return t == 1 || t > 3; }, any, any, good, "sse"},
    {[](int32_t t) { return t == 1 || t > 3; }, any, any, failed, nullptr},
    {[](int32_t t) { return t <= 0; }, any, any, any, nullptr},
};

bool state_matches(backend_state wanted, bool is_failed) {
    return wanted == any || (wanted == failed) == is_failed;
}

const char* expected_backend(int32_t tier, bool sse_failed, bool avx2_failed, bool avx512_failed) {
    for (const routing_row& row : routing_table) {
        if (row.tier_matches(tier) && state_matches(row.avx512, avx512_failed) &&
            state_matches(row.avx2, avx2_failed) && state_matches(row.sse, sse_failed)) {
            return row.called;
        }
    }
    ADD_FAILURE() << "no routing row for tier " << tier;
    return nullptr;
}

class FullRouting : public initialized_test {};

TEST_F(FullRouting, TierAndFailedFlagsChooseOneBackEndOrNone) {
    const int32_t tiers[] = {-1, 0, 1, 2, 3, 4, 1000};
    for (int32_t tier : tiers) {
        for (int pattern = 0; pattern < 8; ++pattern) {
            const bool sse_failed = pattern & 1, avx2_failed = pattern & 2,
                       avx512_failed = pattern & 4;
            SCOPED_TRACE("tier " + std::to_string(tier) + " failed pattern " +
                         std::to_string(pattern));
            kv_journal_reset();
            set_backend("sse", sse_failed, 0);
            set_backend("avx2", avx2_failed, 0);
            set_backend("avx512", avx512_failed, 0);
            kv_color_processor_handle p = kv_color_create_color_processor_test(0, 0, tier);
            ASSERT_NE(p, nullptr);
            const char* expected = expected_backend(tier, sse_failed, avx2_failed, avx512_failed);
            for (transform_export e : {transform_export::to_32, transform_export::to_48}) {
                SCOPED_TRACE(name_of(e));
                frame_buffers buffers(e, 7, 6);
                frame_arguments a;
                a.handle = p;
                a.input = buffers.input();
                a.output = buffers.output();
                a.pixel_count = 7;
                const std::vector<uint8_t> before = buffers.output_copy();
                kv_journal_reset();
                ASSERT_EQ(run_transform(e, a), KV_STATUS_SUCCESS);
                const char* used = output_width_of(e) == 8 ? "transform_8" : "transform_16";
                const char* unused = output_width_of(e) == 8 ? "transform_16" : "transform_8";
                for (const char* isa : {"sse", "avx2", "avx512"}) {
                    const bool chosen = expected != nullptr && std::strcmp(isa, expected) == 0;
                    EXPECT_EQ(kv_journal_count(isa, used), chosen ? 1u : 0u) << isa;
                    EXPECT_EQ(kv_journal_count(isa, unused), 0u) << isa;
                }
                // The back-ends did nothing (count 0): the scalar kernels did the whole frame.
                const uint8_t off[3] = {0, 0, 0};
                EXPECT_EQ(buffers.output_copy(), expected_output(e, a, off, off, before, 0));
                EXPECT_TRUE(buffers.guards_intact());
            }
            ASSERT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
        }
    }
}

TEST_F(FullRouting, ScalarKernelsFinishFromTheBackEndsCount) {
    struct split_case {
        int32_t pixel_count;
        int32_t count;  // what the back-end returns; -1: the whole frame
        int32_t marked;
    };
    const split_case cases[] = {{8, 5, 5}, {8, 0, 0}, {8, -1, 8}, {8, 100, 8},
                                {1, 1, 1}, {0, 0, 0}, {0, 3, 0},  {33, 17, 17}};
    kv_color_processor_handle p = kv_color_create_color_processor_test(0, 0, KV_TIER_AVX2);
    ASSERT_NE(p, nullptr);
    for (const split_case& c : cases) {
        for (transform_export e : all_exports) {
            for (int32_t format : {0, 1, 2}) {
                SCOPED_TRACE(std::string(name_of(e)) + " format " + std::to_string(format) +
                             " pixels " + std::to_string(c.pixel_count) + " count " +
                             std::to_string(c.count));
                frame_buffers buffers(e, c.pixel_count, 7);
                frame_arguments a;
                a.handle = p;
                a.input = buffers.input();
                a.output = buffers.output();
                a.output_format = format;
                a.pixel_count = c.pixel_count;
                a.maximum[0] = 0x3FF;
                a.shift[2] = -2;
                const std::vector<uint8_t> before = buffers.output_copy();
                kv_journal_reset();
                kv_journal_set("avx2.count", c.count);
                ASSERT_EQ(run_transform(e, a), KV_STATUS_SUCCESS);
                EXPECT_EQ(kv_journal_count(
                              "avx2", output_width_of(e) == 8 ? "transform_8" : "transform_16"),
                          1u)
                    << "the back-end is asked even for an empty frame";
                // What the fake marks for the pixels it claims, then the reference for the rest.
                std::vector<uint8_t> marked = before;
                const int elements = elements_per_pixel(e);
                const int bytes = output_width_of(e) / 8;
                const size_t n = static_cast<size_t>(c.pixel_count);
                for (size_t i = 0; i < static_cast<size_t>(c.marked); ++i) {
                    for (int ch = 0; ch < elements; ++ch) {
                        const size_t slot = format == 1   ? elements * i + ch
                                            : format == 2 ? elements * i + (ch < 3 ? 2 - ch : 3)
                                                          : ch * n + i;
                        std::memset(marked.data() + slot * bytes, 0x52, bytes);
                    }
                }
                const uint8_t off[3] = {0, 0, 0};
                EXPECT_EQ(
                    buffers.output_copy(),
                    expected_output(e, a, off, off, marked, std::min(c.marked, c.pixel_count)));
                EXPECT_TRUE(buffers.guards_intact());
            }
        }
    }
    ASSERT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
}

template <typename T>
T read_at(const std::vector<uint8_t>& bytes, size_t offset) {
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

TEST_F(FullRouting, BackEndSeesEveryFieldAtItsOffset) {
    kv_color_processor_handle p = kv_color_create_color_processor_test(16, 12, KV_TIER_SSE);
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(kv_color_enable_input_LUTs(p, 0, 0x100, 0), KV_STATUS_SUCCESS);
    ASSERT_EQ(kv_color_enable_output_LUTs(p, -1, 0, 7), KV_STATUS_SUCCESS);
    const uintptr_t LUTs[6] = {reinterpret_cast<uintptr_t>(kv_color_get_blue_input_LUT(p)),
                               reinterpret_cast<uintptr_t>(kv_color_get_green_input_LUT(p)),
                               reinterpret_cast<uintptr_t>(kv_color_get_red_input_LUT(p)),
                               reinterpret_cast<uintptr_t>(kv_color_get_blue_output_LUT(p)),
                               reinterpret_cast<uintptr_t>(kv_color_get_green_output_LUT(p)),
                               reinterpret_cast<uintptr_t>(kv_color_get_red_output_LUT(p))};
    const uint8_t flags[6] = {0, 1, 0, 1, 0, 1};
    for (transform_export e : all_exports) {
        SCOPED_TRACE(name_of(e));
        frame_buffers buffers(e, 9, 8);
        frame_arguments a;
        a.handle = p;
        a.input = buffers.input();
        a.input_format = -5;
        a.minimum[0] = 1;
        a.maximum[0] = 2001;
        a.minimum[1] = 3;
        a.maximum[1] = 4003;
        a.minimum[2] = 5;
        a.maximum[2] = 4095;
        a.shift[0] = -15;
        a.shift[1] = 7;
        a.shift[2] = 0;
        a.output = buffers.output();
        a.output_format = 2;
        a.pixel_count = 9;
        kv_journal_reset();
        ASSERT_EQ(run_transform(e, a), KV_STATUS_SUCCESS);
        const std::vector<event> calls = events("sse");
        ASSERT_EQ(calls.size(), 1u);
        const std::vector<uint8_t>& r = calls[0].bytes;
        ASSERT_EQ(r.size(), 168u);
        EXPECT_EQ(read_at<uintptr_t>(r, 0), reinterpret_cast<uintptr_t>(a.input));
        EXPECT_EQ(read_at<int32_t>(r, 8), -5);
        const size_t LUT_offsets[6] = {16, 32, 48, 88, 104, 120};
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(read_at<uintptr_t>(r, LUT_offsets[i]), LUTs[i]) << "LUT " << i;
            EXPECT_EQ(r[LUT_offsets[i] + 8], flags[i]) << "flag " << i;
        }
        EXPECT_EQ(read_at<uintptr_t>(r, 64), reinterpret_cast<uintptr_t>(p));
        const uint16_t clamps[6] = {1, 2001, 3, 4003, 5, 4095};
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(read_at<uint16_t>(r, 72 + 2 * i), clamps[i]) << "clamp " << i;
        }
        EXPECT_EQ(read_at<int32_t>(r, 132), -15);
        EXPECT_EQ(read_at<int32_t>(r, 136), 7);
        EXPECT_EQ(read_at<int32_t>(r, 140), 0);
        EXPECT_EQ(read_at<uintptr_t>(r, 144), reinterpret_cast<uintptr_t>(a.output));
        EXPECT_EQ(read_at<int32_t>(r, 152), 2);
        EXPECT_EQ(r[156], elements_per_pixel(e) == 4 ? 1 : 0);
        EXPECT_EQ(read_at<int32_t>(r, 160), 9);
    }
    ASSERT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
}

TEST_F(FullRouting, ThreadsTransformingOneProcessorAgree) {
    kv_color_processor_handle p = kv_color_create_color_processor_test(16, 16, KV_TIER_AVX512);
    ASSERT_NE(p, nullptr);
    kv_journal_set("avx512.count", 3);
    uint32_t* blue_in = kv_color_get_blue_input_LUT(p);
    uint32_t* red_out = kv_color_get_red_output_LUT(p);
    for (uint32_t i = 0; i < 65536; ++i) {
        blue_in[i] = 65535 - i;
        red_out[i] = i * 7;
    }
    ASSERT_EQ(kv_color_enable_input_LUTs(p, 1, 0, 0), KV_STATUS_SUCCESS);
    ASSERT_EQ(kv_color_enable_output_LUTs(p, 0, 0, 1), KV_STATUS_SUCCESS);
    const float m[9] = {0.5f, 0.25f, 0.25f, 0, 1, 0, 0.1f, 0.2f, 0.7f};
    ASSERT_EQ(kv_color_append_matrix(p, m), KV_STATUS_SUCCESS);
    const transform_export e = transform_export::to_64;
    const int32_t pixels = 257;
    frame_buffers source(e, pixels, 9);

    auto run = [&](std::vector<uint8_t>* result) {
        std::vector<uint8_t> output(source.output_bytes(), 0);
        frame_arguments a;
        a.handle = p;
        a.input = source.input();
        a.output = output.data();
        a.output_format = 0;
        a.pixel_count = pixels;
        a.shift[1] = 3;
        for (int repeat = 0; repeat < 20; ++repeat) {
            std::fill(output.begin(), output.end(), 0);
            if (run_transform(e, a) != KV_STATUS_SUCCESS) {
                return;
            }
        }
        *result = output;
    };
    std::vector<std::vector<uint8_t>> results(4);
    std::vector<std::thread> threads;
    for (std::vector<uint8_t>& result : results) {
        threads.emplace_back(run, &result);
    }
    for (std::thread& t : threads) {
        t.join();
    }
    std::vector<uint8_t> alone;
    run(&alone);
    ASSERT_FALSE(alone.empty());
    for (const std::vector<uint8_t>& result : results) {
        EXPECT_EQ(result, alone);
    }
    // And what it is: the AVX-512 module's marker for three pixels, the pipeline for the rest.
    std::vector<uint8_t> marked(source.output_bytes(), 0);
    for (size_t plane = 0; plane < 4; ++plane) {
        std::memset(marked.data() + plane * pixels * 2, 0x53, 3 * 2);
    }
    frame_arguments a;
    a.handle = p;
    a.input = source.input();
    a.output_format = 0;
    a.pixel_count = pixels;
    a.shift[1] = 3;
    const uint8_t input_on[3] = {1, 0, 0};
    const uint8_t output_on[3] = {0, 0, 1};
    EXPECT_EQ(alone, expected_output(e, a, input_on, output_on, marked, 3));
    ASSERT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
}

}  // namespace
}  // namespace kv_test
