// What the benchmarks of the daemon share: databases beside the daemon's, services as child
// processes, and the comparison of two ways to do the same.
#ifndef BENCH_SUPPORT_H
#define BENCH_SUPPORT_H

#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace bench {

inline constexpr char daemon_file[] = "/etc/config/ravo/ravo.db";
inline constexpr char peer_file[] = "/etc/config/ravo/peer.db";

[[noreturn]] inline void give_up(const std::string& what) {
    fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
    exit(1);
}

// --- Databases -----------------------------------------------------------------------------------

using row_callback = int (*)(void*, int, char**, char**);

// A connection set up as the daemon's are.
class database {
  public:
    database(const char* file, const char* create_text) {
        if (sqlite3_open(file, &db) != SQLITE_OK) give_up(sqlite3_errmsg(db));
        for (const char* pragma :
             {"PRAGMA page_size = 2048;", "PRAGMA synchronous = ON;", "PRAGMA auto_vacuum = FULL;",
              "PRAGMA journal_mode = OFF;", "PRAGMA default_cache_size = 10000;",
              "PRAGMA cache_size = 10000;"}) {
            run(pragma);
        }
        run(create_text);
    }
    ~database() { sqlite3_close(db); }
    database(const database&) = delete;
    database& operator=(const database&) = delete;

    void run(const char* text, row_callback on_row = nullptr, void* arg = nullptr) {
        if (sqlite3_exec(db, text, on_row, arg, nullptr) != SQLITE_OK) give_up(sqlite3_errmsg(db));
    }
    // Frees the text.
    void run(char* text, row_callback on_row = nullptr, void* arg = nullptr) {
        run(const_cast<const char*>(text), on_row, arg);
        sqlite3_free(text);
    }

  private:
    sqlite3* db = nullptr;
};

// The row callback of a query for one number, a long.
inline int read_number(void* out, int /*columns*/, char** values, char** /*names*/) {
    *static_cast<long*>(out) = strtol(values[0], nullptr, 10);
    return 0;
}

// --- Services ------------------------------------------------------------------------------------

// Starts a program and waits until it says that it serves. open_max is its limit of descriptors; 0
// leaves it as it is.
inline pid_t start_service(const char* program, rlim_t open_max = 0) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, "/tmp/bench.ready", sizeof address.sun_path - 1);
    unlink(address.sun_path);
    const int ready = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(ready, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        give_up("cannot make the ready socket");
    }
    setenv("NOTIFY_SOCKET", address.sun_path, 1);
    const pid_t child = fork();
    if (child == 0) {
        const rlimit both = {open_max, open_max};
        if (open_max != 0 && setrlimit(RLIMIT_NOFILE, &both) != 0) _exit(127);
        execl(program, program, static_cast<char*>(nullptr));
        _exit(127);
    }
    char text[16];
    if (recv(ready, text, sizeof text, 0) <= 0) give_up(std::string(program) + " did not start");
    close(ready);
    return child;
}

inline void stop_service(pid_t service) {
    kill(service, SIGTERM);
    int status = 0;
    waitpid(service, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) give_up("a service did not end well");
}

// A field of /proc/PID/status, in KiB.
inline size_t memory_of(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field + ":", 0) == 0) return std::stoul(line.substr(field.size() + 1));
    }
    give_up("no " + field);
}

// --- Measuring -----------------------------------------------------------------------------------

inline double microseconds(int times, const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    for (int n = 0; n < times; ++n) work();
    const std::chrono::duration<double, std::micro> spent =
        std::chrono::steady_clock::now() - start;
    return spent.count() / times;
}

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Prints the medians of a comparison, and the lowest and the highest ratio.
inline void report(const std::string& name, const std::vector<double>& ratios,
                   const std::vector<double>& daemon_us, const std::vector<double>& direct_us) {
    const auto [low, high] = std::minmax_element(ratios.begin(), ratios.end());
    printf("%-16s ratio %5.2f (%.2f to %.2f)   daemon %9.1f us   in-process %9.1f us\n",
           name.c_str(), median(ratios), *low, *high, median(daemon_us), median(direct_us));
    (void)fflush(stdout);
}

// Both sides in turn, after one round that does not count.
inline void compare(const std::string& name, int rounds, int times,
                    const std::function<void()>& through_daemon,
                    const std::function<void()>& directly) {
    std::vector<double> ratios;
    std::vector<double> daemon_us;
    std::vector<double> direct_us;
    for (int round = 0; round <= rounds; ++round) {
        const double a = microseconds(times, through_daemon);
        const double b = microseconds(times, directly);
        if (round == 0) continue;
        daemon_us.push_back(a);
        direct_us.push_back(b);
        ratios.push_back(a / b);
    }
    report(name, ratios, daemon_us, direct_us);
}

}  // namespace bench

#endif  // BENCH_SUPPORT_H
