// Starts on a broken ground: the daemon serves and answers, and the log is the only witness.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/files.h"
#include "support/ravod_checks.h"

namespace {

namespace fs = std::filesystem;

// The statements of one insert into the server list.
const std::vector<std::string> insert_statements = {
    "BEGIN TRANSACTION;",
    "INSERT OR REPLACE INTO server_list (uuid, username, sid, device_name, expire_time, time) "
    "VALUES ('', '', '', '', 0, 0);",
    "SELECT Count(*) FROM server_list;",
    "END TRANSACTION;",
};

// What the create operations log, one after the other, when each ends with the message.
std::string failed_creates(const std::string& message) {
    std::string lines;
    for (const logged_table& table : logged_tables) {
        const std::string function = std::string("create_") + table.name + "_db";
        lines += log_entry("ERROR", table.unit, function, message) +
                 log_entry("WARN", table.unit, function, "close db PTR\n");
    }
    return lines;
}

// The log lines of one operation of one table.
struct operation {
    std::string unit;
    std::string function;

    std::string error(const std::string& message) const {
        return log_entry("ERROR", unit, function, message + "\n");
    }
    std::string closed() const { return log_entry("WARN", unit, function, "close db PTR\n"); }
    std::string cannot_open(const std::string& reason) const {
        return error("open db failed, " + reason) + closed();
    }
    std::string failed(const std::string& sql, const std::string& reason, int code) const {
        return error("sql = " + sql + ", err = " + reason) +
               (code != SQLITE_MISUSE ? closed() : "") + error("RET = " + std::to_string(code));
    }
};

const operation insert_server = {"ravod_db_handler.cpp", "insert_conn_server_log"};
const operation insert_list = {"ravod_db_list_handler.cpp", "insert_server_list"};

int add_entry() {
    db_server_list_data entry = {};
    return add_server_list(&entry);
}

int add_connection() {
    db_conn_server_log row = {};
    return add_conn_server_log(&row);
}

const std::string insert_connection =
    "INSERT OR REPLACE INTO conn_server_log (username, vpn_type, uptime, time, device_info, "
    "source_ip, vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, action) "
    "VALUES ('', 0, 0, 0, '', '', '', 0, 0, 0, 0, '', 0);";

// A database that a daemon has left, with one connection in it; the log is empty again.
void make_database() {
    {
        const ravod_process ravod;
        EXPECT_EQ(add_connection(), 0);
    }
    fs::remove(log_path);
}

TEST(failing_start, missing_database_directory) {
    fs::remove("/etc/config/ravo");
    ravod_process ravod;
    const pid_t pid = ravod.pid();
    EXPECT_EQ(plain_log(pid), failed_creates("rc NULL\n"));
    fs::remove(log_path);

    EXPECT_EQ(add_entry(), 0);
    std::string expected;
    for (const std::string& sql : insert_statements) {
        expected += insert_list.cannot_open("unable to open database file") +
                    insert_list.failed(sql, "(null)", SQLITE_MISUSE);
    }
    EXPECT_EQ(plain_log(pid), expected);
    fs::remove(log_path);

    EXPECT_EQ(count_rows(list_conn_server_log), 0);
    EXPECT_EQ(ravod.stop(), 0);
    EXPECT_EQ(count_of(read_file(log_path), "finish_"), 0U);  // nothing was open
    EXPECT_FALSE(fs::exists("/etc/config/ravo"));
}

TEST(failing_start, missing_log_directory) {
    write_file("/tmp/conf", "1");
    fs::remove("/var/log/network");
    ravod_process ravod({"-c", "/tmp/conf"});
    EXPECT_EQ(add_connection(), 0);
    EXPECT_EQ(count_rows(list_conn_server_log), 1);
    ravod.signal(SIGHUP);
    EXPECT_TRUE(answers());
    EXPECT_EQ(ravod.stop(), 0);
    EXPECT_FALSE(fs::exists("/var/log/network"));
}

TEST(failing_start, missing_lock_directory) {
    write_file("/tmp/conf", "1");
    fs::remove_all("/var/lock");
    const ravod_process ravod({"-c", "/tmp/conf"});
    EXPECT_EQ(count_of(read_file(log_path), "Configuration of"), 1U);
}

TEST(failing_start, read_only_database) {
    make_database();
    chmod(db_path, 0444);
    ravod_process ravod;
    const pid_t pid = ravod.pid();
    EXPECT_EQ(plain_log(pid), "");  // the tables are there already

    EXPECT_EQ(add_connection(), 0);
    EXPECT_EQ(plain_log(pid),
              insert_server.failed(insert_connection, "attempt to write a readonly database",
                                   SQLITE_READONLY) +
                  insert_server.failed("END TRANSACTION;",
                                       "cannot commit - no transaction is active", SQLITE_ERROR));
    fs::remove(log_path);

    EXPECT_EQ(count_rows(list_conn_server_log), 1);
    EXPECT_EQ(add_entry(), 0);  // temporary rows need no file
    EXPECT_EQ(count_rows(list_server_list), 1);
    EXPECT_EQ(plain_log(pid), "");
    EXPECT_EQ(ravod.stop(), 0);
    EXPECT_EQ(plain_log(pid), closing_lines());
}

TEST(failing_start, read_only_database_without_tables) {
    write_file(db_path, "");
    chmod(db_path, 0444);
    ravod_process ravod;
    const pid_t pid = ravod.pid();
    std::string expected;
    for (const logged_table& table : {logged_tables[0], logged_tables[1], logged_tables[4]}) {
        const operation create = {table.unit, std::string("create_") + table.name + "_db"};
        expected += create.error("create db failed: attempt to write a readonly database") +
                    create.closed();
    }
    EXPECT_EQ(plain_log(pid), expected);
    EXPECT_EQ(add_entry(), 0);
    EXPECT_EQ(count_rows(list_server_list), 1);
}

TEST(failing_start, corrupt_database) {
    const std::string garbage(8192, 'g');
    write_file(db_path, garbage);
    ravod_process ravod;
    const pid_t pid = ravod.pid();
    EXPECT_EQ(plain_log(pid), failed_creates("create db failed: file is not a database\n"));
    fs::remove(log_path);

    EXPECT_EQ(add_connection(), 0);
    EXPECT_EQ(plain_log(pid),
              insert_server.failed(insert_connection, "file is not a database", SQLITE_NOTADB) +
                  insert_server.failed("SELECT Count(*) FROM conn_server_log;",
                                       "file is not a database", SQLITE_NOTADB) +
                  insert_server.failed("END TRANSACTION;",
                                       "cannot commit - no transaction is active", SQLITE_ERROR));
    EXPECT_EQ(count_rows(list_conn_server_log), 0);
    EXPECT_EQ(ravod.stop(), 0);
    EXPECT_EQ(read_file(db_path), garbage);
}

// An exclusive lock on the database, held by this process.
class database_lock {
  public:
    database_lock() {
        EXPECT_EQ(sqlite3_open(db_path, &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    ~database_lock() { release(); }
    database_lock(const database_lock&) = delete;
    database_lock& operator=(const database_lock&) = delete;
    void release() {
        sqlite3_close(db);
        db = nullptr;
    }

  private:
    sqlite3* db = nullptr;
};

TEST(failing_start, locked_database) {
    make_database();
    database_lock lock;
    const ravod_process ravod({}, with_calls({"RAVOD_CALLS_IMPATIENT=1"}));
    const pid_t pid = ravod.pid();
    EXPECT_EQ(plain_log(pid), failed_creates("create db failed: database is locked\n"));
    fs::remove(log_path);

    EXPECT_EQ(add_connection(), 0);
    EXPECT_EQ(plain_log(pid),
              insert_server.failed(insert_connection, "database is locked", SQLITE_BUSY) +
                  insert_server.failed("SELECT Count(*) FROM conn_server_log;",
                                       "database is locked", SQLITE_BUSY) +
                  insert_server.failed("END TRANSACTION;",
                                       "cannot commit - no transaction is active", SQLITE_ERROR));
    fs::remove(log_path);

    lock.release();
    EXPECT_EQ(add_connection(), 0);
    EXPECT_EQ(count_rows(list_conn_server_log), 2);
    EXPECT_EQ(plain_log(pid), "");
    EXPECT_EQ(add_entry(), 0);  // its table was never made
    EXPECT_EQ(count_of(read_file(log_path), "err = no such table: server_list\n"), 2U);
    const std::string calls = read_file(calls_path);  // each connection waits
    EXPECT_EQ(count_of(calls, "sqlite3_busy_handler\n"), count_of(calls, "sqlite3_open "));
}

}  // namespace
