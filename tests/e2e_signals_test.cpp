// Signals at any moment, under load: reloads lose nothing, a stop signal ends the daemon well
// wherever it comes, and of daemons that start at the same instant over one pid file one serves.
//
// SIGNALS_HANGUPS, SIGNALS_STOPS and SIGNALS_RACES say how many; tests/long/signals sets them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/bus.h"
#include "support/callers.h"
#include "support/files.h"
#include "support/ravod_checks.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::microseconds;
using clock_type = std::chrono::steady_clock;

constexpr char pid_path[] = "/run/ravod.pid";
constexpr char conf_path[] = "/tmp/ravod.conf";
constexpr char side_path[] = "/etc/config/ravo/ravo.db-commit";
constexpr int ended_by_the_signal = 1000 + SIGTERM;

size_t chosen(const char* variable, size_t otherwise) {
    const char* text = getenv(variable);
    return text != nullptr ? strtoul(text, nullptr, 10) : otherwise;
}

// The process that holds the lock on a file; 0: none.
pid_t lock_holder(const char* path) {
    const bus_test::file file(open(path, O_RDWR | O_CLOEXEC));
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    if (file.get() < 0 || fcntl(file.get(), F_GETLK, &lock) != 0) return 0;
    return lock.l_type == F_UNLCK ? 0 : lock.l_pid;
}

// Looks at the clock meanwhile, which is finer than any sleep.
void wait_until(clock_type::time_point then) {
    while (clock_type::now() < then) sched_yield();
}

void forget_database() {
    for (const char* path : {db_path, side_path}) fs::remove(path);
}

class e2e_signals : public testing::Test {
  protected:
    void SetUp() override {
        forget_database();
        fs::remove(log_path);
    }
};

// --- Hangups ------------------------------------------------------------------------------------

// The log is the first entry and then copies of the second, which ends where the next begins.
void expect_copies(const std::string& log, const std::string& first, const std::string& copy) {
    ASSERT_TRUE(log.starts_with(first)) << log.substr(0, 300);
    size_t at = first.size();
    size_t copies = 0;
    for (; log.compare(at, copy.size(), copy) == 0; at += copy.size()) ++copies;
    EXPECT_EQ(log.substr(at, 300), "");
    EXPECT_GT(copies, 0U);
    printf("%zu reloads in the log\n", copies);
}

// The log's first reload with its true line number.
std::string reload_in(const std::string& log, pid_t pid) {
    const size_t at = log.find(std::to_string(pid) + " [ERROR]", 1);
    const size_t end = log.find(std::to_string(pid) + " [ERROR]", at + 1);
    return at == std::string::npos ? "" : log.substr(at, end - at);
}

TEST_F(e2e_signals, hangups_during_load_lose_nothing) {
    constexpr size_t signals_per_call = 20;
    const size_t count = chosen("SIGNALS_HANGUPS", 500);
    write_file(conf_path, "1");
    ravod_process daemon({"-c", conf_path});
    const pid_t pid = daemon.pid();
    ASSERT_TRUE(answers());
    const std::string first = read_file(log_path);
    const size_t before = idle_descriptors(pid);
    callers load(3, "hangup");
    for (size_t n = 0; n < count; ++n) {
        if (n % signals_per_call == 0) load.wait_for_call();
        daemon.signal(SIGHUP);
    }
    const answers_given& given = load.finish();
    EXPECT_EQ(given.refused + given.unknown.size() + given.failed_lists, 0U);
    EXPECT_TRUE(answers());
    const std::string log = read_file(log_path);
    expect_copies(log, first, reload_in(log, pid));
    EXPECT_EQ(idle_descriptors(pid), before);
    EXPECT_EQ(daemon.stop(), 0);
    expect_sound_database();
    expect_rows(given);
    printf("%zu signals, %zu inserts answered\n", count, given.stored.size());
}

// --- Stops --------------------------------------------------------------------------------------

microseconds instant_within(clock_type::duration range, std::mt19937& random) {
    const auto width = std::chrono::duration_cast<microseconds>(range).count();
    return microseconds(random() % static_cast<uint64_t>(width));
}

// One life of the daemon from its start to a stop signal at a random instant, under load.
class life {
  public:
    life(std::mt19937& source, const std::string& name, clock_type::duration start_up)
        : random(source), load(2, name), usual_start(start_up) {}

    // A daemon of this process, whose start takes its usual time.
    void start_in_the_foreground() {
        write_file(pid_path, "left behind\n");
        const auto begin = clock_type::now();
        child =
            start_process({ravod_path(), "-p", pid_path}, {.environment = {ready.environment()}});
        wait_until(begin + instant_within(2 * usual_start, random));
    }
    // The same detached. Its id is known as soon as it holds the pid file.
    void start_detached() {
        ASSERT_EQ(run_process({ravod_path(), "-d", "-p", pid_path},
                              {.environment = {ready.environment()}, .open_max = 256}),
                  0);
        ASSERT_EQ(next_exit_status(), 0);  // the process between
        while ((child = lock_holder(pid_path)) == 0) sched_yield();
        wait_until(clock_type::now() + instant_within(2 * usual_start, random));
    }

