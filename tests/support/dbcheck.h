// The program ravo-dbcheck for tests: run on images of the database, and its result compared with
// the rows that were there.
#ifndef TESTS_SUPPORT_DBCHECK_H
#define TESTS_SUPPORT_DBCHECK_H

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ravo_records.h"
#include "ravod_db_conn_client_handler.h"
#include "ravod_db_handler.h"
#include "ravod_db_privilege_user_block_handler.h"
#include "support/daemon.h"
#include "support/files.h"
#include "support/rows.h"

namespace dbcheck {

inline constexpr const char* tables[] = {"conn_server_log", "conn_client_log",
                                         "privilege_user_block"};

// --- Rows ---------------------------------------------------------------------------------------

// A row's values as SQL literals, by table and id.
using row_key = std::pair<std::string, int64_t>;
using row_map = std::map<row_key, std::string>;

inline std::string literal(sqlite3_value* value) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(value));
    const auto size = static_cast<size_t>(sqlite3_value_bytes(value));
    return std::to_string(sqlite3_value_type(value)) + ":" +
           (text != nullptr ? std::string(text, size) : "");
}

// Reads a table from its beginning to its end, or to the first error.
inline void read_table(sqlite3* db, const std::string& table, row_map& rows) {
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db, ("SELECT * FROM " + table).c_str(), -1, &select, nullptr);
    while (select != nullptr && sqlite3_step(select) == SQLITE_ROW) {
        std::string values;
        for (int n = 1; n < sqlite3_column_count(select); ++n) {
            values += literal(sqlite3_column_value(select, n)) + "|";
        }
        rows[{table, sqlite3_column_int64(select, 0)}] = values;
    }
    sqlite3_finalize(select);
}

// What a plain sequential read of every table gives.
inline row_map read_rows(const std::string& path = db_path) {
    row_map rows;
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, "unix");
    for (const char* table : tables) read_table(db, table, rows);
    sqlite3_close(db);
    return rows;
}

// The first column of the first row.
inline std::string ask(const std::string& text, const std::string& path = db_path) {
    sqlite3* db = nullptr;
    sqlite3_stmt* select = nullptr;
    std::string answer = "(none)";
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, "unix");
    sqlite3_prepare_v2(db, text.c_str(), -1, &select, nullptr);
    if (select != nullptr && sqlite3_step(select) == SQLITE_ROW) {
        const auto* words = reinterpret_cast<const char*>(sqlite3_column_text(select, 0));
        answer = words != nullptr ? words : "(null)";
    }
    sqlite3_finalize(select);
    sqlite3_close(db);
    return answer;
}

inline std::string integrity(const std::string& path = db_path) {
    return ask("PRAGMA integrity_check", path);
}

// --- Databases that the store has written
// ---------------------------------------------------------

inline std::string long_text(int number) { return std::string(1000, 'x') + std::to_string(number); }

inline db_conn_server_log server_row(int number, bool is_long = false) {
    auto row = row_with_text<db_conn_server_log>(
        is_long ? long_text(number) : "server " + std::to_string(number) + ".");
    set_numbers(row, number);
    return row;
}
inline db_conn_client_log_data client_row(int number) {
    auto row = row_with_text<db_conn_client_log_data>("client " + std::to_string(number) + ".");
    set_numbers(row, number);
    return row;
}

inline void insert_server_row(int number, bool is_long = false) {
    db_conn_server_log row = server_row(number, is_long);
    EXPECT_EQ(insert_conn_server_log(&row), 0);
}
inline void insert_client_row(int number) {
    db_conn_client_log_data row = client_row(number);
    EXPECT_EQ(insert_conn_client_log(&row), 0);
}

inline void open_store() {
    ASSERT_EQ(create_conn_server_log_db(), 0);
    ASSERT_EQ(create_conn_client_log_db(), 0);
    ASSERT_EQ(create_privilege_user_block_db(), 0);
}
inline void close_store() {
    finish_conn_server_log_db();
    finish_conn_client_log_db();
    finish_privilege_user_block_db();
}

inline int run_sql(const std::string& text, const std::string& path = db_path) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    const int rc = sqlite3_exec(db, text.c_str(), nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return rc;
}

inline const std::string without_journal = "PRAGMA journal_mode = OFF;";

// Rows of both kinds, short ones and long ones, in all three tables, on some 35 pages.
inline std::string mixed_database() {
    open_store();
    for (int number = 1; number <= 60; ++number) {
        insert_server_row(number, number % 8 == 0);
        insert_client_row(number);
    }
    close_store();
    EXPECT_EQ(run_sql("INSERT INTO privilege_user_block (username, limit_count, timestamp) SELECT "
                      "username, vpn_type, time FROM conn_server_log WHERE id % 8 != 0"),
              SQLITE_OK);
    return read_file(db_path);
}

// --- Files --------------------------------------------------------------------------------------

// The names that stand beside the database and begin as it does.
inline std::set<std::string> names_beside(const std::string& path = db_path) {
    const std::filesystem::path database(path);
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(database.parent_path())) {
        const std::string name = entry.path().filename();
        if (name.starts_with(database.filename().string()) && name != database.filename()) {
            names.insert(name);
        }
    }
    return names;
}

// Makes the image the only file there is.
inline void set_image(const std::string& image, const std::string& path = db_path) {
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    for (const std::string& name : names_beside(path)) std::filesystem::remove(folder / name);
    write_file(path, image);
}

// --- A run --------------------------------------------------------------------------------------

struct result {
    int status;
    std::string line;  // all that it printed
};

inline result check() {
    static const std::string output = "/tmp/dbcheck.out";
    const int status = run_process({DBCHECK}, {.output = output});
    return {status, read_file(output)};
}

// Checks an image; the database must be sound afterwards.
inline result repair(const std::string& image) {
    set_image(image);
    result done = check();
    EXPECT_EQ(done.status, 0) << done.line;
    EXPECT_EQ(count_of(done.line, "\n"), 1U) << done.line;
    EXPECT_EQ(integrity(), "ok") << done.line;
    return done;
}

inline bool was_damaged(const result& done) {
    return done.line.find(": damaged (") != std::string::npos;
}

// Whether every row of the first is in the second, as it is.
inline testing::AssertionResult all_in(const row_map& some, const row_map& all) {
    for (const auto& [key, values] : some) {
        const auto found = all.find(key);
        if (found == all.end() || found->second != values) {
            return testing::AssertionFailure()
                   << key.first << " " << key.second
                   << (found == all.end() ? " is not there" : " is otherwise") << ": "
                   << values.substr(0, 60);
        }
    }
    return testing::AssertionSuccess();
}

// The rows that are in both, as they are.
inline row_map common(const row_map& some, const row_map& others) {
    row_map both;
    for (const auto& [key, values] : some) {
        const auto found = others.find(key);
        if (found != others.end() && found->second == values) both.insert({key, values});
    }
    return both;
}

}  // namespace dbcheck

#endif  // TESTS_SUPPORT_DBCHECK_H
