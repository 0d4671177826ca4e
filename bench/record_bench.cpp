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
#include "statements.h"

namespace {

constexpr char layered_file[] = "/etc/config/ravo/layered.db";
constexpr char bare_name[] = "record_bench/bare";
constexpr char layered_name[] = "record_bench/layered";
constexpr char method[] = "db_conn_insert";
constexpr size_t method_length = sizeof method - 1;

// --- The bare server ----------------------------------------------------------------------------

bench::raw_server::work insert_into(const char* file) {
    auto db = std::make_shared<bench::database>(file, bench::connections.create_text);
    return [db](const char* request) {
        db_conn_server_log record;
        memcpy(&record, request + bench::frame_header_bytes + method_length, sizeof record);
        bench::insert_connection(*db, record);
    };
}

bench::raw_server::work insert_through_layer() {
    if (register_commit_vfs(commit_strength::kill_safe) != SQLITE_OK) bench::give_up("no layer");
    return insert_into(layered_file);
}

// --- Tables and records --------------------------------------------------------------------------

void fill(const char* file, size_t rows) {
    bench::database side(file, bench::connections.create_text);
    bench::fill_connections(side, rows);
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
    db_conn_server_log record = bench::sample_connection();
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
