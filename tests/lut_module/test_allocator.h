// Makes the global allocation functions fail on demand, to see how a module behaves when memory
// runs out, and fills all new memory with a non-zero pattern. Built only where a module's
// allocations resolve to the executable's operator new (ELF platforms; a Windows DLL binds to its
// own runtime's allocator).
#pragma once

namespace kv {
namespace test {

// The `successes`+1-th allocation on this thread from now on throws std::bad_alloc (or returns
// NULL for the nothrow forms); -1 turns failures off.
void fail_allocation_after(int successes);

}  // namespace test
}  // namespace kv
