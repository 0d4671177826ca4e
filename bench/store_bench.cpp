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
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "ravo_api.h"

namespace {

constexpr char daemon_file[] = "/etc/config/ravo/ravo.db";
constexpr char peer_file[] = "/etc/config/ravo/peer.db";
constexpr size_t largest = 100000;

[[noreturn]] void give_up(const std::string& what) {
    fprintf(stderr, "store_bench: %s\n", what.c_str());
    exit(1);
}

// --- The peer: the daemon's statements, without the daemon --------------------------------------

constexpr char create_text[] =
    "CREATE  TABLE IF NOT EXISTS conn_server_log (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, "
    "username TEXT, vpn_type INTEGER, uptime INTEGER, time INTEGER, device_info TEXT, "
    "source_ip TEXT, vpn_ip TEXT, tx_rate INTEGER, rx_rate INTEGER, tx_total INTEGER, "
    "rx_total INTEGER, outgoing TEXT, action INTEGER);";

using row_callback = int (*)(void*, int, char**, char**);

class peer_table {
  public:
    explicit peer_table(const char* file) {
        if (sqlite3_open(file, &db) != SQLITE_OK) give_up(sqlite3_errmsg(db));
        for (const char* pragma :
             {"PRAGMA page_size = 2048;", "PRAGMA synchronous = ON;", "PRAGMA auto_vacuum = FULL;",
              "PRAGMA journal_mode = OFF;", "PRAGMA default_cache_size = 10000;",
              "PRAGMA cache_size = 10000;"}) {
            run(pragma);
        }
        run(create_text);
    }
    ~peer_table() { sqlite3_close(db); }
    peer_table(const peer_table&) = delete;
    peer_table& operator=(const peer_table&) = delete;

    void run(const char* text, row_callback on_row = nullptr, void* arg = nullptr) {
        if (sqlite3_exec(db, text, on_row, arg, nullptr) != SQLITE_OK) give_up(sqlite3_errmsg(db));
    }
    void run(char* text, row_callback on_row = nullptr, void* arg = nullptr) {
        run(const_cast<const char*>(text), on_row, arg);
        sqlite3_free(text);
    }

    // Leaves exactly this many rows.
    void fill(size_t rows) {
        run("DELETE FROM conn_server_log;");
        run(sqlite3_mprintf(
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < %d) "
            "INSERT INTO conn_server_log (username, vpn_type, uptime, time, device_info, "
            "source_ip, vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, action) "
            "SELECT 'user' || (i %% 97), 4, i, 1795222858 + i, 'linux 2.6.14', '203.0.113.11', "
            "'10.88.0.2', 1, 2, 3 * i, 4 * i, 'tun0', 1 FROM n WHERE %d > 0;",
            static_cast<int>(rows), static_cast<int>(rows)));
    }

  private:
    sqlite3* db = nullptr;
};

int read_number(void* out, int /*columns*/, char** values, char** /*names*/) {
    *static_cast<long*>(out) = strtol(values[0], nullptr, 10);
    return 0;
}

void insert_directly(peer_table& peer, const db_conn_server_log& r) {
    long count = 0;
    peer.run("BEGIN TRANSACTION;");
    peer.run(sqlite3_mprintf(
        "INSERT OR REPLACE INTO conn_server_log (username, vpn_type, uptime, time, device_info, "
        "source_ip, vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, action) VALUES "
        "('%q', %d, %lu, %lu, '%q', '%q', '%q', %ld, %ld, %ld, %ld, '%q', %d);",
        r.username, r.vpn_type, r.uptime, r.time, r.device_info, r.source_ip, r.vpn_ip, r.tx_rate,
        r.rx_rate, r.tx_total, r.rx_total, r.outgoing, r.action));
    peer.run("SELECT Count(*) FROM conn_server_log;", read_number, &count);
    peer.run("END TRANSACTION;");
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
        if (bigger == nullptr) give_up("no memory");
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

void list_directly(peer_table& peer, size_t rows) {
    long first_id = -1;
    long total = -1;
    row_block block;
    peer.run(
        "SELECT id FROM (SELECT * FROM conn_server_log ORDER BY id DESC LIMIT 100000) ORDER BY id "
        "ASC LIMIT 1;",
        read_number, &first_id);
    peer.run(sqlite3_mprintf(
                 "SELECT * FROM conn_server_log WHERE  id >= %ld ORDER BY id ASC LIMIT %ld OFFSET "
                 "0;",
                 first_id, static_cast<long>(rows)),
             copy_row, &block);
    peer.run("SELECT Count(*) FROM conn_server_log;", read_number, &total);
    if (block.count != rows) give_up("the peer lost rows");
    free(block.rows);
}

// --- The daemon ---------------------------------------------------------------------------------

// Starts ravod and waits until it says that it serves.
pid_t start_daemon(const char* ravod) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, "/tmp/store_bench.ready", sizeof address.sun_path - 1);
    unlink(address.sun_path);
    const int ready = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(ready, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        give_up("cannot make the ready socket");
    }
    setenv("NOTIFY_SOCKET", address.sun_path, 1);
    const pid_t child = fork();
    if (child == 0) {
        execl(ravod, ravod, static_cast<char*>(nullptr));
        _exit(127);
    }
    char text[16];
    if (recv(ready, text, sizeof text, 0) <= 0) give_up("ravod did not start");
    close(ready);
    return child;
}

