// The store's own operations over the commit layer: the process ends at every call that changes a
// file, and every call fails. The trim is the real one, of a table at its row cap.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "commit_vfs.h"
#include "ravod_db_handler.h"
#include "ravod_db_privilege_user_block_handler.h"
#include "support/commit_world.h"
#include "support/fault_vfs.h"
#include "support/files.h"
#include "table_store.h"

namespace {

using namespace commit_world;

constexpr int killed = 9;
constexpr int untouched = 3;  // the fault met no call

bool is_long() { return getenv("COMMIT_LONG") != nullptr; }

// --- Operations ---------------------------------------------------------------------------------

void create() {
    (void)create_conn_server_log_db();
    (void)create_privilege_user_block_db();
}
void insert() {
    db_conn_server_log record = {};
    memset(record.username, 'x', 900);
    (void)insert_conn_server_log(&record);
}
void remove_row() {
    db_delete_cond condition = {.id = 7};
    (void)delete_conn_server_log(&condition);
}
void clean() { (void)clean_conn_server_log(); }
void count_failure() {
    char name[] = "user3";
    (void)insert_privilege_user_block(name);
}

struct operation {
    const char* name;
    int64_t rows;  // before; -1: there is no database yet
    void (*run)();
    // What else it may come to, since the store goes on behind a statement that failed.
    std::vector<void (*)()> otherwise{};
};
// A failure that cannot be counted, because the user's row cannot be read, is a row of its own.
void add_failure() {
    connection c("unix");
    EXPECT_EQ(
        c.run("INSERT INTO privilege_user_block (username, limit_count) VALUES ('user3', 1);"),
        SQLITE_OK);
}

const operation operations[] = {
    {"first_creation",
     -1,
     create,
     {[] { (void)create_conn_server_log_db(); }, [] { (void)create_privilege_user_block_db(); }}},
    {"insert", 20, insert},
    {"delete", 20, remove_row},
    {"clean", 60, clean},
    {"trim", row_cap, insert},
    {"update", 20, count_failure, {add_failure}},
};

// --- What the database holds --------------------------------------------------------------------

// Counts and sums of all tables, the time of a failure left out; otherwise what is wrong.
std::string digest(const char* vfs) {
    connection c(vfs);
    const std::string check = c.values("PRAGMA integrity_check;");
    if (check != "ok\n") return "damaged: " + check;
    std::string found;
    for (const char* table : {"conn_server_log", "privilege_user_block"}) {
        const std::string name = table;
        const std::string columns = name == "conn_server_log" ? "uptime" : "limit_count";
        found += c.values("SELECT '" + name + "' || count(*) || ' ' || total(t.id) || ' ' || " +
                          "total(length(username)) || ' ' || total(" + columns + ") FROM " + name +
                          " t;");
    }
    return found;
}

struct content {
    std::string bytes;
    std::string digest;
};

// A process of its own for each run, since a table's texts stay for the life of a process.
int in_child(const std::function<void()>& work) {
    const pid_t child = fork();
    if (child == 0) {
        work();
        _exit(0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    return WEXITSTATUS(status);
}

void start(commit_strength strength) {
    fault_vfs::install();
    if (register_commit_vfs(strength) != SQLITE_OK) _exit(1);
}

// --- Runs ---------------------------------------------------------------------------------------

struct kind {
    operation what;
    commit_strength strength;
};
std::string name_of_kind(const kind& k) {
    return k.what.name +
           std::string(k.strength == commit_strength::kill_safe ? "_kill_safe" : "_power_safe");
}
void PrintTo(const kind& k, std::ostream* out) { *out << name_of_kind(k); }
std::string name_of(const testing::TestParamInfo<kind>& info) { return name_of_kind(info.param); }

// With a table at its cap each run takes its time, so the short form does not try all of them.
bool is_tried(const kind& k) {
    return is_long() || k.what.rows != row_cap || k.strength == commit_strength::kill_safe;
}

std::vector<kind> kinds(int64_t most_rows) {
    std::vector<kind> all;
    for (const operation& o : operations) {
        if (o.rows > most_rows) continue;
        for (const auto strength : {commit_strength::kill_safe, commit_strength::power_safe}) {
            if (is_tried({o, strength})) all.push_back({o, strength});
        }
    }
    return all;
}

class operation_of_the_store : public testing::TestWithParam<kind> {
  protected:
    void SetUp() override {
        setenv("COMMIT_FOLDER", std::filesystem::path(database_path).parent_path().c_str(), 1);
        ASSERT_EQ(database(), database_path);
        remove_files();
        if (what.rows >= 0) {
            in_child(create);
            fill();
        }
        const std::string before = read_file(database());
        const auto keep = [&](void (*work)()) {
            restore(before);
            in_child([work, this] {
                run(
                    commit_strength::off, [] {}, work);
            });
            states.push_back({read_file(database()), digest("unix")});
        };
        states.push_back({before, digest("unix")});
        for (void (*work)() : what.otherwise) keep(work);
        keep(what.run);
        ASSERT_NE(states.front().digest, states.back().digest);
        start(strength);
    }

    // The operation as the daemon has it: on connections that its creates have opened. arm comes
    // before what is tried.
    void run(commit_strength with, const std::function<void()>& arm, void (*work)()) const {
        start(with);
        if (what.rows >= 0) create();
        arm();
        work();
    }

    // Opens through the layer: the database is sound, and as before the operation or as after it.
    // Sets is_after to which.
    void check(const std::string& where, bool& is_after) const {
        EXPECT_EQ(connection().run("SELECT * FROM sqlite_master;"), SQLITE_OK) << where;
        const std::string bytes = read_file(database());
        const auto is_same = [&](const content& c) { return c.bytes == bytes; };
        auto at = std::find_if(states.begin(), states.end(), is_same);
        if (at == states.end()) {
            const std::string found = digest("unix");
            at = std::find_if(states.begin(), states.end(),
                              [&](const content& c) { return c.digest == found; });
            ASSERT_NE(at, states.end()) << where << ":\n" << found;
        }
        is_after = at->digest == states.back().digest;
    }

    const operation what = GetParam().what;
    const commit_strength strength = GetParam().strength;
    std::vector<content> states;  // the first is before, the last after

  private:
    // Rows as small as can be, so that a table at its cap is a small file.
    void fill() const {
        connection c("unix");
        const std::string numbers =
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
            "WHERE i < " +
            std::to_string(what.rows) + ") ";
        const std::string users = std::to_string(std::min<int64_t>(what.rows, 20));
        ASSERT_EQ(c.run("INSERT INTO conn_server_log (uptime) SELECT * FROM (" + numbers +
                        "SELECT i FROM n);"
                        "INSERT INTO privilege_user_block (username, limit_count, timestamp) "
                        "SELECT * FROM (" +
                        numbers + "SELECT 'user' || i, 1, 1 FROM n LIMIT " + users + ");"),
                  SQLITE_OK);
    }
};
INSTANTIATE_TEST_SUITE_P(every, operation_of_the_store, testing::ValuesIn(kinds(row_cap)), name_of);

class failing_operation_of_the_store : public operation_of_the_store {};
INSTANTIATE_TEST_SUITE_P(every, failing_operation_of_the_store,
                         testing::ValuesIn(kinds(is_long() ? row_cap : 100)), name_of);

TEST_P(operation_of_the_store, is_whole_wherever_the_process_ends) {
    for (const bool in_the_middle : {false, true}) {
        if (in_the_middle && what.rows == row_cap && !is_long()) break;
        int status = killed;
        for (size_t n = 1; status == killed; ++n) {
            restore(states.front().bytes);
            status = in_child([&] {
                run(
                    strength, [&] { fault_vfs::end_at_change(n, in_the_middle, killed); },
                    what.run);
            });
            bool is_after = false;
            check("call " + std::to_string(n), is_after);
            ASSERT_TRUE(is_after || status == killed) << "an answered call is lost";
        }
        EXPECT_EQ(status, 0);
    }
}

// The store answers whatever its statements met, and opens a connection anew that has failed.
TEST_P(failing_operation_of_the_store, is_whole_whatever_call_fails) {
    for (const fault_vfs::fault& f : fault_vfs::faults) {
        int status = 0;
        for (size_t n = 1; status != untouched; ++n) {
            restore(states.front().bytes);
            status = in_child([&] {
                bool was_met = false;
                run(
                    strength, [&] { fault_vfs::fail_nth(f, n, was_met); }, what.run);
                if (!was_met) _exit(untouched);
            });
            bool is_after = false;
            check(std::string(f.name) + " at " + std::to_string(n), is_after);
            ASSERT_TRUE(is_after || status != untouched) << "without a fault";
            ASSERT_FALSE(HasFailure());
        }
    }
}

}  // namespace
