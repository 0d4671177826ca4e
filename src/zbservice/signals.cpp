// Signals as events of the serving thread.
#include "signals.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>

namespace zb {
namespace {
constexpr int signal_limit = NSIG;

std::atomic<zb_signal_fn> functions[signal_limit];
std::atomic<bool> arrived[signal_limit];
std::atomic<bool> any_arrived;
std::atomic<int> wake_fd{-1};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

thread_local constinit int serving_depth = 0;
thread_local constinit bool delivering = false;

// The flag is set before the wake, so that whoever drains the wake sees the flag.
void note_signal(int sig) {
    const int saved_errno = errno;
    arrived[sig] = true;
    any_arrived = true;
    const int fd = wake_fd;
    const std::uint64_t one = 1;
    if (fd >= 0) (void)!write(fd, &one, sizeof one);
    errno = saved_errno;
}

// A forked child shares the eventfd with its parent, whose wakes it would take away: it gets its
// own at the next use. What the parent was about to deliver is not the child's to do.
void forget_parent() {
    wake_fd = -1;
    any_arrived = false;
    for (auto& flag : arrived) flag = false;
    serving_depth = 0;
    delivering = false;
}

void watch_forks() { (void)pthread_atfork(nullptr, nullptr, forget_parent); }

bool is_fault(int sig) { return sig == SIGSEGV || sig == SIGBUS || sig == SIGFPE || sig == SIGILL; }

void deliver(int sig) {
    if (!arrived[sig].exchange(false)) return;
    if (const zb_signal_fn fn = functions[sig]) fn(sig);
}
}  // namespace

int set_signal_function(int sig, zb_signal_fn fn) {
    if (sig < 1 || sig >= signal_limit || is_fault(sig) || signal_wake_fd() < 0) return -1;
    struct sigaction action = {};
    action.sa_handler = fn ? note_signal : SIG_DFL;
    action.sa_flags = SA_RESTART;
    (void)sigemptyset(&action.sa_mask);
    const zb_signal_fn before = functions[sig].exchange(fn);
    if (sigaction(sig, &action, nullptr) != 0) {
        functions[sig] = before;
        return -1;
    }
    if (!fn) arrived[sig] = false;
    return 0;
}

void deliver_signals() noexcept {
    if (delivering || !any_arrived) return;
    delivering = true;
    drain_signal_wake();
    while (any_arrived.exchange(false)) {
        for (int sig = 1; sig < signal_limit; ++sig) deliver(sig);
    }
    delivering = false;
}

int signal_wake_fd() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    (void)pthread_once(&once, watch_forks);
    int current = wake_fd;
    if (current >= 0) return current;
    const int fresh = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fresh < 0 || wake_fd.compare_exchange_strong(current, fresh)) return fresh;
    close(fresh);  // another thread was first
    return current;
}

void drain_signal_wake() {
    std::uint64_t count = 0;
    const int fd = wake_fd;
    if (fd >= 0) (void)!read(fd, &count, sizeof count);
}

serving_scope::serving_scope() { ++serving_depth; }
serving_scope::~serving_scope() { --serving_depth; }

bool delivers_signals_here() { return serving_depth > 0 && !delivering; }

}  // namespace zb
