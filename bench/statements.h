// The daemon's statements without the daemon: what its tables are made of, filled with, and asked,
// as the floors of the benchmarks run them.
#ifndef BENCH_STATEMENTS_H
#define BENCH_STATEMENTS_H

#include <sqlite3.h>

#include <cstring>
#include <ctime>

#include "bench_support.h"
#include "ravo_records.h"

namespace bench {

// --- Tables --------------------------------------------------------------------------------------

struct table {
    const char* name;
    const char* create_text;
};

inline constexpr table connections = {
    "conn_server_log",
    "CREATE  TABLE IF NOT EXISTS conn_server_log (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, "
    "username TEXT, vpn_type INTEGER, uptime INTEGER, time INTEGER, device_info TEXT, "
    "source_ip TEXT, vpn_ip TEXT, tx_rate INTEGER, rx_rate INTEGER, tx_total INTEGER, "
    "rx_total INTEGER, outgoing TEXT, action INTEGER);"};

inline constexpr table users = {
    "privilege_user_block",
    "CREATE  TABLE IF NOT EXISTS privilege_user_block (id INTEGER PRIMARY KEY AUTOINCREMENT "
    "UNIQUE, username TEXT, limit_count INTEGER, timestamp INTEGER);"};

// Leaves exactly this many rows in the table, with the ids from 1 on.
inline void refill(database& side, const table& t, size_t rows, const char* columns,
                   const char* values) {
    side.run(sqlite3_mprintf("DELETE FROM %s;", t.name));
    side.run(sqlite3_mprintf("DELETE FROM sqlite_sequence WHERE name = '%s';", t.name));
    side.run(sqlite3_mprintf(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < %lu) "
        "INSERT INTO %s (%s) SELECT %s FROM n WHERE %lu > 0;",
        rows, t.name, columns, values, rows));
}

inline constexpr char connection_columns[] =
    "username, vpn_type, uptime, time, device_info, source_ip, vpn_ip, tx_rate, rx_rate, tx_total, "
    "rx_total, outgoing, action";

inline void fill_connections(database& side, size_t rows) {
    refill(side, connections, rows, connection_columns,
           "'user' || (i % 97), 4, i, 1795222858 + i, 'linux 2.6.14', '203.0.113.11', '10.88.0.2', "
           "1, 2, 3 * i, 4 * i, 'tun0', 1");
}

// The users are "user1" and so on, with one failure each.
inline void fill_users(database& side, size_t count) {
    refill(side, users, count, "username, limit_count, timestamp", "'user' || i, 1, 1795222858");
}

// --- Records -------------------------------------------------------------------------------------

// Into a record that was zero-filled.
template <size_t size>
void copy_text(char (&array)[size], const char* text) {
    memcpy(array, text, strnlen(text, size - 1));
}

inline db_conn_server_log sample_connection() {
    db_conn_server_log record = {};
    copy_text(record.username, "alice");
    record.vpn_type = 4;
    record.time = 1795222858;
    copy_text(record.device_info, "linux 2.6.14 alice-laptop");
    copy_text(record.source_ip, "203.0.113.11");
    copy_text(record.vpn_ip, "10.88.0.2");
    record.tx_total = 64916;
    record.rx_total = 12345;
    copy_text(record.outgoing, "tun0");
    record.action = 1;
    return record;
}

// --- Statements ----------------------------------------------------------------------------------

// The empty callback: what a row costs SQLite itself.
inline int skip_row(void* /*arg*/, int /*columns*/, char** /*values*/, char** /*names*/) {
    return 0;
}

inline long count_rows(database& side, const table& t) {
    long count = -1;
    side.run(sqlite3_mprintf("SELECT Count(*) FROM %s;", t.name), read_number, &count);
    return count;
}

// An insert with what surrounds it. Frees the text.
inline void insert_row(database& side, const table& t, char* insert_text) {
    side.run("BEGIN TRANSACTION;");
    side.run(insert_text);
    (void)count_rows(side, t);
    side.run("END TRANSACTION;");
}

inline char* insert_text(const db_conn_server_log& r) {
    return sqlite3_mprintf(
        "INSERT OR REPLACE INTO conn_server_log (%s) VALUES "
        "('%q', %d, %lu, %lu, '%q', '%q', '%q', %ld, %ld, %ld, %ld, '%q', %d);",
        connection_columns, r.username, r.vpn_type, r.uptime, r.time, r.device_info, r.source_ip,
        r.vpn_ip, r.tx_rate, r.rx_rate, r.tx_total, r.rx_total, r.outgoing, r.action);
}

inline void insert_connection(database& side, const db_conn_server_log& record) {
    insert_row(side, connections, insert_text(record));
}

// The first rows by id.
inline void select_rows(database& side, const table& t, size_t rows, row_callback on_row = skip_row,
                        void* arg = nullptr) {
    long first_id = -1;
    side.run(sqlite3_mprintf("SELECT id FROM (SELECT * FROM %s ORDER BY id DESC LIMIT 100000) "
                             "ORDER BY id ASC LIMIT 1;",
                             t.name),
             read_number, &first_id);
    side.run(
        sqlite3_mprintf("SELECT * FROM %s WHERE  id >= %ld ORDER BY id ASC LIMIT %lu OFFSET 0;",
                        t.name, first_id, rows),
        on_row, arg);
    (void)count_rows(side, t);
}

// What the limiter asks of its table at every check, failure and lift: all rows.
inline void select_users(database& side, row_callback on_row = skip_row, void* arg = nullptr) {
    select_rows(side, users, 100000, on_row, arg);
}

inline void insert_user(database& side, const char* username) {
    insert_row(side, users,
               sqlite3_mprintf("INSERT OR REPLACE INTO privilege_user_block (username, "
                               "limit_count, timestamp) VALUES ('%q', 1, %lu);",
                               username, static_cast<unsigned long>(time(nullptr))));
}

inline void update_user(database& side, long id, const char* username, int failures) {
    side.run(
        sqlite3_mprintf("UPDATE privilege_user_block SET username = '%q', limit_count = %d, "
                        "timestamp = %lu WHERE id = %lu;",
                        username, failures, static_cast<unsigned long>(time(nullptr)), id));
}

inline void delete_row(database& side, const table& t, long id) {
    side.run(sqlite3_mprintf("DELETE FROM %s WHERE id = %lu;", t.name, id));
}

// 0: there is no such user.
inline long id_of_user(database& side, const char* username) {
    long id = 0;
    side.run(
        sqlite3_mprintf("SELECT id FROM privilege_user_block WHERE username = '%q';", username),
        read_number, &id);
    return id;
}

}  // namespace bench

#endif  // BENCH_STATEMENTS_H