void stop_daemon(pid_t daemon) {
    kill(daemon, SIGTERM);
    int status = 0;
    waitpid(daemon, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) give_up("ravod did not end well");
}

// A field of /proc/PID/status, in KiB.
size_t memory_of(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field + ":", 0) == 0) return std::stoul(line.substr(field.size() + 1));
    }
    give_up("no " + field);
}

void list_through_daemon(size_t rows) {
    db_query_cond cond = {};
    cond.count = static_cast<int64_t>(rows);
    db_conn_server_log_query header = {};
    db_conn_server_log_query* result = &header;
    list_conn_server_log(&cond, &result);
    if (header.count != rows) give_up("the daemon lost rows");
    free(header.data);
}

void insert_through_daemon(db_conn_server_log record) {
    if (add_conn_server_log(&record) != 0) give_up("the daemon does not answer");
}

// --- Measuring ----------------------------------------------------------------------------------

double microseconds(int times, const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    for (int n = 0; n < times; ++n) work();
    const std::chrono::duration<double, std::micro> spent =
        std::chrono::steady_clock::now() - start;
    return spent.count() / times;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Both sides in turn, after one round that does not count.
void compare(const std::string& name, int rounds, int times,
             const std::function<void()>& through_daemon, const std::function<void()>& directly) {
    std::vector<double> ratios;
    std::vector<double> daemon_us;
    std::vector<double> direct_us;
    for (int round = 0; round <= rounds; ++round) {
        const double a = microseconds(times, through_daemon);
        const double b = microseconds(times, directly);
        if (round == 0) continue;
        daemon_us.push_back(a);
        direct_us.push_back(b);
        ratios.push_back(a / b);
    }
    const auto [low, high] = std::minmax_element(ratios.begin(), ratios.end());
    printf("%-16s ratio %5.2f (%.2f to %.2f)   daemon %9.1f us   in-process %9.1f us\n",
           name.c_str(), median(ratios), *low, *high, median(daemon_us), median(direct_us));
    (void)fflush(stdout);
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

void compare_inserts(peer_table& daemon_side, peer_table& peer, size_t rows) {
    daemon_side.fill(rows);
    peer.fill(rows);
    const db_conn_server_log record = sample_record();
    compare(
        "insert " + std::to_string(rows), 21, rows < 50000 ? 50 : 20,
        [&] { insert_through_daemon(record); }, [&] { insert_directly(peer, record); });
}

void compare_listings(peer_table& peer, size_t rows) {
    compare(
        "list " + std::to_string(rows), rows > 10000 ? 5 : 15, rows > 10000 ? 1 : 10,
        [&] { list_through_daemon(rows); }, [&] { list_directly(peer, rows); });
}

void show_peak_memory(pid_t daemon) {
    std::ofstream("/proc/" + std::to_string(daemon) + "/clear_refs") << "5";
    const size_t before = memory_of(daemon, "VmRSS");
    list_through_daemon(largest);
    const size_t peak = memory_of(daemon, "VmHWM");
    const size_t reply =
        (sizeof(db_conn_server_log_query) + largest * sizeof(db_conn_server_log)) / 1024;
    printf("%-16s ratio %5.2f   peak %zu KiB (%zu KiB before) over a reply of %zu KiB\n",
           "peak memory", static_cast<double>(peak) / static_cast<double>(reply), peak, before,
           reply);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) give_up("usage: store_bench RAVOD");
    peer_table daemon_side(daemon_file);  // to fill the daemon's table from outside
    peer_table peer(peer_file);
    const pid_t daemon = start_daemon(argv[1]);
    for (const size_t rows : {size_t{0}, size_t{10000}, largest}) {
        compare_inserts(daemon_side, peer, rows);
    }
    daemon_side.fill(largest);
    peer.fill(largest);
    for (const size_t rows : {size_t{20}, size_t{1000}, largest}) compare_listings(peer, rows);
    show_peak_memory(daemon);
    stop_daemon(daemon);
    return 0;
}
