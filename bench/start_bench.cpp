// How long a start takes: from the exec of the daemon to its first answer, with a database of
// 100,000 connections in place.
//
//   start       in the foreground
//   start -d    as a daemon that closes all that it inherits, at a limit of 2^30 descriptors; where
//               it may not be raised so far, the daemon is only told so (told_limit.cpp)
//
// The floors: the five connections opened in this process, which has its libraries in place and its
// code warm, with the daemon's PRAGMAs and CREATEs in its order; and the same in a process of its
// own, which loads the daemon's libraries and says that it is ready.
//
//   start_bench RAVOD TOLD_LIMIT
//
// Run it through bench/run, which gives it a throw-away root, in memory and on the disk.
#include <jansson.h>
#include <ostra_config.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "ravo_api.h"
#include "zbservice.h"

namespace {

using bench::give_up;

constexpr int rows = 100000;
constexpr char pid_file[] = "/run/ravod.pid";
constexpr char ready_path[] = "/tmp/bench.ready";

#define ID "(id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, "
constexpr const char* creates[] = {
    "CREATE  TABLE IF NOT EXISTS conn_server_log " ID
    "username TEXT, vpn_type INTEGER, uptime INTEGER, time INTEGER, device_info TEXT, source_ip "
    "TEXT, vpn_ip TEXT, tx_rate INTEGER, rx_rate INTEGER, tx_total INTEGER, rx_total INTEGER, "
    "outgoing TEXT, action INTEGER);",
    "CREATE  TABLE IF NOT EXISTS conn_client_log " ID
    "username TEXT, vpn_type INTEGER, uptime INTEGER, time INTEGER, vpn_ip TEXT, tx_rate INTEGER, "
    "rx_rate INTEGER, tx_total INTEGER, rx_total INTEGER, country_code TEXT, wan_ip TEXT, action "
    "INTEGER);",
    "CREATE TEMPORARY TABLE IF NOT EXISTS server_list " ID
    "uuid TEXT, username TEXT, sid TEXT, device_name TEXT, expire_time INTEGER, time INTEGER);",
    "CREATE TEMPORARY TABLE IF NOT EXISTS device_info " ID
    "ip TEXT, mac TEXT, vossid TEXT, user_id TEXT, dev_name TEXT, dev_uuid TEXT, nic TEXT, time "
    "INTEGER);",
    "CREATE  TABLE IF NOT EXISTS privilege_user_block " ID
    "username TEXT, limit_count INTEGER, timestamp INTEGER);",
};
#undef ID

// --- The floor -----------------------------------------------------------------------------------

using connections = std::vector<std::unique_ptr<bench::database>>;

connections open_connections() {
    connections five;
    for (const char* create : creates) {
        five.push_back(std::make_unique<bench::database>(bench::peer_file, create));
    }
    return five;
}

double connections_here() {
    connections five;
    return bench::microseconds(1, [&] { five = open_connections(); });
}

sockaddr_un ready_address() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, ready_path, sizeof ready_path);
    return address;
}

// The floor's own process: needs what the daemon needs, and is ready when its connections are open.
int be_floor() {
    const connections five = open_connections();
    const sockaddr_un address = ready_address();
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const std::array<const void*, 2> needed = {reinterpret_cast<const void*>(json_null),
                                               reinterpret_cast<const void*>(Ini_Conf_Unlock_File)};
    const ssize_t sent = sendto(fd, needed.data(), sizeof(void*), 0,
                                reinterpret_cast<const sockaddr*>(&address), sizeof address);
    zb_free(nullptr);
    return sent > 0 ? 0 : 1;
}

// --- Starts --------------------------------------------------------------------------------------

using words = std::vector<std::string>;

class ready_socket {
  public:
    ready_socket() : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = ready_address();
        unlink(ready_path);
        if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            give_up("cannot make the ready socket");
        }
    }
    ~ready_socket() { close(fd); }
    ready_socket(const ready_socket&) = delete;
    ready_socket& operator=(const ready_socket&) = delete;

    void wait() const {
        char text[16];
        if (recv(fd, text, sizeof text, 0) <= 0) give_up("nothing is ready");
    }

  private:
    int fd;
};

pid_t start(const words& command) {
    std::vector<char*> slots;
    for (const std::string& word : command) slots.push_back(const_cast<char*>(word.c_str()));
    slots.push_back(nullptr);
    pid_t child = -1;
    if (posix_spawn(&child, slots[0], nullptr, nullptr, slots.data(), environ) != 0) {
        give_up("cannot start " + command[0]);
    }
    return child;
}

// This process takes in orphans, so that a detached daemon is among those that it waits for.
void wait_for_all() {
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
}

double floor_started() {
    const ready_socket ready;
    const double spent = bench::microseconds(1, [&] {
        start({"/proc/self/exe", "floor"});
        ready.wait();
    });
    wait_for_all();
    return spent;
}

// Until it has answered; then it is stopped. The method writes and reads nothing.
bench::sample started(const words& command) {
    return [command] {
        const ready_socket ready;
        pid_t daemon = -1;
        const double spent = bench::microseconds(1, [&] {
            daemon = start(command);
            ready.wait();
            db_event_data event = {};
            if (add_event_data(&event) != 0) give_up("the daemon did not answer");
        });
        if (std::ifstream file(pid_file); file) file >> daemon;
        kill(daemon, SIGTERM);
        wait_for_all();
        return spent;
    };
}

// --- State ---------------------------------------------------------------------------------------

void fill(const char* file) {
    bench::database side(file, creates[0]);
    for (const char* create : creates) side.run(create);
    side.run(sqlite3_mprintf(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < %d) INSERT INTO "
        "conn_server_log (username, vpn_type, uptime, time, device_info, source_ip, vpn_ip) "
        "SELECT 'user' || i, 1, i, 1795222858, 'a telephone', '192.0.2.1', '10.0.0.2' FROM n;",
        rows));
}

std::string file_system() {
    struct statfs status = {};
    if (statfs("/etc/config/ravo", &status) != 0) give_up("no folder for the database");
    constexpr long in_memory = 0x01021994;
    return status.f_type == in_memory ? "tmpfs" : "disk";
}

// The highest limit up to 2^30 that can be had, as text for a state.
std::string raise_limit(const char* told_limit) {
    constexpr rlim_t wanted = rlim_t{1} << 30;
    const rlimit both = {wanted, wanted};
    if (setrlimit(RLIMIT_NOFILE, &both) == 0) return "limit 2^30";
    setenv("LD_PRELOAD", told_limit, 1);
    setenv("TOLD_OPEN_MAX", std::to_string(wanted).c_str(), 1);
    return "limit told 2^30";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "floor") == 0) return be_floor();
    if (argc != 3) give_up("usage: start_bench RAVOD TOLD_LIMIT");
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) give_up("cannot take in orphans");
    bench::run_on(0);
    setenv("NOTIFY_SOCKET", ready_path, 1);
    fill(bench::daemon_file);
    fill(bench::peer_file);
    const std::string state = std::to_string(rows) + " rows, " + file_system();
    bench::compare("start", state, 41, started({argv[1]}),
                   {{"five connections here", connections_here, 1.3},
                    {"in a process of their own", floor_started}});
    const std::string limit = raise_limit(argv[2]);
    bench::compare("start -d", state + ", " + limit, 21, started({argv[1], "-d", "-p", pid_file}),
                   {{"50 ms", [] { return 50000.0; }, 1}});
    return 0;
}
