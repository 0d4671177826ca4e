// Descriptors that only a request under way may use.
#include "spare_descriptors.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>

namespace {

constexpr rlim_t most_spare = 8;    // more than any request has open at once
constexpr rlim_t bus_wants = 1;     // to serve
constexpr rlim_t caller_wants = 2;  // a connection, and a journal

bool are_set_aside = false;
bool is_raised = false;
int users = 0;  // a signal may be dealt with inside a request
rlimit whole = {};
rlimit lowered = {};

// The lowest number that is free; the limit itself when none is.
rlim_t next_number(rlim_t limit) {
    const int fd = eventfd(0, EFD_CLOEXEC);
    if (fd < 0) return limit;
    close(fd);
    return static_cast<rlim_t>(fd);
}

// Whether as many descriptors as are spare are free below the lowered limit, by its highest
// numbers, which are given out last. Asked with one call, which costs a third of moving the limit
// there and back.
bool has_room_below() {
    const rlim_t spare = whole.rlim_cur - lowered.rlim_cur;
    if (lowered.rlim_cur < spare) return false;
    std::array<pollfd, most_spare> top = {};
    for (rlim_t n = 0; n < spare; ++n) top[n].fd = static_cast<int>(lowered.rlim_cur - spare + n);
    if (poll(top.data(), static_cast<nfds_t>(spare), 0) < 0) return false;
    return std::all_of(top.begin(), top.begin() + static_cast<ptrdiff_t>(spare),
                       [](const pollfd& number) { return (number.revents & POLLNVAL) != 0; });
}

}  // namespace

void set_descriptors_aside() {
    if (getrlimit(RLIMIT_NOFILE, &whole) != 0) return;
    const rlim_t next = next_number(whole.rlim_cur);
    const rlim_t left = whole.rlim_cur - std::min(next + bus_wants, whole.rlim_cur);
    if (left < caller_wants) {
        (void)fputs("ravod: the limit of open files is too low for callers\n", stderr);
    }
    lowered = whole;
    lowered.rlim_cur -= std::min(most_spare, left / 2);
    are_set_aside = setrlimit(RLIMIT_NOFILE, &lowered) == 0;
}

spare_descriptors::spare_descriptors() {
    if (++users > 1 || !are_set_aside || has_room_below()) return;
    is_raised = setrlimit(RLIMIT_NOFILE, &whole) == 0;
}

spare_descriptors::~spare_descriptors() {
    if (--users > 0 || !is_raised) return;
    is_raised = setrlimit(RLIMIT_NOFILE, &lowered) != 0;
}
