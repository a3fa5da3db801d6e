// Which class of vector code the running processor is taken to support, read anew for every
// creation of a processor, and which vector back-end a frame of a processor goes to. Both are pure
// functions of plain values, shared by the library and kelvane-color --info.
#pragma once

#include <cstdint>

#include "platform/cpu_identification.h"

namespace kv {

using platform::processor_identification;

// Whether the processor passes the group of checks of `tier` (1 SSE, 2 AVX2, 3 AVX-512); no
// other value has a group.
bool passes_tier_checks(const processor_identification& identification, int32_t tier);

// The first group, from AVX-512 down to SSE, that passes in full; TIER_SCALAR when none does.
int32_t select_processor_tier(const processor_identification& identification);

// The running processor: identify_processor(), then the selection. Scalar off x86.
int32_t select_processor_tier();

// The vector back-end a frame goes to; the values are the tiers of the back-ends.
enum class vector_route : int32_t { scalar_only = 0, sse = 1, avx2 = 2, avx512 = 3 };

// Each back-end's failed flag, as the processor holds it.
struct backend_failures {
    bool sse;
    bool avx2;
    bool avx512;
};

// The routing rule, with `tier` taken as a signed value: AVX-512 and AVX2 processors use their own
// back-end, a failed one falls through to SSE (never to the tier below), any other positive tier
// uses SSE, and zero or a negative tier the scalar kernels alone.
vector_route route_frame(int32_t tier, const backend_failures& failed);

}  // namespace kv
