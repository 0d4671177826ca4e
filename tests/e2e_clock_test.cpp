// The wall clock is set while the daemon runs: forwards and backwards, to the start of its counting
// and past the ends of 31 and 32 bits. The daemon, the settings service and the notifier are real;
// the clock of the first and the last is the test's.
#include <gtest/gtest.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "ravo_api.h"
#include "support/daemon.h"
#include "support/files.h"
#include "support/rows.h"
#include "support/service.h"
#include "support/set_clock.h"

namespace {

namespace fs = std::filesystem;

constexpr char notifications_path[] = "/var/log/network/notifications.jsonl";
constexpr int patience_ms = 20000;
constexpr int64_t day = 86400;
constexpr int64_t today = 1795222858;
constexpr int64_t end_of_31_bits = 2147483647;  // 2038-01-19T03:14:07Z
constexpr int64_t end_of_32_bits = 4294967295;  // 2106-02-07T06:28:15Z
constexpr int64_t block_seconds = 300;

class daemon_clock : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories("/usr/local/sbin");
        fs::create_symlink(NOTIFY, "/usr/local/sbin/notify");
        write_file("/etc/config/vpn_block.conf",
                   R"({"global": {"enable": true, "limit": 3, "time": 5}})");
        set(today);
        start();
    }
    void start() {
        daemon.emplace(std::vector<std::string>{},
                       process_options{.environment = wall_clock_environment(SET_CLOCK_LIBRARY)});
    }
    void set(int64_t seconds) { wall.seconds = seconds; }

    wall_clock_page& wall = map_wall_clock(wall_clock_path);
    std::optional<ravod_process> daemon;

  private:
    service_process vpncaas{VPNCAAS, "vpncaas"};
};

// --- The limiter --------------------------------------------------------------------------------

int fail(std::string user) { return add_privilege_user_block(user.data()); }
int check(std::string user) { return check_privilege_user_block(user.data()); }

void block(const std::string& user) {
    for (int n = 0; n < 3; ++n) EXPECT_EQ(fail(user), 0);
}

// The times of the last failures, as a list tells them.
std::vector<uint64_t> listed_times() {
    db_query_cond cond = page(0, -1);
    db_privilege_user_block_query header = {};
    db_privilege_user_block_query* result = &header;
    EXPECT_EQ(list_privilege_user_block(&cond, &result), 0);
    std::vector<uint64_t> times;
    for (uint64_t n = 0; n < header.count; ++n) times.push_back(header.data[n].timestamp);
    free(header.data);
    return times;
}

// Waits for the notifications file to have a line with this text.
bool is_notified(const std::string& text) {
    const int fd = inotify_init1(IN_CLOEXEC);
    EXPECT_GE(inotify_add_watch(fd, "/var/log/network", IN_CLOSE_WRITE), 0);
    bool is_there = false;
    pollfd event = {fd, POLLIN, 0};
    while (!(is_there = read_file(notifications_path).find(text) != std::string::npos) &&
           poll(&event, 1, patience_ms) == 1) {
        char changes[4096];
        EXPECT_GT(read(fd, changes, sizeof changes), 0);
    }
    close(fd);
    return is_there;
}

struct instant {
    const char* name;
    int64_t seconds;
};
std::ostream& operator<<(std::ostream& out, const instant& i) { return out << i.name; }

class clock_at : public daemon_clock, public testing::WithParamInterface<instant> {};

TEST_P(clock_at, block_lasts_its_time_to_the_second) {
    const int64_t now = GetParam().seconds;
    set(now);
    block("mallory");
    EXPECT_EQ(listed_times(), std::vector<uint64_t>{static_cast<uint64_t>(now)});
    EXPECT_TRUE(is_notified("{\"time\":" + std::to_string(now) + ","));
    EXPECT_EQ(check("mallory"), 1);
    set(now + block_seconds - 1);
    EXPECT_EQ(check("mallory"), 1);
    set(now + block_seconds);
    EXPECT_EQ(check("mallory"), 0);
    EXPECT_EQ(listed_times(), std::vector<uint64_t>{});
    EXPECT_TRUE(is_notified("{\"time\":" + std::to_string(now + block_seconds) + ","));
}

constexpr instant instants[] = {
    {"first_second", 0},
    {"within_the_first_block_time", 1},
    {"before_the_end_of_31_bits", end_of_31_bits - 1},
    {"at_the_end_of_31_bits", end_of_31_bits},
    {"after_the_end_of_31_bits", end_of_31_bits + 1},
    {"before_the_end_of_32_bits", end_of_32_bits - 1},
    {"at_the_end_of_32_bits", end_of_32_bits},
    {"after_the_end_of_32_bits", end_of_32_bits + 1},
    {"year_9999", 253402300799 - block_seconds},
};
INSTANTIATE_TEST_SUITE_P(instants, clock_at, testing::ValuesIn(instants),
                         [](const auto& given) { return std::string(given.param.name); });

