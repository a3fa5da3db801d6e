// The two ways a module looks tables up (gathers, scalar loads) and the separable path (diagonal
// matrices through one table per channel), at every tier, against the reference model. Each
// strategy is forced through the modules' diagnostic switches, read at initialize.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sstream>

#include "kernels/pixel_pipeline.h"
#include "tests/common/frames.h"
#include "tests/vector/vector_test_support.h"

namespace kv {
namespace testing {
namespace {

uint32_t base_seed() {
    const char* text = std::getenv("KV_TEST_SEED");
    return text != nullptr ? static_cast<uint32_t>(std::strtoul(text, nullptr, 0)) : 7654321u;
}

void set_variable(const char* name, const char* value) {
#if defined(_WIN32)
    _putenv_s(name, value != nullptr ? value : "");
#else
    if (value != nullptr) {
        setenv(name, value, 1);
    } else {
        unsetenv(name);
    }
#endif
}

// The module re-initialised with a lookup strategy forced and, if asked, the separable path taken
// by every frame it takes at all; back to its own choice afterwards.
class forced_strategy {
  public:
    forced_strategy(const vector_module& m, const char* lookup, bool separable_always) : m_(m) {
        set_variable("KV_VECTOR_LOOKUP", lookup);
        set_variable("KV_VECTOR_SEPARABLE_FROM", separable_always ? "0" : "2000000000");
        EXPECT_EQ(m_.initialize(), 0);
    }
    ~forced_strategy() {
        set_variable("KV_VECTOR_LOOKUP", nullptr);
        set_variable("KV_VECTOR_SEPARABLE_FROM", nullptr);
        m_.initialize();
    }
    forced_strategy(const forced_strategy&) = delete;
    forced_strategy& operator=(const forced_strategy&) = delete;

