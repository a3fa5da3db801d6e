// A target with planted faults, for a test of the runner itself: an input holding "THROW" lets
// an exception other than the refusal escape, one holding "CRASH" raises SIGSEGV. The runner must
// report either, save the case and print it.
#include <csignal>
#include <stdexcept>
#include <string>

#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    kv_fuzz::expect_only<std::invalid_argument>([&] {
        if (text.find("REFUSE") != std::string::npos) throw std::invalid_argument("refused");
        if (text.find("THROW") != std::string::npos) throw std::runtime_error("planted");
        if (text.find("CRASH") != std::string::npos) std::raise(SIGSEGV);
    });
    return 0;
}
