// What this machine offers the library: the processor tier as the library selects it, and which
// run-time modules load, with their names and initialize results. The library exports no query for
// this, so the tool takes the same steps with the library's own code (kv_module_contract): the
// tier decision, the module names, the platform loader searching as the library searches, and the
// routing rule.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace kv_tool {

struct cpu_report {
    bool avx512 = false;  // OSXSAVE, AVX, ZMM state enabled, AVX512F, AVX512DQ, AVX512BW
    bool avx2 = false;    // AVX2 and FMA
    bool sse = false;     // SSE, SSE2, SSE4.1
    int32_t tier = 0;     // the first group that passes, as the library selects it
    std::string name;     // "<brand string>, family F, model M" from cpuid, for reports
};

enum class module_state { missing, incomplete, refused, ready };

struct module_report {
    std::string file_name;  // base name plus ".so" or ".dll"
    module_state state = module_state::missing;
    std::string detail;  // loader message, missing entry point, or initialize result
    std::string path;    // where it was found
};

struct system_report {
    cpu_report cpu;
    module_report LUT;
    module_report logger;
    std::array<module_report, 3> vector;  // sse, avx2, avx512 (tiers 1, 2, 3)
};

cpu_report detect_cpu();

// Whether the machine's processor passes the checks of a tier (0 always does).
bool cpu_supports(const cpu_report& cpu, int32_t tier);

// Loads every module once and releases it again. Vector modules are initialised and terminated;
// the LUT and logging modules are only checked for their names, never started.
system_report probe_system();

// The vector module (1 sse, 2 avx2, 3 avx512) a frame of a processor of `tier` goes to, or 0 when
// the scalar kernels do it all, given which modules are ready.
int32_t routed_backend(int32_t tier, const std::array<module_report, 3>& vector);

const char* module_state_name(module_state state);

// The file the main library was loaded from, or "" when the platform cannot say.
std::string library_path();

bool stderr_is_terminal();

}  // namespace kv_tool
