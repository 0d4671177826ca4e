// What a hook does: it takes events in, and leaves the work to a process of its own.
#ifndef HOOKS_HOOK_H
#define HOOKS_HOOK_H

#include <functional>
#include <initializer_list>

#include "environment.h"
#include "journal.h"

// Runs the work in a process that nobody waits for, and that keeps nothing of the caller but its
// user. False when there is none.
bool start_apart(const std::function<void()>& work);

// Takes the events in, in their order, and delivers in a process of its own, which calls first() at
// its start. What is lost is told to the system log.
void record_apart(journal events, std::initializer_list<environment> told,
                  const std::function<void()>& first);

#endif  // HOOKS_HOOK_H
