// Which class of vector code the running processor is taken to support, read anew for every
// creation of a processor.
#pragma once

#include <cstdint>

#include "platform/cpu_identification.h"

namespace kv {

// The two instructions the selection reads; tests hand in made-up processors.
struct processor_identification {
    platform::cpuid_registers (*cpuid)(uint32_t leaf, uint32_t subleaf);
    uint64_t (*xgetbv0)();
};

int32_t select_processor_tier(const processor_identification& identification);

// The running processor.
int32_t select_processor_tier();

}  // namespace kv
