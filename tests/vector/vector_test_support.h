// Helpers for the vector module tests: the three modules loaded by file name from the build folder
// and driven through their four entries, the tiers this processor has, frames with guarded output
// and seeded random settings, and the three ways to run a frame (module + scalar tail, scalar
// alone, reference model) that every test compares.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "kernels/transform_request.h"
#include "modules/vector/instruction_sets.h"
#include "services/module_abi.h"

namespace kv {
namespace testing {

// One vector module: its file, its entries, and whether this processor can run it.
struct vector_module {
    const char* suffix;  // sse, avx2, avx512
    vector::instruction_set set;
    const char* missing;  // null when the processor and system support the set
    void* handle = nullptr;
    abi::vector_initialize_fn initialize = nullptr;
    abi::vector_transform_fn transform_8 = nullptr;
    abi::vector_transform_fn transform_16 = nullptr;
    abi::vector_terminate_fn terminate = nullptr;
    std::string load_error;

    int32_t transform(int width, const transform_request& r) const {
        return width == 8 ? transform_8(&r) : transform_16(&r);
    }
    // Pixels a module works on at once, largest for 8-bit output.
    int block(int width) const;
};

enum tier_index { SSE = 0, AVX2 = 1, AVX512 = 2 };
std::string tier_name(const ::testing::TestParamInfo<tier_index>& info);

// Loaded and initialised once per process; never unloaded.
const vector_module& module_for(tier_index tier);

// For TEST_P over tier_index: skips a tier the processor lacks, with the reason, and fails if the
// module cannot be loaded or refuses on a processor that has its set.
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

// Shared 65,536-entry tables of several kinds, built once: random 32-bit entries, entries whose
// high half is noise over a smooth low half, and small values.
const std::vector<uint32_t>& table_pool(int index);
constexpr int table_pool_size = 6;

// The settings of one frame, everything a transform record carries.
struct frame_settings {
    int width = 16;
    int32_t input_format = FORMAT_BGR_INTERLEAVED;
    int32_t output_format = FORMAT_BGR_INTERLEAVED;
    bool fourth_channel = false;
    float matrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const uint32_t* input_LUT[3] = {nullptr, nullptr, nullptr};   // blue, green, red; null: off
    const uint32_t* output_LUT[3] = {nullptr, nullptr, nullptr};  // null: off
    uint8_t enabled_byte = 1;  // the value of an "on" flag: any non-zero byte means on
    uint16_t minimum[3] = {0, 0, 0};
    uint16_t maximum[3] = {0xFFFF, 0xFFFF, 0xFFFF};
    int32_t shift_distance[3] = {0, 0, 0};
};

// The record of a frame; reserved bytes hold noise, as on a real stack.
transform_request make_request(const frame_settings& settings, const uint16_t* input,
                               int32_t pixel_count, void* output,
                               const color_correction_head* matrix);

// A frame: input elements, the settings and a guarded output buffer filled with noise, so that
// any byte a run writes where it should not shows.
class frame {
  public:
    frame(const frame_settings& settings, std::vector<uint16_t> input, uint32_t seed,
          size_t input_misalign_elements = 0, size_t output_misalign_bytes = 0);

    int32_t pixel_count() const { return pixel_count_; }
    const frame_settings& settings() const { return settings_; }
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

  private:
    frame_settings settings_;
    std::vector<uint16_t> input_storage_;
    const uint16_t* input_;
    int32_t pixel_count_;
    color_correction_head matrix_;
    uint32_t seed_;
    size_t output_misalign_;
};

// Random settings for one point of the kernel coordinate space (kernel_coordinates::encode()).
// Formats other than 1 and 2 sometimes come as -1 or 5, which mean planes as well.
frame_settings random_settings(uint32_t coordinates, std::mt19937& rng);

// Input elements of several characters: uniform noise, smooth image-like ramps, small values and
// the extremes.
std::vector<uint16_t> random_input(int32_t pixel_count, std::mt19937& rng);

// A float drawn to hit the arithmetic corners now and then.
float random_matrix_value(std::mt19937& rng);

}  // namespace testing
}  // namespace kv
