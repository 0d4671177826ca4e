// The hot paths, for a run under callgrind: each stands between a reset of its counters and a dump
// that has the path's name.
#include <sqlite3.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <cstring>
#include <string>
#include <thread>

#include "ravod_db_handler.h"
#include "ravod_db_privilege_user_block_handler.h"
#include "ravod_handler.h"
#include "support/rows.h"
#include "zbservice.h"

namespace {

// What is done once, and then kept, is done before the counting.
template <class Work>
void count(const char* name, Work work) {
    for (int n = 0; n < 3; ++n) work();
    CALLGRIND_ZERO_STATS;
    for (int n = 0; n < 20; ++n) work();
    CALLGRIND_DUMP_STATS_AT(name);
}

zb_io* io_with(const std::string& payload) {
    zb_io* io = zb_io_create();
    if (zb_io_write(io, payload.data(), payload.size()) != 0) _exit(1);
    return io;
}

db_conn_server_log connection() {
    auto record = zeroed<db_conn_server_log>();
    set_text(record.username, "alice");
    set_text(record.device_info, "linux 2.6.14 alice-laptop");
    set_text(record.source_ip, "203.0.113.11");
    set_text(record.vpn_ip, "10.88.0.2");
    set_text(record.outgoing, "tun0");
    return record;
}

int look_at_nothing(void* /*arg*/, int /*columns*/, char** /*values*/, char** /*names*/) {
    return 0;
}

void run(sqlite3* db, const std::string& text) {
    if (sqlite3_exec(db, text.c_str(), look_at_nothing, nullptr, nullptr) != SQLITE_OK) _exit(1);
}

// --- An insert, and its statements alone ---------------------------------------------------------

void count_inserts() {
    (void)create_conn_server_log_db();
    const std::string record = bytes_of(connection());
    count("insert", [&] { ravod_method_handler("db_conn_insert", io_with(record), -1); });
    (void)finish_conn_server_log_db();
    sqlite3* db = nullptr;
    if (sqlite3_open("/etc/config/ravo/ravo.db", &db) != SQLITE_OK) _exit(1);
    run(db, "PRAGMA journal_mode = OFF; PRAGMA synchronous = ON;");
    count("insert statements", [&] {
        run(db, "BEGIN TRANSACTION;");
        run(db,
            "INSERT OR REPLACE INTO conn_server_log (username, vpn_type, uptime, time, "
            "device_info, source_ip, vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, "
            "action) VALUES ('alice', 0, 0, 0, 'linux 2.6.14 alice-laptop', '203.0.113.11', "
            "'10.88.0.2', 0, 0, 0, 0, 'tun0', 0);");
        run(db, "SELECT Count(*) FROM conn_server_log;");
        run(db, "END TRANSACTION;");
    });
    sqlite3_close(db);
}

// --- A look of the limiter, and its statements alone
// ----------------------------------------------

void count_looks() {
    (void)create_privilege_user_block_db();
    sqlite3* db = nullptr;
    if (sqlite3_open("/etc/config/ravo/ravo.db", &db) != SQLITE_OK) _exit(1);
    run(db,
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200) INSERT INTO "
        "privilege_user_block (username, limit_count, timestamp) SELECT 'user' || i, 1, 1795222858 "
        "FROM n;");
    char stranger[] = "user";
    count("look", [&] { (void)delete_privilege_user_block(stranger); });
    count("look statements", [&] {
        run(db,
            "SELECT id FROM (SELECT * FROM privilege_user_block ORDER BY id DESC LIMIT 100000) "
            "ORDER BY id ASC LIMIT 1;");
        run(db,
            "SELECT * FROM privilege_user_block WHERE  id >= 1 ORDER BY id ASC LIMIT 100000 OFFSET "
            "0;");
        run(db, "SELECT Count(*) FROM privilege_user_block;");
    });
    sqlite3_close(db);
}

// --- A call over the bus, both sides
// --------------------------------------------------------------

void answer(const char* /*method*/, zb_io* io, int /*fd*/) {
    (void)zb_io_realloc(io, 0);
    (void)zb_reply(io);
    zb_io_free(io);
}

void count_calls() {
    const std::string record = bytes_of(connection());
    zb_service* service = zb_create("@hot_paths", 4, 1, answer);
    std::thread server([&] { (void)zb_start(service); });
    count("call", [&] {
        zb_io* io = io_with(record);
        if (zb_call("@hot_paths", "db_conn_insert", io, 5, -1) != 0) _exit(1);
        zb_io_free(io);
    });
    (void)zb_stop(service);
    server.join();
    zb_free(service);
}

}  // namespace

int main() {
    count_inserts();
    count_looks();
    count_calls();
    return 0;
}
