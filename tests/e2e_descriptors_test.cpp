// The daemon with few descriptors: it serves or says why not, a flood of callers that takes all of
// them loses nothing that was answered, and it comes back by itself.
//
// DESCRIPTORS_EVERY_LIMIT tries each limit from 16 to 64; tests/long/descriptors sets it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "support/bus.h"
#include "support/callers.h"
#include "support/files.h"
#include "support/ravod_checks.h"
#include "support/service.h"

namespace {

namespace fs = std::filesystem;

constexpr char endpoint[] = "@/var/run/ravod.sock";
constexpr char output_path[] = "/tmp/output";
constexpr char too_low[] = "ravod: the limit of open files is too low for callers\n";

bool is_long() { return getenv("DESCRIPTORS_EVERY_LIMIT") != nullptr; }

std::vector<long> limits() {
    if (!is_long()) return {16, 17, 19, 24, 40, 64};
    std::vector<long> all;
    for (long limit = 16; limit <= 64; ++limit) all.push_back(limit);
    return all;
}

void forget_files() {
    for (const char* path : {db_path, "/etc/config/ravo/ravo.db-commit", log_path}) {
        fs::remove(path);
    }
}

// --- Flood --------------------------------------------------------------------------------------

// Connections that stay open and want nothing: every second one has begun a request.
std::vector<bus_test::raw_stream> flood(int count) {
    std::vector<bus_test::raw_stream> streams;
    for (int n = 0; n < count; ++n) {
        streams.push_back(bus_test::connect_to(endpoint));
        if (n % 2 == 0) (void)streams.back().send("zbus");
    }
    return streams;
}

// Connections that have asked for more than a socket takes, and read nothing of it.
std::vector<bus_test::raw_stream> stalled_readers(int count) {
    const std::string request =
        bus_test::request_frame("db_conn_server_log_query", bytes_of(page(0, -1)));
    std::vector<bus_test::raw_stream> streams;
    for (int n = 0; n < count; ++n) {
        streams.push_back(bus_test::connect_to(endpoint));
        EXPECT_TRUE(streams.back().send(request));
    }
    return streams;
}

// --- Calls, and what they must have left --------------------------------------------------------

int add(const std::string& name) {
    db_conn_server_log row = named_connection(name, true);
    return add_conn_server_log(&row);
}

void delete_row(int64_t id) {
    db_delete_cond cond = {.id = id};
    EXPECT_EQ(delete_conn_server_log(&cond), 0);
}

struct calls_under_flood {
    answers_given connections;
    int logins = 0;
    int entries = 0;

