// The stored matrix, read through the handle as the kernels read it: identity, clear, and the
// worked examples of append (order of factors, order of terms, signed zero, NaN, infinity and the
// stored matrix appended to itself).
#include <cmath>
#include <cstring>
#include <limits>

#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

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
const float NaN = std::numeric_limits<float>::quiet_NaN();
using matrix = std::vector<float>;
const matrix I = {1, 0, 0, 0, 1, 0, 0, 0, 1};
// Steps that are no matrix: append the stored matrix through its own pointer, clear.
const matrix itself = {}, cleared = {0};

struct matrix_case {
    const char* name;
    matrix start;               // written into the stored matrix; empty: as made
    std::vector<matrix> steps;  // in order
    matrix expected;
};

const matrix_case matrix_cases[] = {
    {"a new processor", {}, {}, I},
    {"clear", {-0.0f, NaN, inf, 1e-40f, 2, 3, 4, 5, 6}, {I, cleared}, I},
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
     {1, 1e8f, -1e8f, 0, 1, 0, 0, 0, 1},
     {{1, 0, 0, 1, 1, 0, 1, 0, 1}},
     {0, 1e8f, -1e8f, 1, 1, 0, 1, 0, 1}},
    {"products rounded to single precision",
     {1.0f / 3, 0, 0, 0, 1, 0, 0, 0, 1},
     {{3, 0.1f, 0, 0, 1, 0, 0, 0, 1}},
     {1, (1.0f / 3) * 0.1f, 0, 0, 1, 0, 0, 0, 1}},
    // Negative zero becomes positive, NaN spreads along its row, infinity stays and turns its row
    // neighbours NaN.
    {"signed zero", {-0.0f, -0.0f, 0, 0, 1, -0.0f, 0, 0, 1}, {I}, {0, 0, 0, 0, 1, 0, 0, 0, 1}},
    {"NaN", {NaN, 0, 0, 0, 1, 0, 0, 0, 1}, {I}, {NaN, NaN, NaN, 0, 1, 0, 0, 0, 1}},
    {"infinity", {1, 0, 0, 0, 1, 0, 0, 0, -inf}, {I}, {1, 0, 0, 0, 1, 0, NaN, NaN, -inf}},
    {"appended to itself", {1, 2, 0, 0, 1, 3, 4, 0, 1}, {itself}, {1, 4, 6, 12, 1, 6, 8, 8, 1}},
};

class FullMatrix : public initialized_test {};

TEST_F(FullMatrix, AppendMultipliesTheGivenMatrixOnTheRight) {
    for (const matrix_case& c : matrix_cases) {
        SCOPED_TRACE(c.name);
        kv_color_processor_handle p = kv_color_create_color_processor_test(1, 1, KV_TIER_SCALAR);
        ASSERT_NE(p, nullptr);
        // The handle points at the stored matrix; that is the layout the kernels rely on.
        float* stored = reinterpret_cast<float*>(p);
        if (!c.start.empty()) std::memcpy(stored, c.start.data(), 9 * sizeof(float));
        for (const matrix& g : c.steps) {
            ASSERT_EQ(g == cleared ? kv_color_clear_matrix(p)
                                   : kv_color_append_matrix(p, g.empty() ? stored : g.data()),
                      KV_STATUS_SUCCESS);
        }
        EXPECT_EQ(matrix_bits(stored), matrix_bits(c.expected.data()));
        EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
    }
}

}  // namespace
}  // namespace kv_test
