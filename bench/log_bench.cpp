// What a log line costs over the system calls that write it: the lock file opened, the log file
// opened for appending, the process id asked for, one write, the log file closed, the lock given
// back, the lock file closed.
//
//   log line    "close db", as every table writes it at its end
//   log error   a failed statement of 1 KB
//
// Run it through bench/run, which gives it a throw-away root.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "bench_support.h"
#include "ravo_log.h"

namespace {

using bench::give_up;

constexpr char log_file[] = "/var/log/network/RAVO.log";

void make_calls(const std::string& line) {
    const int lock = open(ravo_log::lock_path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0777);
    const int log = open(log_file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    (void)getpid();
    if (write(log, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        give_up("cannot write the log");
    }
    close(log);
    struct flock whole_file = {};
    whole_file.l_type = F_UNLCK;
    whole_file.l_whence = SEEK_SET;
    (void)fcntl(lock, F_SETLK, &whole_file);
    close(lock);
}

// What the last line of an empty log is, so that both sides write the same.
template <class Log>
std::string line_of(Log write_line) {
    unlink(log_file);
    write_line();
    std::string line(4096, '\0');
    const int log = open(log_file, O_RDONLY | O_CLOEXEC);
    const ssize_t length = read(log, line.data(), line.size());
    close(log);
    if (length <= 0) give_up("there is no log line");
    line.resize(static_cast<size_t>(length));
    return line;
}

template <class Log>
void compare_lines(const char* what, Log write_line) {
    constexpr int rounds = 301;
    constexpr int times = 50;
    const std::string line = line_of(write_line);
    const auto fresh = [](const bench::sample& lines) {
        return [lines] {
            unlink(log_file);
            return lines();
        };
    };
    bench::compare(
        what, std::to_string(line.size()) + " bytes", rounds,
        fresh(bench::repeated(times, write_line)),
        {{"its system calls", fresh(bench::repeated(times, [&] { make_calls(line); })), 1.1}});
}

}  // namespace

int main() {
    bench::run_on(0);
    const call_site here = HERE;
    int table = 0;
    compare_lines("log line",
                  [&] { log_line(here, "WARN", "close db %p\n", static_cast<void*>(&table)); });
    const std::string statement(1000, 's');
    compare_lines("log error", [&] {
        log_line(here, "ERROR", "sql = %s, err = %s\n", statement.c_str(), "no such table: t");
    });
    return 0;
}
