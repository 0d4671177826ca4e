// The daemon is killed while it writes, again and again, on one database: what it answered is
// there, and the file is sound. And the choice of what a commit survives.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "commit_vfs.h"
#include "ravo_api.h"
#include "support/daemon.h"
#include "support/files.h"

namespace {

constexpr char side_path[] = "/etc/config/ravo/ravo.db-commit";
constexpr char journal_path[] = "/etc/config/ravo/ravo.db-journal";
constexpr int killed = 1000 + SIGKILL;

size_t kill_count() {
    const char* chosen = getenv("COMMIT_KILLS");
    return chosen != nullptr ? strtoul(chosen, nullptr, 10) : 40;
}

// --- The database, through the layer as the next daemon has it ----------------------------------

// The rows of a statement with two columns.
using pairs = std::map<std::string, std::string>;

int collect(void* found, int /*columns*/, char** values, char** /*names*/) {
    (*static_cast<pairs*>(found))[values[0]] = values[1];
    return 0;
}

pairs values(const char* text) {
    pairs found;
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open(db_path, &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, text, collect, &found, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
    return found;
}

void expect_sound() {
    EXPECT_EQ(values("SELECT integrity_check, '' FROM pragma_integrity_check;"),
              (pairs{{"ok", ""}}));
}

// Names of rows, with their ids.
pairs rows() { return values("SELECT username, id FROM conn_server_log;"); }

// --- One life of the daemon ---------------------------------------------------------------------

// A process that kills another some time after an insert has begun. It waits by looking at the
// clock, which is finer than any sleep.
class killer {
  public:
    killer(pid_t victim, std::chrono::microseconds delay)
        : thread([this, victim, delay] {
              while (!is_armed) std::this_thread::yield();
              const auto end = std::chrono::steady_clock::now() + delay;
              while (std::chrono::steady_clock::now() < end) {
              }
              kill(victim, SIGKILL);
          }) {}
    ~killer() {
        arm();
        thread.join();
    }
    killer(const killer&) = delete;
    killer& operator=(const killer&) = delete;
    void arm() { is_armed = true; }

  private:
    std::atomic<bool> is_armed{false};
    std::thread thread;
};

// Every second row is full, so that commits differ in length.
db_conn_server_log numbered(size_t number) {
    db_conn_server_log record = {};
    const std::string name = "user" + std::to_string(number);
    memcpy(record.username, name.c_str(), name.size());
    if (number % 2 == 0) {
        for (auto* text : {&record.device_info, &record.source_ip, &record.outgoing}) {
            memset(*text, 'x', sizeof *text - 1);
        }
    }
    return record;
}

// What is known of the rows: those of answered calls, and what was asked for last.
struct knowledge {
    pairs sure;
    std::string asked_for;      // a name that may have come or gone
    bool asked_to_clean;        // all names may have gone, together
    int64_t failures_answered;  // of the limiter's user
    int64_t failures_asked_for;
};

// What a life does besides its inserts. A delete and a clean do not go together: each changes the
// other's statement.
enum class habit { none, deletes, cleans, counts_failures };

class life {
  public:
    life(std::mt19937& source, size_t& next_number, knowledge& rows)
        : random(source), next(next_number), known(rows), rest(rows.sure) {}

    // Calls until the daemon is dead. From a second delete on its connection journals by itself.
    void live() {
        ready_socket ready;
        const pid_t daemon = start_process({ravod_path()}, {.environment = {ready.environment()}});
        ready.wait();
        {
            killer death(daemon, std::chrono::microseconds(random() % 3000));
            const size_t quiet = random() % 4;  // answered before the clock runs
            const auto habit_of_life = static_cast<habit>(random() % 4);
            bool is_alive = true;
            for (size_t n = 0; is_alive; ++n) {
                if (n == quiet) death.arm();
                is_alive = call(random() % 6 == 0 ? habit_of_life : habit::none);
            }
        }
        ASSERT_EQ(wait_for_exit(daemon), killed);
    }

  private:
    bool call(habit what) {
        known.asked_for.clear();
        if (what == habit::deletes && !rest.empty()) return remove();
        if (what == habit::cleans) return clean();
        if (what == habit::counts_failures) return count_failure();
        return insert();
    }
    bool insert() {
        db_conn_server_log record = numbered(next++);
        known.asked_for = record.username;
        if (add_conn_server_log(&record) != 0) return false;
        known.sure[record.username] = "";
        return true;
    }
    bool remove() {
        const auto victim = rest.begin();
        known.asked_for = victim->first;
        db_delete_cond cond = {.id = strtol(victim->second.c_str(), nullptr, 10)};
        rest.erase(victim);
        if (delete_conn_server_log(&cond) != 0) return false;
        known.sure.erase(known.asked_for);
        return true;
    }
    bool clean() {
        known.asked_to_clean = true;
        if (clean_conn_server_log() != 0) return false;
        known.asked_to_clean = false;
        known.sure.clear();
        return true;
    }
    bool count_failure() {
        char name[] = "alice";
        ++known.failures_asked_for;
        if (add_privilege_user_block(name) != 0) return false;
        ++known.failures_answered;
        return true;
    }

    std::mt19937& random;
    size_t& next;
    knowledge& known;
    pairs rest;  // rows of earlier lives, which have an id
};

// --- Kills --------------------------------------------------------------------------------------

// But for the last call, which was not answered, the rows are what the answers say.
void compare(const pairs& found, const knowledge& known) {
    if (known.asked_to_clean && found.empty()) return;
    for (const auto& [name, id] : known.sure) {
        EXPECT_TRUE(found.contains(name) || name == known.asked_for) << name << " is lost";
    }
    for (const auto& [name, id] : found) {
        EXPECT_TRUE(known.sure.contains(name) || name == known.asked_for) << name << " is back";
    }
}

int64_t number(const char* text) {
    const pairs found = values((std::string("SELECT 0, ") + text).c_str());
    return found.empty() ? -1 : strtol(found.at("0").c_str(), nullptr, 10);
}

void remove_database() {
    for (const char* path : {db_path, side_path, journal_path}) std::filesystem::remove(path);
}

// What killed daemons have left.
struct leftovers {
    size_t kills = 0;
    size_t records = 0;
    size_t journals = 0;
};

void expect_sound_after_a_kill(leftovers& left) {
    ++left.kills;
    if (read_file(side_path).rfind("RAVOCMT", 0) == 0) ++left.records;
    if (std::filesystem::exists(journal_path)) ++left.journals;
    expect_sound();
}

void print(const char* what, const leftovers& left) {
    printf("%zu kills %s, %zu left a record and %zu a journal\n", left.kills, what, left.records,
           left.journals);
}

TEST(e2e_commit, killed_daemon_loses_no_answered_row_and_damages_nothing) {
    ASSERT_EQ(register_commit_vfs(commit_strength::kill_safe), SQLITE_OK);
    std::mt19937 random(20261121);
    size_t next = 1;
    knowledge known = {};
    leftovers left;
    for (size_t n = 0; n < kill_count() && !HasFailure(); ++n) {
        if (n % 100 == 0) {  // the file stays small
            remove_database();
            known = {};
        }
        life(random, next, known).live();
        expect_sound_after_a_kill(left);
        const pairs found = rows();
        compare(found, known);
        const int64_t failures = number("total(limit_count) FROM privilege_user_block;");
        EXPECT_GE(failures, known.failures_answered);
        EXPECT_LE(failures, known.failures_asked_for);
        known = {found, "", false, failures, failures};
    }
    print("while calls came", left);
}

// Kills while the tables are made, with no database before.
TEST(e2e_commit, daemon_killed_at_its_first_start_leaves_a_sound_database) {
    ASSERT_EQ(register_commit_vfs(commit_strength::kill_safe), SQLITE_OK);
    std::mt19937 random(20261122);
    leftovers left;
    for (size_t n = 0; n < kill_count() / 10 && !HasFailure(); ++n) {
        remove_database();
        const pid_t daemon = start_process({ravod_path()});
        { killer death(daemon, std::chrono::microseconds(random() % 6000)); }
        ASSERT_EQ(wait_for_exit(daemon), killed);
        expect_sound_after_a_kill(left);
    }
    print("at the first start", left);
}

constexpr int64_t row_cap = 101999;

// The rows of a table that was at its cap, after so many inserts. Each time that it passes the cap
// the oldest 2000 go.
int64_t rows_after(int64_t inserts) {
    return inserts == 0 ? row_cap : row_cap + 1 - 2000 + (inserts - 1) % 2000;
}

// Kills while the daemon trims a table that is at its row cap.
TEST(e2e_commit, daemon_killed_in_a_trim_has_trimmed_or_not) {
    EXPECT_EQ(ravod_process().stop(), 0);  // makes the tables
    const std::string fill =
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
        std::to_string(row_cap) + ") INSERT INTO conn_server_log (uptime) SELECT i FROM n;";
    (void)values(fill.c_str());
    const std::string full_table = read_file(db_path);
    ASSERT_EQ(register_commit_vfs(commit_strength::kill_safe), SQLITE_OK);
    std::mt19937 random(20261123);
    leftovers left;
    size_t done = 0;
    for (size_t n = 0; n < kill_count() / 20 && !HasFailure(); ++n) {
        remove_database();
        write_file(db_path, full_table);
        ready_socket ready;
        const pid_t daemon = start_process({ravod_path()}, {.environment = {ready.environment()}});
        ready.wait();
        int64_t answered = 0;
        {
            killer death(daemon, std::chrono::microseconds(random() % 40000));
            death.arm();
            db_conn_server_log record = numbered(1);
            while (add_conn_server_log(&record) == 0) ++answered;
        }
        ASSERT_EQ(wait_for_exit(daemon), killed);
        expect_sound_after_a_kill(left);
        const int64_t count = number("count(*) FROM conn_server_log;");
        EXPECT_TRUE(count == rows_after(answered) || count == rows_after(answered + 1))
            << count << ", " << answered;
        if (count != row_cap) ++done;
    }
    print("in a trim", left);
    printf("%zu of them had trimmed\n", done);
}

// --- The choice ---------------------------------------------------------------------------------

struct choice {
    const char* value;  // null: not set
    bool has_side_file;
    std::string complaint;
};

TEST(e2e_commit, environment_chooses_the_strength) {
    const std::string tail = ", not kill-safe, power-safe or off; kill-safe holds\n";
    const choice choices[] = {
        {nullptr, true, ""},
        {"kill-safe", true, ""},
        {"power-safe", true, ""},
        {"off", false, ""},
        {"", true, "RAVOD_COMMIT is \"\"" + tail},
        {"Off", true, "RAVOD_COMMIT is \"Off\"" + tail},
        {"%s%n", true, "RAVOD_COMMIT is \"%s%n\"" + tail},
    };
    for (const choice& c : choices) {
        remove_database();
        process_options how = {.output = "/tmp/output"};
        if (c.value != nullptr) how.environment = {std::string("RAVOD_COMMIT=") + c.value};
        {
            ravod_process daemon({}, how);
            db_conn_server_log record = numbered(1);
            EXPECT_EQ(add_conn_server_log(&record), 0);
        }
        EXPECT_EQ(std::filesystem::exists(side_path), c.has_side_file) << c.value;
        EXPECT_EQ(read_file("/tmp/output"), c.complaint);
        EXPECT_EQ(rows().size(), 1U);
    }
}

}  // namespace
