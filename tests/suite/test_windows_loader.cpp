// What the Windows loader keeps about the library once a host has loaded it: the load hook asks for
// thread notifications to be turned off, so threads the host starts and ends never enter the
// library. The loader grants that only to a module without static thread-local storage: every
// MinGW-w64 DLL has a TLS directory (its start-up code brings one), so there the request is
// refused and the notifications stay on; a build without one (MSVC, dynamic runtime) gets them off.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX  // std::min and std::max stay usable
#endif
#include <windows.h>
#include <winternl.h>

namespace {

// The head of the loader's record of one module, x64 layout (Windows and Wine alike). The public
// headers keep these fields reserved; the test checks base and name before it trusts the flags.
struct loader_entry {
    LIST_ENTRY in_load_order;
    LIST_ENTRY in_memory_order;
    LIST_ENTRY in_initialization_order;
    void* dll_base;
    void* entry_point;
    ULONG size_of_image;
    UNICODE_STRING full_name;
    UNICODE_STRING base_name;
    ULONG flags;
};
static_assert(offsetof(loader_entry, dll_base) == 0x30, "x64 loader record");
static_assert(offsetof(loader_entry, flags) == 0x68, "x64 loader record");

// Set by DisableThreadLibraryCalls.
constexpr ULONG DONT_CALL_FOR_THREADS = 0x00040000;

const PEB* process_environment_block() {
    using query_function = NTSTATUS(NTAPI*)(HANDLE, PROCESSINFOCLASS, PVOID, ULONG, PULONG);
    const auto query = reinterpret_cast<query_function>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQueryInformationProcess")));
    PROCESS_BASIC_INFORMATION info{};
    if (query == nullptr ||
        query(GetCurrentProcess(), ProcessBasicInformation, &info, sizeof info, nullptr) != 0) {
        return nullptr;
    }
    return info.PebBaseAddress;
}

const loader_entry* entry_of(HMODULE module) {
    const PEB* peb = process_environment_block();
    if (peb == nullptr) {
        return nullptr;
    }
    const LIST_ENTRY* head = &peb->Ldr->InMemoryOrderModuleList;
    for (const LIST_ENTRY* link = head->Flink; link != head; link = link->Flink) {
        const auto* entry = reinterpret_cast<const loader_entry*>(
            reinterpret_cast<const char*>(link) - offsetof(loader_entry, in_memory_order));
        if (entry->dll_base == module) {
            return entry;
        }
    }
    return nullptr;
}

bool has_static_tls(HMODULE module) {
    const auto* base = reinterpret_cast<const unsigned char*>(module);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    return nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_TLS].Size != 0;
}

std::string narrow(const UNICODE_STRING& text) {
    std::string result;
    for (USHORT i = 0; i < text.Length / sizeof(WCHAR); ++i) {
        result += static_cast<char>(text.Buffer[i]);
    }
    return result;
}

struct module_case {
    const char* file;
    bool asks;  // whether its load hook asks for the notifications to be turned off
};

TEST(WindowsLoader, TheLibraryAsksForThreadNotificationsOff) {
    const std::string library_file = std::string(KV_MAIN_LIBRARY_BASE_NAME) + ".dll";
    HMODULE library = LoadLibraryA(library_file.c_str());
    ASSERT_NE(library, nullptr) << library_file;
    // The journal is a DLL of the test's that leaves them on: it shows the flag is read right.
    const module_case cases[] = {{library_file.c_str(), true}, {"libkv_fake_journal.dll", false}};
    RecordProperty("library_has_static_tls", has_static_tls(library) ? "yes" : "no");
    for (const module_case& c : cases) {
        HMODULE module = GetModuleHandleA(c.file);
        ASSERT_NE(module, nullptr) << c.file;
        const loader_entry* entry = entry_of(module);
        ASSERT_NE(entry, nullptr) << c.file;
        EXPECT_EQ(_stricmp(narrow(entry->base_name).c_str(), c.file), 0)
            << narrow(entry->base_name);
        const bool expected_off = c.asks && !has_static_tls(module);
        EXPECT_EQ((entry->flags & DONT_CALL_FOR_THREADS) != 0, expected_off)
            << c.file << (has_static_tls(module) ? " (has static TLS)" : " (no static TLS)");
    }
    EXPECT_NE(FreeLibrary(library), 0);
    EXPECT_EQ(GetModuleHandleA(library_file.c_str()), nullptr);
}

}  // namespace
