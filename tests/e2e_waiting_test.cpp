// Who waits for whom: other programs lock the database, and the settings service hangs, while the
// daemon is called at full speed. Nothing that was answered is lost, and nobody waits longer than
// is told.
//
// With WAITING_LONG in the environment every case is taken, many times, and its figures are
// printed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ravo_api.h"
#include "support/bus.h"
#include "support/daemon.h"
#include "support/files.h"
#include "support/rows.h"
#include "zbservice.h"

namespace {

using std::chrono::milliseconds;
using clock_type = std::chrono::steady_clock;
using ms = std::chrono::duration<double, std::milli>;

bool is_long() { return getenv("WAITING_LONG") != nullptr; }

// --- Other programs' locks ----------------------------------------------------------------------

constexpr char reading[] = "BEGIN; SELECT count(*) FROM sqlite_master;";
constexpr char reserving[] = "BEGIN IMMEDIATE;";
constexpr char writing[] = "BEGIN EXCLUSIVE;";

struct lock_plan {
    const char* statements;
    milliseconds hold;
    int periods;
    milliseconds pause;  // between two of them
};

// Another process that locks the database again and again. It writes a byte when it has the lock,
// and one when it has let it go.
class foreign_program {
  public:
    explicit foreign_program(const lock_plan& plan) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        child = fork();
        if (child == 0) _exit(follow(plan, ends[1]));
        close(ends[1]);
        told = ends[0];
    }
    ~foreign_program() {
        EXPECT_EQ(wait_for_exit(child), 0);
        close(told);
    }
    foreign_program(const foreign_program&) = delete;
    foreign_program& operator=(const foreign_program&) = delete;

    // Waits for its next byte. False: it has come to its end.
    bool wait() const {
        char byte = 0;
        return read(told, &byte, 1) == 1;
    }
    bool has_told() const {
        pollfd event = {told, POLLIN, 0};
        return poll(&event, 1, 0) == 1;
    }

  private:
    static int follow(const lock_plan& plan, int tell) {
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return 1;
        sqlite3_busy_timeout(db, 20000);
        for (int n = 0; n < plan.periods; ++n) {
            if (n > 0) std::this_thread::sleep_for(plan.pause);
            if (sqlite3_exec(db, plan.statements, nullptr, nullptr, nullptr) != SQLITE_OK) return 2;
            if (write(tell, "h", 1) != 1) return 3;
            std::this_thread::sleep_for(plan.hold);
            if (sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr) != SQLITE_OK) return 4;
            if (write(tell, "r", 1) != 1) return 5;
        }
        return sqlite3_close(db) == SQLITE_OK ? 0 : 6;
    }

    pid_t child = -1;
    int told = -1;
};

// --- Callers ------------------------------------------------------------------------------------

struct waits {
    std::vector<ms> all;

    int measure(const std::function<int()>& call) {
        const auto start = clock_type::now();
        const int result = call();
        all.push_back(clock_type::now() - start);
        return result;
    }
    ms longest() const { return all.empty() ? ms(0) : *std::max_element(all.begin(), all.end()); }
    ms at(double share) const {
        std::vector<ms> sorted = all;
        std::sort(sorted.begin(), sorted.end());
        const auto index = static_cast<size_t>(share * static_cast<double>(sorted.size()));
        return sorted.empty() ? ms(0) : sorted[std::min(index, sorted.size() - 1)];
    }
};

// What the database must hold: the effect of every call that was answered with 0.
struct ledger {
    int64_t server_rows = 0;
    int64_t client_rows = 0;
    int64_t deleted = 0;
    int64_t failures = 0;
};

// One turn of a caller that does everything that writes.
void write_everything(ledger& done, waits& waited) {
    static int64_t turn = 0;
    auto server = row_with_text<db_conn_server_log>("somebody");
    auto client = row_with_text<db_conn_client_log_data>("somebody");
    char user[] = "mallory";
    if (waited.measure([&] { return add_conn_server_log(&server); }) == 0) ++done.server_rows;
    if (waited.measure([&] { return add_conn_client_log(&client); }) == 0) ++done.client_rows;
    if (waited.measure([&] { return add_privilege_user_block(user); }) == 0) ++done.failures;
    if (++turn % 4 != 0) return;
    db_delete_cond oldest = {done.deleted + 1};
    if (waited.measure([&] { return delete_conn_client_log(&oldest); }) == 0) ++done.deleted;
}

