// The vector tiers as the tests see them: which this machine lacks, and whether a missing one may
// be skipped. KV_REQUIRE_TIERS ("sse,avx2,avx512" or "all") turns the skip of a listed tier into a
// failure, so a machine that has the tier cannot pass by skipping it silently.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "modules/vector/instruction_sets.h"

namespace kv {
namespace testing {

inline bool tier_required(const std::string& name) {
    const char* list = std::getenv("KV_REQUIRE_TIERS");
    if (list == nullptr) return false;
    const std::string text = std::string(",") + list + ",";
    return text == ",all," || text.find("," + name + ",") != std::string::npos;
}

// Null when the machine runs the tier's module; else why it does not.
inline const char* tier_missing(const std::string& name) {
    return kv::vector::missing_feature(name == "sse"    ? kv::vector::instruction_set::sse41
                                       : name == "avx2" ? kv::vector::instruction_set::avx2
                                                        : kv::vector::instruction_set::avx512);
}

}  // namespace testing
}  // namespace kv

// Skips the current test when the machine lacks the tier `name` ("sse", "avx2", "avx512"), or
// fails it when KV_REQUIRE_TIERS requires that tier.
#define KV_SKIP_MISSING_TIER(name)                                                                 \
    do {                                                                                           \
        if (const char* kv_missing_ = ::kv::testing::tier_missing(name)) {                         \
            if (::kv::testing::tier_required(name)) {                                              \
                FAIL() << "KV_REQUIRE_TIERS requires the " << (name) << " tier, but this "         \
                       << "processor or system lacks " << kv_missing_;                             \
            }                                                                                      \
            GTEST_SKIP() << "this processor or system lacks " << kv_missing_ << ", needed by "     \
                         << "the " << (name) << " module (KV_REQUIRE_TIERS makes this a failure)"; \
        }                                                                                          \
    } while (0)
