// Preloaded into a ravod under test: writes down the calls that its entry makes, in order, and
// makes one fail or a signal arrive on request. What it is told stands in the environment:
//
//   RAVOD_CALLS            the file that gets one line a call
//   RAVOD_CALLS_FAIL       "NAME N": the N-th call of that name fails
//   RAVOD_CALLS_OPEN_MAX   what sysconf(_SC_OPEN_MAX) says
//   RAVOD_CALLS_IMPATIENT  a locked database is not waited for
//   RAVOD_CALLS_RAISE      a signal that arrives once the endpoint is created
//
// Closed numbers that go down by one are one line, "close FIRST..LAST". They are written down from
// the asking for the limit on, and once after a file was unlocked.

// The checked variants of these calls would hide the plain ones.
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zbservice.h"

namespace {

// Descriptors closed one after the other, downwards, and not yet written down.
struct close_run {
    bool watched;
    int first;
    int last;
} closes;

// Straight to the kernel, so that writing down is no call of its own.
void write_line(const char* line) {
    const char* path = getenv("RAVOD_CALLS");
    if (path == nullptr) return;
    const auto fd = static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    const iovec parts[] = {{const_cast<char*>(line), strlen(line)}, {const_cast<char*>("\n"), 1}};
    syscall(SYS_writev, fd, parts, 2);
    syscall(SYS_close, fd);
}

void end_close_run() {
    if (closes.first == 0) return;
    char line[64];
    (void)snprintf(line, sizeof line, "close %d..%d", closes.first, closes.last);
    closes.first = 0;
    write_line(line);
}

[[gnu::format(printf, 1, 2)]] void record(const char* format, ...) {
    const int saved_errno = errno;
    end_close_run();
    char line[512];
    va_list args;
    va_start(args, format);
    (void)vsnprintf(line, sizeof line, format, args);
    va_end(args);
    write_line(line);
    errno = saved_errno;
}

void record_close(int fd) {
    if (closes.first != 0 && fd == closes.last - 1) {
        closes.last = fd;
        return;
    }
    end_close_run();
    closes.first = closes.last = fd;
}

long number_in(const char* variable, long otherwise) {
    const char* text = getenv(variable);
    return text != nullptr ? strtol(text, nullptr, 10) : otherwise;
}

// Whether this is the call that is to fail; made counts the calls of the name.
bool is_to_fail(const char* name, int& made) {
    const char* wanted = getenv("RAVOD_CALLS_FAIL");
    const size_t length = strlen(name);
    ++made;
    if (wanted == nullptr || strncmp(wanted, name, length) != 0 || wanted[length] != ' ') {
        return false;
    }
    return strtol(wanted + length, nullptr, 10) == made;
}

template <class Function>
Function next(Function /*like*/, const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

pid_t fork() noexcept {
    static int made = 0;
    record("fork");
    if (is_to_fail("fork", made)) return -1;
    return next(&fork, "fork")();
}

void exit(int status) noexcept {
    if (status != 0) record("exit %d", status);
    next(&exit, "exit")(status);
    abort();
}

pid_t setsid() noexcept {
    static int made = 0;
    record("setsid");
    if (is_to_fail("setsid", made)) return -1;
    return next(&setsid, "setsid")();
}

sighandler_t signal(int sig, sighandler_t handler) noexcept {
    record("signal %d %s", sig, handler == SIG_IGN ? "SIG_IGN" : "?");
    return next(&signal, "signal")(sig, handler);
}

mode_t umask(mode_t mask) noexcept {
    record("umask %o", mask);
    return next(&umask, "umask")(mask);
}

int chdir(const char* path) noexcept {
    record("chdir %s", path);
    return next(&chdir, "chdir")(path);
}

long sysconf(int name) noexcept {
    const long real = next(&sysconf, "sysconf")(name);
    if (name != _SC_OPEN_MAX) return real;
    record("sysconf _SC_OPEN_MAX");
    closes.watched = true;
    return number_in("RAVOD_CALLS_OPEN_MAX", real);
}

int close(int fd) {
    if (closes.watched) record_close(fd);
    return static_cast<int>(syscall(SYS_close, fd));
}

int close_range(unsigned first, unsigned last, int flags) noexcept {
    static int made = 0;
    record("close_range %u %u %d", first, last, flags);
    if (is_to_fail("close_range", made)) {
        errno = ENOSYS;
        return -1;
    }
    return static_cast<int>(syscall(SYS_close_range, first, last, flags));
}

FILE* freopen(const char* path, const char* mode, FILE* stream) {
    closes.watched = false;
    record("freopen %s %s %s", path, mode,
           stream == stdin    ? "stdin"
           : stream == stdout ? "stdout"
           : stream == stderr ? "stderr"
                              : "?");
    return next(&freopen, "freopen")(path, mode, stream);
}

int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    if (strstr(path, ".pid") != nullptr) record("open %s %04o", path, mode);
    if (strstr(path, ".log") != nullptr) record("open %s", path);
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

int lockf(int fd, int command, off_t length) {
    record("lockf %s %ld",
           command == F_TLOCK   ? "F_TLOCK"
           : command == F_ULOCK ? "F_ULOCK"
                                : "?",
           static_cast<long>(length));
    const int result = next(&lockf, "lockf")(fd, command, length);
    closes.watched = command == F_ULOCK;
    return result;
}

int unlink(const char* path) noexcept {
    closes.watched = false;
    if (strstr(path, ".pid") != nullptr) record("unlink %s", path);
    return next(&unlink, "unlink")(path);
}

void openlog(const char* ident, int option, int facility) {
    const char* name = strrchr(ident, '/');
    const bool is_pid_and_console = option == (LOG_PID | LOG_CONS);
    record("openlog %s %s %s", name != nullptr ? name + 1 : ident,
           is_pid_and_console ? "LOG_PID|LOG_CONS" : "?",
           facility == LOG_DAEMON ? "LOG_DAEMON" : "?");
    next(&openlog, "openlog")(ident, option, facility);
}

void closelog() {
    record("closelog");
    next(&closelog, "closelog")();
}

FILE* fopen(const char* path, const char* mode) {
    const bool is_the_buses = strcmp(path, "/etc/zbservice.conf") == 0;
    if (!is_the_buses) record("fopen %s", path);
    return next(&fopen, "fopen")(path, mode);
}

int sqlite3_open(const char* path, sqlite3** db) {
    record("sqlite3_open %s", path);
    return next(&sqlite3_open, "sqlite3_open")(path, db);
}

int sqlite3_busy_handler(sqlite3* db, int (*handler)(void*, int), void* arg) {
    record("sqlite3_busy_handler");
    if (getenv("RAVOD_CALLS_IMPATIENT") != nullptr) handler = nullptr;
    return next(&sqlite3_busy_handler, "sqlite3_busy_handler")(db, handler, arg);
}

int sqlite3_close(sqlite3* db) {
    record("sqlite3_close");
    return next(&sqlite3_close, "sqlite3_close")(db);
}

// The create of a table says which one it is.
int sqlite3_exec(sqlite3* db, const char* text, int (*on_row)(void*, int, char**, char**),
                 void* arg, char** error) {
    if (strncmp(text, "CREATE", 6) == 0 || strncmp(text, "VACCUM", 6) == 0) {
        const auto length = static_cast<int>(strcspn(text, "("));
        record("sqlite3_exec %.*s", length, text);
    }
    return next(&sqlite3_exec, "sqlite3_exec")(db, text, on_row, arg, error);
}

int zb_signal(int sig, zb_signal_fn fn) {
    record("zb_signal %s", sig == SIGINT    ? "SIGINT"
                           : sig == SIGHUP  ? "SIGHUP"
                           : sig == SIGTERM ? "SIGTERM"
                                            : "?");
    return next(&zb_signal, "zb_signal")(sig, fn);
}

zb_service* zb_create(const char* path, int setting1, int setting2, zb_entry entry) {
    record("zb_create %s %d %d", path, setting1, setting2);
    zb_service* service = next(&zb_create, "zb_create")(path, setting1, setting2, entry);
    const long sig = number_in("RAVOD_CALLS_RAISE", 0);
    if (sig != 0) raise(static_cast<int>(sig));
    return service;
}

int zb_start(zb_service* service) {
    record("zb_start %s", service != nullptr ? "endpoint" : "null");
    return next(&zb_start, "zb_start")(service);
}

int zb_stop(zb_service* service) {
    record("zb_stop");
    return next(&zb_stop, "zb_stop")(service);
}

void zb_free(zb_service* service) {
    record("zb_free %s", service != nullptr ? "endpoint" : "null");
    next(&zb_free, "zb_free")(service);
}
}
#pragma GCC visibility pop
