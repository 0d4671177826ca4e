// Preloaded into a program under test, and so into those that it starts: its wall clock is what the
// test says.
#include "support/set_clock.h"

#include <sys/syscall.h>
#include <sys/time.h>

#include <ctime>

namespace {

// Mapped with the first reading and kept, like a clock of the machine.
int64_t wall_clock_now() {
    static wall_clock_page& page = map_wall_clock(getenv("SET_CLOCK"));
    return page.seconds.fetch_add(page.leap);
}

bool is_wall_clock(clockid_t id) { return id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE; }

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

time_t time(time_t* place) noexcept {
    const time_t now = wall_clock_now();
    if (place != nullptr) *place = now;
    return now;
}

int clock_gettime(clockid_t id, timespec* place) noexcept {
    if (!is_wall_clock(id)) return static_cast<int>(syscall(SYS_clock_gettime, id, place));
    *place = {wall_clock_now(), 0};
    return 0;
}

int gettimeofday(timeval* place, void* /*zone*/) noexcept {
    *place = {wall_clock_now(), 0};
    return 0;
}
}
#pragma GCC visibility pop
