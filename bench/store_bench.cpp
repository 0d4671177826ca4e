// What the way through the daemon costs: inserts and listings by the client library, against the
// same SQLite statements and row copies run in this process without any daemon.
//
// Each figure is a ratio, daemon over in-process, taken in turns within one run: the median over
// the rounds, with the fastest and the slowest round beside it. Both sides use the same table,
// filled alike, in two database files on one file system.
//
//   insert N     one connection recorded in a table that holds N rows already
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
#include "statements.h"

namespace {

constexpr size_t largest = 100000;

// --- The peer: the daemon's statements, without the daemon --------------------------------------

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
    bench::copy_text(r.username, values[1]);
    r.vpn_type = static_cast<int32_t>(number(2));
    r.uptime = static_cast<uint64_t>(number(3));
    r.time = static_cast<uint64_t>(number(4));
    bench::copy_text(r.device_info, values[5]);
    bench::copy_text(r.source_ip, values[6]);
    bench::copy_text(r.vpn_ip, values[7]);
    r.tx_rate = number(8);
    r.rx_rate = number(9);
    r.tx_total = number(10);
    r.rx_total = number(11);
    bench::copy_text(r.outgoing, values[12]);
    r.action = static_cast<int32_t>(number(13));
    return 0;
}

void list_directly(bench::database& peer, size_t rows) {
    row_block block;
    bench::select_rows(peer, bench::connections, rows, copy_row, &block);
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

void insert_through_daemon(db_conn_server_log record) {
    if (add_conn_server_log(&record) != 0) bench::give_up("the daemon does not answer");
}

// --- Measuring ----------------------------------------------------------------------------------

void compare_inserts(bench::database& daemon_side, bench::database& peer, size_t rows) {
    bench::fill_connections(daemon_side, rows);
    bench::fill_connections(peer, rows);
    const db_conn_server_log record = bench::sample_connection();
    const int times = rows < 50000 ? 50 : 20;
    bench::compare("insert", std::to_string(rows) + " rows", 21,
                   bench::repeated(times, [&] { insert_through_daemon(record); }),
                   {{"in this process",
                     bench::repeated(times, [&] { bench::insert_connection(peer, record); })}});
}

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
    bench::database daemon_side(bench::daemon_file, bench::connections.create_text);
    bench::database peer(bench::peer_file, bench::connections.create_text);
    const pid_t daemon = bench::start_service(argv[1]);
    for (const size_t rows : {size_t{0}, size_t{10000}, largest}) {
        compare_inserts(daemon_side, peer, rows);
    }
    bench::fill_connections(daemon_side, largest);
    bench::fill_connections(peer, largest);
    for (const size_t rows : {size_t{20}, size_t{1000}, largest}) compare_listings(peer, rows);
    show_peak_memory(daemon);
    bench::stop_service(daemon);
    return 0;
}