  private:
    const vector_module& m_;
};

const char* const strategies[] = {"gather", "scalar"};

// Diagonal entries that reach every corner of the rounding; zeros of both signs off it.
float diagonal_value(std::mt19937& rng) {
    static const float corners[] = {std::numeric_limits<float>::quiet_NaN(),
                                    std::numeric_limits<float>::infinity(),
                                    -std::numeric_limits<float>::infinity(),
                                    -0.0f,
                                    0.0f,
                                    3.0e38f,
                                    40000.0f,
                                    1.0e-40f,
                                    -1.0e-40f,
                                    0.49999997f,
                                    -1.5f};
    if (rng() % 3 == 0) return corners[rng() % (sizeof corners / sizeof *corners)];
    return random_matrix_value(rng);
}

void make_diagonal(frame_settings& s, std::mt19937& rng) {
    for (int i = 0; i < 9; ++i) {
        s.matrix[i] = i % 4 == 0 ? diagonal_value(rng) : (rng() % 2 != 0 ? -0.0f : 0.0f);
    }
}

std::string describe(const frame& f, const char* strategy, uint32_t seed) {
    const frame_settings& s = f.settings();
    std::ostringstream text;
    text << strategy << " lookups, seed " << seed << ", pixels " << f.pixel_count() << ", width "
         << s.width << ", formats " << s.input_format << " -> " << s.output_format
         << (s.fourth_channel ? " + fourth" : "") << ", matrix";
    for (float m : s.matrix) text << ' ' << m;
    for (int c = 0; c < 3; ++c) {
        text << " | channel " << c << ": in LUT " << (s.input_LUT[c] != nullptr) << ", out LUT "
             << (s.output_LUT[c] != nullptr) << ", bounds " << s.minimum[c] << ".." << s.maximum[c]
             << ", shift " << s.shift_distance[c];
    }
    return text.str();
}

// Module + scalar tail against the reference, and the frame taken whole.
void expect_exact(const vector_module& m, const frame& f, const char* strategy, uint32_t seed) {
    int32_t count = -1;
    const std::vector<uint8_t> routed = f.run_routed(m, &count);
    EXPECT_EQ(count, f.pixel_count()) << describe(f, strategy, seed);
    EXPECT_TRUE(routed == f.run_reference()) << describe(f, strategy, seed);
}

class LookupStrategies : public tier_test {};

// Random settings of every kind (most matrices full, so the ordinary path's stages run) with
// each strategy.
TEST_P(LookupStrategies, EveryStrategyMatchesTheReference) {
    const vector_module& m = module();
    for (const char* strategy : strategies) {
        const forced_strategy forced(m, strategy, false);
        const uint32_t seed = base_seed() + 31u * static_cast<uint32_t>(GetParam());
        std::mt19937 rng(seed);
        for (int round = 0; round < 600 && !HasFailure(); ++round) {
            const frame_settings s = random_settings(rng() % kernel_count, rng);
            const int32_t n = m.block(s.width) + static_cast<int32_t>(rng() % 700);
            const frame f(s, random_input(n, rng), rng(), rng() % 8, (rng() % 8) * (s.width / 8));
            expect_exact(m, f, strategy, seed);
        }
    }
}

class SeparableFrames : public tier_test {};

// Diagonal matrices with NaN, infinities, zeros of both signs, huge and subnormal entries, every
// layout pair, width, shift sign and LUT mix, odd lengths, lengths across the chunk boundary.
TEST_P(SeparableFrames, DiagonalMatricesMatchTheReference) {
    const vector_module& m = module();
    for (const char* strategy : strategies) {
        const forced_strategy forced(m, strategy, true);
        const uint32_t seed = base_seed() + 131u * static_cast<uint32_t>(GetParam());
        std::mt19937 rng(seed);
        for (int round = 0; round < 500 && !HasFailure(); ++round) {
            frame_settings s = random_settings(rng() % kernel_count, rng);
            make_diagonal(s, rng);
            const int32_t lengths[] = {m.block(s.width) + static_cast<int32_t>(rng() % 300),
                                       static_cast<int32_t>(rng() % 3000) | 1,
                                       8192 + 1 + static_cast<int32_t>(rng() % 9000)};
            const int32_t n = std::max(m.block(s.width), lengths[round % 3]);
            const frame f(s, random_input(n, rng), rng(), rng() % 8, (rng() % 8) * (s.width / 8));
            expect_exact(m, f, strategy, seed);
        }
    }
}

// The path is taken only for zeros off the diagonal: one non-zero (or NaN) entry anywhere off it
// must still give the full formula's result.
TEST_P(SeparableFrames, OneEntryOffTheDiagonalKeepsTheFullFormula) {
    const vector_module& m = module();
    const forced_strategy forced(m, "scalar", true);
    const uint32_t seed = base_seed();
    std::mt19937 rng(seed);
    const float intruders[] = {1.0e-40f, std::numeric_limits<float>::quiet_NaN(),
                               std::numeric_limits<float>::infinity(), 0.25f};
    for (int place : {1, 2, 3, 5, 6, 7}) {
        for (float intruder : intruders) {
            for (bool finite_diagonal : {true, false}) {
                frame_settings s;
                make_diagonal(s, rng);
                if (finite_diagonal) s.matrix[0] = 0.5f, s.matrix[4] = 1.25f, s.matrix[8] = 0.75f;
                s.matrix[place] = intruder;
                s.input_LUT[1] = table_pool(2).data();
                s.output_LUT[0] = table_pool(5).data();
                s.shift_distance[0] = -3;
                const frame f(s, random_input(4 * m.block(16) + 3, rng), rng());
                expect_exact(m, f, "scalar", seed);
            }
        }
    }
}

// Input LUTs of fewer than 2^16 entries, each ending at an inaccessible page: only elements below
// the size occur, the largest only late in the frame (after several chunks), so a table built
// past what the frame holds would fault. The output LUT ends right after its maximum.
TEST_P(SeparableFrames, SmallInputLUTsAreReadOnlyUpToTheLargestElement) {
    const vector_module& m = module();
    const uint32_t seed = base_seed();
    for (const char* strategy : strategies) {
        const forced_strategy forced(m, strategy, true);
        for (uint32_t entries : {1u, 300u, 4097u}) {
            for (int32_t format : {0, 1, 2}) {
                std::mt19937 rng(seed + entries);
                const uint16_t output_max = 1000;
                guarded_buffer input_LUT(entries * 4), output_LUT((output_max + 1) * 4);
                std::memcpy(input_LUT.data(), table_pool(1).data(), entries * 4);
                std::memcpy(output_LUT.data(), table_pool(5).data(), (output_max + 1) * 4);
                input_LUT.make_read_only();
                output_LUT.make_read_only();
                frame_settings s;
                s.input_format = format;
                s.output_format = format == 0 ? 2 : 0;
                s.fourth_channel = format == 2;
                s.width = format == 1 ? 8 : 16;
                s.matrix[0] = 0.7f;
                s.matrix[4] = -0.0f;
                s.matrix[8] = 1.3f;
                for (int c = 0; c < 3; ++c) {
                    s.input_LUT[c] = reinterpret_cast<const uint32_t*>(input_LUT.data());
                    s.maximum[c] = output_max;
                }
                s.output_LUT[2] = reinterpret_cast<const uint32_t*>(output_LUT.data());
                s.shift_distance[1] = 2;
                // A ramp that reaches the last entry only in the last pixels of the frame.
                const int32_t n = 3 * 8192 + 77;
                std::vector<uint16_t> input(3 * static_cast<size_t>(n));
                for (size_t i = 0; i < input.size(); ++i) {
                    input[i] = static_cast<uint16_t>(
                        (uint64_t(i) * entries / input.size() + rng() % 3) % entries);
                }
                input[input.size() - 2] = static_cast<uint16_t>(entries - 1);
                const frame f(s, input, seed);
                expect_exact(m, f, strategy, seed);
            }
        }
    }
}

KV_INSTANTIATE_FOR_TIERS(LookupStrategies);
KV_INSTANTIATE_FOR_TIERS(SeparableFrames);

}  // namespace
}  // namespace testing
}  // namespace kv
