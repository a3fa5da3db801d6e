// Hooks the library's load-time start into the platform: DllMain on Windows, a constructor
// function elsewhere. Thread notifications are of no use to the library, so Windows stops them.
#include "platform/module_hooks.h"

#include "platform/windows_api.h"

#if defined(_WIN32)

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        kv::on_module_load();
        // The loader refuses this for a module with static TLS, which every MinGW-w64 DLL has
        // (its start-up code brings a TLS directory): there the notifications stay on and this
        // function ignores them.
        DisableThreadLibraryCalls(instance);
    }
    return TRUE;
}

#else

namespace {

__attribute__((constructor)) void kv_module_load_hook() {
    kv::on_module_load();
}

}  // namespace

#endif