    // Stops it, and once more when the signal came so early that it only removed the pid file.
    void stop() {
        kill(child, SIGTERM);
        auto since = clock_type::now();
        if (ready.wait_or_end(child) && answers()) {
            ++signals;
            EXPECT_FALSE(fs::exists(pid_path));
            kill(child, SIGTERM);
            since = clock_type::now();
        }
        status = wait_for_exit(child);
        took = clock_type::now() - since;
    }
    // Stops it while a reader has not taken its reply, and again when it waits for that reader.
    void stop_while_replying() {
        ready.wait();
        while (!answers()) {
        }
        bus_test::raw_stream reader = bus_test::connect_to("@/var/run/ravod.sock");
        const db_query_cond everything = page(0, -1);
        ASSERT_TRUE(
            reader.send(bus_test::request_frame("db_conn_server_log_query", bytes_of(everything))));
        for (int n = 0; n < 2; ++n) EXPECT_TRUE(answers());  // the reply is made before the second
        const auto since = clock_type::now();
        kill(child, SIGTERM);
        while (fs::exists(pid_path)) sched_yield();
        kill(child, SIGTERM);
        const std::string reply = reader.receive_all();
        status = wait_for_exit(child);
        took = clock_type::now() - since;
        expect_whole(reply);
    }

    const answers_given& finish() { return load.finish(); }

    pid_t child = -1;
    int status = -1;
    int signals = 1;
    clock_type::duration took{};

  private:
    static void expect_whole(const std::string& reply) {
        constexpr size_t frame_header = 16;
        db_conn_server_log_query head = {};
        ASSERT_GE(reply.size(), frame_header + sizeof head);
        memcpy(&head, reply.data() + frame_header, sizeof head);
        EXPECT_GT(head.count, 60U);  // more than a socket takes
        EXPECT_EQ(reply.size(), frame_header + sizeof head + head.count * sizeof *head.data);
    }

    std::mt19937& random;
    ready_socket ready;
    callers load;
    clock_type::duration usual_start;
};

// How long the daemon takes from nothing to serving.
clock_type::duration start_time() {
    const auto begin = clock_type::now();
    const ravod_process daemon;
    return clock_type::now() - begin;
}

struct stop_counts {
    size_t at_once = 0;    // exit 0
    size_t repeated = 0;   // exit 0 after a second signal
    size_t by_signal = 0;  // before there is a handler
    size_t replying = 0;   // of at_once
    clock_type::duration longest{};
};

// What a life has left, by how it ended.
void expect_end(const life& ended, const answers_given& given, bool is_detached) {
    if (ended.status == ended_by_the_signal) {
        EXPECT_EQ(given.stored.size() + given.unknown.size(), 0U);
        EXPECT_TRUE(fs::exists(pid_path));
        EXPECT_EQ(lock_holder(pid_path), 0);
        if (!is_detached) {
            EXPECT_EQ(read_file(pid_path), "left behind\n");
        }
        return;
    }
    EXPECT_EQ(ended.status, 0);
    EXPECT_LT(ended.took, std::chrono::seconds(5));
    EXPECT_FALSE(fs::exists(pid_path));
}

void count_end(const life& ended, stop_counts& counts) {
    if (ended.status == ended_by_the_signal) {
        ++counts.by_signal;
    } else if (ended.signals == 2) {
        ++counts.repeated;
    } else {
        ++counts.at_once;
    }
    counts.longest = std::max(counts.longest, ended.took);
}

// The rows of all lives of one database.
void collect(answers_given& all, const answers_given& given) {
    all.stored.insert(given.stored.begin(), given.stored.end());
    all.unknown.insert(given.unknown.begin(), given.unknown.end());
}

TEST_F(e2e_signals, stop_at_a_random_instant_under_load_ends_well) {
    const size_t count = chosen("SIGNALS_STOPS", bus_test::sanitized ? 8 : 20);
    std::mt19937 random(20261121);
    adopt_orphans();
    const auto start_up = start_time();
    stop_counts counts;
    answers_given all;
    for (size_t n = 0; n < count && !HasFailure(); ++n) {
        if (n % 50 == 0) {  // the file stays small
            forget_database();
            { const ravod_process creator; }
            all = {};
        }
        fs::remove(pid_path);
        life one(random, "life " + std::to_string(n), start_up);
        const bool is_detached = n % 2 == 1;
        is_detached ? one.start_detached() : one.start_in_the_foreground();
        const bool is_replying = n % 10 == 9 && all.stored.size() > 60;
        is_replying ? one.stop_while_replying() : one.stop();
        const answers_given& given = one.finish();
        expect_end(one, given, is_detached);
        count_end(one, counts);
        counts.replying += is_replying ? 1 : 0;
        collect(all, given);
        expect_sound_database();
        expect_rows(all);
    }
    printf(
        "%zu stops: %zu at once (%zu of them with a reply under way), %zu that came before the "
        "endpoint and were repeated, %zu that came before there was a handler; longest %.2f s\n",
        count, counts.at_once, counts.replying, counts.repeated, counts.by_signal,
        std::chrono::duration<double>(counts.longest).count());
}

