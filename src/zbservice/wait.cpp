// Waiting for a socket with a bound on the time without progress.
#include "wait.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include "signals.h"

namespace zb {
namespace {
constexpr int pause_milliseconds = 1;
}

patient_wait::patient_wait(std::chrono::seconds patience) : patience_(patience) {}

// Most calls come to their end without asking for the time.
void patient_wait::count() {
    if (!counts_) deadline_ = clock::now() + patience_;
    counts_ = true;
}

bool patient_wait::is_over() {
    count();
    return clock::now() >= deadline_;
}

void patient_wait::pause() { (void)poll_once(-1, 0, pause_milliseconds); }

short patient_wait::wait(int socket, short events) {
    while (true) {
        const short ready = poll_once(socket, events, milliseconds_left());
        if (ready != 0) return ready;
        if (is_over()) return 0;
    }
}

// Returns 0 also when a signal was delivered.
short patient_wait::poll_once(int socket, short events, int milliseconds) {
    const bool delivers = delivers_signals_here();
    pollfd polled[] = {{socket, events, 0}, {delivers ? signal_wake_fd() : -1, POLLIN, 0}};
    const int count = poll(polled, delivers ? 2 : 1, milliseconds);
    if (count < 0 && errno != EINTR) return POLLERR;  // the socket call that follows says why
    if (delivers) {
        if (polled[1].revents != 0) drain_signal_wake();
        zb::deliver_signals();
    }
    return count > 0 ? polled[0].revents : short{0};
}

// Rounded up, so that a wait never ends just before the deadline only to start again.
int patient_wait::milliseconds_left() {
    using std::chrono::ceil;
    using std::chrono::milliseconds;
    if (!counts_) {
        count();
        return static_cast<int>(std::min<long long>(milliseconds(patience_).count(), INT_MAX));
    }
    const auto left = ceil<milliseconds>(deadline_ - clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

}  // namespace zb
