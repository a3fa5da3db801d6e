// Tier detection and module probing, through the library's own tier decision, routing rule,
// module names and platform loader (kv_module_contract), so --info cannot disagree with the
// library.
#include "pipeline/system_probe.h"

#include <cstdio>
#include <filesystem>

#include "cli/tool_error.h"
#include "kelvane_qor_color_processing.h"
#include "kelvane_qor_color_processing_suite/tier_selection.h"
#include "platform/module_loader.h"
#include "services/module_contract.h"

#if defined(_WIN32)
#include <io.h>
#else
#include <unistd.h>
#endif

namespace kv_tool {
namespace {

using entry_fn = int32_t (*)();

// Any address inside the main library: the probe searches its folder where the library would.
const void* library_address() {
    return reinterpret_cast<const void*>(&kv_color_processing_module_initialize);
}

std::string normal_path(const std::string& path) {
    return path.empty() ? path : std::filesystem::path(path).lexically_normal().string();
}

// Loads one module as the library does and looks up every name the library looks up. Vector
// modules (`start` set) are also initialised and terminated; the LUT and logging modules are
// never started here.
module_report probe(const kv::module_names& names, bool start) {
    module_report report;
    report.file_name = std::string(names.base_name) + kv::platform::module_suffix;
    const kv::platform::module_handle module =
        kv::platform::load_module(names.base_name, library_address());
    if (module == nullptr) {
        report.detail = kv::platform::last_error();
        if (report.detail.empty()) report.detail = "not found";
        return report;
    }
    report.path = normal_path(kv::platform::module_path(module));
    report.state = module_state::ready;
    for (std::size_t e = 0; e < names.entry_count; ++e) {
        if (kv::platform::module_symbol(module, names.entries[e]) == nullptr) {
            report.state = module_state::incomplete;
            report.detail = std::string("no entry point ") + names.entries[e];
            break;
        }
    }
    if (report.state == module_state::ready && start) {
        const auto initialize = reinterpret_cast<entry_fn>(
            kv::platform::module_symbol(module, names.entries[kv::VECTOR_INITIALIZE]));
        const int32_t result = initialize();
        report.detail = "initialize returned " + std::to_string(result);
        if (result != 0) {
            report.state = module_state::refused;
        } else {
            reinterpret_cast<void (*)()>(
                kv::platform::module_symbol(module, names.entries[kv::VECTOR_TERMINATE]))();
        }
    }
    kv::platform::release_module(module);
    return report;
}

}  // namespace

cpu_report detect_cpu() {
    const kv::processor_identification id = kv::platform::identify_processor();
    cpu_report cpu;
    cpu.avx512 = kv::passes_tier_checks(id, KV_TIER_AVX512);
    cpu.avx2 = kv::passes_tier_checks(id, KV_TIER_AVX2);
    cpu.sse = kv::passes_tier_checks(id, KV_TIER_SSE);
    cpu.tier = kv::select_processor_tier(id);
    cpu.name = printable(kv::platform::processor_name());
    return cpu;
}

bool cpu_supports(const cpu_report& cpu, int32_t tier) {
    const bool passes[] = {true, cpu.sse, cpu.avx2, cpu.avx512};
    return tier >= KV_TIER_SCALAR && tier <= KV_TIER_AVX512 && passes[tier];
}

system_report probe_system() {
    system_report report;
    report.cpu = detect_cpu();
    report.LUT = probe(kv::LUT_MODULE, false);
    report.logger = probe(kv::LOGGER_MODULE, false);
    for (int v = 0; v < 3; ++v) report.vector[v] = probe(kv::VECTOR_MODULES[v], true);
    return report;
}

int32_t routed_backend(int32_t tier, const std::array<module_report, 3>& vector) {
    auto failed = [&](int v) { return vector[v].state != module_state::ready; };
    return static_cast<int32_t>(kv::route_frame(tier, {failed(0), failed(1), failed(2)}));
}

const char* module_state_name(module_state state) {
    static const char* const names[] = {"missing", "incomplete", "refused", "ready"};
    return names[static_cast<int>(state)];
}

std::string library_path() {
    return normal_path(kv::platform::module_path_of(library_address()));
}

bool stderr_is_terminal() {
#if defined(_WIN32)
    return _isatty(_fileno(stderr)) != 0;
#else
    return isatty(2) != 0;
#endif
}

}  // namespace kv_tool
