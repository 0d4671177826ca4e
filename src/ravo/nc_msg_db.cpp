// The notification catalogue and the sender that hands an entry to the notification centre.
#include "nc_msg_db.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <initializer_list>

namespace ravo {

namespace {

// Texts that two entries share are stored once.
constexpr char enabled_server[] = "[{0}] Enabled {1} server.";
constexpr char disabled_server[] = "[{0}] Disabled {1} server.";
constexpr char disconnected_profile[] = "[{0}] Disconnected the {1} profile: \"{2}\".";

}  // namespace

// The wording, its grammar included, is what the notification centre's users know.
constexpr nc_msg_struct __NC_MSG_DB__[nc_msg_count] = {
    {"C001", "0001", "info", enabled_server},
    {"C001", "0002", "info", disabled_server},
    {"C001", "0003", "info", "[{0}] Applied the {1} server configuration."},
    {"C001", "0004", "info", "[{0}] Applied the privilege settings for \"{1}\"."},
    {"C001", "0005", "warn", "[{0}] Removed the privileges of \"{1}\"."},
    {"C002", "0006", "info", "[{0}] Connected the {1} profile: \"{2}\"."},
    {"C002", "0007", "info", disconnected_profile},
    {"C002", "0008", "warn", "[{0}] Deleted the {1} profile: \"{2}\"."},
    {"C002", "0009", "info", "[{0}] Edited the {1} profile: \"{2}\"."},
    {"C002", "0010", "info", "[{0}] Added the {1} profile: \"{2}\"."},
    {"C002", "0011", "info", "[{0}] Set NAS default gateway to the {1} profile: \"{2}\"."},
    {"C002", "0012", "info", "[{0}] Set backup NAS default gateway to the {1} profile: \"{2}\"."},
    {"C002", "0013", "info", "[{0}] Set the delay for NAS default gateway reversion to \"{1}\"."},
    {"C003", "0014", "info", disabled_server},
    {"C003", "0015", "info", disconnected_profile},
    {"C003", "0016", "info", enabled_server},
    {"C001", "0019", "info",
     "[{0}] Edit login attempt limit settings: Login attempt limit: {1}, Login block time: {2}, "
     "Enable/Disable: {3}."},
    {"C001", "0020", "warn",
     "[{0}] Username: {1} has been blocked because reach the login attempt limit."},
    {"C001", "0021", "info", "[{0}] Unblock the user: Username: {1}."},
};

namespace {

constexpr size_t vector_slots = 26;  // what the notifier is given at most

// The notifier's words, which nobody writes to. One slot more than are filled, so that the vector
// always ends in null.
using argument_vector = std::array<char*, vector_slots + 1>;

constexpr size_t first_argument_slot = 14;

// The words before the arguments.
argument_vector fixed_words(const nc_msg_struct& msg) {
    argument_vector words = {};
    size_t slot = 0;
    for (const char* word :
         {"/usr/local/sbin/notify", "send", "-A", "A238", "-C", msg.category_id, "-M",
          msg.message_id, "-l", msg.level, "-t", "3", msg.message, "RAVO Service"}) {
        words[slot++] = const_cast<char*>(word);
    }
    return words;
}

// --- Processes that borrow the caller's memory --------------------------------------------------
//
// Copying the memory of a daemon that holds a large reply takes a tenth of a second, twice. So the
// child and the notifier run in the memory of the caller, who stands still meanwhile: until the
// child has ended, and that one until the notifier's program is in place. What they do there is
// system calls; anything else they would do to the caller. Descriptors and signal actions are their
// own, and no handler runs in them: every signal is blocked from before the first one starts until
// the second one has put all actions back.

using borrowed_stack = std::array<char, 16384>;  // for a few system calls

struct notifier_start {
    argument_vector words;
    alignas(16) borrowed_stack child_stack;
    alignas(16) borrowed_stack notifier_stack;
};

// Starts a process in this memory, and returns when it has ended or become another program. Returns
// its pid, or -1.
pid_t run_borrowing(int (*steps)(void*), borrowed_stack& stack, notifier_start& start) {
    return clone(steps, stack.data() + stack.size(), CLONE_VM | CLONE_VFORK | SIGCHLD, &start);
}

// Everything but the standard streams. The loop does the same where the kernel has no close_range.
void close_descriptors() {
    const long limit = sysconf(_SC_OPEN_MAX);
    if (limit > 3 && close_range(3, static_cast<unsigned>(limit - 1), 0) == 0) return;
    for (int fd = 3; fd < sysconf(_SC_OPEN_MAX); ++fd) close(fd);
}

// Handlers do not survive an exec, but ignored signals and the mask do.
void restore_signals() {
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) (void)sigaction(sig, &standard, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// The lowest free number is always the one that was just closed.
void reopen_standard_streams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        close(fd);
        // The notifier is to have them.
        (void)open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);
    }
}

int become_notifier(void* arg) {
    restore_signals();
    reopen_standard_streams();
    argument_vector& words = static_cast<notifier_start*>(arg)->words;
    execvp(words[0], words.data());
    _exit(1);
}

// The child between: its early end leaves the notifier to the init process.
int run_child(void* arg) {
    auto& start = *static_cast<notifier_start*>(arg);
    close_descriptors();
    _exit(run_borrowing(become_notifier, start.notifier_stack, start) < 0 ? 1 : 0);
}

}  // namespace

void nclog::notify_send(const nc_msg_struct* msg, ...) {
    notifier_start start;
    start.words = fixed_words(*msg);
    va_list texts;
    va_start(texts, msg);
    for (size_t slot = first_argument_slot; slot < vector_slots; ++slot) {
        start.words[slot] = va_arg(texts, char*);
        if (start.words[slot] == nullptr) break;
    }
    va_end(texts);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t child = run_borrowing(run_child, start.child_stack, start);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (child < 0) return;
    // With SIGCHLD ignored this waits as well, and ends in ECHILD.
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace ravo
