// The checked variants of these calls would hide the plain ones.
#undef _FORTIFY_SOURCE

#include "log_units/file_calls.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <utility>

namespace file_calls {
std::function<bool()> open_fails;
std::function<void()> after_log_open;
std::function<void(int)> before_wait;
std::atomic<int> bad_closes;
}  // namespace file_calls

namespace {

thread_local file_calls::recording* current = nullptr;
thread_local int lock_fd = -1;
thread_local int log_fd = -1;

void record(const std::string& call) {
    if (current != nullptr) current->calls.push_back(call);
}

void record_for(int fd, const std::string& call) {
    record(call + (fd == log_fd ? " log" : fd == lock_fd ? "" : " of another"));
}

std::string octal(unsigned value) {
    char text[16];
    (void)snprintf(text, sizeof text, "%04o", value);
    return text;
}

std::string flag_names(int flags) {
    std::string names = (flags & O_ACCMODE) == O_RDONLY   ? "O_RDONLY"
                        : (flags & O_ACCMODE) == O_WRONLY ? "O_WRONLY"
                                                          : "O_RDWR";
    int rest = flags & ~O_ACCMODE;
    const auto take = [&](int flag, const char* name) {
        if ((rest & flag) != 0) names += name;
        rest &= ~flag;
    };
    take(O_CREAT, "|O_CREAT");
    take(O_APPEND, "|O_APPEND");
    take(O_CLOEXEC, "|O_CLOEXEC");
    take(O_NONBLOCK, "|O_NONBLOCK");
    return rest == 0 ? names : names + "|" + std::to_string(rest);
}

std::string lock_text(const struct flock& lock) {
    const std::string type = lock.l_type == F_WRLCK ? " F_WRLCK " : " F_UNLCK ";
    return type + std::to_string(lock.l_whence) + " " + std::to_string(lock.l_start) + " " +
           std::to_string(lock.l_len);
}

}  // namespace

namespace file_calls {
recording::recording() { current = this; }
recording::~recording() { current = nullptr; }
}  // namespace file_calls

#pragma GCC visibility push(default)
extern "C" {

int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    record(std::string("open ") + path + " " + flag_names(flags) + " " + octal(mode));
    const bool is_log = (flags & O_APPEND) != 0;
    if (!is_log && file_calls::open_fails && file_calls::open_fails()) {
        errno = EMFILE;
        return -1;
    }
    const auto fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    if (is_log && fd >= 0 && file_calls::after_log_open) {
        std::exchange(file_calls::after_log_open, nullptr)();
    }
    return (is_log ? log_fd : lock_fd) = fd;
}

int close(int fd) {
    record_for(fd, "close");
    if (fd == log_fd) log_fd = -1;
    const auto result = static_cast<int>(syscall(SYS_close, fd));
    if (result != 0) ++file_calls::bad_closes;
    return result;
}

int fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    void* argument = va_arg(args, void*);
    va_end(args);
    if (command == F_SETLK || command == F_SETLKW) {
        record_for(fd, (command == F_SETLK ? "F_SETLK" : "F_SETLKW") +
                           lock_text(*static_cast<struct flock*>(argument)));
    }
    if (command == F_SETLKW && file_calls::before_wait) file_calls::before_wait(fd);
    return static_cast<int>(syscall(SYS_fcntl, fd, command, argument));
}
}
#pragma GCC visibility pop
