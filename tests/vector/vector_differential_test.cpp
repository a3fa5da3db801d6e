// Differential runs through every tier this processor has: each frame goes through the module
// with the scalar tail, through the scalar kernels alone and through the reference model, and all
// three must agree byte for byte. The lookup strategies (gathers, scalar loads) and the separable
// path (diagonal matrices through one table per channel) are forced through the modules'
// diagnostic switches, read at initialize. Seeded; KV_TEST_SEED explores other seeds.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <limits>

#include "kernels/pixel_pipeline.h"
#include "tests/vector/vector_test_support.h"

namespace kv {
namespace testing {
namespace {

class EveryCoordinate : public tier_test {};

// All 62,208 settings of the scalar kernels, each with its own random frame of 0 to three blocks
// plus one pixel, so every lane position and the block overlap at the end are exercised: the
// module declines a frame shorter than a block or gets every pixel right, never more.
TEST_P(EveryCoordinate, MatchesReferenceAndScalar) {
    const vector_module& m = module();
    const uint32_t seed = base_seed() + 7919u * static_cast<uint32_t>(GetParam());
    int failures = 0;
    for (uint32_t code = 0; code < kernel_count && failures < 10; ++code) {
        std::mt19937 rng(seed ^ (code * 2654435761u));
        const frame_settings s = random_settings(code, rng);
        const int block = m.block(s.width);
        const int32_t n = static_cast<int32_t>(rng() % (3 * block + 2));
        const frame f(s, random_input(n, rng), code);
        if (!check_frame(m, f, seed, block)) ++failures;
    }
}

// An empty value leaves the choice to the module, as an unset variable does.
void set_variable(const char* name, const char* value) {
#if defined(_WIN32)
    _putenv_s(name, value);
#else
    setenv(name, value, 1);
#endif
}

// The module re-initialised with a lookup strategy forced and the separable path taken by every
// diagonal frame or by none; back to its own choice afterwards.
class forced_strategy {
  public:
    forced_strategy(const vector_module& m, const char* lookup, bool separable_always) : m_(m) {
        set_variable("KV_VECTOR_LOOKUP", lookup);
        set_variable("KV_VECTOR_SEPARABLE_FROM", separable_always ? "0" : "2000000000");
        EXPECT_EQ(m_.initialize(), 0);
    }
    ~forced_strategy() {
        set_variable("KV_VECTOR_LOOKUP", "");
        set_variable("KV_VECTOR_SEPARABLE_FROM", "");
        m_.initialize();
    }
    forced_strategy(const forced_strategy&) = delete;
    forced_strategy& operator=(const forced_strategy&) = delete;

  private:
    const vector_module& m_;
};

// A diagonal matrix whose entries reach every corner of the rounding, with zeros of both signs
// off it; now and then one entry off the diagonal is not zero, which must keep the full formula.
void make_diagonal(frame_settings& s, std::mt19937& rng) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    static const float corners[] = {nan,      inf,      -inf,      -0.0f,       0.0f, 3.0e38f,
                                    40000.0f, 1.0e-40f, -1.0e-40f, 0.49999997f, -1.5f};
    for (int i = 0; i < 9; ++i) {
        const bool corner = rng() % 3 == 0;
        s.matrix[i] = i % 4 != 0 ? (rng() % 2 != 0 ? -0.0f : 0.0f)
                      : corner   ? corners[rng() % (sizeof corners / sizeof *corners)]
                                 : random_matrix_value(rng);
    }
    if (rng() % 4 == 0) {
        const float intruders[] = {1.0e-40f, nan, inf, 0.25f};
        const int off_diagonal[] = {1, 2, 3, 5, 6, 7};
        s.matrix[off_diagonal[rng() % 6]] = intruders[rng() % 4];
    }
}

class Strategies : public tier_test {};

// Random settings of every kind with each lookup strategy, full matrices on the ordinary path and
// diagonal ones on the separable path; lengths up to several thousand pixels, past the separable
// path's chunk, with misaligned starts.
TEST_P(Strategies, RandomFramesMatchReferenceAndScalar) {
    const vector_module& m = module();
    for (const char* strategy : {"gather", "scalar"}) {
        for (bool separable : {false, true}) {
            const forced_strategy forced(m, strategy, separable);
            const uint32_t seed = base_seed() + 31u * static_cast<uint32_t>(GetParam()) +
                                  (separable ? 100u : 0u) + (*strategy == 's' ? 7u : 0u);
            SCOPED_TRACE(std::string(strategy) + " lookups" + (separable ? ", separable" : ""));
            std::mt19937 rng(seed);
            for (int round = 0; round < 500 && !HasFailure(); ++round) {
                frame_settings s = random_settings(rng() % kernel_count, rng);
                if (separable) make_diagonal(s, rng);
                const int32_t lengths[] = {m.block(s.width) + static_cast<int32_t>(rng() % 700),
                                           static_cast<int32_t>(rng() % 6000),
                                           8192 + 1 + static_cast<int32_t>(rng() % 9000)};
                const int32_t n = lengths[round % (separable ? 3 : 2)];
                const frame f(s, random_input(n, rng), rng(), rng() % 32,
                              (rng() % 32) * (s.width / 8));
                check_frame(m, f, seed, m.block(s.width));
            }
        }
    }
}

// Input LUTs of fewer than 2^16 entries, each ending at an inaccessible page: only elements below
// the size occur, the largest only late in the frame (after several chunks), so a table built
// past what the frame holds would fault. The output LUT ends right after its maximum.
TEST_P(Strategies, SmallInputLUTsAreReadOnlyUpToTheLargestElement) {
    const vector_module& m = module();
    const uint32_t seed = base_seed();
    for (const char* strategy : {"gather", "scalar"}) {
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
                s.matrix[0] = 0.7f, s.matrix[4] = -0.0f, s.matrix[8] = 1.3f;
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
                EXPECT_TRUE(check_frame(m, frame(s, input, seed), seed, n))
                    << strategy << " lookups, " << entries << " entries";
            }
        }
    }
}

KV_INSTANTIATE_FOR_TIERS(EveryCoordinate);
KV_INSTANTIATE_FOR_TIERS(Strategies);

}  // namespace
}  // namespace testing
}  // namespace kv