// A clock that is set back lengthens a block, one that is set forward ends it.
TEST_F(daemon_clock, step_in_a_block_counts_as_time) {
    struct step {
        int64_t to;
        int blocked;
    };
    constexpr step steps[] = {
        {today + 1, 1},
        {today - 1, 1},
        {today + day, 0},
        {today - day, 1},
        {0, 1},
        {-1, 1},
        {end_of_31_bits, 0},
        {end_of_31_bits + 1, 0},
        {end_of_32_bits + 1, 0},
    };
    for (const step& s : steps) {
        SCOPED_TRACE(s.to);
        set(today);
        block("mallory");
        set(s.to);
        EXPECT_EQ(check("mallory"), s.blocked);
        EXPECT_EQ(listed_times().size(), s.blocked == 1 ? 1U : 0U);
        EXPECT_EQ(clean_privilege_user_block(), 0);
    }
}

TEST_F(daemon_clock, failure_after_a_step_begins_the_block_anew) {
    block("mallory");
    for (const int64_t to : {today - day, int64_t{0}, end_of_32_bits + 1, end_of_31_bits, today}) {
        SCOPED_TRACE(to);
        set(to);
        EXPECT_EQ(fail("mallory"), 0);
        EXPECT_EQ(listed_times(), std::vector<uint64_t>{static_cast<uint64_t>(to)});
        EXPECT_EQ(check("mallory"), 1);
        set(to + block_seconds - 1);
        EXPECT_EQ(check("mallory"), 1);
    }
    set(today + block_seconds);
    EXPECT_EQ(check("mallory"), 0);
}

// Times before 1970 are no times to a record; SQLite makes of the largest number what a list shows.
TEST_F(daemon_clock, failure_before_the_first_second_is_counted) {
    set(-1);
    block("mallory");
    EXPECT_EQ(listed_times(), std::vector<uint64_t>{1});
    EXPECT_EQ(check("mallory"), 1);
    set(1 + block_seconds);
    EXPECT_EQ(check("mallory"), 0);
}

TEST_F(daemon_clock, start_long_before_the_last_failure_keeps_counts) {
    block("mallory");
    daemon.reset();
    set(0);
    start();
    EXPECT_EQ(listed_times(), std::vector<uint64_t>{today});
    EXPECT_EQ(check("mallory"), 1);
    set(today + block_seconds);
    EXPECT_EQ(check("mallory"), 0);
}

// --- Records ------------------------------------------------------------------------------------

// Times of records are the callers'; the daemon's clock changes none of them, nor which rows go.
TEST_F(daemon_clock, records_keep_their_callers_times) {
    for (const instant& i : instants) {
        SCOPED_TRACE(i.name);
        set(i.seconds == 0 ? end_of_32_bits + 1 : 0);
        const std::string time = std::to_string(i.seconds);

        auto made = row_with_text<db_conn_server_log>("somebody");
        made.time = made.uptime = static_cast<uint64_t>(i.seconds);
        EXPECT_EQ(add_conn_server_log(&made), 0);
        db_query_cond cond = filtered("time", time);
        db_conn_server_log_query rows = {};
        db_conn_server_log_query* result = &rows;
        EXPECT_EQ(list_conn_server_log(&cond, &result), 0);
        ASSERT_EQ(rows.count, 1U);
        EXPECT_EQ(rows.data[0].time, made.time);
        EXPECT_EQ(rows.data[0].uptime, made.uptime);
        free(rows.data);

        auto entry = row_with_text<db_server_list_data>("somebody");
        entry.expire_time = static_cast<uint64_t>(i.seconds);
        EXPECT_EQ(add_server_list(&entry), 0);
        cond = filtered("expire_time", time);
        db_server_list_query entries = {};
        db_server_list_query* listed = &entries;
        EXPECT_EQ(list_server_list(&cond, &listed), 0);
        ASSERT_EQ(entries.count, 1U);
        EXPECT_EQ(entries.data[0].expire_time, entry.expire_time);
        free(entries.data);
    }
}

TEST_F(daemon_clock, device_keeps_its_uuid) {
    db_device_info_data device = {};
    set_text(device.mac, "00:00:5e:00:53:01");
    std::string first;
    for (const instant& i : instants) {
        SCOPED_TRACE(i.name);
        set(i.seconds);
        device.time = static_cast<uint64_t>(i.seconds);
        ravo_mobile_gen_uuid_data_get uuid = {};
        EXPECT_EQ(add_device_info(&device, &uuid), 0);
        const std::string given(uuid.ravo_uuid, strnlen(uuid.ravo_uuid, sizeof uuid.ravo_uuid));
        EXPECT_FALSE(given.empty());
        if (first.empty()) first = given;
        EXPECT_EQ(given, first);
    }
}

sqlite3* open_file() {
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    return db;
}

// Later rows have earlier times, and the clock stands before all of them.
TEST_F(daemon_clock, rows_that_go_at_the_cap_are_the_first_ones) {
    sqlite3* db = open_file();
    EXPECT_EQ(sqlite3_exec(db,
                           "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE "
                           "i < 101999) INSERT INTO conn_server_log (time) SELECT 5000000000 - i "
                           "FROM n;",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    set(0);
    db_conn_server_log last = {};
    EXPECT_EQ(add_conn_server_log(&last), 0);
    db_query_cond cond = page(0, 1);
    db_conn_server_log_query rows = {};
    db_conn_server_log_query* result = &rows;
    EXPECT_EQ(list_conn_server_log(&cond, &result), 0);
    ASSERT_EQ(rows.count, 1U);
    EXPECT_EQ(rows.data[0].id, 2001);
    EXPECT_EQ(rows.total, 100000U);
    free(rows.data);
}

}  // namespace
