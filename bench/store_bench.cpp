// What the way through the daemon costs: listings by the client library, against the same SQLite
// statements and row copies run in this process without any daemon.
//
// Each figure is a ratio, daemon over in-process, taken in turns within one run: the median over
// the rounds, with the fastest and the slowest round beside it. Both sides use the same table,
// filled alike, in two database files on one file system.
//
//   list N       the first N rows by id of a table of 100000
//   peak memory  of the daemon while it answers the largest listing, over the reply's size
//
// Run it through bench/run, which gives it a throw-away root.
#include <sqlite3.h>
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "bench_support.h"
#include "ravo_api.h"

namespace {

constexpr size_t largest = 100000;

// --- The peer: the daemon's statements, without the daemon --------------------------------------

constexpr char create_text[] =
    "CREATE  TABLE IF NOT EXISTS conn_server_log (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, "
    "username TEXT, vpn_type INTEGER, uptime INTEGER, time INTEGER, device_info TEXT, "
    "source_ip TEXT, vpn_ip TEXT, tx_rate INTEGER, rx_rate INTEGER, tx_total INTEGER, "
    "rx_total INTEGER, outgoing TEXT, action INTEGER);";

// Leaves exactly this many rows in the table.
void fill(bench::database& side, size_t rows) {
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

struct row_block {
    db_conn_server_log* rows = nullptr;
    size_t count = 0;
    size_t capacity = 0;
};

int copy_row(void* out, int /*columns*/, char** values, char** /*names*/) {
    auto& block = *static_cast<row_block*>(out);
    if (block.count == block.capacity) {
        block.capacity = block.capacity == 0 ? 1 : block.capacity * 2;
        void* bigger = realloc(block.rows, block.capacity * sizeof *block.rows);
        if (bigger == nullptr) bench::give_up("no memory");
        block.rows = static_cast<db_conn_server_log*>(bigger);
    }
    db_conn_server_log& r = block.rows[block.count++];
    memset(&r, 0, sizeof r);
    const auto number = [&](int n) { return strtol(values[n], nullptr, 10); };
    r.id = number(0);
    copy_text(r.username, values[1]);
    r.vpn_type = static_cast<int32_t>(number(2));
    r.uptime = static_cast<uint64_t>(number(3));
    r.time = static_cast<uint64_t>(number(4));
    copy_text(r.device_info, values[5]);
    copy_text(r.source_ip, values[6]);
    copy_text(r.vpn_ip, values[7]);
    r.tx_rate = number(8);
    r.rx_rate = number(9);
    r.tx_total = number(10);
    r.rx_total = number(11);
    copy_text(r.outgoing, values[12]);
    r.action = static_cast<int32_t>(number(13));
    return 0;
}

void list_directly(bench::database& peer, size_t rows) {
    long first_id = -1;
    long total = -1;
    row_block block;
    peer.run(
        "SELECT id FROM (SELECT * FROM conn_server_log ORDER BY id DESC LIMIT 100000) ORDER BY id "
        "ASC LIMIT 1;",
        bench::read_number, &first_id);
    peer.run(sqlite3_mprintf(
                 "SELECT * FROM conn_server_log WHERE  id >= %ld ORDER BY id ASC LIMIT %ld OFFSET "
                 "0;",
                 first_id, static_cast<long>(rows)),
             copy_row, &block);
    peer.run("SELECT Count(*) FROM conn_server_log;", bench::read_number, &total);
    if (block.count != rows) bench::give_up("the peer lost rows");
    free(block.rows);
}

// --- The daemon ---------------------------------------------------------------------------------

void list_through_daemon(size_t rows) {
    db_query_cond cond = {};
    cond.count = static_cast<int64_t>(rows);
    db_conn_server_log_query header = {};
    db_conn_server_log_query* result = &header;
    list_conn_server_log(&cond, &result);
    if (header.count != rows) bench::give_up("the daemon lost rows");
    free(header.data);
}

// --- Measuring ----------------------------------------------------------------------------------

void compare_listings(bench::database& peer, size_t rows) {
    const int times = rows > 10000 ? 1 : 10;
    bench::compare(
        "list", std::to_string(rows) + " of 100000 rows", rows > 10000 ? 5 : 15,
        bench::repeated(times, [&] { list_through_daemon(rows); }),
        {{"in this process", bench::repeated(times, [&] { list_directly(peer, rows); })}});
}

void show_peak_memory(pid_t daemon) {
    std::ofstream("/proc/" + std::to_string(daemon) + "/clear_refs") << "5";
    const size_t before = bench::memory_of(daemon, "VmRSS");
    list_through_daemon(largest);
    const size_t peak = bench::memory_of(daemon, "VmHWM");
    const size_t reply =
        (sizeof(db_conn_server_log_query) + largest * sizeof(db_conn_server_log)) / 1024;
    printf("%-16s ratio %5.2f   peak %zu KiB (%zu KiB before) over a reply of %zu KiB\n",
           "peak memory", static_cast<double>(peak) / static_cast<double>(reply), peak, before,
           reply);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) bench::give_up("usage: store_bench RAVOD");
    // The first is there to fill the daemon's table from outside.
    bench::database daemon_side(bench::daemon_file, create_text);
    bench::database peer(bench::peer_file, create_text);
    const pid_t daemon = bench::start_service(argv[1]);
    fill(daemon_side, largest);
    fill(peer, largest);
    for (const size_t rows : {size_t{20}, size_t{1000}, largest}) compare_listings(peer, rows);
    show_peak_memory(daemon);
    bench::stop_service(daemon);
    return 0;
}
