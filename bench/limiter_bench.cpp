// What the login-attempt limiter costs: a failed login, a check and a lift by the client library,
// the commit layer left out, held against two floors with the same table and the same statements:
//
//   statements    in this process, with a row callback that does nothing
//   raw exchanges the same statements in a process that is asked over a raw socket and asks another
//                 one for the settings likewise. The limiter is asked over the bus, and has to ask
//                 the settings service over the bus: with few users that is nearly all it costs.
//   and vpncaas   as above, but the settings are asked of the service itself, which reads a file
//
// All processes share one CPU and take turns, a few calls each; the first of each turn does not
// count. A user is added, untimed, before each lift.
//
// Then the memory that each operation takes of the daemon at its peak beyond what it has before,
// with the pages of the table in SQLite's cache and, for the first look of all, without.
//
// Run it through bench/run, which gives it a throw-away root.
#include <sqlite3.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "ravo_api.h"
#include "raw_exchange.h"
#include "statements.h"
#include "zbservice.h"

namespace {

using bench::give_up;

void set_limit(int limit) {
    std::ofstream file("/etc/config/vpn_block.conf");
    file << R"({"global": {"enable": true, "limit": )" << limit << R"(, "time": 5}})";
    if (!file.flush()) give_up("cannot write the settings");
}

// --- The floors: the limiter's statements, and nothing done with their rows ----------------------

constexpr char exchanges_file[] = "/etc/config/ravo/exchanges.db";
constexpr char limiter_name[] = "limiter_bench/limiter";
constexpr char settings_name[] = "limiter_bench/settings";
constexpr size_t settings_request = 60;  // bytes; the bus's are about as many
constexpr size_t settings_reply = 100;

constexpr int lifted_id = 1000000;  // of the user that is added for each lift

enum class operation : char { fail, check, add, lift };

// id is that of the user who fails.
void run_statements(bench::database& floor, operation what, int id) {
    if (what == operation::add) {
        floor.run(
            sqlite3_mprintf("INSERT OR REPLACE INTO privilege_user_block (id, username, "
                            "limit_count, timestamp) VALUES (%d, 'lifted', 1, %lu);",
                            lifted_id, static_cast<unsigned long>(time(nullptr))));
        return;
    }
    bench::select_users(floor);
    if (what == operation::fail) {
        bench::update_user(floor, id, ("user" + std::to_string(id)).c_str(), 2);
    } else if (what == operation::lift) {
        bench::delete_row(floor, bench::users, lifted_id);
    }
}

// A request to the bare limiter, behind the frame header.
struct bare_request {
    operation what;
    bool asks_vpncaas;
    int id;
};

bench::raw_server::work answer_settings() {
    return [](const char*) {};
}

void ask_vpncaas() {
    constexpr char request[] = R"({"path": "/etc/config/vpn_block.conf"})";
    zb_io* io = zb_io_create();
    if (zb_io_write(io, request, sizeof request - 1) != 0 ||
        zb_call("vpncaas", "read_json", io, 5, -1) != 0) {
        give_up("vpncaas does not answer");
    }
    zb_io_free(io);
}

bench::raw_server::work answer_limiter() {
    auto floor = std::make_shared<bench::database>(exchanges_file, bench::users.create_text);
    auto settings = std::make_shared<bench::raw_caller>(settings_name, settings_reply);
    return [floor, settings](const char* bytes) {
        bare_request request = {};
        memcpy(&request, bytes + bench::frame_header_bytes, sizeof request);
        run_statements(*floor, request.what, request.id);
        if (request.what == operation::add) return;
        if (request.asks_vpncaas) return ask_vpncaas();
        settings->call(std::vector<char>(bench::frame_header_bytes + settings_request));
    };
}

// --- The daemon ----------------------------------------------------------------------------------

void expect(int wanted, int result) {
    if (result != wanted) give_up("the daemon answered " + std::to_string(result));
}

void ask_daemon(operation what, int id) {
    std::string user = "user" + std::to_string(id);
    std::string lifted = "lifted";
    switch (what) {
        case operation::fail:
            return expect(0, add_privilege_user_block(user.data()));
        case operation::check:
            return expect(0, check_privilege_user_block(user.data()));
        case operation::add:
            return expect(0, add_privilege_user_block(lifted.data()));
        case operation::lift:
            return expect(0, delete_privilege_user_block(lifted.data()));
    }
}

// --- Operations ----------------------------------------------------------------------------------

using ask = std::function<void(operation what)>;

// Microseconds of one operation, the mean of a few.
bench::sample turn(const ask& side, operation what, int times) {
    return [&side, what, times] {
        double spent = 0;
        for (int n = 0; n <= times; ++n) {
            if (what == operation::lift) side(operation::add);
            const double each = bench::microseconds(1, [&] { side(what); });
            if (n > 0) spent += each;
        }
        return spent / times;
    };
}

constexpr struct {
    const char* name;
    operation what;
} operations[] = {
    {"check", operation::check}, {"fail", operation::fail}, {"lift", operation::lift}};

void compare_operations(bench::database& floor, size_t users) {
    for (const char* file : {bench::daemon_file, bench::peer_file, exchanges_file}) {
        bench::database side(file, bench::users.create_text);
        bench::fill_users(side, users);
    }
    const int id = static_cast<int>(users / 2);
    bench::raw_caller limiter(limiter_name, 1);
    const ask ours = [&](operation what) { ask_daemon(what, id); };
    const ask statements = [&](operation what) { run_statements(floor, what, id); };
    const auto bare = [&](operation what, bool asks_vpncaas) {
        const bare_request request = {what, asks_vpncaas, id};
        std::vector<char> bytes(bench::frame_header_bytes + sizeof request);
        memcpy(bytes.data() + bench::frame_header_bytes, &request, sizeof request);
        limiter.call(bytes);
    };
    const ask exchanges = [&](operation what) { bare(what, false); };
    const ask questions = [&](operation what) { bare(what, true); };
    const int rounds = users <= 1000 ? 300 : users <= 10000 ? 101 : 41;
    const int times = users <= 1000 ? 2 : 1;
    for (const auto& [name, what] : operations) {
        bench::compare(name, std::to_string(users) + " users, one CPU", rounds,
                       turn(ours, what, times),
                       {{"statements", turn(statements, what, times), 1.1},
                        {"raw exchanges", turn(exchanges, what, times)},
                        {"raw exchange and vpncaas", turn(questions, what, times), 1.1}});
    }
}

// --- Memory --------------------------------------------------------------------------------------

// KiB of the daemon beyond what it has before, at its peak.
size_t extra_memory(pid_t daemon, const std::function<void()>& work) {
    std::ofstream("/proc/" + std::to_string(daemon) + "/clear_refs") << "5";
    const size_t before = bench::memory_of(daemon, "VmRSS");
    work();
    return bench::memory_of(daemon, "VmHWM") - before;
}

void show_memory(pid_t daemon, const char* what, size_t users, const std::function<void()>& work) {
    const size_t extra = extra_memory(daemon, work);
    printf("%-22s %-30s %10zu KiB  goal 1024 %s\n", what,
           (std::to_string(users) + " users").c_str(), extra, extra <= 1024 ? "met" : "MISSED");
}

// SQLite's cache holds the whole table from the first look on.
void measure_memory(const char* ravod, size_t users) {
    const int id = static_cast<int>(users / 2);
    const pid_t daemon = bench::start_service(ravod);
    const size_t first = extra_memory(daemon, [&] { ask_daemon(operation::check, id); });
    printf("%-22s %-30s %10zu KiB  the table in SQLite's cache, for good\n", "first look",
           (std::to_string(users) + " users").c_str(), first);
    for (const auto& [name, what] : operations) {
        if (what == operation::lift) ask_daemon(operation::add, id);
        show_memory(daemon, (std::string(name) + ", memory").c_str(), users,
                    [&, op = what] { ask_daemon(op, id); });
    }
    bench::stop_service(daemon);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) give_up("usage: limiter_bench RAVOD VPNCAAS");
    set_limit(1000000);
    bench::run_on(0);
    setenv("RAVOD_COMMIT", "off", 1);
    const bench::raw_server settings(settings_name, settings_request, settings_reply,
                                     answer_settings);
    const bench::raw_server limiter(limiter_name, sizeof(bare_request), 1, answer_limiter);
    bench::database floor(bench::peer_file, bench::users.create_text);
    const pid_t vpncaas = bench::start_service(argv[2]);
    const pid_t daemon = bench::start_service(argv[1]);
    for (const size_t users : {size_t{10}, size_t{1000}, size_t{10000}, size_t{100000}}) {
        compare_operations(floor, users);
    }
    bench::stop_service(daemon);
    measure_memory(argv[1], 100000);
    bench::stop_service(vpncaas);
    return 0;
}
