// The stored matrix, read through the handle as the kernels read it: identity, clear, and the
// worked examples of append (order of factors, order of terms, signed zero, NaN and infinity).
#include <cmath>
#include <cstring>
#include <limits>

#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

const float* stored(kv_color_processor_handle p) {
    return reinterpret_cast<const float*>(p);
}

// Bit patterns, so -0.0 and +0.0 differ; every NaN reads as one pattern.
std::vector<uint32_t> matrix_bits(const float* m) {
    std::vector<uint32_t> result(9);
    for (int i = 0; i < 9; ++i) {
        std::memcpy(&result[i], &m[i], sizeof result[i]);
        result[i] = std::isnan(m[i]) ? 0x7FC00000u : result[i];
    }
    return result;
}

constexpr float inf = std::numeric_limits<float>::infinity();
const float nan_value = std::numeric_limits<float>::quiet_NaN();

struct append_case {
    const char* name;
    std::vector<float> start;                 // written into the stored matrix; empty: identity
    std::vector<std::vector<float>> appends;  // in order
    std::vector<float> expected;
};

std::vector<append_case> append_cases() {
    const std::vector<float> identity = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    return {
        // Double the red, then copy red into green: red first copied, then only red doubled.
        {"two appends",
         {},
         {{2, 0, 0, 0, 1, 0, 0, 0, 1}, {1, 0, 0, 1, 0, 0, 0, 0, 1}},
         {2, 0, 0, 1, 0, 0, 0, 0, 1}},
        {"two appends, other order",
         {},
         {{1, 0, 0, 1, 0, 0, 0, 0, 1}, {2, 0, 0, 0, 1, 0, 0, 0, 1}},
         {2, 0, 0, 2, 0, 0, 0, 0, 1}},
        // 1 + 0, then + 1e8 rounds the 1 away, then - 1e8 leaves 0.
        {"terms added in column order",
         {1, 100000000, -100000000, 0, 1, 0, 0, 0, 1},
         {{1, 0, 0, 1, 1, 0, 1, 0, 1}},
         {0, 100000000, -100000000, 1, 1, 0, 1, 0, 1}},
        {"negative zero becomes positive zero",
         {-0.0f, -0.0f, 0, 0, 1, -0.0f, 0, 0, 1},
         {identity},
         {0, 0, 0, 0, 1, 0, 0, 0, 1}},
        {"NaN spreads along its row",
         {nan_value, 0, 0, 0, 1, 0, 0, 0, 1},
         {identity},
         {nan_value, nan_value, nan_value, 0, 1, 0, 0, 0, 1}},
        {"infinity stays, its row neighbours turn NaN",
         {1, 0, 0, 0, 1, 0, 0, 0, -inf},
         {identity},
         {1, 0, 0, 0, 1, 0, nan_value, nan_value, -inf}},
        {"products rounded to single precision",
         {1.0f / 3.0f, 0, 0, 0, 1, 0, 0, 0, 1},
         {{3, 0.1f, 0, 0, 1, 0, 0, 0, 1}},
         {1.0f, (1.0f / 3.0f) * 0.1f, 0, 0, 1, 0, 0, 0, 1}},
    };
}

class FullMatrix : public initialized_test {};

TEST_F(FullMatrix, NewAndClearedProcessorsHoldTheIdentityBitForBit) {
    const float one[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const std::vector<uint32_t> identity = matrix_bits(one);
    kv_color_processor_handle p = kv_color_create_color_processor_test(1, 1, KV_TIER_SCALAR);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(matrix_bits(stored(p)), identity);
    const float odd[9] = {-0.0f, nan_value, inf, 1e-40f, 2, 3, 4, 5, 6};
    ASSERT_EQ(kv_color_append_matrix(p, odd), KV_STATUS_SUCCESS);
    ASSERT_EQ(kv_color_enable_input_LUTs(p, 1, 0, 1), KV_STATUS_SUCCESS);
    ASSERT_EQ(kv_color_clear_matrix(p), KV_STATUS_SUCCESS);
    EXPECT_EQ(matrix_bits(stored(p)), identity);
    EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
}

TEST_F(FullMatrix, AppendMultipliesTheGivenMatrixOnTheRight) {
    for (const append_case& c : append_cases()) {
        SCOPED_TRACE(c.name);
        kv_color_processor_handle p = kv_color_create_color_processor_test(0, 0, KV_TIER_SCALAR);
        ASSERT_NE(p, nullptr);
        if (!c.start.empty()) {
            // The handle points at the stored matrix; that is the layout the kernels rely on.
            std::memcpy(reinterpret_cast<float*>(p), c.start.data(), 9 * sizeof(float));
        }
        for (const std::vector<float>& g : c.appends) {
            ASSERT_EQ(kv_color_append_matrix(p, g.data()), KV_STATUS_SUCCESS);
        }
        EXPECT_EQ(matrix_bits(stored(p)), matrix_bits(c.expected.data()));
        EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
    }
}

TEST_F(FullMatrix, AppendingTheStoredMatrixItselfSquaresIt) {
    kv_color_processor_handle p = kv_color_create_color_processor_test(0, 0, KV_TIER_SCALAR);
    ASSERT_NE(p, nullptr);
    const float m[9] = {1, 2, 0, 0, 1, 3, 4, 0, 1};
    ASSERT_EQ(kv_color_append_matrix(p, m), KV_STATUS_SUCCESS);
    ASSERT_EQ(kv_color_append_matrix(p, stored(p)), KV_STATUS_SUCCESS);
    const float squared[9] = {1, 4, 6, 12, 1, 6, 8, 8, 1};
    EXPECT_EQ(matrix_bits(stored(p)), matrix_bits(squared));
    EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
}

}  // namespace
}  // namespace kv_test
