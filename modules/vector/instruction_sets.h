// The three instruction sets of the vector modules, and the check a module runs before it uses
// its own: the module half of each tier's record in platform/tier_requirements.h. Built for the
// baseline, so a module can run it on any x86-64 processor and refuse; the tests use the same
// check to know which tiers the machine has.
#pragma once

#include <cstdint>

#include "platform/tier_requirements.h"

namespace kv {
namespace vector {

// The values are the tiers.
enum class instruction_set : int32_t { sse41 = 1, avx2 = 2, avx512 = 3 };

// Null when the running processor and system support the set, else the name of the first thing
// missing.
inline const char* missing_feature(instruction_set set) {
    return platform::first_missing(platform::requirements_of(int32_t(set))->module,
                                   platform::identify_processor_within_leaves());
}

}  // namespace vector
}  // namespace kv
