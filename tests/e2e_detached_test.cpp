// The daemon detached from its terminal: what it becomes, its pid file, and the order of its steps.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/ravod_checks.h"

namespace {

namespace fs = std::filesystem;
using std::to_string;
using texts = std::vector<std::string>;

constexpr char pid_path[] = "/run/ravod.pid";

texts calls() { return split_lines(read_file(calls_path)); }

std::string joined(const texts& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
}

// The calls from the one that begins with first up to the one that begins with last.
texts calls_between(const std::string& first, const std::string& last) {
    texts part;
    for (const std::string& call : calls()) {
        if (part.empty() && !call.starts_with(first)) continue;
        part.push_back(call);
        if (call.starts_with(last)) break;
    }
    return part;
}

// --- What it becomes ----------------------------------------------------------------------------

TEST(detached, launcher_exits_0_and_the_daemon_serves) {
    const detached_ravod ravod;
    EXPECT_NE(ravod.pid(), ravod.launcher_pid());
    EXPECT_TRUE(answers());
}

TEST(detached, belongs_to_nobody_and_cannot_get_a_terminal) {
    const detached_ravod ravod;
    const pid_t session = getsid(ravod.pid());
    wait_for_end(session);  // its leader, the process in between
    EXPECT_EQ(proc_status(ravod.pid(), "PPid"), "1");
    EXPECT_NE(session, getsid(0));
    EXPECT_NE(session, ravod.pid());
    EXPECT_NE(session, ravod.launcher_pid());
    EXPECT_EQ(getpgid(ravod.pid()), session);
}

TEST(detached, long_option_detaches_as_well) {
    adopt_orphans();
    ready_socket ready;
    process_options how;
    how.environment = {ready.environment()};
    EXPECT_EQ(run_process({ravod_path(), "--daemon"}, how), 0);
    const pid_t pid = ready.wait();
    EXPECT_EQ(next_exit_status(), 0);
    kill(pid, SIGTERM);
    EXPECT_EQ(next_exit_status(), 0);
}

TEST(detached, stands_in_the_root_directory_without_a_mask) {
    umask(077);
    const detached_ravod ravod;
    EXPECT_EQ(fs::read_symlink(proc(ravod.pid(), "cwd")), "/");
    EXPECT_EQ(proc_status(ravod.pid(), "Umask"), "0000");
}

TEST(detached, ignores_children_and_catches_its_three_signals) {
    const detached_ravod ravod;
    EXPECT_TRUE(is_in_set(ravod.pid(), "SigIgn", SIGCHLD));
    for (const int sig : {SIGHUP, SIGINT, SIGTERM}) {
        EXPECT_TRUE(is_in_set(ravod.pid(), "SigCgt", sig)) << sig;
    }
    EXPECT_EQ(proc_status(ravod.pid(), "SigBlk"), "0000000000000000");
}

void expect_null_streams(pid_t pid) {
    auto descriptors = descriptors_of(pid);
    constexpr int access[] = {O_RDONLY, O_RDWR, O_RDWR};
    for (int fd = 0; fd < 3; ++fd) {
        EXPECT_EQ(descriptors[fd], "/dev/null") << fd;
        EXPECT_EQ(descriptor_flags(pid, fd) & O_ACCMODE, access[fd]) << fd;
    }
}

TEST(detached, standard_streams_are_on_dev_null) {
    process_options how;
    how.output = "/tmp/output";
    const detached_ravod ravod({}, how);
    expect_null_streams(ravod.pid());
    EXPECT_EQ(read_file("/tmp/output"), "");
}

TEST(detached, streams_closed_by_the_launcher_end_on_dev_null_too) {
    adopt_orphans();
    ready_socket ready;
    const pid_t launcher = fork();
    if (launcher == 0) {
        setenv("NOTIFY_SOCKET", ready.environment().substr(strlen("NOTIFY_SOCKET=")).c_str(), 1);
        for (int fd = 0; fd < 3; ++fd) close(fd);
        execl(ravod_path().c_str(), ravod_path().c_str(), "-d", nullptr);
        _exit(127);
    }
    EXPECT_EQ(wait_for_exit(launcher), 0);
    const pid_t pid = ready.wait();
    expect_null_streams(pid);
    kill(pid, SIGTERM);
    wait_for_all();
}

TEST(detached, other_descriptors_are_its_own_and_close_on_exec) {
    const detached_ravod ravod({"-p", pid_path});
    EXPECT_TRUE(answers());
    const standstill while_looking(ravod.pid());  // the answer's connection may be closed any time
    for (const auto& [fd, target] : descriptors_of(ravod.pid())) {
        if (fd < 3) continue;
        EXPECT_NE(descriptor_flags(ravod.pid(), fd) & O_CLOEXEC, 0) << target;
        const bool is_own = target == pid_path || target == db_path ||
                            target == std::string(db_path) + "-commit" ||
                            target.starts_with("socket:[") || target == "anon_inode:[eventfd]" ||
                            target == "anon_inode:[eventpoll]";
        EXPECT_TRUE(is_own) << fd << " is " << target;
    }
}

TEST(detached, relative_paths_start_at_the_root) {
    write_file("/tmp/conf", "1");
    const detached_ravod ravod({"-c", "tmp/conf", "-l", "tmp/own.log", "-p", "run/ravod.pid"});
    EXPECT_EQ(plain(read_file("/tmp/own.log"), ravod.pid()),
              log_entry("ERROR", "ravod.cpp", "read_conf_file",
                        "Configuration of " + ravod_path() + " read from file tmp/conf"));
    EXPECT_EQ(read_file(pid_path), to_string(ravod.pid()) + "\n");
}

TEST(detached, exits_0_after_each_stop_signal) {
    adopt_orphans();
    for (const int sig : {SIGTERM, SIGINT}) {
        detached_ravod ravod({"-p", pid_path});
        const pid_t pid = ravod.pid();
        EXPECT_EQ(next_exit_status(), 0);  // the process in between
        ravod.stop_with(sig);
        EXPECT_EQ(next_exit_status(), 0);
        EXPECT_FALSE(fs::exists(pid_path));
        EXPECT_EQ(plain_log(pid), closing_lines());
        fs::remove(log_path);
    }
}

TEST(detached, hangup_reloads) {
    write_file("/tmp/conf", "1");
    const detached_ravod ravod({"-c", "/tmp/conf", "-p", pid_path});
    ravod.signal(SIGHUP);
    EXPECT_TRUE(answers());
    EXPECT_EQ(count_of(read_file(log_path), "Reloaded configuration file /tmp/conf of "), 1U);
    EXPECT_TRUE(fs::exists(pid_path));
}

// --- Inherited descriptors ----------------------------------------------------------------------

// Opens a file that no daemon of ours uses under each of the numbers, for a launcher to inherit.
void inherit_as(const std::vector<int>& numbers) {
    write_file("/tmp/inherited", "");
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const int fd = open("/tmp/inherited", O_RDONLY | O_CLOEXEC);
    for (const int number : numbers) ASSERT_EQ(dup2(fd, number), number);
}

std::vector<int> still_inherited(pid_t pid) {
    std::vector<int> numbers;
    for (const auto& [fd, target] : descriptors_of(pid)) {
        if (target == "/tmp/inherited") numbers.push_back(fd);
    }
    return numbers;
}

int highest_number() {
    rlimit limit = {};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    return static_cast<int>(std::min<rlim_t>(limit.rlim_max, 1000000)) - 1;
}

TEST(detached_descriptors, all_below_the_limit_are_closed) {
    inherit_as({3, 4, 9, 200, 1023});
    process_options how;
    how.open_max = 1024;
    const detached_ravod ravod({}, how);
    EXPECT_EQ(still_inherited(ravod.pid()), std::vector<int>{});
}

TEST(detached_descriptors, number_of_the_limit_is_closed_and_higher_ones_stay) {
    inherit_as({1024, 1025});
    process_options how;
    how.open_max = 1024;
    const detached_ravod ravod({}, how);
    EXPECT_EQ(still_inherited(ravod.pid()), std::vector{1025});
}

// With the highest limit that this machine allows.
TEST(detached_descriptors, all_below_the_highest_limit_are_closed) {
    const int highest = highest_number();
    inherit_as({3, 1024, 9999, highest});
    process_options how;
    how.open_max = highest + 1;
    const detached_ravod ravod({}, how);
    EXPECT_EQ(still_inherited(ravod.pid()), std::vector<int>{});
}

// A limit is what sysconf says: this machine may not allow the higher ones.
texts closing_calls(const std::string& limit, texts environment = {}) {
    environment.push_back("RAVOD_CALLS_OPEN_MAX=" + limit);
    const detached_ravod ravod({}, with_calls(environment));
    EXPECT_EQ(still_inherited(ravod.pid()), std::vector<int>{});
    return calls_between("sysconf", "freopen /dev/null r stdin");
}

TEST(detached_descriptors, all_are_closed_by_one_call_that_takes_the_limit_in) {
    inherit_as({3, 1000});
    const std::pair<const char*, const char*> limits_and_last[] = {{"1024", "1024"},
                                                                   {"65537", "65537"},
                                                                   {"1073741824", "1073741824"},
                                                                   {"9999999999", "4294967295"},
                                                                   {"-1", "4294967295"}};
    for (const auto& [limit, last] : limits_and_last) {
        const texts expected = {"sysconf _SC_OPEN_MAX", std::string("close_range 1 ") + last + " 0",
                                "freopen /dev/null r stdin"};
        EXPECT_EQ(closing_calls(limit), expected) << limit;
        fs::remove(calls_path);
    }
}

TEST(detached_descriptors, without_ranges_at_most_65536_are_counted_down) {
    inherit_as({3, 1000});
    const std::pair<const char*, const char*> limits_and_first[] = {
        {"1024", "1024"}, {"65536", "65536"}, {"1000000000", "65536"}, {"-1", "65536"}};
    for (const auto& [limit, first] : limits_and_first) {
        const texts calls = closing_calls(limit, {"RAVOD_CALLS_FAIL=close_range 1"});
        ASSERT_EQ(calls.size(), 4U) << limit;
        EXPECT_EQ(calls[2], std::string("close ") + first + "..1");
        fs::remove(calls_path);
    }
}

// --- Pid file -----------------------------------------------------------------------------------

// Who holds a lock on the file, as the kernel tells another process: 0 for nobody. The lock, if
// any, is exclusive and on the whole file.
pid_t lock_holder(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    EXPECT_EQ(fcntl(fd, F_GETLK, &lock), 0) << path;
    close(fd);
    if (lock.l_type == F_UNLCK) return 0;
    EXPECT_EQ(lock.l_type, F_WRLCK);
    EXPECT_EQ(lock.l_start, 0);
    EXPECT_EQ(lock.l_len, 0);
    return lock.l_pid;
}

mode_t mode_bits(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

TEST(pid_file, holds_the_pid_and_its_lock) {
    umask(077);
    const detached_ravod ravod({"-p", pid_path});
    EXPECT_EQ(read_file(pid_path), to_string(ravod.pid()) + "\n");
    EXPECT_EQ(mode_bits(pid_path), 0640U);
    EXPECT_EQ(lock_holder(pid_path), ravod.pid());
}

TEST(pid_file, stays_open_read_write) {
    const detached_ravod ravod({"-p", pid_path});
    int open_as = 0;
    for (const auto& [fd, target] : descriptors_of(ravod.pid())) {
        if (target == pid_path) open_as = fd;
    }
    EXPECT_EQ(open_as, 3);
    EXPECT_EQ(descriptor_flags(ravod.pid(), open_as) & O_ACCMODE, O_RDWR);
}

TEST(pid_file, longer_content_is_not_truncated) {
    write_file(pid_path, "1234567890\nrest\n");
    chmod(pid_path, 0666);
    const detached_ravod ravod({"-p", pid_path});
    const std::string line = to_string(ravod.pid()) + "\n";
    EXPECT_EQ(read_file(pid_path), line + std::string("1234567890\nrest\n").substr(line.size()));
    EXPECT_EQ(mode_bits(pid_path), 0666U);
}

TEST(pid_file, is_gone_after_a_stop) {
    detached_ravod ravod({"-p", pid_path});
    EXPECT_TRUE(fs::exists(pid_path));
    ravod.stop();
    EXPECT_FALSE(fs::exists(pid_path));
}

// Expects that a detached daemon ends with status 1 behind its launcher's 0.
void expect_refused(const std::string& path) {
    adopt_orphans();
    fs::remove(calls_path);
    EXPECT_EQ(run_process({ravod_path(), "-d", "-p", path}, with_calls()), 0) << path;
    wait_for_all();
    EXPECT_EQ(calls().back(), "exit 1") << path;
    EXPECT_EQ(count_of(read_file(calls_path), "exit"), 1U) << path;
}

TEST(pid_file, held_by_another_daemon_ends_the_second_with_1) {
    const detached_ravod first({"-p", pid_path});
    expect_refused(pid_path);
    EXPECT_EQ(read_file(pid_path), to_string(first.pid()) + "\n");
    EXPECT_EQ(lock_holder(pid_path), first.pid());
    EXPECT_TRUE(answers());
    EXPECT_FALSE(fs::exists(log_path));
}

TEST(pid_file, held_by_any_program_ends_the_daemon_with_1) {
    write_file(pid_path, "held");
    const int fd = open(pid_path, O_RDWR | O_CLOEXEC);
    ASSERT_EQ(lockf(fd, F_TLOCK, 0), 0);
    expect_refused(pid_path);
    EXPECT_EQ(read_file(pid_path), "held");
    close(fd);
}

TEST(pid_file, that_cannot_be_opened_ends_the_daemon_with_1) {
    for (const char* path : {"/run/none/ravod.pid", "/run", ""}) expect_refused(path);
    EXPECT_FALSE(fs::exists(db_path));
}

TEST(pid_file, left_by_a_killed_daemon_is_taken_over) {
    detached_ravod first({"-p", pid_path});
    first.stop_with(SIGKILL);
    EXPECT_TRUE(fs::exists(pid_path));
    EXPECT_EQ(lock_holder(pid_path), 0);
    const detached_ravod second({"-p", pid_path});
    EXPECT_EQ(lock_holder(pid_path), second.pid());
}

TEST(pid_file, stays_when_the_endpoint_is_taken) {
    const detached_ravod first;
    adopt_orphans();
    EXPECT_EQ(run_process({ravod_path(), "-d", "-p", pid_path}, with_calls()), 0);
    wait_for_all();
    EXPECT_EQ(calls().back(), "closelog");
    EXPECT_EQ(count_of(read_file(calls_path), "exit"), 0U);
    EXPECT_EQ(lock_holder(pid_path), 0);
    EXPECT_TRUE(read_file(pid_path).ends_with("\n"));
}

// --- The order of the steps ---------------------------------------------------------------------

texts create_calls() {
    texts expected;
    for (const char* create : {"CREATE  TABLE IF NOT EXISTS conn_server_log ",
                               "CREATE  TABLE IF NOT EXISTS conn_client_log ",
                               "CREATE TEMPORARY TABLE IF NOT EXISTS server_list ",
                               "CREATE TEMPORARY TABLE IF NOT EXISTS device_info ",
                               "CREATE  TABLE IF NOT EXISTS privilege_user_block "}) {
        expected.push_back(std::string("sqlite3_open ") + db_path);
        expected.push_back("sqlite3_busy_handler");
        expected.push_back(std::string("sqlite3_exec ") + create);
        if (std::string(create).find("device_info") != std::string::npos) {
            expected.emplace_back(
                "sqlite3_exec CREATE UNIQUE INDEX idx_device_info_mac ON device_info ");
        }
    }
    return expected;
}

texts finish_calls() {
    texts expected;
    for (const logged_table& table : logged_tables) {
        if (!table.is_finished) continue;
        expected.push_back(std::string("sqlite3_exec VACCUM ") + table.name);
        expected.push_back(std::string("open ") + log_path);
        expected.push_back("sqlite3_close");
    }
    return expected;
}

TEST(detached_steps, are_taken_in_order) {
    write_file("/tmp/conf", "1");
    const std::string limit = to_string(sysconf(_SC_OPEN_MAX));
    detached_ravod ravod({"-c", "/tmp/conf", "-l", "/tmp/own.log", "-p", pid_path}, with_calls());
    ravod.stop();
    const texts before_tables = {"fork",
                                 "setsid",
                                 "signal 17 SIG_IGN",
                                 "fork",
                                 "umask 0",
                                 "chdir /",
                                 "sysconf _SC_OPEN_MAX",
                                 "close_range 1 " + limit + " 0",
                                 "freopen /dev/null r stdin",
                                 "freopen /dev/null w+ stdout",
                                 "freopen /dev/null w+ stderr",
                                 "open /run/ravod.pid 0640",
                                 "lockf F_TLOCK 0",
                                 "openlog ravod LOG_PID|LOG_CONS LOG_DAEMON",
                                 "zb_signal SIGINT",
                                 "zb_signal SIGHUP",
                                 "zb_signal SIGTERM",
                                 "fopen /tmp/conf",
                                 "open /tmp/own.log"};
    const texts service = {"zb_create @/var/run/ravod.sock 4 1",
                           "zb_start endpoint",
                           "lockf F_ULOCK 0",
                           "close 3..3",
                           "unlink /run/ravod.pid",
                           "zb_stop",
                           "zb_free endpoint"};
    EXPECT_EQ(read_file(calls_path), joined(before_tables) + joined(create_calls()) +
                                         joined(service) + joined(finish_calls()) + "closelog\n");
}

TEST(detached_steps, are_fewer_in_the_foreground) {
    { const ravod_process ravod({"-p", pid_path}, with_calls()); }
    const texts before_tables = {"openlog ravod LOG_PID|LOG_CONS LOG_DAEMON", "zb_signal SIGINT",
                                 "zb_signal SIGHUP", "zb_signal SIGTERM"};
    const texts service = {"zb_create @/var/run/ravod.sock 4 1", "zb_start endpoint",
                           "unlink /run/ravod.pid", "zb_stop", "zb_free endpoint"};
    EXPECT_EQ(read_file(calls_path), joined(before_tables) + joined(create_calls()) +
                                         joined(service) + joined(finish_calls()) + "closelog\n");
}

TEST(detached_steps, endpoint_that_is_null_is_started_and_freed_all_the_same) {
    const ravod_process first;
    texts arguments = {ravod_path()};
    EXPECT_EQ(run_process(arguments, with_calls()), 0);
    const texts expected = {"zb_create @/var/run/ravod.sock 4 1", "zb_start null", "zb_free null"};
    EXPECT_EQ(calls_between("zb_create", "zb_free"), expected);
    EXPECT_EQ(calls().back(), "closelog");
}

TEST(detached_steps, failed_fork_of_the_launcher_exits_1) {
    EXPECT_EQ(run_process({ravod_path(), "-d"}, with_calls({"RAVOD_CALLS_FAIL=fork 1"})), 1);
    EXPECT_EQ(calls(), (texts{"fork", "exit 1"}));
}

TEST(detached_steps, failed_detaching_exits_1_behind_the_launcher) {
    adopt_orphans();
    EXPECT_EQ(run_process({ravod_path(), "-d"}, with_calls({"RAVOD_CALLS_FAIL=setsid 1"})), 0);
    EXPECT_EQ(next_exit_status(), 1);
    EXPECT_EQ(calls(), (texts{"fork", "setsid", "exit 1"}));
}

TEST(detached_steps, failed_second_fork_exits_1_behind_the_launcher) {
    adopt_orphans();
    EXPECT_EQ(run_process({ravod_path(), "-d"}, with_calls({"RAVOD_CALLS_FAIL=fork 2"})), 0);
    EXPECT_EQ(next_exit_status(), 1);
    EXPECT_EQ(calls(), (texts{"fork", "setsid", "signal 17 SIG_IGN", "fork", "exit 1"}));
}

// --- Signals during the start -------------------------------------------------------------------

// A daemon that waits in the middle of its start: it has opened the configuration file, which is a
// pipe without a word in it.
class starting_ravod {
  public:
    explicit starting_ravod(texts options, process_options how = {}) {
        EXPECT_EQ(mkfifo("/tmp/slow.conf", 0600), 0);
        options.insert(options.begin(), {ravod_path(), "-c", "/tmp/slow.conf"});
        how.environment.push_back(ready.environment());
        child = start_process(options, how);
        conf = open("/tmp/slow.conf", O_WRONLY | O_CLOEXEC);  // waits for the reader
    }
    ~starting_ravod() { close(conf); }
    starting_ravod(const starting_ravod&) = delete;
    starting_ravod& operator=(const starting_ravod&) = delete;

    pid_t started() const { return child; }
    // The pid of a detached daemon, whose launcher and whose parent have ended.
    pid_t daemon() const {
        EXPECT_EQ(next_exit_status(), 0);
        EXPECT_EQ(next_exit_status(), 0);
        return std::stoi(read_file(pid_path));
    }
    void go_on() {
        EXPECT_EQ(write(conf, "1\n", 2), 2);
        close(conf);
        conf = -1;
    }
    pid_t wait_until_serving() { return ready.wait(); }

  private:
    ready_socket ready{};
    pid_t child = -1;
    int conf = -1;
};

TEST(early_signals, stop_before_the_endpoint_only_removes_the_pid_file) {
    adopt_orphans();
    starting_ravod ravod({"-d", "-p", pid_path}, with_calls());
    const pid_t pid = ravod.daemon();
    const int fd = open(pid_path, O_RDWR | O_CLOEXEC);
    kill(pid, SIGTERM);
    EXPECT_TRUE(fs::exists(pid_path));  // not inside an interrupted call
    ravod.go_on();
    EXPECT_EQ(ravod.wait_until_serving(), pid);
    EXPECT_FALSE(fs::exists(pid_path));
    EXPECT_EQ(lock_holder("/proc/self/fd/" + to_string(fd)), 0);
    close(fd);
    EXPECT_TRUE(answers());
    kill(pid, SIGTERM);
    EXPECT_EQ(next_exit_status(), 0);
    EXPECT_EQ(calls_between("zb_create", "zb_free"),
              (texts{"zb_create @/var/run/ravod.sock 4 1", "lockf F_ULOCK 0", "close 3..3",
                     "unlink /run/ravod.pid", "zb_start endpoint", "unlink /run/ravod.pid",
                     "zb_stop", "zb_free endpoint"}));
}

TEST(early_signals, second_stop_signal_closes_no_number_again) {
    adopt_orphans();
    starting_ravod ravod({"-d", "-p", pid_path}, with_calls());
    const pid_t pid = ravod.daemon();
    kill(pid, SIGINT);
    ravod.go_on();
    ravod.wait_until_serving();
    const auto reused = descriptors_of(pid);
    EXPECT_EQ(reused.count(3), 1U);
    kill(pid, SIGTERM);
    EXPECT_EQ(next_exit_status(), 0);
    EXPECT_EQ(count_of(read_file(calls_path), "F_ULOCK"), 1U);
    EXPECT_EQ(count_of(read_file(calls_path), "close 3..3"), 1U);
}

TEST(early_signals, pid_file_of_a_successor_goes_with_the_second_stop_signal) {
    adopt_orphans();
    starting_ravod ravod({"-d", "-p", pid_path});
    const pid_t pid = ravod.daemon();
    kill(pid, SIGTERM);
    ravod.go_on();
    ravod.wait_until_serving();
    write_file(pid_path, "another's\n");
    kill(pid, SIGTERM);
    EXPECT_EQ(next_exit_status(), 0);
    EXPECT_FALSE(fs::exists(pid_path));
}

TEST(early_signals, hangup_before_the_endpoint_reloads) {
    starting_ravod ravod({"-l", "/tmp/own.log"});
    kill(ravod.started(), SIGHUP);
    fs::rename("/tmp/slow.conf", "/tmp/old.conf");
    write_file("/tmp/slow.conf", "2");
    ravod.go_on();
    ravod.wait_until_serving();
    EXPECT_EQ(plain(read_file("/tmp/own.log"), ravod.started()),
              log_entry("ERROR", "ravod.cpp", "read_conf_file",
                        "Configuration of " + ravod_path() + " read from file /tmp/slow.conf") +
                  log_entry("ERROR", "ravod.cpp", "read_conf_file",
                            "Reloaded configuration file /tmp/slow.conf of " + ravod_path()));
    kill(ravod.started(), SIGTERM);
    EXPECT_EQ(wait_for_exit(ravod.started()), 0);
}

TEST(early_signals, stop_between_create_and_start_ends_the_daemon_at_once) {
    const process_options how = with_calls({"RAVOD_CALLS_RAISE=" + to_string(SIGTERM)});
    write_file(pid_path, "");
    EXPECT_EQ(run_process({ravod_path(), "-p", pid_path}, how), 0);
    EXPECT_EQ(calls_between("zb_create", "zb_free"),
              (texts{"zb_create @/var/run/ravod.sock 4 1", "zb_start endpoint",
                     "unlink /run/ravod.pid", "zb_stop", "zb_free endpoint"}));
    EXPECT_FALSE(fs::exists(pid_path));
}

}  // namespace
