// What the login-attempt limiter costs: a failed login, a check and a lift by the client library,
// against the same SQLite statements and row copies run in this process without daemon, bus and
// settings service.
//
// Each figure is a ratio, daemon over in-process, taken in turns within one run: the median over
// the rounds, with the lowest and the highest beside it. Both sides use the same table, filled
// alike, in two database files on one file system. Every operation looks at all rows, so the cost
// grows with the users; what the daemon adds is two calls on the bus.
//
//   fail N    one more failure of a user among N
//   check N   whether one of N users is blocked (not)
//   lift N    one of N users forgotten; they are added again, untimed
//   notify L  the time that one notification keeps the daemon when its limit of descriptors is L: a
//             user's first failure at a limit of 1, which notifies, less one at a limit of 2
//
// Run it through bench/run, which gives it a throw-away root.
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "bench_support.h"
#include "ravo_api.h"
#include "statements.h"

namespace {

using bench::give_up;

void set_limit(int limit) {
    std::ofstream file("/etc/config/vpn_block.conf");
    file << R"({"global": {"enable": true, "limit": )" << limit << R"(, "time": 5}})";
    if (!file.flush()) give_up("cannot write the settings");
}

// --- The peer: the limiter's statements, without the daemon --------------------------------------

struct search {
    const char* username;
    db_privilege_user_block_data row;
    bool found;
};

// Copies each row, as the limiter does, and keeps the user's.
int look_at_row(void* arg, int /*columns*/, char** values, char** /*names*/) {
    auto& wanted = *static_cast<search*>(arg);
    db_privilege_user_block_data row;
    row.id = strtol(values[0], nullptr, 10);
    const size_t length = strnlen(values[1], sizeof row.username - 1);
    memcpy(row.username, values[1], length);
    row.username[length] = '\0';
    row.limit = static_cast<int32_t>(strtol(values[2], nullptr, 10));
    row.timestamp = static_cast<uint64_t>(strtol(values[3], nullptr, 10));
    if (!wanted.found && strcmp(row.username, wanted.username) == 0) {
        wanted.row = row;
        wanted.found = true;
    }
    return 0;
}

db_privilege_user_block_data look_directly(bench::database& peer, const char* username) {
    search wanted = {};
    wanted.username = username;
    bench::select_users(peer, look_at_row, &wanted);
    return wanted.row;
}

void fail_directly(bench::database& peer, const char* username) {
    const db_privilege_user_block_data row = look_directly(peer, username);
    if (row.id != 0) {
        bench::update_user(peer, row.id, username, row.limit + 1);
    } else {
        bench::insert_user(peer, username);
    }
}

void lift_directly(bench::database& peer, const char* username) {
    const db_privilege_user_block_data row = look_directly(peer, username);
    if (row.id == 0) give_up("the peer lost a user");
    bench::delete_row(peer, bench::users, row.id);
}

// --- The daemon ----------------------------------------------------------------------------------

void expect(int wanted, int result) {
    if (result != wanted) give_up("the daemon answered " + std::to_string(result));
}

// --- Operations ----------------------------------------------------------------------------------

// A lift needs users: those that the untimed end of the round adds again.
void compare_lifts(bench::database& peer, size_t users, int rounds, int times) {
    std::vector<std::string> names;
    for (int n = 1; n <= std::min(times, static_cast<int>(users / 10)); ++n) {
        names.push_back("user" + std::to_string(n));
    }
    const auto lifts = static_cast<double>(names.size());
    std::vector<double> daemon_us;
    std::vector<double> direct_us;
    for (int round = 0; round <= rounds; ++round) {
        const double a = bench::microseconds(1, [&] {
            for (std::string& user : names) expect(0, delete_privilege_user_block(user.data()));
        });
        const double b = bench::microseconds(1, [&] {
            for (const std::string& user : names) lift_directly(peer, user.c_str());
        });
        for (std::string& user : names) {
            expect(0, add_privilege_user_block(user.data()));
            fail_directly(peer, user.c_str());
        }
        if (round == 0) continue;
        daemon_us.push_back(a / lifts);
        direct_us.push_back(b / lifts);
    }
    bench::report("lift", std::to_string(users) + " users", "in this process", daemon_us, direct_us,
                  0);
}

void compare_operations(bench::database& daemon_side, bench::database& peer, size_t users) {
    bench::fill_users(daemon_side, users);
    bench::fill_users(peer, users);
    std::string name = "user" + std::to_string(users / 2);
    const int rounds = users < 50000 ? 21 : 11;
    const int times = users <= 1000 ? 50 : users <= 10000 ? 10 : 2;
    const std::string state = std::to_string(users) + " users";
    const auto against = [&](const char* what, const std::function<void()>& ours,
                             const std::function<void()>& directly) {
        bench::compare(what, state, rounds, bench::repeated(times, ours),
                       {{"in this process", bench::repeated(times, directly)}});
    };
    against(
        "fail", [&] { expect(0, add_privilege_user_block(name.data())); },
        [&] { fail_directly(peer, name.data()); });
    against(
        "check", [&] { expect(0, check_privilege_user_block(name.data())); },
        [&] { (void)look_directly(peer, name.data()); });
    compare_lifts(peer, users, rounds, times);
}

// --- Notifications -------------------------------------------------------------------------------

// Microseconds of first failures of new users.
double first_failures(int times) {
    static int count = 0;
    return bench::microseconds(times, [] {
        std::string name = "stranger" + std::to_string(++count);
        expect(0, add_privilege_user_block(name.data()));
    });
}

void measure_notification(const char* ravod, rlim_t open_max) {
    rlimit allowed = {};
    getrlimit(RLIMIT_NOFILE, &allowed);
    char label[32];
    (void)snprintf(label, sizeof label, "notify %ju", static_cast<uintmax_t>(open_max));
    if (open_max > allowed.rlim_max) {
        printf("%-16s not measured: no more than %ju descriptors are allowed here\n", label,
               static_cast<uintmax_t>(allowed.rlim_max));
        return;
    }
    const pid_t daemon = bench::start_service(ravod, open_max);
    expect(0, clean_privilege_user_block());
    std::vector<double> spent;
    for (int round = 0; round <= 15; ++round) {
        set_limit(2);
        const double quiet = first_failures(5);
        set_limit(1);
        const double notifying = first_failures(5);
        if (round > 0) spent.push_back(notifying - quiet);
    }
    bench::stop_service(daemon);
    const auto [low, high] = std::minmax_element(spent.begin(), spent.end());
    printf("%-16s %9.1f us (%.1f to %.1f)\n", label, bench::median(spent), *low, *high);
    (void)fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) give_up("usage: limiter_bench RAVOD VPNCAAS NOTIFY");
    std::filesystem::create_directories("/usr/local/sbin");
    std::filesystem::create_symlink(argv[3], "/usr/local/sbin/notify");
    set_limit(1000000);
    // The first is there to fill the daemon's table from outside.
    bench::database daemon_side(bench::daemon_file, bench::users.create_text);
    bench::database peer(bench::peer_file, bench::users.create_text);
    const pid_t vpncaas = bench::start_service(argv[2]);
    const pid_t daemon = bench::start_service(argv[1]);
    for (const size_t users : {size_t{10}, size_t{1000}, size_t{10000}, size_t{100000}}) {
        compare_operations(daemon_side, peer, users);
    }
    bench::stop_service(daemon);
    for (const rlim_t open_max : {rlim_t{1024}, rlim_t{20000}, rlim_t{1048576}})
        measure_notification(argv[1], open_max);
    bench::stop_service(vpncaas);
    return 0;
}
