// Memory that runs out: makes one allocation of this program fail, and counts the blocks that it
// holds.
//
// Linking alloc_fault.cpp into a program puts it in front of malloc() and its like, for the program
// and for every library that it loads: SQLite, Jansson, the C and the C++ library ask here. It
// works in the same way under the address sanitizer, which goes on watching the blocks.
#ifndef TESTS_SUPPORT_ALLOC_FAULT_H
#define TESTS_SUPPORT_ALLOC_FAULT_H

#include <cstddef>
#include <functional>
#include <string>

namespace alloc_fault {

// For its lifetime the n-th allocation of this thread fails, n from 1; with `lasts`, every later
// one as well. n = 0: none. A child that is forked meanwhile goes on counting for itself.
class failing_allocation {
  public:
    explicit failing_allocation(size_t n, bool lasts = false);
    ~failing_allocation();
    failing_allocation(const failing_allocation&) = delete;
    failing_allocation& operator=(const failing_allocation&) = delete;
};

// Whether an allocation of this process has failed.
bool was_met();
// How many there were in the last failing_allocation's lifetime.
size_t allocations();

// Where the last allocation has failed, to standard error, for addr2line.
void print_place();

// The blocks that the program holds.
size_t live_blocks();

// --- Faults to exhaustion -----------------------------------------------------------------------

// Runs work(n) for n = 1, 2, ... each in a child process, until the n-th allocation was not asked
// for in it any more. between() runs in this process, before each child. A child that crashes or
// whose expectations fail is a failure. Prints the number of allocations.
//
// Under the address sanitizer, whose processes take long to fork, only every tenth allocation is
// tried, unless MEMORY_LONG is set; so is every `step`-th of work that is tried elsewhere as well.
void exhaust(const std::string& name, const std::function<void(size_t n)>& work,
             const std::function<void()>& between, size_t step = 1);

// Runs work() in a child process and returns what that returned.
std::string told_by_child(const std::function<std::string()>& work);

}  // namespace alloc_fault

#endif  // TESTS_SUPPORT_ALLOC_FAULT_H
