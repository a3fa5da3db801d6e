// Process-wide state of a companion module that stays usable while the process exits.
//
// A host or the library may call a module from its own static destructors or at-exit handlers
// (destroying a processor frees its tables; the library's at-exit handler frees its log), and
// those may run after the module's own static objects are gone. So the state is created on first
// use and reached through a trivially destructible pointer. It is freed only when the module goes
// away with nothing left in it, so that unloading leaks nothing; with something left it stays
// reachable until the process ends.
#pragma once

#include <atomic>

namespace kv {
namespace modules {

// `State` needs a default constructor and `bool idle() const`: true when nothing is left that a
// caller may still use or release.
template <typename State>
class lasting_state {
  public:
    constexpr lasting_state() = default;
    lasting_state(const lasting_state&) = delete;
    lasting_state& operator=(const lasting_state&) = delete;

    // May throw std::bad_alloc on first use.
    State& get() {
        State* state = instance_.load(std::memory_order_acquire);
        if (state == nullptr) {
            State* fresh = new State;
            if (instance_.compare_exchange_strong(state, fresh, std::memory_order_acq_rel)) {
                state = fresh;
            } else {
                delete fresh;  // another thread won; `state` now holds its instance
            }
        }
        return *state;
    }

    void release_if_idle() {
        State* state = instance_.load(std::memory_order_acquire);
        if (state != nullptr && state->idle()) {
            instance_.store(nullptr, std::memory_order_release);
            delete state;
        }
    }

  private:
    std::atomic<State*> instance_{nullptr};
};

// Declared at namespace scope right after its `lasting_state`: its destructor runs when the module
// is unloaded or the process exits.
template <typename State>
class release_at_unload {
  public:
    constexpr explicit release_at_unload(lasting_state<State>& state) : state_(state) {}
    release_at_unload(const release_at_unload&) = delete;
    release_at_unload& operator=(const release_at_unload&) = delete;
    ~release_at_unload() { state_.release_if_idle(); }

  private:
    lasting_state<State>& state_;
};

}  // namespace modules
}  // namespace kv
