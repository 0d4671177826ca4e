// ravo-dbcheck among files: what it touches, what it keeps, and when it refuses.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include "record.h"
#include "repair.h"
#include "support/dbcheck.h"
#include "support/kill_at.h"

namespace {
using namespace dbcheck;
namespace fs = std::filesystem;

constexpr char folder[] = "/etc/config/ravo";
constexpr char kept_start[] = "ravo.db-damaged-";
constexpr size_t server_root = 4096;  // where the first page of the first table begins

// A database in which a table's first page is none any more, but all rows are there.
std::string damaged_database() {
    std::string image = mixed_database();
    image[server_root] = 0;
    set_image(image);
    return image;
}

// The one damaged file that was kept; its side files have longer names.
std::string kept_file() {
    const std::set<std::string> names = names_beside();
    const auto first = names.lower_bound(kept_start);
    EXPECT_NE(first, names.end());
    return first == names.end() ? "" : std::string(folder) + "/" + *first;
}

void expect_line(const result& done, int status, const std::string& words) {
    EXPECT_EQ(done.status, status) << done.line;
    EXPECT_EQ(done.line, "ravo-dbcheck: /etc/config/ravo/ravo.db: " + words + "\n");
}

// --- Nothing to do ------------------------------------------------------------------------------

TEST(dbcheck_files, sound_database_is_not_touched) {
    const std::string image = mixed_database();
    const auto written = fs::last_write_time(db_path);
    expect_line(check(), 0, "sound");
    EXPECT_EQ(read_file(db_path), image);
    EXPECT_EQ(fs::last_write_time(db_path), written);
    EXPECT_TRUE(names_beside().empty());
}

TEST(dbcheck_files, missing_database_is_left_to_the_daemon) {
    expect_line(check(), 0, "not there yet");
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST(dbcheck_files, link_to_nothing_is_a_missing_database) {
    fs::create_symlink("/tmp/nowhere.db", db_path);
    expect_line(check(), 0, "not there yet");
}

TEST(dbcheck_files, empty_database_is_left_to_the_daemon) {
    write_file(db_path, "");
    expect_line(check(), 0, "empty, as a new one");
    EXPECT_TRUE(names_beside().empty());
}

TEST(dbcheck_files, leftover_that_stays_is_in_nobodys_way) {
    (void)mixed_database();
    fs::create_directory(std::string(db_path) + "-salvage");
    expect_line(check(), 0, "sound");
}

TEST(dbcheck_files, arguments_are_refused) {
    EXPECT_EQ(run_process({DBCHECK, "x"}, {.output = "/tmp/out"}), 1);
    EXPECT_EQ(run_process({DBCHECK, "--help"}, {.output = "/tmp/out"}), 0);
    EXPECT_TRUE(read_file("/tmp/out").starts_with("usage: ravo-dbcheck"));
}

// A writer that journals has been killed in the middle of a transaction.
TEST(dbcheck_files, hot_journal_is_rolled_back_first) {
    (void)mixed_database();
    const row_map before = read_rows();
    sqlite3* db = nullptr;
    sqlite3_open(db_path, &db);
    ASSERT_EQ(sqlite3_exec(db, "PRAGMA cache_size = 1; BEGIN; DELETE FROM conn_server_log;",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    const std::string image = read_file(db_path);
    const std::string journal = read_file(std::string(db_path) + "-journal");
    sqlite3_close(db);
    set_image(image);
    write_file(std::string(db_path) + "-journal", journal);
    expect_line(check(), 0, "sound");
    EXPECT_EQ(read_rows(), before);
    EXPECT_TRUE(names_beside().empty());
}

// --- A damaged database -------------------------------------------------------------------------

// Damages the database as it is now in the first page of a table, which has no rows behind it.
std::string damage_first_table() {
    std::string image = read_file(db_path);
    image[server_root] = 0;
    set_image(image);
    return image;
}

TEST(dbcheck_files, line_tells_what_was_found_saved_and_not_saved) {
    (void)damaged_database();
    const result done = check();
    EXPECT_EQ(done.status, 0);
    EXPECT_TRUE(done.line.starts_with("ravo-dbcheck: /etc/config/ravo/ravo.db: damaged ("))
        << done.line;
    EXPECT_TRUE(done.line.ends_with(
        "); saved 60 rows of conn_server_log, 60 rows of conn_client_log, 53 rows of "
        "privilege_user_block; not saved: 0 broken rows, 1 unreadable page; the damaged file is " +
        kept_file() + "\n"))
        << done.line;
}

TEST(dbcheck_files, damaged_file_is_kept_as_it_was) {
    const std::string image = damaged_database();
    const auto written = fs::last_write_time(db_path);
    EXPECT_EQ(check().status, 0);
    EXPECT_EQ(read_file(kept_file()), image);
    EXPECT_EQ(fs::last_write_time(kept_file()), written);
}

TEST(dbcheck_files, new_database_has_the_prescribed_texts_and_properties) {
    (void)damaged_database();
    EXPECT_EQ(check().status, 0);
    const auto text_of = [](const std::string& path) {
        return ask(
            "SELECT group_concat(name || '=' || sql, ';') FROM (SELECT * FROM sqlite_master "
            "WHERE type = 'table' AND name NOT LIKE 'sqlite%' ORDER BY name)",
            path);
    };
    const std::string made = text_of(db_path);
    EXPECT_EQ(ask("PRAGMA page_size"), "2048");
    EXPECT_EQ(ask("PRAGMA auto_vacuum"), "1");
    fs::remove(db_path);
    open_store();
    EXPECT_EQ(made, text_of(db_path));
}

TEST(dbcheck_files, new_database_has_the_mode_of_the_damaged_one) {
    (void)damaged_database();
    chmod(db_path, 0640);
    EXPECT_EQ(check().status, 0);
    EXPECT_EQ(fs::status(db_path).permissions(), fs::perms(0640));
}

TEST(dbcheck_files, ids_go_on_behind_the_last_one_ever_given) {
    (void)mixed_database();
    ASSERT_EQ(run_sql("DELETE FROM conn_server_log WHERE id > 50; DELETE FROM conn_client_log"),
              SQLITE_OK);
    std::string image = read_file(db_path);
    image[server_root] = 0;
    set_image(image);
    EXPECT_EQ(check().status, 0);
    EXPECT_EQ(ask("SELECT seq FROM sqlite_sequence WHERE name = 'conn_server_log'"), "60");
    EXPECT_EQ(ask("SELECT seq FROM sqlite_sequence WHERE name = 'conn_client_log'"), "60");
}

TEST(dbcheck_files, id_behind_which_there_is_none_is_given_anew) {
    (void)mixed_database();
    ASSERT_EQ(run_sql("INSERT INTO privilege_user_block (id, username) VALUES (-5, 'before'), "
                      "(9223372036854775807, 'last')"),
              SQLITE_OK);
    (void)damage_first_table();
    EXPECT_EQ(check().status, 0);
    EXPECT_EQ(ask("SELECT id FROM privilege_user_block WHERE username = 'before'"), "-5");
    EXPECT_EQ(ask("SELECT id FROM privilege_user_block WHERE username = 'last'"), "54");
    EXPECT_EQ(run_sql("INSERT INTO privilege_user_block (username) VALUES ('next')"), SQLITE_OK);
}

const std::string notes_like_blocks =
    "CREATE TABLE notes (id INTEGER PRIMARY KEY, a TEXT, b INTEGER, c INTEGER);"
    "WITH RECURSIVE n(i) AS (SELECT 100 UNION ALL SELECT i + 1 FROM n WHERE i < 300) "
    "INSERT INTO notes SELECT i, 'note ' || i, i, i FROM n;";

TEST(dbcheck_files, rows_of_another_table_are_not_taken) {
    (void)mixed_database();
    const row_map rows = read_rows();
    ASSERT_EQ(run_sql(notes_like_blocks), SQLITE_OK);
    (void)damage_first_table();
    EXPECT_EQ(check().status, 0);
    EXPECT_EQ(read_rows(), rows);
}

// Nobody can tell the rows of a table whose name is lost from those of another one.
TEST(dbcheck_files, rows_of_a_table_without_its_name_are_taken) {
    (void)mixed_database();
    const row_map rows = read_rows();
    std::string image = read_file(db_path);
    const std::string name = "privilege_user_block";
    for (size_t at = image.find(name); at != std::string::npos; at = image.find(name)) {
        image[at] = 'q';
    }
    set_image(image);
    (void)damage_first_table();
    EXPECT_EQ(check().status, 0);
    EXPECT_EQ(read_rows(), rows);
}

TEST(dbcheck_files, values_of_every_kind_come_back) {
    (void)mixed_database();
    ASSERT_EQ(run_sql("INSERT INTO conn_server_log (username, uptime, time, tx_rate, rx_rate, "
                      "action) VALUES ('', 18446744073709551615, -9223372036854775808, "
                      "9223372036854775807, -1, 0), ('\xff\xfe', 128, 32768, 8388608, 2147483648, "
                      "140737488355328), (NULL, 1, -129, -32769, -8388609, -140737488355329)"),
              SQLITE_OK);
    const row_map rows = read_rows();
    std::string image = read_file(db_path);
    image[server_root] = 0;
    EXPECT_TRUE(was_damaged(repair(image)));
    EXPECT_EQ(read_rows(), rows);
}

TEST(dbcheck_files, other_page_size_is_read) {
    write_file(db_path, "");
    ASSERT_EQ(run_sql("PRAGMA page_size = 4096; PRAGMA auto_vacuum = NONE; VACUUM;"), SQLITE_OK);
    (void)mixed_database();
    ASSERT_EQ(ask("PRAGMA page_size"), "4096");
    const row_map rows = read_rows();
    std::string image = read_file(db_path);
    image[4096] = 0;
    EXPECT_TRUE(was_damaged(repair(image)));
    EXPECT_EQ(read_rows(), rows);
    EXPECT_EQ(ask("PRAGMA page_size"), "2048");
}

TEST(dbcheck_files, file_that_is_no_database_is_set_aside) {
    for (const std::string text : {"x", "not a database\n"}) {
        const result done = repair(text + std::string(5000, '\n'));
        EXPECT_TRUE(was_damaged(done)) << done.line;
        EXPECT_TRUE(read_rows().empty());
        EXPECT_EQ(read_file(kept_file()), text + std::string(5000, '\n'));
    }
}

TEST(dbcheck_files, side_files_of_the_damaged_file_go_along) {
    (void)damaged_database();
    write_file(std::string(db_path) + "-journal", "");  // SQLite takes it for none, and leaves it
    write_file(std::string(db_path) + "-commit", "x");
    EXPECT_EQ(check().status, 0);
    EXPECT_EQ(names_beside().size(), 3U);
    EXPECT_EQ(read_file(kept_file() + "-journal"), "");
    EXPECT_EQ(read_file(kept_file() + "-commit"), "x");
}

// SQLite brings a log into the file when it can open that.
TEST(dbcheck_files, write_ahead_log_is_read_or_told_of) {
    (void)mixed_database();
    sqlite3* db = nullptr;
    sqlite3_open(db_path, &db);
    ASSERT_EQ(sqlite3_exec(db,
                           "PRAGMA journal_mode = WAL; PRAGMA wal_autocheckpoint = 0; INSERT INTO "
                           "privilege_user_block (username) VALUES ('in the log')",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    const std::string log_suffix = "-wal";
    const std::string image = read_file(db_path);
    const std::string log = read_file(db_path + log_suffix);
    sqlite3_close(db);
    for (const bool is_header_lost : {false, true}) {
        SCOPED_TRACE(is_header_lost);
        std::string damaged = image;
        damaged.replace(is_header_lost ? 0 : server_root, 100, 100, 0);
        set_image(damaged);
        write_file(db_path + log_suffix, log);
        const result done = check();
        EXPECT_TRUE(was_damaged(done)) << done.line;
        EXPECT_EQ(done.line.find("; its write-ahead log was not read;") != std::string::npos,
                  is_header_lost)
            << done.line;
        EXPECT_EQ(read_rows().size(), is_header_lost ? 173U : 174U);
    }
}

TEST(dbcheck_files, linked_database_is_repaired_where_it_is) {
    const std::string image = damaged_database();
    fs::remove(db_path);
    fs::create_directory("/tmp/volume");
    write_file("/tmp/volume/real.db", image);
    fs::create_symlink("/tmp/volume/real.db", db_path);
    EXPECT_EQ(check().status, 0);
    EXPECT_TRUE(fs::is_symlink(db_path));
    EXPECT_TRUE(names_beside().empty());
    EXPECT_EQ(names_beside("/tmp/volume/real.db").size(), 1U);
    EXPECT_EQ(integrity("/tmp/volume/real.db"), "ok");
    EXPECT_EQ(read_rows().size(), 173U);
}

TEST(dbcheck_files, three_damaged_files_are_kept_at_most) {
    (void)damaged_database();
    for (const char* year : {"2020", "2023", "2021", "2022"}) {
        const std::string kept = std::string(folder) + "/" + kept_start + year + "0101T000000Z";
        write_file(kept, year);
        write_file(kept + "-commit", year);
    }
    EXPECT_EQ(check().status, 0);
    const std::set<std::string> names = names_beside();
    EXPECT_EQ(names.size(), 5U);
    for (const std::string year : {"2022", "2023"}) {
        EXPECT_TRUE(names.contains(kept_start + year + "0101T000000Z")) << year;
        EXPECT_TRUE(names.contains(kept_start + year + "0101T000000Z-commit")) << year;
    }
}

TEST(dbcheck_files, damaged_file_of_a_clock_set_back_is_kept) {
    const std::string image = damaged_database();
    for (const char* year : {"2120", "2121", "2122"}) {
        write_file(std::string(folder) + "/" + kept_start + year + "0101T000000Z", year);
    }
    EXPECT_EQ(check().status, 0);
    const std::set<std::string> names = names_beside();
    EXPECT_EQ(names.size(), 3U);
    const std::string last = *names.rbegin();
    EXPECT_EQ(last, kept_start + std::string("21220101T000001Z"));
    EXPECT_EQ(read_file(std::string(folder) + "/" + last), image);
}

TEST(dbcheck_files, link_with_the_name_of_a_kept_file_is_none) {
    const std::string image = damaged_database();
    const std::string link = std::string(folder) + "/" + kept_start + "20200101T000000Z";
    fs::create_symlink(db_path, link);
    EXPECT_EQ(check().status, 0);
    EXPECT_EQ(names_beside().size(), 2U);
    fs::remove(link);
    EXPECT_EQ(read_file(kept_file()), image);
}

TEST(dbcheck_files, file_that_a_person_has_named_is_not_removed) {
    (void)damaged_database();
    const std::string named = std::string(folder) + "/" + kept_start + "copy_for_support";
    write_file(named, "");
    for (const char* year : {"2020", "2021", "2022"}) {
        write_file(std::string(folder) + "/" + kept_start + year + "0101T000000Z", year);
    }
    EXPECT_EQ(check().status, 0);
    EXPECT_TRUE(fs::exists(named));
    EXPECT_EQ(names_beside().size(), 4U);
}

TEST(dbcheck_files, names_in_the_damaged_file_leave_the_line_one_line) {
    (void)mixed_database();
    ASSERT_EQ(
        run_sql("PRAGMA writable_schema = 1; UPDATE sqlite_master SET sql = 'CREATE TABLE x', "
                "name = char(10, 27) || printf('%.*c', 999, 'x') WHERE name = "
                "'conn_client_log'"),
        SQLITE_OK);
    const result done = check();
    EXPECT_TRUE(done.line.find("malformed database schema (??xxx") != std::string::npos)
        << done.line;
    EXPECT_EQ(count_of(done.line, "\n"), 1U);
    EXPECT_LT(done.line.size(), 600U);
    EXPECT_EQ(read_rows().size(), 173U);
}

const std::string many_rows =
    "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000) INSERT INTO "
    "conn_client_log (username) SELECT 'client' FROM n";

TEST(dbcheck_files, salvage_that_takes_too_long_ends_with_what_it_has) {
    (void)mixed_database();
    ASSERT_EQ(run_sql(many_rows), SQLITE_OK);
    std::string image = read_file(db_path);
    image[server_root] = 0;
    set_image(image);
    const outcome done = check_and_repair(db_path, std::chrono::milliseconds(0));
    EXPECT_EQ(done.status, exit_status::may_start);
    EXPECT_NE(done.line.find("the time was over, and the rest was not read"), std::string::npos)
        << done.line;
    EXPECT_EQ(integrity(), "ok");
    EXPECT_EQ(read_file(kept_file()), image);
}

// Pages of cells that are all one cell, whose megabyte goes round in the last page.
TEST(dbcheck_files, rows_that_take_too_long_end_in_time) {
    std::string page(2048, '\0');
    page[0] = 0x0d;
    const size_t cell = 1800, cells = (cell - 8) / 2;
    const auto put = [&](size_t at, uint64_t number, size_t size) {
        for (size_t n = 0; n < size; ++n) {
            page[at + n] = static_cast<char>(number >> 8 * (size - 1 - n));
        }
    };
    put(3, cells, 2);
    for (size_t n = 0; n < cells; ++n) put(8 + 2 * n, cell, 2);
    const size_t payload = 512 * 2044 + 232;  // of which 232 bytes are in the cell
    put(cell,
        0x800000 | (payload >> 14) << 16 | 0x8000 | (payload >> 7 & 0x7fU) << 8 | (payload & 0x7fU),
        3);
    page[cell + 3] = 1;
    const int pages = 100;
    put(cell + 4 + 232, pages, 4);
    std::string image;
    for (int n = 1; n < pages; ++n) image += page;
    image += std::string("\0\0\0", 3) + static_cast<char>(pages) + std::string(2044, 'x');
    set_image(image);
    const auto start = std::chrono::steady_clock::now();
    const outcome done = check_and_repair(db_path, std::chrono::milliseconds(50));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_NE(done.line.find("the time was over"), std::string::npos) << done.line;
    EXPECT_EQ(read_file(kept_file()), image);
}

TEST(dbcheck_files, check_that_takes_too_long_lets_the_daemon_start) {
    (void)mixed_database();
    ASSERT_EQ(run_sql(many_rows), SQLITE_OK);
    const std::string image = read_file(db_path);
    const outcome done = check_and_repair(db_path, std::chrono::milliseconds(0));
    EXPECT_EQ(done.status, exit_status::may_start);
    EXPECT_EQ(done.line, std::string(db_path) + ": no damage found, but not all of it was read");
    EXPECT_EQ(read_file(db_path), image);
}

// --- Refusals -----------------------------------------------------------------------------------

TEST(dbcheck_files, what_is_no_file_is_refused) {
    fs::create_directory(db_path);
    expect_line(check(), 2, "not a regular file");
    fs::remove(db_path);
    ASSERT_EQ(mkfifo(db_path, 0600), 0);
    expect_line(check(), 2, "not a regular file");
    fs::remove(db_path);
    fs::create_symlink(db_path, db_path);
    expect_line(check(), 2, "Too many levels of symbolic links");
}

// SQLite would wait for ever for somebody at the other end of a pipe.
TEST(dbcheck_files, side_file_that_is_no_file_is_refused) {
    const std::string image = damaged_database();
    for (const std::string suffix : {"-journal", "-wal", "-shm", "-commit"}) {
        const std::string path = db_path + suffix;
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        expect_line(check(), 2, path + " is not a regular file");
        fs::remove(path);
        fs::create_symlink("/tmp/elsewhere", path);
        expect_line(check(), 2, path + " is not a regular file");
        fs::remove(path);
    }
    EXPECT_EQ(read_file(db_path), image);
}

TEST(dbcheck_files, leftover_that_stays_keeps_a_damaged_file) {
    const std::string image = damaged_database();
    const std::string leftover = std::string(db_path) + "-salvage";
    fs::create_directory(leftover);
    const result done = check();
    EXPECT_EQ(done.status, 4);
    EXPECT_TRUE(done.line.ends_with("; " + leftover + ": Is a directory\n")) << done.line;
    EXPECT_EQ(read_file(db_path), image);
}

TEST(dbcheck_files, file_that_may_not_grow_is_as_a_full_disk) {
    const std::string image = damaged_database();
    const std::string limited = std::string("ulimit -f 8; exec ") + DBCHECK;
    EXPECT_EQ(run_process({"/bin/bash", "-c", limited}, {.output = "/tmp/out"}), 4)
        << read_file("/tmp/out");
    EXPECT_EQ(read_file(db_path), image);
    EXPECT_TRUE(names_beside().empty());
}

TEST(dbcheck_files, file_without_the_right_to_write_is_refused) {
    const std::string image = damaged_database();
    for (const mode_t mode : {0U, 0400U, 0200U}) {
        chmod(db_path, mode);
        expect_line(check(), 2, "Permission denied");
    }
    chmod(db_path, 0600);
    EXPECT_EQ(read_file(db_path), image);
    EXPECT_TRUE(names_beside().empty());
}

TEST(dbcheck_files, folder_without_the_right_to_write_keeps_a_damaged_file) {
    const std::string image = damaged_database();
    chmod(folder, 0500);
    const result done = check();
    chmod(folder, 0700);
    EXPECT_EQ(done.status, 4) << done.line;
    EXPECT_EQ(read_file(db_path), image);
    EXPECT_TRUE(names_beside().empty());
}

TEST(dbcheck_files, locked_database_is_refused) {
    for (const char* lock : {"BEGIN EXCLUSIVE", "BEGIN; SELECT * FROM sqlite_master"}) {
        (void)mixed_database();
        sqlite3* db = nullptr;
        sqlite3_open(db_path, &db);
        ASSERT_EQ(sqlite3_exec(db, lock, nullptr, nullptr, nullptr), SQLITE_OK);
        expect_line(check(), 3, "in use by another program");
        sqlite3_close(db);
    }
}

// It would go on writing to the file that is set aside.
TEST(dbcheck_files, damaged_database_that_a_daemon_has_open_is_refused) {
    (void)mixed_database();
    open_store();
    expect_line(check(), 0, "sound");
    const std::string sound = read_file(db_path);
    const int fd = open(db_path, O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(pwrite(fd, "", 1, server_root), 1);
    close(fd);
    const result done = check();
    EXPECT_EQ(done.status, 3);
    EXPECT_TRUE(done.line.ends_with("; another program has it open\n")) << done.line;
    EXPECT_TRUE(names_beside().empty());
    close_store();
    EXPECT_EQ(check().status, 0);
}

// SQLite meets the damage before it asks for the lock.
TEST(dbcheck_files, damaged_database_that_somebody_reads_is_refused) {
    const std::string image = "no database" + std::string(5000, '\n');
    set_image(image);
    const int fd = open(db_path, O_RDONLY);
    struct flock reading = {};
    reading.l_type = F_RDLCK;
    reading.l_start = 0x40000002;
    reading.l_len = 510;
    ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &reading), 0);
    expect_line(check(), 3, "damaged (file is not a database); in use by another program");
    close(fd);
    EXPECT_EQ(read_file(db_path), image);
    EXPECT_TRUE(names_beside().empty());
}

TEST(dbcheck_files, second_run_at_the_same_time_is_refused) {
    const std::string image = damaged_database();
    const int fd = open(folder, O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    expect_line(check(), 3, "another check is at work");
    close(fd);
    EXPECT_EQ(read_file(db_path), image);
    EXPECT_EQ(check().status, 0);
}

TEST(dbcheck_files, of_many_runs_at_the_same_time_one_repairs) {
    const std::string image = damaged_database();
    const std::string many = std::string("for n in {1..8}; do { ") + DBCHECK +
                             " >/tmp/run.$n; echo $? >>/tmp/run.$n; } & done; wait";
    EXPECT_EQ(run_process({"/bin/bash", "-c", many}, {}), 0);
    size_t repaired = 0;
    for (int n = 1; n <= 8; ++n) {
        const std::string told = read_file("/tmp/run." + std::to_string(n));
        SCOPED_TRACE(told);
        if (told.find("the damaged file is") != std::string::npos) {
            ++repaired;
            continue;
        }
        EXPECT_TRUE(told.ends_with("another check is at work\n3\n") ||
                    told.ends_with("sound\n0\n"));
    }
    EXPECT_EQ(repaired, 1U);
    EXPECT_EQ(read_file(kept_file()), image);
    EXPECT_EQ(read_rows().size(), 173U);
}

// --- Rows ---------------------------------------------------------------------------------------

struct record_case {
    const char* what;
    std::string payload;
    bool is_record;
    bool is_row;  // of an id, a number and a text
};

std::string bytes_from(std::initializer_list<int> list) { return {list.begin(), list.end()}; }

TEST(dbcheck_record, is_a_row_only_when_it_is_whole_and_of_the_right_kinds) {
    const record_case cases[] = {
        {"row", bytes_from({4, 0, 1, 15, 7, 'x'}), true, true},
        {"no number", bytes_from({4, 0, 0, 15, 'x'}), true, true},
        {"large number", bytes_from({4, 0, 7, 15, 0x43, 0xf0, 0, 0, 0, 0, 0, 0, 'x'}), true, true},
        {"byte too many", bytes_from({4, 0, 1, 15, 7, 'x', 'y'}), false, false},
        {"byte too few", bytes_from({4, 0, 1, 15, 7}), false, false},
        {"nothing", "", false, false},
        {"head that takes no room", bytes_from({0, 0, 1, 15, 7, 'x'}), false, false},
        {"head behind the end", bytes_from({9, 0, 1, 15, 7, 'x'}), false, false},
        {"head that ends in a type", bytes_from({4, 0, 1, 0x81, 7, 'x'}), false, false},
        {"type that there is none of", bytes_from({4, 0, 10, 15, 'x'}), false, false},
        {"column too few", bytes_from({3, 0, 1, 7}), true, false},
        {"column too many", bytes_from({5, 0, 1, 15, 0, 7, 'x'}), true, false},
        {"id in the record", bytes_from({4, 1, 1, 15, 7, 7, 'x'}), true, false},
        {"text for a number", bytes_from({4, 0, 15, 15, 'x', 'x'}), true, false},
        {"number for a text", bytes_from({4, 0, 1, 1, 7, 7}), true, false},
        {"blob for a text", bytes_from({4, 0, 1, 14, 7, 'x'}), true, false},
        {"zero in a text", bytes_from({4, 0, 1, 15, 7, 0}), true, false},
    };
    const column_kind columns[] = {column_kind::row_id, column_kind::integer, column_kind::text};
    for (const record_case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<value> values;
        const byte_view payload(reinterpret_cast<const uint8_t*>(c.payload.data()),
                                c.payload.size());
        EXPECT_EQ(parse_record(payload, values), c.is_record);
        if (c.is_record) {
            EXPECT_EQ(fits(values, columns), c.is_row);
        }
    }
}

// --- Cut and full -------------------------------------------------------------------------------

// A small one, so that each of its runs is short.
std::string small_damaged_database() {
    open_store();
    for (int number = 1; number <= 40; ++number) insert_server_row(number);
    insert_client_row(1);
    close_store();
    std::string image = read_file(db_path);
    image[server_root] = 0;
    return image;
}

TEST(dbcheck_cut, run_that_is_killed_at_any_change_loses_nothing) {
    const std::string image = small_damaged_database();
    const row_map rows = read_rows();
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // which cannot look for them while traced
    int n = 0;
    bool is_killed = true;
    while (is_killed) {
        SCOPED_TRACE("killed at change " + std::to_string(++n));
        set_image(image);
        write_file(std::string(db_path) + "-commit", "side");
        is_killed = kill_at_change({DBCHECK}, n);
        EXPECT_TRUE(read_file(db_path) == image || read_rows() == rows);
        EXPECT_EQ(check().status, 0);
        EXPECT_EQ(read_rows(), rows);
        EXPECT_EQ(read_file(kept_file()), image);
        EXPECT_EQ(read_file(kept_file() + "-commit"), "side");
        EXPECT_EQ(names_beside().size(), 2U);
    }
    EXPECT_GT(n, 20);
}

TEST(dbcheck_cut, full_disk_leaves_everything_where_it_was) {
    const std::string image = small_damaged_database();
    const row_map rows = read_rows();
    fs::remove(db_path);
    fs::create_symlink("/small/ravo.db", db_path);
    int status = 4, levels = 0;
    for (size_t spare = 0; status == 4; spare += 4096, ++levels) {
        SCOPED_TRACE(std::to_string(spare) + " bytes left");
        fs::remove("/small/filler");
        set_image(image, "/small/ravo.db");
        write_file("/small/filler", std::string(fs::space("/small").available - spare, 'x'));
        status = check().status;
        if (status == 0) break;
        EXPECT_EQ(status, 4);
        EXPECT_EQ(read_file("/small/ravo.db"), image);
        EXPECT_TRUE(names_beside("/small/ravo.db").empty());
    }
    EXPECT_GT(levels, 5);
    EXPECT_EQ(read_rows(), rows);
}

}  // namespace
