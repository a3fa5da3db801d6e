// The removal of temporaries on an interruption. A signal handler may only do async-signal-safe
// work, so the names live in a fixed table of lock-free slots that the handler walks and unlinks.
#include "pipeline/interruption.h"

#include <atomic>
#include <cstring>
#include <thread>

#include "cli/tool_error.h"

#if defined(_WIN32)
#include <cstdio>

#include "platform/windows_api.h"
#else
#include <unistd.h>
#include <csignal>
#include <ctime>
#endif

namespace kv_tool {
namespace {

// Enough for every thread of the widest batch to write at once.
constexpr int slot_count = 320;
constexpr size_t name_size = 4096;

enum slot_state : int { free_slot, claimed, ready };
struct slot {
    std::atomic<int> state{free_slot};
    char name[name_size];
};
slot slots[slot_count];
std::atomic<bool> interrupting{false};

static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "the signal handler reads these");

void remove_name(const char* name) {
#if defined(_WIN32)
    // Files are created with FILE_SHARE_DELETE: an open one goes when its last handle closes.
    DeleteFileA(name);
#else
    ::unlink(name);
#endif
}

}  // namespace

void remove_pending_files() {
    for (slot& s : slots) {
        if (s.state.load() == ready) remove_name(s.name);
    }
}

pending_removal::pending_removal(const std::string& path) : slot_(-1) {
    if (path.size() >= name_size) throw file_error(path, "the name is too long");
    while (slot_ < 0) {
        for (int i = 0; i < slot_count && slot_ < 0; ++i) {
            int expected = free_slot;
            if (slots[i].state.compare_exchange_strong(expected, claimed)) slot_ = i;
        }
        if (slot_ < 0) std::this_thread::yield();  // more writers than slots: wait for one
    }
    std::memcpy(slots[slot_].name, path.c_str(), path.size() + 1);
    slots[slot_].state.store(ready);
}

pending_removal::~pending_removal() {
    slots[slot_].state.store(free_slot);
}

bool pending_removal::interrupted() {
    return interrupting.load();
}

namespace {

// Removes the names twice, a moment apart, to catch a file another thread was creating as the
// first walk passed its slot.
void remove_pending_files_on_interruption() {
    interrupting.store(true);
    remove_pending_files();
#if defined(_WIN32)
    Sleep(20);
#else
    const timespec moment{0, 20 * 1000 * 1000};
    nanosleep(&moment, nullptr);
#endif
    remove_pending_files();
}

#if defined(_WIN32)
BOOL WINAPI on_console_event(DWORD event) {
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT && event != CTRL_CLOSE_EVENT) {
        return FALSE;
    }
    remove_pending_files_on_interruption();
    ExitProcess(event == CTRL_C_EVENT ? 130 : event == CTRL_BREAK_EVENT ? 149 : 129);
}
#else
extern "C" void on_signal(int number) {
    remove_pending_files_on_interruption();
    struct sigaction default_action {};
    default_action.sa_handler = SIG_DFL;
    sigaction(number, &default_action, nullptr);
    raise(number);
}
#endif

}  // namespace

void install_interruption_cleanup() {
#if defined(_WIN32)
    SetConsoleCtrlHandler(on_console_event, TRUE);
#else
    const int numbers[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    for (int number : numbers) sigaddset(&action.sa_mask, number);  // one at a time
    for (int number : numbers) {
        // A signal the caller ignores stays ignored (nohup, a shell's background job).
        struct sigaction previous {};
        if (sigaction(number, nullptr, &previous) == 0 && previous.sa_handler == SIG_IGN) continue;
        sigaction(number, &action, nullptr);
    }
#endif
}

}  // namespace kv_tool
