// Tier detection and module probing. All operating-system calls of kelvane-color are in the
// "os" namespace at the top of this file.
#include "system_probe.h"

#include <cstring>
#include <filesystem>

#include "kelvane_qor_color_processing.h"
#include "platform/cpu_identification.h"
#include "tool_error.h"

#if defined(_WIN32)
#include <io.h>
#include <windows.h>
#else
#include <dlfcn.h>
#include <unistd.h>
#endif

namespace kv_tool {
namespace os {

#if defined(_WIN32)
const char* const module_suffix = ".dll";

void* load(const std::string& file_name, std::string* error) {
    HMODULE module = LoadLibraryA(file_name.c_str());
    if (module == nullptr)
        error->assign("not found (error " + std::to_string(GetLastError()) + ")");
    return reinterpret_cast<void*>(module);
}
void* symbol(void* module, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}
void release(void* module) {
    FreeLibrary(static_cast<HMODULE>(module));
}

std::string path_of_address(const void* address) {
    HMODULE module = nullptr;
    if (!GetModuleHandleExA(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            static_cast<LPCSTR>(address), &module)) {
        return std::string();
    }
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(module, path, MAX_PATH);
    return std::string(path, length);
}

bool stderr_is_terminal() {
    return _isatty(_fileno(stderr)) != 0;
}
#else
const char* const module_suffix = ".so";

void* load(const std::string& file_name, std::string* error) {
    void* module = dlopen(file_name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        const char* message = dlerror();
        error->assign(message != nullptr ? message : "not found");
    }
    return module;
}
void* symbol(void* module, const char* name) {
    return dlsym(module, name);
}
void release(void* module) {
    dlclose(module);
}

std::string path_of_address(const void* address) {
    Dl_info info{};
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return std::string();
    return info.dli_fname;
}

bool stderr_is_terminal() {
    return isatty(2) != 0;
}
#endif

}  // namespace os

namespace {

using entry_fn = int32_t (*)();

struct module_names {
    const char* base_name;
    const char* entries[6];  // the names the library looks up, nullptr-terminated
    const char* initialize;  // called by the probe; nullptr: never started here
    const char* terminate;
};

const module_names LUT_names = {
    "kelvane_qor_LUT",
    {"kv_LUT_module_initialize", "kv_create_LUT_test", "kv_get_LUT_data", "kv_LUT_transform_16",
     "kv_destroy_LUT", "kv_LUT_module_terminate"},
    nullptr,
    nullptr};
const module_names logger_names = {
    "kelvane_qor_logger", {"qor_get_log", "qor_log", "qor_free_log"}, nullptr, nullptr};

#define KV_VECTOR_NAMES(isa)                                             \
    {                                                                    \
        "kelvane_qor_color_processing_vector_" #isa,                     \
            {"kv_color_processing_vector_" #isa "_module_initialize",    \
             "kv_color_processing_transform_8_bit_output_vector_" #isa,  \
             "kv_color_processing_transform_16_bit_output_vector_" #isa, \
             "kv_color_processing_vector_" #isa "_module_terminate"},    \
            "kv_color_processing_vector_" #isa "_module_initialize",     \
            "kv_color_processing_vector_" #isa "_module_terminate"       \
    }
const module_names vector_names[3] = {KV_VECTOR_NAMES(sse), KV_VECTOR_NAMES(avx2),
                                      KV_VECTOR_NAMES(avx512)};
#undef KV_VECTOR_NAMES

module_report probe(const module_names& names) {
    module_report report;
    report.file_name = std::string(names.base_name) + os::module_suffix;
    void* module = os::load(report.file_name, &report.detail);
    if (module == nullptr) return report;
    void* first = nullptr;
    for (const char* name : names.entries) {
        if (name == nullptr) break;
        void* address = os::symbol(module, name);
        if (address == nullptr) {
            report.state = module_state::incomplete;
            report.detail = std::string("no entry point ") + name;
            break;
        }
        if (first == nullptr) first = address;
    }
    if (first != nullptr) {
        report.path = std::filesystem::path(os::path_of_address(first)).lexically_normal().string();
    }
    if (report.state != module_state::incomplete) {
        report.state = module_state::ready;
        if (names.initialize != nullptr) {
            const auto initialize =
                reinterpret_cast<entry_fn>(os::symbol(module, names.initialize));
            const int32_t result = initialize();
            report.detail = "initialize returned " + std::to_string(result);
            if (result != 0) {
                report.state = module_state::refused;
            } else {
                reinterpret_cast<void (*)()>(os::symbol(module, names.terminate))();
            }
        }
    }
    os::release(module);
    return report;
}

}  // namespace

cpu_report detect_cpu() {
    using kv::platform::bit;
    using kv::platform::cpuid;
    cpu_report cpu;
    const auto leaf1 = cpuid(1, 0);
    const auto leaf7 = cpuid(7, 0);
    // xgetbv only once OSXSAVE and AVX are seen, and only for the AVX-512 group.
    cpu.avx512 = bit(leaf1.ecx, 27) && bit(leaf1.ecx, 28) &&
                 (kv::platform::xgetbv0() & 0xE0) == 0xE0 && bit(leaf7.ebx, 16) &&
                 bit(leaf7.ebx, 17) && bit(leaf7.ebx, 30);
    cpu.avx2 = bit(leaf7.ebx, 5) && bit(leaf1.ecx, 12);
    cpu.sse = bit(leaf1.edx, 25) && bit(leaf1.edx, 26) && bit(leaf1.ecx, 19);
    cpu.tier = cpu.avx512 ? KV_TIER_AVX512
               : cpu.avx2 ? KV_TIER_AVX2
               : cpu.sse  ? KV_TIER_SSE
                          : KV_TIER_SCALAR;
    // The brand string of leaves 0x80000002 to 0x80000004, and the display family and model.
    char brand[49] = {};
    if (cpuid(0x80000000u, 0).eax >= 0x80000004u) {
        for (uint32_t i = 0; i < 3; ++i) {
            const auto r = cpuid(0x80000002u + i, 0);
            const uint32_t words[4] = {r.eax, r.ebx, r.ecx, r.edx};
            std::memcpy(brand + 16 * i, words, sizeof words);
        }
    }
    std::string name = brand;
    name.erase(0, name.find_first_not_of(' '));
    name.erase(name.find_last_not_of(' ') + 1);
    const uint32_t base_family = (leaf1.eax >> 8) & 0xF;
    const uint32_t family = base_family + (base_family == 0xF ? (leaf1.eax >> 20) & 0xFF : 0);
    uint32_t model = (leaf1.eax >> 4) & 0xF;
    if (base_family == 0x6 || base_family == 0xF) model += ((leaf1.eax >> 16) & 0xF) << 4;
    cpu.name = printable(name.empty() ? std::string("unknown processor") : name) + ", family " +
               std::to_string(family) + ", model " + std::to_string(model);
    return cpu;
}

bool cpu_supports(const cpu_report& cpu, int32_t tier) {
    switch (tier) {
        case KV_TIER_SCALAR:
            return true;
        case KV_TIER_SSE:
            return cpu.sse;
        case KV_TIER_AVX2:
            return cpu.avx2;
        case KV_TIER_AVX512:
            return cpu.avx512;
        default:
            return false;
    }
}

system_report probe_system() {
    system_report report;
    report.cpu = detect_cpu();
    report.LUT = probe(LUT_names);
    report.logger = probe(logger_names);
    for (int v = 0; v < 3; ++v) report.vector[v] = probe(vector_names[v]);
    return report;
}

int32_t routed_backend(int32_t tier, const std::array<module_report, 3>& vector) {
    auto ready = [&](int32_t t) { return vector[t - 1].state == module_state::ready; };
    if (tier == KV_TIER_AVX512 && ready(3)) return 3;
    if (tier == KV_TIER_AVX2 && ready(2)) return 2;
    if (tier >= 1 && ready(1)) return 1;  // every other positive tier, and the fallbacks
    return 0;
}

const char* module_state_name(module_state state) {
    switch (state) {
        case module_state::missing:
            return "missing";
        case module_state::incomplete:
            return "incomplete";
        case module_state::refused:
            return "refused";
        case module_state::ready:
            return "ready";
    }
    return "?";
}

std::string library_path() {
    return std::filesystem::path(os::path_of_address(reinterpret_cast<const void*>(
                                     &kv_color_processing_module_initialize)))
        .lexically_normal()
        .string();
}

bool stderr_is_terminal() {
    return os::stderr_is_terminal();
}

}  // namespace kv_tool
