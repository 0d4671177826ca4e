// A clock that can be put forward: waiting for nothing, a test sees what time does. Included by one
// source of a program.
#ifndef TESTS_SUPPORT_SECONDS_AHEAD_H
#define TESTS_SUPPORT_SECONDS_AHEAD_H

#include <dlfcn.h>
#include <time.h>

#include <atomic>

namespace bus_test {
// How far the time is ahead of the machine's.
inline std::atomic<int> seconds_ahead = 0;
}  // namespace bus_test

// In the library's place for clock_gettime too.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* time) noexcept {
    using function = int (*)(clockid_t, timespec*);
    static const auto original = reinterpret_cast<function>(dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = original(clock, time);
    if (clock == CLOCK_MONOTONIC) time->tv_sec += bus_test::seconds_ahead;
    return result;
}

#endif  // TESTS_SUPPORT_SECONDS_AHEAD_H
