// What a recorded connection costs, from the client library's call to its return, held against a
// bare server: a process that takes the same bytes over a raw stream socket, a connection per call,
// runs the same statements on a connection set up alike, and answers. It does nothing else.
//
// Three servers take turns, one call each in a round; all of them and the caller share one CPU.
// Each has a database file of its own beside the others', with equally many rows.
//
//   insert            ravod without the commit layer, over the bare server
//   insert, kill-safe ravod as it is by default, over the bare server: the layer's share is in it;
//                     and over a bare server whose SQLite runs through the layer, too
//
//   record_bench RAVOD FILE_SYSTEM ROUNDS    FILE_SYSTEM is what /etc/config/ravo lies on
//
// Run it through bench/run, which gives it a throw-away root, once in memory and once on the disk.
#include <sqlite3.h>
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "commit_vfs.h"
#include "ravo_api.h"
#include "raw_exchange.h"

namespace {

constexpr char layered_file[] = "/etc/config/ravo/layered.db";
constexpr char bare_name[] = "record_bench/bare";
constexpr char layered_name[] = "record_bench/layered";
constexpr char method[] = "db_conn_insert";
constexpr size_t method_length = sizeof method - 1;

constexpr char create_text[] =
    "CREATE  TABLE IF NOT EXISTS conn_server_log (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, "
    "username TEXT, vpn_type INTEGER, uptime INTEGER, time INTEGER, device_info TEXT, "
    "source_ip TEXT, vpn_ip TEXT, tx_rate INTEGER, rx_rate INTEGER, tx_total INTEGER, "
    "rx_total INTEGER, outgoing TEXT, action INTEGER);";

// --- The bare server ----------------------------------------------------------------------------

void insert(bench::database& db, const db_conn_server_log& r) {
    long count = 0;
    db.run("BEGIN TRANSACTION;");
    db.run(sqlite3_mprintf(
        "INSERT OR REPLACE INTO conn_server_log (username, vpn_type, uptime, time, device_info, "
        "source_ip, vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, action) VALUES "
        "('%q', %d, %lu, %lu, '%q', '%q', '%q', %ld, %ld, %ld, %ld, '%q', %d);",
        r.username, r.vpn_type, r.uptime, r.time, r.device_info, r.source_ip, r.vpn_ip, r.tx_rate,
        r.rx_rate, r.tx_total, r.rx_total, r.outgoing, r.action));
    db.run(sqlite3_mprintf("SELECT Count(*) FROM %s;", "conn_server_log"), bench::read_number,
           &count);
    db.run("END TRANSACTION;");
}

bench::raw_server::work insert_into(const char* file) {
    auto db = std::make_shared<bench::database>(file, create_text);
    return [db](const char* request) {
        db_conn_server_log record;
        memcpy(&record, request + bench::frame_header_bytes + method_length, sizeof record);
        insert(*db, record);
    };
}

bench::raw_server::work insert_through_layer() {
    if (register_commit_vfs(commit_strength::kill_safe) != SQLITE_OK) bench::give_up("no layer");
    return insert_into(layered_file);
}

// --- Tables and records --------------------------------------------------------------------------

// Leaves exactly this many rows in the table.
void fill(const char* file, size_t rows) {
    bench::database side(file, create_text);
    side.run("DELETE FROM conn_server_log;");
    side.run(sqlite3_mprintf(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < %d) "
        "INSERT INTO conn_server_log (username, vpn_type, uptime, time, device_info, "
        "source_ip, vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, action) "
        "SELECT 'user' || (i %% 97), 4, i, 1795222858 + i, 'linux 2.6.14', '203.0.113.11', "
        "'10.88.0.2', 1, 2, 3 * i, 4 * i, 'tun0', 1 FROM n WHERE %d > 0;",
        static_cast<int>(rows), static_cast<int>(rows)));
}

void copy_text(char (&array)[RAVO_TEXT_SIZE], const char* text) {
    strncpy(array, text, sizeof array - 1);
}

db_conn_server_log sample_record() {
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

std::vector<char> raw_request(const db_conn_server_log& record) {
    std::vector<char> request(bench::frame_header_bytes + method_length + sizeof record);
    memcpy(request.data() + bench::frame_header_bytes, method, method_length);
    memcpy(request.data() + bench::frame_header_bytes + method_length, &record, sizeof record);
    return request;
}

// --- Measuring ----------------------------------------------------------------------------------

struct bench_state {
    std::string ravod;
    std::string file_system;
    int rounds;
    db_conn_server_log record = sample_record();
    std::vector<char> request = raw_request(record);
    bench::raw_caller bare{bare_name, 0};
    bench::raw_caller layered{layered_name, 0};
};

bench::sample warmed(const std::function<void()>& call) {
    return [call] {
        call();
        return bench::microseconds(2, call);
    };
}

void compare_inserts(bench_state& s, size_t rows, const std::string& what,
                     const std::vector<bench::opponent>& others) {
    for (const char* file : {bench::daemon_file, bench::peer_file, layered_file}) fill(file, rows);
    const auto ours = [&] {
        db_conn_server_log record = s.record;
        if (add_conn_server_log(&record) != 0) bench::give_up("the daemon does not answer");
    };
    bench::compare(what, s.file_system + ", " + std::to_string(rows) + " rows, one CPU", s.rounds,
                   warmed(ours), others);
}

void measure(bench_state& s, const char* strength, const std::string& what,
             const std::vector<bench::opponent>& others) {
    setenv("RAVOD_COMMIT", strength, 1);
    const pid_t daemon = bench::start_service(s.ravod.c_str());
    for (const size_t rows : {size_t{0}, size_t{10000}, size_t{100000}}) {
        compare_inserts(s, rows, what, others);
    }
    bench::stop_service(daemon);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) bench::give_up("usage: record_bench RAVOD FILE_SYSTEM ROUNDS");
    bench::run_on(0);
    const size_t request_bytes = method_length + sizeof(db_conn_server_log);
    const bench::raw_server bare(bare_name, request_bytes, 0,
                                 [] { return insert_into(bench::peer_file); });
    const bench::raw_server layered(layered_name, request_bytes, 0, insert_through_layer);
    bench_state s{argv[1], argv[2], static_cast<int>(strtol(argv[3], nullptr, 10))};
    const auto bare_call = warmed([&] { s.bare.call(s.request); });
    const auto layered_call = warmed([&] { s.layered.call(s.request); });
    measure(s, "off", "insert", {{"bare server", bare_call, 1.05}});
    measure(s, "kill-safe", "insert, kill-safe",
            {{"bare server", bare_call}, {"bare server with the layer", layered_call, 1.05}});
    return 0;
}
