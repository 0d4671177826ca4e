// What the way through the daemon costs: inserts by the client library, against the same SQLite
// statements run in this process without any daemon.
//
// Each figure is a ratio, daemon over in-process, taken in turns within one run: the median over
// the rounds, with the fastest and the slowest round beside it. Both sides use the same table,
// filled alike, in two database files on one file system.
//
//   insert N     one connection recorded in a table that holds N rows already
//
// Run it through bench/run, which gives it a throw-away root.
#include <sqlite3.h>
#include <sys/types.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "bench_support.h"
#include "ravo_api.h"

namespace {

// --- The peer: the daemon's statements, without the daemon --------------------------------------

void insert_directly(bench::database& peer, const db_conn_server_log& r) {
    long count = 0;
    peer.run("BEGIN TRANSACTION;");
    peer.run(sqlite3_mprintf(
        "INSERT OR REPLACE INTO conn_server_log (username, vpn_type, uptime, time, device_info, "
        "source_ip, vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, action) VALUES "
        "('%q', %d, %lu, %lu, '%q', '%q', '%q', %ld, %ld, %ld, %ld, '%q', %d);",
        r.username, r.vpn_type, r.uptime, r.time, r.device_info, r.source_ip, r.vpn_ip, r.tx_rate,
        r.rx_rate, r.tx_total, r.rx_total, r.outgoing, r.action));
    peer.run("SELECT Count(*) FROM conn_server_log;", bench::read_number, &count);
    peer.run("END TRANSACTION;");
}

void copy_text(char (&array)[RAVO_TEXT_SIZE], const char* text) {
    strncpy(array, text, sizeof array - 1);
}

// --- The daemon ---------------------------------------------------------------------------------

void insert_through_daemon(db_conn_server_log record) {
    if (add_conn_server_log(&record) != 0) bench::give_up("the daemon does not answer");
}

// --- Measuring ----------------------------------------------------------------------------------

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

void compare_inserts(bench::database& daemon_side, bench::database& peer, size_t rows) {
    bench::fill_server_log(daemon_side, rows);
    bench::fill_server_log(peer, rows);
    const db_conn_server_log record = sample_record();
    const int times = rows < 50000 ? 50 : 20;
    bench::compare(
        "insert", std::to_string(rows) + " rows", 21,
        bench::repeated(times, [&] { insert_through_daemon(record); }),
        {{"in this process", bench::repeated(times, [&] { insert_directly(peer, record); })}});
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) bench::give_up("usage: store_bench RAVOD");
    // The first is there to fill the daemon's table from outside.
    bench::database daemon_side(bench::daemon_file, bench::create_server_log);
    bench::database peer(bench::peer_file, bench::create_server_log);
    const pid_t daemon = bench::start_service(argv[1]);
    for (const size_t rows : {size_t{0}, size_t{10000}, size_t{100000}}) {
        compare_inserts(daemon_side, peer, rows);
    }
    bench::stop_service(daemon);
    return 0;
}
