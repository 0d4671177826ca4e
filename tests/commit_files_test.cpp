// The commit layer among other files and programs: roll-backs, hot journals, full disks, waiting
// and stale records, strange side files, and programs without the layer.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "commit_vfs.h"
#include "record.h"
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
    // Leaves a record: its process ends at the n-th write to the database.
    void leave_record(size_t n) {
        in_child(
            [&] {
                connection c;
                c.set_up();
                end_at_write(database(), n);
                (void)c.run(statement);
            },
            9);
        ASSERT_TRUE(has_record());
    }
    // Leaves a record beside a database of which some pages are written.
    void leave_half_applied() {
        leave_record(3);
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

// Statements that the daemon does not make, which SQLite carries out in ways of their own.
TEST_F(commit_files, other_statements_leave_the_bytes_that_they_leave_without_the_layer) {
    const std::string other = folder() + "/other.db";
    const std::string statements[] = {
        "DELETE FROM conn_server_log WHERE id < 5; VACUUM;",
        "PRAGMA page_size = 4096; VACUUM;",
        "PRAGMA page_size = 512; VACUUM;",
        "PRAGMA page_size = 65536; PRAGMA auto_vacuum = NONE; VACUUM;",
        "PRAGMA auto_vacuum = INCREMENTAL; DELETE FROM conn_server_log; PRAGMA incremental_vacuum;",
        "CREATE INDEX i ON conn_server_log (username); DROP INDEX i; REINDEX;",
        "CREATE TEMP TABLE t (a); BEGIN; INSERT INTO t SELECT outgoing FROM conn_server_log;" +
            std::string("INSERT INTO privilege_user_block (username) SELECT a FROM t; END;"),
        "ATTACH '" + other + "' AS o; BEGIN; CREATE TABLE o.t (a);" + insert_text(1, 900) +
            "INSERT INTO o.t SELECT outgoing FROM conn_server_log; END; DETACH o;",
        "PRAGMA journal_mode = MEMORY; PRAGMA cache_size = 10; BEGIN;" + insert_text(1, 900) +
            "SAVEPOINT s; DELETE FROM conn_server_log; ROLLBACK TO s; RELEASE s; END;",
        "PRAGMA user_version = 7; PRAGMA application_id = 9;",
    };
    for (const std::string& text : statements) {
        std::string bytes[2];
        for (const bool has_layer : {false, true}) {
            restore(states[0].bytes);
            std::filesystem::remove(other);
            {
                connection c(has_layer ? nullptr : "unix");
                c.set_up();
                ASSERT_EQ(c.run(text), SQLITE_OK) << text;
            }
            bytes[has_layer ? 1 : 0] = read_file(database()) + read_file(other);
        }
        EXPECT_TRUE(bytes[0] == bytes[1]) << text;
        EXPECT_EQ(rows_through("unix").rfind("damaged", 0), std::string::npos) << text;
    }
}

// --- Order --------------------------------------------------------------------------------------

// What a changing call is for, in a commit on a database that was so long.
std::string purpose(const step& s, size_t old_size) {
    const bool is_side = s.path == side_file();
    if (s.what == call::sync) return is_side ? "sync record" : "sync database";
    if (s.what != call::write) return "other";
    if (is_side) return s.bytes.size() > 8 ? "record" : "void";
    if (s.offset == 0) return "first page";
    return static_cast<size_t>(s.offset) < old_size ? "old pages" : "extension";
}

TEST_F(commit_files, commit_keeps_the_order_of_its_writes_and_syncs) {
    const std::pair<commit_strength, std::vector<std::string>> expected[] = {
        {commit_strength::kill_safe,
         {"record", "extension", "old pages", "first page", "void", "sync database"}},
        {commit_strength::power_safe,
         {"record", "sync record", "extension", "old pages", "first page", "sync database",
          "void"}},
    };
    for (const auto& [strength, purposes] : expected) {
        use(strength);
        restore(states[0].bytes);
        connection c;
        c.set_up();
        ASSERT_EQ(c.run(insert_text(1, 20)), SQLITE_OK);
        const size_t old_size = std::filesystem::file_size(database());
        std::vector<std::string> found;
        fault_vfs::before = [&](const step& s) {
            if (!fault_vfs::is_change(s)) return SQLITE_OK;
            const std::string what = purpose(s, old_size);
            if (found.empty() || found.back() != what) found.push_back(what);
            return SQLITE_OK;
        };
        EXPECT_EQ(c.run(insert_text(2, 1024)), SQLITE_OK);
        fault_vfs::before = nullptr;
        EXPECT_EQ(found, purposes);
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

// A mode that keeps its journal open closes it when the mode is left; from then on commits are the
// layer's again. A reader keeps the lock all the while.
TEST_F(commit_files, transaction_behind_a_journaled_one_is_held) {
    for (const std::string mode : {"DELETE", "TRUNCATE", "PERSIST"}) {
        restore(states[0].bytes);
        connection c;
        c.set_up();
        sqlite3_stmt* reader = nullptr;
        ASSERT_EQ(
            sqlite3_prepare_v2(c.handle(), "SELECT * FROM conn_server_log;", -1, &reader, nullptr),
            SQLITE_OK);
        ASSERT_EQ(sqlite3_step(reader), SQLITE_ROW);
        ASSERT_EQ(c.run("PRAGMA journal_mode = " + mode + ";" + insert_text(1, 20)), SQLITE_OK);
        ASSERT_EQ(c.run("PRAGMA journal_mode = OFF;"), SQLITE_OK);
        size_t records = 0;
        fault_vfs::before = [&records](const step& s) {
            if (s.what == call::write && s.path == side_file() && s.offset == 0) ++records;
            return SQLITE_OK;
        };
        ASSERT_EQ(c.run(insert_text(2, 20)), SQLITE_OK) << mode;
        fault_vfs::before = nullptr;
        EXPECT_EQ(records, 2U) << mode << ", one written, one voided";
        sqlite3_finalize(reader);
    }
}

// The commit behind a journaled one, under the same lock, names the database as that has left it.
TEST_F(commit_files, commit_under_the_lock_of_a_journaled_one_is_finished) {
    in_child(
        [&] {
            connection c;
            c.set_up();
            (void)c.run(insert_text(1, 20));
            sqlite3_stmt* reader = nullptr;
            (void)sqlite3_prepare_v2(c.handle(), "SELECT * FROM sqlite_master;", -1, &reader,
                                     nullptr);
            (void)sqlite3_step(reader);
            (void)c.run("PRAGMA journal_mode = DELETE;" + insert_text(2, 20) +
                        "PRAGMA journal_mode = OFF;");
            end_at_write(database(), 3);
            (void)c.run(insert_text(3, 1024));
        },
        9);
    ASSERT_TRUE(has_record());
    EXPECT_EQ(connection().values("SELECT count(*) FROM conn_server_log;"), "11\n");
    EXPECT_EQ(rows_through("unix").rfind("damaged", 0), std::string::npos);
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

// The disk is full, or fails, when the record is finished. Once an existing page may be written,
// nothing is taken back.
TEST_F(commit_files, record_that_cannot_be_finished_yet_is_kept) {
    for (const int failure : {SQLITE_FULL, SQLITE_IOERR_WRITE}) {
        for (size_t n = 1; n <= 3; ++n) {  // the extension, the old pages, the first page
            restore(states[0].bytes);
            leave_record(n);
            fault_vfs::before = [failure](const step& s) {
                return s.what == call::write && s.path == database() ? failure : SQLITE_OK;
            };
            const std::string found = rows_through(nullptr);
            fault_vfs::before = nullptr;
            EXPECT_EQ(has_record(), n > 1) << n;
            EXPECT_EQ(found == states[0].rows, n == 1) << n << found;
            EXPECT_EQ(rows_through(nullptr), states[n == 1 ? 0 : 1].rows) << n;
        }
    }
}

// Nor is a record voided while the database is longer than it was.
TEST_F(commit_files, first_commit_that_cannot_be_taken_back_is_finished) {
    restore("");
    std::filesystem::remove(database());
    {
        connection c;
        fault_vfs::before = [](const step& s) {
            const bool fails = s.path == database() && (s.what == call::truncate ||
                                                        (s.what == call::write && s.offset == 0));
            return fails ? SQLITE_IOERR : SQLITE_OK;
        };
        EXPECT_NE(c.run("PRAGMA journal_mode = OFF; CREATE TABLE t (a);"), SQLITE_OK);
        fault_vfs::before = nullptr;
    }
    EXPECT_EQ(rows_through(nullptr).rfind("damaged", 0), std::string::npos);
    EXPECT_EQ(connection("unix").run("CREATE TABLE IF NOT EXISTS t (a);"), SQLITE_OK);
}

// The roll-back of a pager that journals in memory syncs, and so tries the failed commit once more,
// over the record of the first attempt.
TEST_F(commit_files, commit_that_failed_is_whole_wherever_the_process_ends_in_its_rollback) {
    const std::string update = "UPDATE conn_server_log SET outgoing = upper(outgoing);";
    {
        connection plain("unix");
        ASSERT_EQ(plain.run(update), SQLITE_OK);
    }
    const std::string after = rows_through("unix");
    int status = 9;
    for (size_t n = 1; status == 9; ++n) {
        restore(states[0].bytes);
        const pid_t child = fork();
        if (child == 0) {
            connection c;
            c.set_up();
            (void)c.run("PRAGMA journal_mode = MEMORY;");
            fault_vfs::before = [n, changes = size_t{0},
                                 has_failed = false](const step& s) mutable {
                if (has_failed && fault_vfs::is_change(s) && ++changes == n) {
                    if (s.write_part) s.write_part(s.bytes.size() / 2);
                    _exit(9);
                }
                const bool fails =
                    !has_failed && s.what == call::write && s.path == database() && s.offset == 0;
                has_failed = has_failed || fails;
                return fails ? SQLITE_IOERR_WRITE : SQLITE_OK;
            };
            _exit(c.run(update) == SQLITE_OK ? 1 : 0);
        }
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        status = WEXITSTATUS(status);
        const std::string found = rows_through(nullptr);
        EXPECT_TRUE(found == states[0].rows || found == after) << n << ": " << found.substr(0, 200);
    }
    EXPECT_EQ(status, 0);
}

TEST_F(commit_files, record_of_another_process_is_voided_by_one_whose_own_never_fitted) {
    connection c;
    ASSERT_EQ(c.run("PRAGMA journal_mode = OFF;"), SQLITE_OK);
    fault_vfs::before = [](const step& s) {
        return s.what == call::write && s.path == side_file() ? SQLITE_FULL : SQLITE_OK;
    };
    EXPECT_EQ(c.run(insert_text(1, 20)), SQLITE_FULL);
    fault_vfs::before = nullptr;
    leave_half_applied();
    EXPECT_EQ(c.values("SELECT count(*) FROM conn_server_log;"), "9\n");
    EXPECT_FALSE(has_record());
}

// As many pages as a record can name, behind which there is nothing but a hole.
TEST_F(commit_files, vast_side_file_is_no_record) {
    leave_record(1);
    commit_vfs::record_header header;
    std::string record = read_file(side_file());
    memcpy(&header, record.data(), sizeof header);
    header.page_count = UINT32_MAX;
    header.old_size = header.new_size = INT64_MAX;
    memcpy(record.data(), &header, sizeof header);
    write_file(side_file(), record);
    std::filesystem::resize_file(side_file(), uintmax_t{40} << 30);
    EXPECT_EQ(rows_through(nullptr), states[0].rows);
    EXPECT_FALSE(has_record());
}

// Each byte of a record changed: it is dropped, or was one that does not matter. The database is
// half applied, so a dropped record shows.
TEST_F(commit_files, record_with_any_byte_changed_is_never_applied) {
    leave_record(1);
    const std::string bytes = read_file(database());
    const std::string record = read_file(side_file());
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
        [&] { std::filesystem::create_hard_link(database(), side_file()); },
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

TEST_F(commit_files, side_file_that_is_not_its_own_makes_way_for_a_new_one) {
    const std::string other = folder() + "/other";
    for (const mode_t mode : {0600U, 0400U}) {  // with a second name; may not be written
        restore(states[0].bytes);
        write_file(other, "precious");
        ASSERT_EQ(chmod(other.c_str(), mode), 0);
        if (mode == 0600U) std::filesystem::create_hard_link(other, side_file());
        if (mode == 0400U) std::filesystem::rename(other, side_file());
        connection c;
        c.set_up();
        EXPECT_EQ(c.run(statement), SQLITE_OK);
        EXPECT_EQ(rows_through("unix"), states[1].rows);
        EXPECT_EQ(read_file(other), mode == 0600U ? "precious" : "");
        std::filesystem::remove(other);
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

TEST_F(commit_files, program_without_the_layer_never_sees_a_commit_in_parts) {
    const pid_t reader = fork();
    if (reader == 0) {
        for (int n = 0; n < 50; ++n) {
            if (rows_through("unix").rfind("damaged", 0) == 0) _exit(1);
        }
        _exit(0);
    }
    connection daemon;
    daemon.set_up();
    (void)sqlite3_busy_timeout(daemon.handle(), 5000);
    int status = 0;
    for (int n = 0; waitpid(reader, &status, WNOHANG) == 0; ++n) {
        const std::string text =
            n % 20 == 19 ? "DELETE FROM conn_server_log;" : insert_text(n, n % 2 == 0 ? 20 : 1024);
        ASSERT_EQ(daemon.run(text), SQLITE_OK);
    }
    EXPECT_EQ(status, 0);
}

// A process loses its locks on a file when it closes any descriptor of it.
TEST_F(commit_files, lock_outlives_the_other_connections_of_its_process) {
    connection writer;
    writer.set_up();
    ASSERT_EQ(writer.run(insert_text(1, 20) + "BEGIN EXCLUSIVE;"), SQLITE_OK);
    {
        connection other;
        EXPECT_EQ(other.run("SELECT * FROM sqlite_master;"), SQLITE_BUSY);
    }
    std::filesystem::remove(side_file());
    ASSERT_EQ(writer.run(insert_text(2, 20)), SQLITE_OK);
    in_child([] { _exit(connection("unix").run(insert_text(3, 20)) == SQLITE_BUSY ? 0 : 1); });
    EXPECT_EQ(writer.run("END;"), SQLITE_OK);
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

// Fills the file system but for some KiB, or a little less: a disk needs room for its own notes.
void leave_room(size_t kib) {
    struct statvfs room = {};
    ASSERT_EQ(statvfs(small_disk().c_str(), &room), 0);
    const size_t free_bytes = room.f_bavail * room.f_frsize;
    ASSERT_GE(free_bytes, kib * 1024);
    std::ofstream(ballast()) << std::string(free_bytes - kib * 1024, 'x');
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
    leave_record(1);
    leave_room(0);
    EXPECT_EQ(rows_through(nullptr), states[0].rows);
    EXPECT_FALSE(has_record());
    std::filesystem::remove(ballast());
    connection c;
    c.set_up();
    EXPECT_EQ(c.run(statement), SQLITE_OK);
    EXPECT_EQ(rows_through("unix"), states[1].rows);
}

// --- A limit of the size of files ---------------------------------------------------------------

TEST_F(commit_files, limit_of_file_sizes_fails_the_commit_and_ends_nothing) {
    const auto limit_to_database = [&] {
        const rlimit limit = {states[0].bytes.size(), RLIM_INFINITY};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(1);
    };
    in_child([&] {
        limit_to_database();
        connection c;
        c.set_up();
        if (c.run(statement) != SQLITE_IOERR) _exit(2);
    });
    EXPECT_EQ(rows_through(nullptr), states[0].rows);
    leave_record(1);
    in_child([&] {
        limit_to_database();
        if (rows_through(nullptr) != states[0].rows) _exit(3);
    });
    EXPECT_FALSE(has_record());
    connection c;
    c.set_up();
    EXPECT_EQ(c.run(statement), SQLITE_OK);
    EXPECT_EQ(rows_through("unix"), states[1].rows);
}

}  // namespace
