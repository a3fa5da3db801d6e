// The failing allocator: replaces every global operator new and delete of the program that links
// it, so a test can make one chosen allocation fail. New memory is filled with a pattern, so code
// that relies on fresh memory reading zero shows it. Reaches a module only where the module binds
// to the program's operator new (ELF platforms); the library objects linked in always use it.
#pragma once

namespace kv {
namespace testing {

// The `n`-th allocation on this thread from now on (0: the next) fails, once: operator new
// throws std::bad_alloc, the nothrow forms return NULL.
void fail_allocation(long n);
void stop_failing_allocations();

}  // namespace testing
}  // namespace kv