// --- Races --------------------------------------------------------------------------------------

std::set<pid_t> children_of_this_process() {
    std::set<pid_t> pids;
    std::istringstream list(read_file("/proc/thread-self/children"));
    for (pid_t pid = 0; list >> pid;) pids.insert(pid);
    return pids;
}

// What lies at the pid file's place when the daemons start.
enum class left_behind { nothing, dead_process, living_process, stopping_daemon };

// Readable when a child has ended.
const bus_test::file& child_events() {
    static const bus_test::file events(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    struct sigaction action = {};
    action.sa_handler = [](int) { (void)eventfd_write(events.get(), 1); };
    action.sa_flags = SA_RESTART;
    sigaction(SIGCHLD, &action, nullptr);
    return events;
}

class race {
  public:
    // Starts so many daemons at the same instant.
    void start(int count) {
        const std::vector<std::string> arguments = {ravod_path(), "-d", "-p", pid_path};
        const process_options how = {.environment = {ready.environment()}, .open_max = 64};
        for (int n = 0; n < count; ++n) start_process(arguments, how);
    }

    // Waits until every process that was started has either ended or serves.
    void settle() {
        while (true) {
            reap();
            note_ready();
            if (children_of_this_process() == serving) return;
            pollfd events[] = {{ready.descriptor(), POLLIN, 0}, {ended.get(), POLLIN, 0}};
            const int count = poll(events, 2, 10000);
            ASSERT_TRUE(count > 0 || (count < 0 && errno == EINTR)) << "neither ended nor serving";
        }
    }

    // Sends a stop signal. From now on another may serve.
    void stop() {
        ASSERT_EQ(serving.size(), 1U);
        kill(*serving.begin(), SIGTERM);
        serving.clear();
    }

    std::set<pid_t> serving;
    std::map<int, size_t> statuses;

  private:
    void reap() {
        eventfd_t events = 0;
        (void)eventfd_read(ended.get(), &events);
        int status = 0;
        for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
            EXPECT_TRUE(WIFEXITED(status)) << status;
            ++statuses[WEXITSTATUS(status)];
            serving.erase(pid);
        }
    }
    void note_ready() {
        pollfd event = {ready.descriptor(), POLLIN, 0};
        while (poll(&event, 1, 0) == 1) serving.insert(ready.wait());
        EXPECT_LE(serving.size(), 1U) << "two serve";
    }

    ready_socket ready;
    const bus_test::file& ended = child_events();
};

// A loser has ended with 1 at the pid file's lock, or with 0 at the endpoint.
void expect_one_winner(race& run, left_behind before) {
    EXPECT_EQ(answers(), run.serving.size() == 1);
    for (const auto& [status, count] : run.statuses) EXPECT_TRUE(status == 0 || status == 1);
    if (before == left_behind::stopping_daemon) return;
    ASSERT_EQ(run.serving.size(), 1U);
    EXPECT_EQ(lock_holder(pid_path), *run.serving.begin());
    EXPECT_EQ(split_lines(read_file(pid_path))[0], std::to_string(*run.serving.begin()));
}

TEST_F(e2e_signals, of_daemons_that_start_at_once_over_one_pid_file_one_serves) {
    const size_t count = chosen("SIGNALS_RACES", bus_test::sanitized ? 4 : 12);
    std::mt19937 random(20261121);
    adopt_orphans();
    const auto start_up = start_time();
    race run;
    size_t nobody = 0;
    size_t without_file = 0;
    callers load(1, "race");
    for (size_t n = 0; n < count && !HasFailure(); ++n) {
        const auto before = static_cast<left_behind>(n % 4);
        fs::remove(pid_path);
        if (before == left_behind::dead_process) write_file(pid_path, "4194303\nand more\n");
        if (before == left_behind::living_process) {
            write_file(pid_path, std::to_string(getpid()) + "\n");
        }
        if (before == left_behind::stopping_daemon) {
            run.start(1);
            run.settle();
        }
        const auto begin = clock_type::now();
        run.start(2 + static_cast<int>(random() % 7));
        if (before == left_behind::stopping_daemon) {
            wait_until(begin + instant_within(2 * start_up, random));
            run.stop();
        }
        run.settle();
        expect_one_winner(run, before);
        if (run.serving.empty()) {
            ++nobody;
            run.start(1);  // as a supervisor does
            run.settle();
        }
        ASSERT_EQ(run.serving.size(), 1U);
        if (lock_holder(pid_path) != *run.serving.begin()) ++without_file;
        run.stop();
        run.settle();
    }
    expect_rows(load.finish());
    expect_sound_database();
    EXPECT_EQ(count_of(read_file(log_path), "[ERROR]"), 0U);
    printf(
        "%zu races: of those beside a daemon that was stopping %zu left nobody serving, and %zu a "
        "daemon without its pid file; %zu ended with 1\n",
        count, nobody, without_file, run.statuses[1]);
}

}  // namespace