int64_t number_in_file(const char* text) {
    sqlite3* db = nullptr;
    int64_t number = -1;
    const auto take = [](void* place, int /*columns*/, char** values, char** /*names*/) {
        *static_cast<int64_t*>(place) = values[0] != nullptr ? strtoll(values[0], nullptr, 10) : 0;
        return 0;
    };
    EXPECT_EQ(sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, text, take, &number, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
    return number;
}

// What is in the file less what was answered; 0 in every place when nothing was lost.
struct difference {
    int64_t server_rows, client_rows, failures;
    bool operator==(const difference&) const = default;
};
std::ostream& operator<<(std::ostream& out, const difference& d) {
    return out << d.server_rows << " server rows, " << d.client_rows << " client rows, "
               << d.failures << " failures";
}
difference compare(const ledger& done) {
    return {
        number_in_file("SELECT count(*) FROM conn_server_log;") - done.server_rows,
        number_in_file("SELECT count(*) FROM conn_client_log;") - (done.client_rows - done.deleted),
        number_in_file("SELECT sum(limit_count) FROM privilege_user_block;") - done.failures};
}

// --- Locks --------------------------------------------------------------------------------------

struct lock_figures {
    waits caller;
    waits other;
    difference lost;
};

// A caller that writes, and one that asks for something that needs no database, while another
// program locks it as planned.
lock_figures call_through(const lock_plan& plan) {
    std::filesystem::remove_all("/etc/config/ravo");
    std::filesystem::create_directory("/etc/config/ravo");
    std::filesystem::remove(log_path);
    const ravod_process daemon;
    lock_figures seen;
    ledger done;
    for (int n = 0; n < 8; ++n) write_everything(done, seen.caller);  // from here on it journals
    foreign_program program(plan);
    std::atomic<bool> is_over = false;
    std::thread other([&] {
        ravo_mobile_gen_uuid_data_set asked = {};
        ravo_mobile_gen_uuid_data_get uuid = {};
        auto* place = &uuid;
        while (!is_over) {
            seen.other.measure([&] { return ravo_mobile_gen_ravo_uuid(&asked, &place); });
        }
    });
    while (program.wait()) {
        while (!program.has_told()) write_everything(done, seen.caller);
    }
    is_over = true;
    other.join();
    write_everything(done, seen.caller);
    seen.lost = compare(done);
    return seen;
}

void print(const char* name, const lock_plan& plan, const lock_figures& seen) {
    if (!is_long()) return;
    std::cout << name << " of " << plan.hold.count() << " ms, " << plan.periods << " times, pause "
              << plan.pause.count() << " ms: " << seen.caller.all.size() << " writing calls, lost "
              << seen.lost << "; they waited at most " << seen.caller.longest().count()
              << " ms, others " << seen.other.longest().count()
              << " ms (99 %: " << seen.other.at(0.99).count() << " ms)\n";
}

struct lock_case {
    const char* name;
    const char* statements;
    milliseconds pause;  // between two holds, in the long form
};

std::ostream& operator<<(std::ostream& out, const lock_case& c) { return out << c.name; }

class held_lock : public testing::TestWithParam<lock_case> {};

// The program holds its lock for as long as the test says; nobody guesses when.
TEST_P(held_lock, half_a_second_loses_nothing) {
    const lock_plan plan = {GetParam().statements, milliseconds(500), is_long() ? 60 : 1,
                            GetParam().pause};
    const lock_figures seen = call_through(plan);
    print(GetParam().name, plan, seen);
    EXPECT_EQ(seen.lost, difference{});
    EXPECT_GT(seen.caller.longest(), plan.hold / 2) << "the lock kept nobody out";
    EXPECT_EQ(count_of(read_file(log_path), "database is locked"), 0U);
}

INSTANTIATE_TEST_SUITE_P(kinds, held_lock,
                         testing::Values(lock_case{"reader", reading, milliseconds(0)},
                                         lock_case{"writer_to_be", reserving, milliseconds(20)},
                                         lock_case{"writer", writing, milliseconds(20)}),
                         [](const auto& given) { return std::string(given.param.name); });

// Around the store's patience of two seconds. What is lost beyond it is in the log.
TEST(held_locks, longer_ones_lose_what_the_log_tells) {
    if (!is_long()) return;
    for (const lock_case& kind : {lock_case{"reader", reading, milliseconds(0)},
                                  lock_case{"writer", writing, milliseconds(0)}}) {
        for (const int hold : {1000, 1900, 2100, 5100}) {
            const lock_plan plan = {kind.statements, milliseconds(hold), 1, milliseconds(0)};
            const lock_figures seen = call_through(plan);
            print(kind.name, plan, seen);
            const auto told = count_of(read_file(log_path), "database is locked\n");
            if (hold < 2000) {
                EXPECT_EQ(seen.lost, difference{});
                EXPECT_EQ(told, 0U);
            } else {
                EXPECT_NE(told, 0U);
            }
        }
    }
}

}  // namespace
