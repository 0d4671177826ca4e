// What the benchmarks of the daemon share: databases beside the daemon's, services as child
// processes, and the comparison of two ways to do the same.
#ifndef BENCH_SUPPORT_H
#define BENCH_SUPPORT_H

#include <sched.h>
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

// --- Placement -----------------------------------------------------------------------------------

// Ties this process, and those it starts from now on, to one CPU. Waking a process on another CPU
// costs more than a small call; left to itself the scheduler places two servers differently, and a
// ratio would tell of that alone.
inline void run_on(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(cpu), &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) give_up("cannot choose a CPU");
}

// --- Measuring -----------------------------------------------------------------------------------

// One measurement: microseconds for each time.
using sample = std::function<double()>;

inline double microseconds(int times, const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    for (int n = 0; n < times; ++n) work();
    const std::chrono::duration<double, std::micro> spent =
        std::chrono::steady_clock::now() - start;
    return spent.count() / times;
}

inline sample repeated(int times, std::function<void()> work) {
    return [times, work = std::move(work)] { return microseconds(times, work); };
}

// The value below which so many tenths of them lie.
inline double quantile(std::vector<double> values, size_t tenths) {
    std::sort(values.begin(), values.end());
    return values[tenths * (values.size() - 1) / 10];
}

inline double median(const std::vector<double>& values) { return quantile(values, 5); }

// What ours is held against: a floor (the same work with nothing around it) or a program that does
// the same. at_most is the goal for ours over it; 0: none.
struct opponent {
    std::string name;
    sample measure;
    double at_most = 0;
};

// One line of the table: also appended, with tabs between its fields, to the file that the
// environment names BENCH_RESULTS, and there with the tenths of both times and the unit at the end.
// `state` says of which table, file system, placement.
inline void report(const std::string& what, const std::string& state, const std::string& other,
                   const std::vector<double>& ours_us, const std::vector<double>& other_us,
                   double at_most, const char* unit = "us") {
    std::vector<double> ratios;
    for (size_t n = 0; n < ours_us.size(); ++n) ratios.push_back(ours_us[n] / other_us[n]);
    const double low = quantile(ratios, 1);
    const double middle = median(ratios);
    const double high = quantile(ratios, 9);
    const char* verdict = at_most == 0 ? "" : middle <= at_most ? "met" : "MISSED";
    printf("%-22s %-30s %10.1f %s  %-28s %10.1f %s  ratio %6.3f (%.3f to %.3f)", what.c_str(),
           state.c_str(), median(ours_us), unit, other.c_str(), median(other_us), unit, middle, low,
           high);
    if (at_most != 0) printf("  goal %.2f %s", at_most, verdict);
    printf("\n");
    (void)fflush(stdout);
    const char* results = getenv("BENCH_RESULTS");
    if (results == nullptr) return;
    std::ofstream(results, std::ios::app)
        << what << '\t' << state << '\t' << other << '\t' << median(ours_us) << '\t'
        << median(other_us) << '\t' << middle << '\t' << low << '\t' << high << '\t' << at_most
        << '\t' << quantile(ours_us, 1) << '\t' << quantile(ours_us, 9) << '\t'
        << quantile(other_us, 1) << '\t' << quantile(other_us, 9) << '\t' << unit << '\n';
}

// The line of a comparison that cannot be made here.
inline void not_measured(const std::string& what, const std::string& state,
                         const std::string& other, const std::string& reason) {
    printf("%-22s %-30s NOT MEASURED against %s: %s\n", what.c_str(), state.c_str(), other.c_str(),
           reason.c_str());
    (void)fflush(stdout);
    const char* results = getenv("BENCH_RESULTS");
    if (results == nullptr) return;
    std::ofstream(results, std::ios::app)
        << what << '\t' << state << '\t' << other << '\t' << reason << '\n';
}

// All sides in turn, in an order that rotates from round to round, after one round that does not
// count. Medians of the times, medians and tenths of the ratios of each round.
inline void compare(const std::string& what, const std::string& state, int rounds,
                    const sample& ours, const std::vector<opponent>& others) {
    const size_t sides = others.size() + 1;
    std::vector<std::vector<double>> times(sides);
    for (int round = 0; round <= rounds; ++round) {
        std::vector<double> spent(sides);
        for (size_t turn = 0; turn < sides; ++turn) {
            const size_t side = (turn + static_cast<size_t>(round)) % sides;
            spent[side] = side == 0 ? ours() : others[side - 1].measure();
        }
        if (round == 0) continue;
        for (size_t side = 0; side < sides; ++side) times[side].push_back(spent[side]);
    }
    for (size_t n = 0; n < others.size(); ++n)
        report(what, state, others[n].name, times[0], times[n + 1], others[n].at_most);
}

}  // namespace bench

#endif  // BENCH_SUPPORT_H
