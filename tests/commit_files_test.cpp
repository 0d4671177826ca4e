// The commit layer among other files and programs: roll-backs, hot journals, full disks, waiting
// and stale records, strange side files, and programs without the layer.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

#include "commit_vfs.h"
#include "support/commit_world.h"
#include "support/fault_vfs.h"
#include "support/files.h"

namespace {

using namespace commit_world;
using fault_vfs::call;
using fault_vfs::step;

constexpr char magic[] = "RAVOCMT\n";

bool has_record() { return read_file(side_file()).rfind(magic, 0) == 0; }

// Runs in a process of its own, which must end by itself with this status.
template <class Work>
void in_child(Work work, int status = 0) {
    const pid_t child = fork();
    if (child == 0) {
        work();
        _exit(0);
    }
    int found = 0;
    EXPECT_EQ(waitpid(child, &found, 0), child);
    EXPECT_TRUE(WIFEXITED(found) && WEXITSTATUS(found) == status) << found;
}

// Ends the process at its n-th write to a file, counted from 1.
void end_at_write(const std::string& path, size_t n) {
    fault_vfs::before = [path, n, seen = size_t{0}](const step& s) mutable {
        if (s.what == call::write && s.path == path && ++seen == n) _exit(9);
        return SQLITE_OK;
    };
}

class commit_files : public testing::Test {
  protected:
    void SetUp() override {
        use(commit_strength::kill_safe);
        const scenario& what = scenario_named("insert_full_size_row");
        states = states_of(what);
        statement = what.statements[0];
        restore(states[0].bytes);
    }
    static void use(commit_strength strength) {
        fault_vfs::install();
        ASSERT_EQ(register_commit_vfs(strength), SQLITE_OK);
    }
    // Leaves a record beside a database of which some pages are written.
    void leave_half_applied() {
        in_child(
            [&] {
                connection c;
                c.set_up();
                end_at_write(database(), 3);
                (void)c.run(statement);
            },
            9);
        ASSERT_TRUE(has_record());
        ASSERT_NE(rows_through("unix"), states[0].rows);
    }
    std::vector<state> states;
    std::string statement;
};

// --- Roll-back ----------------------------------------------------------------------------------

TEST_F(commit_files, transaction_that_never_commits_leaves_no_byte) {
    connection c;
    c.set_up();
    const std::string before = read_file(database());
    ASSERT_EQ(c.run("PRAGMA cache_size = 10; BEGIN; DELETE FROM conn_server_log;"), SQLITE_OK);
    for (int n = 0; n < 30; ++n) ASSERT_EQ(c.run(insert_text(n, 1024)), SQLITE_OK);
    ASSERT_EQ(c.run("ROLLBACK;"), SQLITE_OK);
    EXPECT_EQ(read_file(database()), before);
    EXPECT_EQ(rows_through(nullptr), states[0].rows);
    EXPECT_EQ(c.run(statement), SQLITE_OK) << "on the same connection";
    EXPECT_EQ(rows_through("unix"), states[1].rows);
}

TEST_F(commit_files, connection_closed_in_a_transaction_rolls_back) {
    {
        connection c;
        c.set_up();
        ASSERT_EQ(c.run("PRAGMA cache_size = 10; BEGIN; DELETE FROM conn_server_log;"), SQLITE_OK);
    }
    EXPECT_EQ(rows_through("unix"), states[0].rows);
}

TEST_F(commit_files, rollback_with_a_journal_in_memory_works) {
    connection c;
    c.set_up();
    ASSERT_EQ(c.run("PRAGMA journal_mode = MEMORY; PRAGMA cache_size = 10; BEGIN; UPDATE "
                    "conn_server_log SET outgoing = upper(outgoing) || outgoing; ROLLBACK;"),
              SQLITE_OK);
    EXPECT_EQ(rows_through(nullptr), states[0].rows);
    EXPECT_EQ(c.run(statement), SQLITE_OK);
    EXPECT_EQ(rows_through("unix"), states[1].rows);
}

TEST_F(commit_files, every_journal_mode_commits_and_rolls_back) {
    for (const std::string mode :
         {"OFF", "DELETE", "TRUNCATE", "PERSIST", "MEMORY", "WAL", "OFF"}) {
        restore(states[0].bytes);
        {
            connection c;
            c.set_up();
            ASSERT_EQ(c.run("PRAGMA journal_mode = " + mode), SQLITE_OK);
            EXPECT_EQ(c.run("BEGIN; DELETE FROM conn_server_log; ROLLBACK;"), SQLITE_OK) << mode;
            EXPECT_EQ(c.run(statement), SQLITE_OK) << mode;
        }
        EXPECT_EQ(rows_through("unix"), states[1].rows) << mode;
    }
}

// The file grows, shrinks and changes as it does without the layer, whoever journals.
TEST_F(commit_files, database_has_the_bytes_that_it_has_without_the_layer) {
    for (const std::string mode : {"OFF", "DELETE", "TRUNCATE", "PERSIST", "MEMORY", "WAL"}) {
        for (const scenario& what : scenarios()) {
            std::string bytes[2];
            const std::string before = states_of(what)[0].bytes;
            for (const bool has_layer : {false, true}) {
                restore(before);
                {
                    connection c(has_layer ? nullptr : "unix");
                    c.set_up();
                    ASSERT_EQ(c.run("PRAGMA journal_mode = " + mode), SQLITE_OK);
                    for (const std::string& text : what.statements) {
                        ASSERT_EQ(c.run(text), SQLITE_OK);
                    }
                }
                bytes[has_layer ? 1 : 0] = read_file(database());
            }
            EXPECT_TRUE(bytes[0] == bytes[1]) << mode << ", " << what.name << ": "
                                              << bytes[0].size() << " and " << bytes[1].size();
        }
    }
}

// --- Journals -----------------------------------------------------------------------------------

// Leaves the journal of a connection that was reopened, and a database that needs it.
void leave_hot_journal() {
    in_child(
        [] {
            connection c;
            end_at_write(database(), 3);
            (void)c.run("UPDATE conn_server_log SET outgoing = upper(outgoing);");
        },
        9);
    ASSERT_TRUE(std::filesystem::exists(journal()));
}

TEST_F(commit_files, hot_journal_of_a_reopened_connection_is_rolled_back) {
    leave_hot_journal();
    connection c;
    c.set_up();
    EXPECT_EQ(c.run(statement), SQLITE_OK);
    EXPECT_EQ(rows_through("unix"), states[1].rows);
}

TEST_F(commit_files, connection_without_a_journal_does_not_read_past_a_hot_one) {
    connection daemon;
    daemon.set_up();
    leave_hot_journal();
    EXPECT_EQ(daemon.run("SELECT count(*) FROM conn_server_log;"), SQLITE_IOERR);
    EXPECT_EQ(daemon.run(statement), SQLITE_IOERR);
    connection reopened;
    EXPECT_EQ(reopened.run(statement), SQLITE_OK);
    EXPECT_EQ(daemon.run("SELECT count(*) FROM conn_server_log;"), SQLITE_OK);
    EXPECT_EQ(rows_through("unix"), states[1].rows);
}

// --- Waiting records ----------------------------------------------------------------------------

TEST_F(commit_files, open_connection_finishes_the_record_of_another_process) {
    connection c;
    c.set_up();
    leave_half_applied();
    EXPECT_EQ(c.values("SELECT count(*) FROM conn_server_log;"), "9\n");
    EXPECT_FALSE(has_record());
    EXPECT_EQ(rows_through("unix"), states[1].rows);
}

TEST_F(commit_files, weakest_strength_finishes_a_record_and_makes_none) {
    leave_half_applied();
    use(commit_strength::off);
    EXPECT_EQ(rows_through(nullptr), states[1].rows);
    EXPECT_FALSE(has_record());
    std::filesystem::remove(side_file());
    connection c;
    c.set_up();
    EXPECT_EQ(c.run(insert_text(200, 20)), SQLITE_OK);
    EXPECT_FALSE(std::filesystem::exists(side_file()));
}

TEST_F(commit_files, processes_that_open_at_once_finish_it_once) {
    leave_half_applied();
    std::array<pid_t, 8> children{};
    for (pid_t& child : children) {
        child = fork();
        if (child == 0) _exit(rows_through(nullptr) == states[1].rows ? 0 : 1);
    }
    for (const pid_t child : children) {
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    EXPECT_FALSE(has_record());
}

TEST_F(commit_files, reading_only_connection_is_told_of_a_waiting_record) {
    leave_half_applied();
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open_v2(database().c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, "SELECT * FROM sqlite_master;", nullptr, nullptr, nullptr),
              SQLITE_READONLY);
    sqlite3_close(db);
    EXPECT_EQ(rows_through(nullptr), states[1].rows);
}

TEST_F(commit_files, record_of_another_state_of_the_database_is_dropped) {
    leave_half_applied();
    const std::string record = read_file(side_file());
    restore(states[1].bytes);
    {
        connection plain("unix");
        ASSERT_EQ(plain.run(insert_text(300, 20)), SQLITE_OK);
    }
    const std::string expected = rows_through("unix");
    write_file(side_file(), record);
    EXPECT_EQ(rows_through(nullptr), expected);
    EXPECT_FALSE(has_record());
}

TEST_F(commit_files, record_beside_a_new_empty_database_is_dropped) {
    leave_half_applied();
    std::filesystem::remove(database());
    EXPECT_EQ(rows_through(nullptr), "");
    connection c;
    c.set_up();
    EXPECT_EQ(c.run("CREATE TABLE t (a);"), SQLITE_OK);
    EXPECT_EQ(rows_through("unix").rfind("t:", 0), 0U);
}

// Each byte of a record changed: it is dropped, or was one that does not matter. The database is
// half applied, so a dropped record shows.
TEST_F(commit_files, record_with_any_byte_changed_is_never_applied) {
    in_child(
        [&] {
            connection c;
            c.set_up();
            end_at_write(database(), 1);
            (void)c.run(statement);
        },
        9);
    const std::string bytes = read_file(database());
    const std::string record = read_file(side_file());
    ASSERT_TRUE(has_record());
    const std::string before = states[0].rows;
    for (size_t n = 0; n < record.size(); n += n < 800 ? 1 : 97) {
        std::string changed = record;
        changed[n] = static_cast<char>(changed[n] ^ 0x41);
        write_file(database(), bytes);
        write_file(side_file(), changed);
        ASSERT_EQ(rows_through(nullptr), before) << "byte " << n;
    }
    for (size_t size = 0; size < record.size(); size += 61) {
        write_file(database(), bytes);
        write_file(side_file(), record.substr(0, size));
        ASSERT_EQ(rows_through(nullptr), before) << size << " bytes";
    }
    write_file(side_file(), record);
    EXPECT_EQ(rows_through(nullptr), states[1].rows) << "unchanged it is applied";
}

// --- Side files ---------------------------------------------------------------------------------

TEST_F(commit_files, side_file_has_the_rights_of_the_database) {
    for (const mode_t mode : {0600U, 0640U, 0664U}) {
        restore(states[0].bytes);
        ASSERT_EQ(chmod(database().c_str(), mode), 0);
        const mode_t old = umask(077);
        connection c;
        c.set_up();
        EXPECT_EQ(c.run(statement), SQLITE_OK);
        umask(old);
        struct stat found = {};
        ASSERT_EQ(stat(side_file().c_str(), &found), 0);
        EXPECT_EQ(found.st_mode & 07777U, mode);
        EXPECT_EQ(found.st_uid, geteuid());
    }
}

TEST_F(commit_files, strange_file_in_its_place_fails_the_commit_and_harms_nothing) {
    const std::string other = folder() + "/other";
    write_file(other, "precious");
    const std::function<void()> obstacles[] = {
        [&] { std::filesystem::create_symlink(other, side_file()); },
        [&] { std::filesystem::create_directory(side_file()); },
        [&] { ASSERT_EQ(mkfifo(side_file().c_str(), 0600), 0); },
    };
    for (const auto& put_obstacle : obstacles) {
        restore(states[0].bytes);
        put_obstacle();
        connection c;
        c.set_up();
        EXPECT_EQ(c.run(statement), SQLITE_CANTOPEN);
        EXPECT_EQ(read_file(other), "precious");
        (void)c.run("ROLLBACK;");
        std::filesystem::remove_all(side_file());
        EXPECT_EQ(rows_through("unix"), states[0].rows);
        EXPECT_EQ(c.run(statement), SQLITE_OK) << "as soon as it is gone";
    }
}

TEST_F(commit_files, long_record_leaves_a_short_side_file) {
    connection c;
    c.set_up();
    ASSERT_EQ(c.run("BEGIN;"), SQLITE_OK);
    for (int n = 0; n < 1000; ++n) ASSERT_EQ(c.run(insert_text(n, 1024)), SQLITE_OK);
    ASSERT_EQ(c.run("END;"), SQLITE_OK);
    EXPECT_LE(std::filesystem::file_size(side_file()), 1U << 20);
    EXPECT_EQ(rows_through("unix").rfind("damaged", 0), std::string::npos);
}

TEST_F(commit_files, removed_side_file_costs_no_row) {
    connection c;
    c.set_up();
    ASSERT_EQ(c.run(insert_text(1, 20)), SQLITE_OK);
    std::filesystem::remove(side_file());
    ASSERT_EQ(c.run(statement), SQLITE_OK);
    connection other;
    EXPECT_EQ(other.values("SELECT count(*) FROM conn_server_log;"), "10\n");
    EXPECT_EQ(rows_through("unix").rfind("damaged", 0), std::string::npos);
}

TEST_F(commit_files, linked_database_has_one_side_file) {
    const std::string link = folder() + "/link.db";
    std::filesystem::create_symlink(database(), link);
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(link.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, ("PRAGMA journal_mode = OFF;" + statement).c_str(), nullptr, nullptr,
                           nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    EXPECT_TRUE(std::filesystem::exists(side_file()));
    EXPECT_FALSE(std::filesystem::exists(link + "-commit"));
}

// --- Programs without the layer -----------------------------------------------------------------

TEST_F(commit_files, program_without_the_layer_reads_and_writes_beside_an_idle_connection) {
    connection daemon;
    daemon.set_up();
    for (int n = 0; n < 20; ++n) {
        ASSERT_EQ(daemon.run(insert_text(400 + n, 1024)), SQLITE_OK);
        EXPECT_EQ(rows_through("unix"), rows_through(nullptr));
        connection plain("unix");
        ASSERT_EQ(plain.run(insert_text(500 + n, 1024)), SQLITE_OK);
    }
    EXPECT_EQ(daemon.values("SELECT count(*) FROM conn_server_log;"), "48\n");
    EXPECT_EQ(rows_through("unix").rfind("damaged", 0), std::string::npos);
}

TEST_F(commit_files, foreign_reader_fails_the_commit_and_the_next_one_goes_through) {
    connection daemon;
    daemon.set_up();
    {
        connection reader("unix");
        ASSERT_EQ(reader.run("BEGIN; SELECT * FROM sqlite_master;"), SQLITE_OK);
        EXPECT_EQ(daemon.run(insert_text(1, 20)), SQLITE_BUSY);
        EXPECT_EQ(rows_through("unix"), states[0].rows);
    }
    EXPECT_EQ(daemon.run(statement), SQLITE_OK);
    EXPECT_EQ(rows_through("unix"), states[1].rows);
}

// --- A full disk --------------------------------------------------------------------------------

// A file system of 1 MiB in memory, or the small one that COMMIT_SMALL names.
std::string small_disk() {
    const char* chosen = getenv("COMMIT_SMALL");
    return chosen != nullptr ? chosen : "/small";
}
std::string ballast() { return small_disk() + "/ballast"; }

// Fills the file system but for some KiB.
void leave_room(size_t kib) {
    struct statvfs room = {};
    ASSERT_EQ(statvfs(small_disk().c_str(), &room), 0);
    const size_t free_bytes = room.f_bavail * room.f_frsize;
    ASSERT_GE(free_bytes, kib * 1024);
    write_file(ballast(), std::string(free_bytes - kib * 1024, 'x'));
}

// Inserts rows until one is refused. Returns how many went in.
int fill_up(connection& c, const std::string& insert) {
    int accepted = 0;
    while (c.run(insert) == SQLITE_OK) ++accepted;
    return accepted;
}

class commit_on_a_full_disk : public testing::TestWithParam<commit_strength> {};
std::string name_of(const testing::TestParamInfo<commit_strength>& info) {
    return info.param == commit_strength::kill_safe ? "kill_safe" : "power_safe";
}
INSTANTIATE_TEST_SUITE_P(each, commit_on_a_full_disk,
                         testing::Values(commit_strength::kill_safe, commit_strength::power_safe),
                         name_of);

// With each amount of room (every fifth in the short form) rows go in until no more do. The
// table's first commit meets the full disk as well.
TEST_P(commit_on_a_full_disk, damages_nothing_and_takes_rows_again) {
    fault_vfs::install();
    ASSERT_EQ(register_commit_vfs(GetParam()), SQLITE_OK);
    setenv("COMMIT_FOLDER", small_disk().c_str(), 1);
    const std::string create =
        "CREATE TABLE IF NOT EXISTS log (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, text TEXT);";
    const std::string insert = "INSERT INTO log (text) VALUES ('" + std::string(2700, 'x') + "');";
    const std::string count = "SELECT count(*) FROM log;";
    const std::string check = "PRAGMA integrity_check;";
    const size_t step_of_levels = getenv("COMMIT_LONG") != nullptr ? 1 : 5;
    for (size_t level = 0; level < 200; level += step_of_levels) {
        remove_files();
        connection c;
        c.set_up();
        leave_room(level * 4);
        const bool has_table = c.run(create) == SQLITE_OK;
        const int accepted = fill_up(c, insert);
        ASSERT_TRUE(has_table || accepted == 0);
        ASSERT_TRUE(level < 20 || accepted > 0) << level;
        ASSERT_EQ(connection("unix").values(check), "ok\n") << level;

        std::filesystem::remove(ballast());
        ASSERT_EQ(c.run(create), SQLITE_OK) << level;
        ASSERT_EQ(c.values(count), std::to_string(accepted) + "\n") << level;
        ASSERT_EQ(c.run(insert), SQLITE_OK) << "with room again, level " << level;
        ASSERT_EQ(connection("unix").values(count), std::to_string(accepted + 1) + "\n");
        ASSERT_EQ(connection("unix").values(check), "ok\n") << level;
    }
}

// The process ended while it made the database longer, and the disk is full when the next one
// starts.
TEST_F(commit_files, extension_that_finds_no_room_any_more_is_taken_back) {
    setenv("COMMIT_FOLDER", small_disk().c_str(), 1);
    restore(states[0].bytes);
    in_child(
        [&] {
            connection c;
            c.set_up();
            end_at_write(database(), 1);
            (void)c.run(statement);
        },
        9);
    ASSERT_TRUE(has_record());
    leave_room(0);
    EXPECT_EQ(rows_through(nullptr), states[0].rows);
    EXPECT_FALSE(has_record());
    std::filesystem::remove(ballast());
    connection c;
    c.set_up();
    EXPECT_EQ(c.run(statement), SQLITE_OK);
    EXPECT_EQ(rows_through("unix"), states[1].rows);
}

}  // namespace
