// The notification catalogue and the sender that hands an entry to the notification centre.
#include "nc_msg_db.h"

#include <stdio_ext.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
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

constexpr int vector_slots = 26;  // what the notifier is given at most
constexpr int first_argument_slot = 14;

// The notifier's words. One slot more than are filled, so that the vector always ends in null.
struct argument_vector {
    char* slots[vector_slots + 1] = {};
    int used = 0;

    // Without memory for a copy the word itself will do: nobody writes to it.
    void add(const char* word) {
        char* copy = strdup(word);
        slots[used++] = copy != nullptr ? copy : const_cast<char*>(word);
    }
    bool is_full() const { return used == vector_slots; }
};

argument_vector make_vector(const nc_msg_struct& msg, va_list texts) {
    argument_vector words;
    for (const char* word :
         {"/usr/local/sbin/notify", "send", "-A", "A238", "-C", msg.category_id, "-M",
          msg.message_id, "-l", msg.level, "-t", "3", msg.message, "RAVO Service"}) {
        words.add(word);
    }
    static_assert(first_argument_slot < vector_slots);
    while (!words.is_full()) {
        const char* text = va_arg(texts, const char*);
        if (text == nullptr) break;
        words.add(text);
    }
    return words;
}

// Everything but the standard streams. The loop does the same where the kernel has no close_range.
void close_descriptors() {
    const long limit = sysconf(_SC_OPEN_MAX);
    if (limit > 3 && close_range(3, static_cast<unsigned>(limit - 1), 0) == 0) return;
    for (int fd = 3; fd < sysconf(_SC_OPEN_MAX); ++fd) close(fd);
}

// Handlers do not survive an exec, but ignored signals and the mask do.
void restore_signals() {
    for (int sig = 1; sig < NSIG; ++sig) (void)signal(sig, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void become_notifier(const nc_msg_struct& msg, va_list texts) {
    restore_signals();
    // What the caller has not written yet is its own to write, once; and a reopened stream would
    // take the offset of the caller's input back to what it has not read yet.
    for (FILE* stream : {stdin, stdout, stderr}) __fpurge(stream);
    [[maybe_unused]] FILE* stream = freopen("/dev/null", "r", stdin);
    stream = freopen("/dev/null", "w", stdout);
    stream = freopen("/dev/null", "w", stderr);
    argument_vector words = make_vector(msg, texts);
    execvp(words.slots[0], words.slots);
    _exit(1);
}

// The child between: its early end leaves the notifier to the init process.
[[noreturn]] void run_child(const nc_msg_struct& msg, va_list texts) {
    close_descriptors();
    const pid_t grandchild = fork();
    if (grandchild == 0) become_notifier(msg, texts);
    _exit(grandchild < 0 ? 1 : 0);
}

}  // namespace

void nclog::notify_send(const nc_msg_struct* msg, ...) {
    const pid_t child = fork();
    if (child < 0) return;
    if (child == 0) {
        va_list texts;
        va_start(texts, msg);
        run_child(*msg, texts);
    }
    // With SIGCHLD ignored this waits as well, and ends in ECHILD.
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace ravo
