// The log facility: every diagnostic is one line, appended to a file that is opened and closed for
// each line, so that it may be rotated or removed at any time.
//
// A line is "PID [LEVEL] UNIT.cpp [LINE] FUNCTION:" and the message as it stands. The facility adds
// no newline: a message without one runs into the next line of the file.
//
// Each source unit that includes this header has a log state of its own. A call site is written
// HERE; a public operation makes it and hands it down, so that shared code logs in the name of the
// operation that was asked and never touches a log state itself. Nothing here reports a failure.
// Any thread may log.
#ifndef RAVO_LOG_H
#define RAVO_LOG_H

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

// One source unit's log variables.
struct log_state {
    int __cur_type__ = 1;  // 0 standard output, 1 the log file, anything else nothing
    char __log_file__[256] = "/var/log/network/RAVO.log";  // empty: nothing is written
    int _iot_lock_fd = -1;  // the log lock file, held open only after it once failed to open
};

namespace {
[[maybe_unused]] constinit log_state unit_log;
}  // namespace

// The place that a line is logged in the name of.
struct call_site {
    log_state* log;
    const char* file;  // file name of the source unit, without a path
    int line;
    const char* function;
};

// This unit's log state and this place. A macro because only that can say the place of a call.
#define HERE \
    call_site { &unit_log, __FILE_NAME__, __LINE__, __func__ }

namespace ravo_log {

inline constexpr char lock_path[] = "/var/lock/ravo_log.lck";

// Never waits: the folder is open to every user, and one could put a FIFO in the file's place.
inline int open_lock_file() {
    return open(lock_path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0777);
}

// Sets (F_WRLCK, waiting) or clears (F_UNLCK) the record lock on the whole lock file.
inline void set_lock(int fd, int command, short type) {
    struct flock whole_file = {};
    whole_file.l_type = type;
    whole_file.l_whence = SEEK_SET;
    (void)fcntl(fd, command, &whole_file);
}

// Deliberate: a lock file that has just been opened is not locked, and is closed again after the
// line. Only a descriptor that an earlier line left behind is waited for, and it is left behind
// only when opening failed before the line and worked after it. So lines are normally written
// unlocked. The descriptor is taken out of the state meanwhile: no two threads ever close the same
// number.
inline int acquire_lock(log_state& log) {
    const int left_behind = std::atomic_ref(log._iot_lock_fd).exchange(-1);
    if (left_behind == -1) return open_lock_file();
    set_lock(left_behind, F_SETLKW, F_WRLCK);
    return left_behind;
}

inline void release_lock(log_state& log, int fd) {
    if (fd != -1) {
        set_lock(fd, F_SETLK, F_UNLCK);
        close(fd);
        return;
    }
    const int other = std::atomic_ref(log._iot_lock_fd).exchange(open_lock_file());
    if (other != -1) close(other);
}

// One line, made in room for the longest statement. A longer one gets a block of its own; without
// memory for that it is cut.
class line_text {
  public:
    [[gnu::format(printf, 4, 0)]] line_text(const call_site& at, const char* level,
                                            const char* format, va_list args) {
        va_list again;
        va_copy(again, args);
        const int head = snprintf(room, sizeof room, "%d [%.15s] %s [%d] %s:", getpid(), level,
                                  at.file, at.line, at.function);
        const auto start = static_cast<size_t>(head);
        const int message = vsnprintf(room + start, sizeof room - start, format, args);
        size = start + static_cast<size_t>(message > 0 ? message : 0);
        if (size >= sizeof room) {
            block.reset(static_cast<char*>(malloc(size + 1)));
            if (block) {
                memcpy(block.get(), room, start);
                (void)vsnprintf(block.get() + start, size + 1 - start, format, again);
            } else {
                size = sizeof room - 1;
            }
        }
        va_end(again);
    }

    // In one write, if the file takes it whole, so that the lines of other processes stay whole.
    void write_to(int fd) const {
        const std::string_view all = text();
        for (size_t done = 0; done < all.size();) {
            const ssize_t step = write(fd, all.data() + done, all.size() - done);
            if (step <= 0) return;
            done += static_cast<size_t>(step);
        }
    }
    void print_to(FILE* out) const { (void)fwrite(text().data(), 1, size, out); }

  private:
    struct freer {
        void operator()(char* memory) const { free(memory); }
    };

    std::string_view text() const { return {block ? block.get() : room, size}; }

    char room[32768];
    std::unique_ptr<char, freer> block;
    size_t size = 0;
};

// A descriptor that appends, or -1.
inline int open_log_file(const log_state& log) {
    return open(log.__log_file__, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
}

}  // namespace ravo_log

// Writes one line of the given level ("ERROR" or "WARN"), or drops it silently when the file cannot
// be opened. Blocks only on the file system.
[[gnu::format(printf, 3, 4)]] inline void log_line(const call_site& at, const char* level,
                                                   const char* format, ...) {
    log_state& log = *at.log;
    va_list args;
    va_start(args, format);
    if (log.__cur_type__ == 0) {
        ravo_log::line_text(at, level, format, args).print_to(stdout);
    } else if (log.__cur_type__ == 1 && log.__log_file__[0] != '\0') {
        const int lock_fd = ravo_log::acquire_lock(log);
        const int fd = ravo_log::open_log_file(log);
        if (fd != -1) {
            ravo_log::line_text(at, level, format, args).write_to(fd);
            close(fd);
        }
        ravo_log::release_lock(log, lock_fd);
    }
    va_end(args);
}

// The text for a "%s", also when there is none.
inline const char* text_or_null(const char* text) { return text != nullptr ? text : "(null)"; }

#endif  // RAVO_LOG_H