    void make(int count) {
        std::string user = "mallory";
        for (int n = 0; n < count; ++n) {
            const std::string name = "flooded " + std::to_string(n);
            connections.add(name, add(name));
            logins += add_privilege_user_block(user.data()) == 0 ? 1 : 0;
            db_server_list_data entry = {};
            entries += add_server_list(&entry) == 0 ? 1 : 0;
            // Fails behind its first statement, so that the next one opens the connection again.
            if (n == 1) delete_row(1);
        }
    }
};

int stored_failures() {
    const auto counts = values_in_database("SELECT limit_count FROM privilege_user_block;");
    return counts.empty() ? 0 : std::stoi(*counts.begin());
}

// --- The limits ---------------------------------------------------------------------------------

// The daemon gets none but the standard streams, whoever runs the test.
class e2e_descriptors : public testing::Test {
  protected:
    void SetUp() override { EXPECT_EQ(close_range(3, ~0U, CLOSE_RANGE_CLOEXEC), 0); }
};

void install_neighbours() {
    fs::create_directories("/usr/local/sbin");
    fs::create_symlink(NOTIFY, "/usr/local/sbin/notify");
    write_file("/etc/config/vpn_block.conf",
               R"({"global": {"enable": true, "limit": 3, "time": 5}})");
}

TEST_F(e2e_descriptors, flood_loses_nothing_answered_and_passes) {
    install_neighbours();
    const service_process vpncaas(VPNCAAS, "vpncaas");
    for (const long limit : limits()) {
        SCOPED_TRACE(limit);
        forget_files();
        ravod_process daemon({}, {.open_max = limit});
        answers_given before;
        EXPECT_EQ(add("1"), 0);
        EXPECT_EQ(add("2"), 0);
        // From the second on the table's connection is one that was opened again, with a journal.
        for (const int64_t id : {1, 2}) delete_row(id);
        before.add("3", add("3"));
        const size_t idle = idle_descriptors(daemon.pid());
        calls_under_flood calls;
        {
            const auto streams = flood(static_cast<int>(limit) + 20);
            calls.make(5);
        }
        before.add("after", add("after"));
        EXPECT_EQ(before.stored.size(), 2U);
        EXPECT_TRUE(answers());
        EXPECT_EQ(count_rows(list_server_list), calls.entries);
        EXPECT_LE(idle_descriptors(daemon.pid()), idle);
        EXPECT_EQ(daemon.stop(), 0);
        calls.connections.stored.insert(before.stored.begin(), before.stored.end());
        expect_rows(calls.connections);
        EXPECT_EQ(stored_failures(), calls.logins);
        expect_sound_database();
    }
}

// Seconds of processor time that a process has used.
double processor_time(pid_t pid) {
    std::istringstream fields(read_file(proc(pid, "stat")));
    std::string field;
    double ticks = 0;
    for (int n = 1; fields >> field && n <= 15; ++n) {
        if (n >= 14) ticks += std::stod(field);
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

TEST_F(e2e_descriptors, readers_that_stall_cost_no_time_and_pass) {
    constexpr int rows = 80;  // more than a socket takes
    constexpr int look_ms = 200;
    const std::vector<long> two = {16, 40};
    for (const long limit : is_long() ? limits() : two) {
        SCOPED_TRACE(limit);
        forget_files();
        ravod_process daemon({}, {.open_max = limit});
        for (int n = 0; n < rows; ++n) ASSERT_EQ(add("row " + std::to_string(n)), 0);
        const size_t idle = idle_descriptors(daemon.pid());
        {
            auto streams = stalled_readers(static_cast<int>(limit));
            pollfd last = {streams.back().fd(), POLLIN, 0};
            const double before = processor_time(daemon.pid());
            EXPECT_EQ(poll(&last, 1, look_ms), 0) << "there was room for all";
            EXPECT_LT(processor_time(daemon.pid()) - before, 0.1);
        }
        EXPECT_EQ(add("after"), 0);
        EXPECT_LE(idle_descriptors(daemon.pid()), idle);
        EXPECT_EQ(count_rows(list_conn_server_log), rows + 1);
    }
}

// --- Fewer than it needs ------------------------------------------------------------------------

// Waits until the daemon says why it does not serve (false), or that it does.
bool serves(const ready_socket& ready) {
    pollfd event = {ready.descriptor(), POLLIN, 0};
    while (poll(&event, 1, 0) == 0) {
        if (!read_file(output_path).empty()) return false;
        sched_yield();
    }
    return true;
}

TEST_F(e2e_descriptors, start_with_too_few_is_told) {
    std::string told;
    for (long limit = 4; limit < 64; ++limit) {
        fs::remove(output_path);
        ready_socket ready;
        const pid_t pid = start_process(
            {ravod_path()},
            {.environment = {ready.environment()}, .output = output_path, .open_max = limit});
        const bool is_served = serves(ready);
        EXPECT_TRUE(!is_served || answers());
        kill(pid, SIGTERM);
        EXPECT_EQ(wait_for_exit(pid), 0);
        if (is_served) break;
        told = read_file(output_path);
        EXPECT_TRUE(told.ends_with("Too many open files\n") || told.ends_with(too_low))
            << limit << ": " << told;
    }
    EXPECT_EQ(told, too_low);
}

}  // namespace
