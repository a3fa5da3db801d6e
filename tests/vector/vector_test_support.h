// Helpers for the vector module tests: the three modules loaded by file name from the build folder
// and driven through their four entries, frames with guarded output and the three ways to run a
// frame (module + scalar tail, scalar alone, reference model) that every test compares.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kernels/transform_request.h"
#include "services/module_abi.h"
#include "tests/common/frames.h"

namespace kv {
namespace testing {

// One vector module: its entries, loaded and initialised once per process, never unloaded.
struct vector_module {
    const char* suffix;  // sse, avx2, avx512
    int lanes;           // 128-bit lanes a register holds
    abi::vector_initialize_fn initialize = nullptr;
    abi::vector_transform_fn transform_8 = nullptr;
    abi::vector_transform_fn transform_16 = nullptr;
    abi::vector_terminate_fn terminate = nullptr;
    std::string load_error;

    int32_t transform(int width, const transform_request& r) const {
        return width == 8 ? transform_8(&r) : transform_16(&r);
    }
    // Pixels a module works on at once, largest for 8-bit output.
    int block(int width) const { return lanes * (width == 8 ? 16 : 8); }
};

enum tier_index { SSE = 0, AVX2 = 1, AVX512 = 2 };
std::string tier_name(const ::testing::TestParamInfo<tier_index>& info);
const vector_module& module_for(tier_index tier);

// KV_TEST_SEED picks another seed to explore more; the default keeps runs repeatable.
uint32_t base_seed();

// For TEST_P over tier_index: skips a tier the processor lacks (fails under KV_REQUIRE_TIERS),
// and fails if the module cannot be loaded or refuses on a processor that has its set.
class tier_test : public ::testing::TestWithParam<tier_index> {
  protected:
    void SetUp() override;
    const vector_module& module() const { return module_for(GetParam()); }
};

#define KV_INSTANTIATE_FOR_TIERS(suite)                                                    \
    INSTANTIATE_TEST_SUITE_P(                                                              \
        Tiers, suite,                                                                      \
        ::testing::Values(::kv::testing::SSE, ::kv::testing::AVX2, ::kv::testing::AVX512), \
        ::kv::testing::tier_name)

// A frame: input elements, the settings and a guarded output buffer filled with noise, so that
// any byte a run writes where it should not shows.
class frame {
  public:
    frame(const frame_settings& settings, std::vector<uint16_t> input, uint32_t seed,
          size_t input_misalign_elements = 0, size_t output_misalign_bytes = 0);

    int32_t pixel_count() const { return pixel_count_; }
    size_t output_bytes() const;

    // The record for this frame with the output at `output`. Reserved bytes hold noise.
    transform_request request(void* output) const;

    // The module's part (returned count) followed by the scalar tail, as the library routes a
    // frame. Checks on the way that the count is in range, that the module wrote nothing beyond
    // its pixels or the buffer, and that it left the record alone.
    std::vector<uint8_t> run_routed(const vector_module& module, int32_t* count = nullptr) const;
    std::vector<uint8_t> run_scalar() const;
    std::vector<uint8_t> run_reference() const;

    // Output elements (as bytes) of the pixels from `first` on, in layout order.
    std::vector<uint8_t> bytes_of_pixels_from(const std::vector<uint8_t>& output,
                                              int32_t first) const;

    // The settings, the seed and the first pixel where `mine` and `theirs` differ, for a message.
    std::string describe(uint32_t seed, const std::vector<uint8_t>& mine = {},
                         const std::vector<uint8_t>& theirs = {}) const;

  private:
    frame_settings settings_;
    std::vector<uint16_t> input_storage_;
    const uint16_t* input_;
    int32_t pixel_count_;
    color_correction_head matrix_;
    uint32_t seed_;
    size_t output_misalign_;
};

// Runs `f` three ways (module + tail, scalar alone, reference); false, with a failure recorded
// naming the seed, when they disagree or when a frame of at least `whole_from` pixels was not
// taken whole by the module.
bool check_frame(const vector_module& m, const frame& f, uint32_t seed, int32_t whole_from);

}  // namespace testing
}  // namespace kv
