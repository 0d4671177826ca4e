// What the tests of the running daemon look at: its log lines, its answers, its entries in /proc.
#ifndef TESTS_SUPPORT_RAVOD_CHECKS_H
#define TESTS_SUPPORT_RAVOD_CHECKS_H

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "ravo_api.h"
#include "support/daemon.h"
#include "support/files.h"
#include "support/kept_connections.h"

// --- The log ------------------------------------------------------------------------------------

// A log's bytes, with what differs from run to run replaced: PID for the process, N for the number
// of a source line, PTR for an address.
inline std::string plain(const std::string& text, pid_t pid) {
    const std::regex prefix(std::to_string(pid) + R"( \[(ERROR|WARN)\] (\w+\.cpp) \[\d+\] )");
    const std::regex address("0x[0-9a-f]+");
    return std::regex_replace(std::regex_replace(text, prefix, "PID [$1] $2 [N] "), address, "PTR");
}

inline std::string plain_log(pid_t pid) { return plain(read_file(log_path), pid); }

// The tables in the order in which the daemon opens and finishes them.
struct logged_table {
    const char* name;
    const char* unit;
    bool is_finished = true;
};
inline constexpr logged_table logged_tables[] = {
    {"conn_server_log", "ravod_db_handler.cpp"},
    {"conn_client_log", "ravod_db_conn_client_handler.cpp"},
    {"server_list", "ravod_db_list_handler.cpp"},
    {"device_info", "ravod_db_device_info_handler.cpp", false},
    {"privilege_user_block", "ravod_db_privilege_user_block_handler.cpp"},
};

// A line of plain_log().
inline std::string log_entry(const std::string& level, const std::string& unit,
                             const std::string& function, const std::string& message) {
    return "PID [" + level + "] " + unit + " [N] " + function + ":" + message;
}

// What a stop leaves in the log when all tables are open.
inline std::string closing_lines() {
    std::string lines;
    for (const logged_table& table : logged_tables) {
        if (!table.is_finished) continue;
        lines += log_entry("WARN", table.unit, std::string("finish_") + table.name + "_db",
                           "close db PTR\n");
    }
    return lines;
}

// --- Answers ------------------------------------------------------------------------------------

// Whether the daemon answers. It has run the functions of all signals sent before.
inline bool answers() {
    db_event_data event = {};
    return add_event_data(&event) == 0;
}

// The number of rows that a list call delivers; -1 when it is not answered.
template <class Query>
long count_rows(int (*list)(db_query_cond*, Query**)) {
    db_query_cond cond = {};
    cond.count = -1;
    Query header = {};
    Query* query = &header;
    EXPECT_EQ(list(&cond, &query), 0);
    const long count = header.data == nullptr ? -1 : static_cast<long>(header.count);
    free(header.data);
    return count;
}

// --- Calls --------------------------------------------------------------------------------------

inline constexpr char calls_path[] = "/tmp/calls";

// Runs ravod with the calls of its entry written down in calls_path, see daemon_calls.cpp.
inline process_options with_calls(std::vector<std::string> environment = {}) {
    process_options how;
    how.environment = std::move(environment);
    how.environment.emplace_back("LD_PRELOAD=" DAEMON_CALLS);
    how.environment.push_back(std::string("RAVOD_CALLS=") + calls_path);
    return how;
}

// --- /proc --------------------------------------------------------------------------------------

inline std::string proc(pid_t pid, const std::string& name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

// A line of /proc/PID/status without its name: "Umask", "PPid", "SigIgn", ...
inline std::string proc_status(pid_t pid, const std::string& name) {
    for (const std::string& line : split_lines(read_file(proc(pid, "status")))) {
        if (line.starts_with(name + ":")) return line.substr(line.find('\t') + 1);
    }
    return "(none)";
}

// Whether a signal is in a set of /proc/PID/status.
inline bool is_in_set(pid_t pid, const std::string& set, int sig) {
    return (std::stoull(proc_status(pid, set), nullptr, 16) >> (sig - 1) & 1) != 0;
}

// Keeps a process from going on, so that what it has open stays open while it is looked at.
class standstill {
  public:
    explicit standstill(pid_t process) : pid(process) {
        kill(pid, SIGSTOP);
        while (!proc_status(pid, "State").starts_with("T")) sched_yield();
    }
    ~standstill() { kill(pid, SIGCONT); }
    standstill(const standstill&) = delete;
    standstill& operator=(const standstill&) = delete;

  private:
    const pid_t pid;
};

// What each open descriptor of a process leads to.
inline std::map<int, std::string> descriptors_of(pid_t pid) {
    std::map<int, std::string> targets;
    for (const auto& entry : std::filesystem::directory_iterator(proc(pid, "fd"))) {
        std::error_code gone;
        const auto target = std::filesystem::read_symlink(entry.path(), gone);
        if (!gone) targets[std::stoi(entry.path().filename())] = target;
    }
    return targets;
}

// How many descriptors a daemon has open when it waits for callers and has none: this process's
// calls have kept a connection until now.
inline size_t idle_descriptors(pid_t pid) {
    bus_test::end_kept_connections();
    while (!proc_status(pid, "State").starts_with("S")) sched_yield();
    return descriptors_of(pid).size();
}

// The flags with which a descriptor was opened, O_CLOEXEC included.
inline int descriptor_flags(pid_t pid, int fd) {
    const std::string info = read_file(proc(pid, "fdinfo/" + std::to_string(fd)));
    const size_t at = info.find("flags:");
    EXPECT_NE(at, std::string::npos) << info;
    return at == std::string::npos ? -1 : std::stoi(info.substr(at + 6), nullptr, 8);
}

// --- Detached daemons ---------------------------------------------------------------------------

// From now on the processes that a launcher leaves behind become children of this one.
inline void adopt_orphans() { ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }

// Waits for the end of a child, adopted ones included, and returns its exit status. Behind a
// launcher that is the process between it and the daemon, as long as the daemon runs.
inline int next_exit_status() {
    int status = 0;
    EXPECT_GT(wait(&status), 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// Waits until no child is left. A daemon that ends before the process that started it, which
// ignores its children, leaves no status.
inline void wait_for_all() {
    while (wait(nullptr) > 0) {
    }
    ASSERT_EQ(errno, ECHILD);
}

// ravod -d, serving when the constructor returns, stopped at the end.
class detached_ravod {
  public:
    explicit detached_ravod(std::vector<std::string> options = {}, process_options how = {}) {
        ready_socket ready;
        options.insert(options.begin(), {ravod_path(), "-d"});
        how.environment.push_back(ready.environment());
        launcher = start_process(options, how);
        EXPECT_EQ(wait_for_exit(launcher), 0);
        daemon = ready.wait();
    }
    ~detached_ravod() {
        if (daemon > 0) stop();
    }
    detached_ravod(const detached_ravod&) = delete;
    detached_ravod& operator=(const detached_ravod&) = delete;

    pid_t pid() const { return daemon; }
    pid_t launcher_pid() const { return launcher; }
    void signal(int sig) const { kill(daemon, sig); }
    void stop() { stop_with(SIGTERM); }
    void stop_with(int sig) {
        kill(daemon, sig);
        wait_for_end(daemon);
        daemon = -1;
    }

  private:
    pid_t launcher = -1;
    pid_t daemon = -1;
};

#endif  // TESTS_SUPPORT_RAVOD_CHECKS_H
