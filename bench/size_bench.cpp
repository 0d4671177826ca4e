// What the daemon's operations cost over the size of their table, beside the floor: the same
// statements in this process, with a callback that does nothing with the rows. bench/plot draws it.
//
//   record         one connection recorded among N and those, up to 320, of this measurement
//   page           the first 20 rows of N by id
//   whole listing  all rows of N by id
//   check          whether one of N users is blocked (not)
//   failed login   one more failure of a user among N; with N 0 the first of an unknown one
//   lift           one of N users forgotten; with N 0 an unknown one
//
// Else what changes the size of the table is taken back, untimed. Caller, daemon and settings
// service share one CPU. Run it through bench/run, which gives it a throw-away root.
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include "bench_support.h"
#include "ravo_api.h"
#include "statements.h"

namespace {

constexpr size_t sizes[] = {0, 10, 100, 1000, 10000, 100000};

constexpr char floor_name[] = "the statements alone";

std::string size_of(const char* what) { return std::string("size: ") + what; }

void expect_success(int result) {
    if (result != 0) bench::give_up("the daemon answered " + std::to_string(result));
}

void nothing() {}

struct side {
    std::function<void()> work;
    std::function<void()> take_back = nothing;
};

// Fewer rounds, with less in each, where the statements look at many rows.
struct effort {
    int rounds;
    int times;
};

bench::sample measured(const side& s, int times) {
    return [s, times] {
        const double spent = bench::microseconds(times, s.work);
        for (int n = 0; n < times; ++n) s.take_back();
        return spent;
    };
}

void compare(const char* what, const std::string& state, effort e, const side& ours,
             const side& floor) {
    bench::compare(size_of(what), state, e.rounds, measured(ours, e.times),
                   {{floor_name, measured(floor, e.times)}});
}

// --- Connections ---------------------------------------------------------------------------------

// The daemon has not begun to answer within the time that the client library waits.
struct no_answer {};

void list_through_daemon(int64_t page, size_t expected) {
    db_query_cond cond = {};
    cond.count = page;
    db_conn_server_log_query header = {};
    db_conn_server_log_query* result = &header;
    list_conn_server_log(&cond, &result);
    if (header.data == nullptr) throw no_answer();
    if (header.count != expected) bench::give_up("the daemon lost rows");
    free(header.data);
}

// The rows stay: a second delete makes the daemon close its connection.
void compare_records(bench::database& peer, const std::string& state) {
    db_conn_server_log record = bench::sample_connection();
    compare("record", state, {31, 10}, {[&] { expect_success(add_conn_server_log(&record)); }},
            {[&] { bench::insert_connection(peer, record); }});
}

void compare_listings(bench::database& peer, size_t rows, const std::string& state) {
    constexpr size_t page = 20;
    compare("page of 20 rows", state, rows < 100000 ? effort{21, 5} : effort{11, 1},
            {[&] { list_through_daemon(page, std::min(page, rows)); }},
            {[&] { bench::select_rows(peer, bench::connections, page); }});
    const effort e = rows < 1000 ? effort{21, 5} : effort{rows < 100000 ? 11 : 5, 1};
    try {
        compare("whole listing", state, e, {[&] { list_through_daemon(-1, rows); }},
                {[&] { bench::select_rows(peer, bench::connections, 100000); }});
    } catch (const no_answer&) {
        bench::not_measured(size_of("whole listing"), state, floor_name, "no answer in 5 seconds");
    }
}

// --- Users ---------------------------------------------------------------------------------------

void compare_limiter(bench::database& peer, size_t users, const std::string& state) {
    const bool known = users > 0;
    std::string name = "user" + std::to_string(users / 2);
    long id = 0;
    const auto look_up = [&] { id = bench::id_of_user(peer, name.c_str()); };
    const auto add = [&] { expect_success(add_privilege_user_block(name.data())); };
    const auto lift = [&] { expect_success(delete_privilege_user_block(name.data())); };
    const auto floor_add = [&] { bench::insert_user(peer, name.c_str()); };
    const auto floor_delete = [&] { bench::delete_row(peer, bench::users, id); };
    const int rounds = users < 100000 ? 31 : 11;

    const int times = users < 10000 ? 5 : 1;
    compare("check", state, {rounds, times},
            {[&] { expect_success(check_privilege_user_block(name.data())); }},
            {[&] { bench::select_users(peer); }});
    look_up();
    if (known) {
        compare("failed login", state, {rounds, times}, {add}, {[&] {
                    bench::select_users(peer);
                    bench::update_user(peer, id, name.c_str(), 2);
                }});
    } else {
        compare("failed login", state, {rounds, 1}, {add, lift},
                {[&] {
                     bench::select_users(peer);
                     floor_add();
                 },
                 [&] {
                     look_up();
                     floor_delete();
                 }});
    }
    look_up();
    if (known) {
        compare("lift", state, {rounds, 1}, {lift, add},
                {[&] {
                     bench::select_users(peer);
                     floor_delete();
                 },
                 [&] {
                     floor_add();
                     look_up();
                 }});
    } else {
        compare("lift", state, {rounds, times}, {lift}, {[&] { bench::select_users(peer); }});
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) bench::give_up("usage: size_bench RAVOD VPNCAAS");
    std::ofstream("/etc/config/vpn_block.conf")
        << R"({"global": {"enable": true, "limit": 1000000, "time": 5}})";
    bench::run_on(static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)) - 1);
    // The first is there to fill the daemon's tables from outside.
    bench::database daemon_side(bench::daemon_file, bench::connections.create_text);
    daemon_side.run(bench::users.create_text);
    bench::database peer(bench::peer_file, bench::connections.create_text);
    peer.run(bench::users.create_text);
    const pid_t vpncaas = bench::start_service(argv[2]);
    const pid_t daemon = bench::start_service(argv[1]);
    for (const size_t size : sizes) {
        for (bench::database* side : {&daemon_side, &peer}) {
            bench::fill_connections(*side, size);
            bench::fill_users(*side, size);
        }
        compare_listings(peer, size, std::to_string(size) + " rows");
        compare_records(peer, std::to_string(size) + " rows");
        compare_limiter(peer, size, std::to_string(size) + " users");
    }
    bench::stop_service(daemon);
    bench::stop_service(vpncaas);
    return 0;
}
