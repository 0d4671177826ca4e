// What a listing costs: pages of the server log from the client's call to the filled array, and the
// memory that the daemon takes for the largest.
//
//   the sum        the daemon's statements with a callback that does nothing, the page's records
//                  filled once, and their bytes sent by another process over a connected socket.
//                  Each part runs by itself in memory that is there already: nothing that answers
//                  a listing does less.
//   the plain way  a server that grows its rows by one realloc for each, copies them into a
//                  payload, and a client that receives into a growing buffer and copies its
//                  array out
//   memory         of the daemon, on our bus and on one that has the platform's functions alone:
//                  the peak over the reply's size, and what is held more than before, a second
//                  after the client has it all
//
// The largest listing is measured in memory that the machine has: before each turn as much is taken
// and given back, untimed. A virtual machine may return free memory to its host, where it costs
// more than the listing to have it again. How it goes then is shown without a goal.
//
// Everything runs on one CPU, over tables filled alike in two files of one file system. Run it
// through bench/run, which gives it a throw-away root.
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench_support.h"
#include "ravo_api.h"
#include "statements.h"

namespace {

using row = db_conn_server_log;
constexpr size_t largest = 100000;
constexpr size_t largest_reply = sizeof(db_conn_server_log_query) + largest * sizeof(row);
constexpr size_t held_more_kib = 8192;  // that the daemon may hold after the largest listing

// --- Bytes from another process ------------------------------------------------------------------

bool receive_all(int socket, char* target, size_t length) {
    while (length > 0) {
        const ssize_t step = recv(socket, target, length, 0);
        if (step <= 0) return false;
        target += step;
        length -= static_cast<size_t>(step);
    }
    return true;
}

void send_all(int socket, const char* data, size_t length) {
    while (length > 0) {
        const ssize_t step = send(socket, data, length, MSG_NOSIGNAL);
        if (step <= 0) bench::give_up("cannot send");
        data += step;
        length -= static_cast<size_t>(step);
    }
}

// A process that answers numbers, one after the other.
class other_process {
  public:
    explicit other_process(const std::function<void(int socket, size_t number)>& answer) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            bench::give_up("no socket");
        child_ = fork();
        if (child_ == 0) {
            close(ends[0]);
            size_t number = 0;
            while (receive_all(ends[1], reinterpret_cast<char*>(&number), sizeof number))
                answer(ends[1], number);
            _exit(0);
        }
        close(ends[1]);
        socket_ = ends[0];
    }
    ~other_process() {
        close(socket_);
        waitpid(child_, nullptr, 0);
    }
    other_process(const other_process&) = delete;
    other_process& operator=(const other_process&) = delete;

    void ask(size_t number) const {
        send_all(socket_, reinterpret_cast<const char*>(&number), sizeof number);
    }
    void receive(char* target, size_t length) const {
        if (!receive_all(socket_, target, length)) bench::give_up("the other process is gone");
    }

  private:
    pid_t child_ = -1;
    int socket_ = -1;
};

// --- The statements and their rows ---------------------------------------------------------------

// Into a record of zero bytes.
void fill_record(row& r, char** values) {
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
}

// --- The sum -------------------------------------------------------------------------------------

// Memory that is there already, on large pages where the machine has them.
char* resident_block(size_t length) {
    void* block = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) bench::give_up("no memory");
    (void)madvise(block, length, MADV_HUGEPAGE);
    memset(block, 1, length);
    return static_cast<char*>(block);
}

class sum {
  public:
    explicit sum(bench::database& peer)
        : peer_(peer),
          block_(resident_block(largest_reply)),
          sender_(
              [block = block_](int socket, size_t length) { send_all(socket, block, length); }) {}
    ~sum() { munmap(block_, largest_reply); }
    sum(const sum&) = delete;
    sum& operator=(const sum&) = delete;

    void list(size_t rows) {
        bench::select_rows(peer_, bench::connections, rows);
        auto* records = reinterpret_cast<row*>(block_);
        for (size_t n = 0; n < rows; ++n) {
            memset(&records[n], 0, sizeof records[n]);
            fill_record(records[n], values_);
        }
        const size_t length = sizeof(db_conn_server_log_query) + rows * sizeof(row);
        sender_.ask(length);
        sender_.receive(block_, length);
    }

  private:
    bench::database& peer_;
    char* const block_;
    const other_process sender_;
    char texts_[14][16] = {"100000",       "user96",       "4",         "100000", "1795322858",
                           "linux 2.6.14", "203.0.113.11", "10.88.0.2", "1",      "2",
                           "300000",       "400000",       "tun0",      "1"};
    char* values_[14] = {texts_[0],  texts_[1],  texts_[2],  texts_[3], texts_[4],
                         texts_[5],  texts_[6],  texts_[7],  texts_[8], texts_[9],
                         texts_[10], texts_[11], texts_[12], texts_[13]};
};

// --- The plain way -------------------------------------------------------------------------------

// A block that grows to what is asked for, and in which so much is used.
struct growing_block {
    char* data = nullptr;
    size_t used = 0;
    size_t capacity = 0;

    void grow_to(size_t wanted) {
        void* grown = realloc(data, wanted);
        if (grown == nullptr) bench::give_up("no memory");
        data = static_cast<char*>(grown);
        capacity = wanted;
    }
    void append(const char* bytes, size_t length) {
        while (used + length > capacity) grow_to(std::max(2 * capacity, size_t{64}));
        memcpy(data + used, bytes, length);
        used += length;
    }
    void release() {
        free(data);
        *this = {};
    }
};

int grow_by_row(void* block, int /*columns*/, char** values, char** /*names*/) {
    auto& rows = *static_cast<growing_block*>(block);
    rows.grow_to(rows.used + sizeof(row));
    memset(rows.data + rows.used, 0, sizeof(row));
    fill_record(*reinterpret_cast<row*>(rows.data + rows.used), values);
    rows.used += sizeof(row);
    return 0;
}

void answer_plainly(int socket, size_t wanted) {
    static bench::database own(bench::peer_file, bench::connections.create_text);
    growing_block rows;
    growing_block payload;
    bench::select_rows(own, bench::connections, wanted, grow_by_row, &rows);
    payload.append(reinterpret_cast<const char*>(&wanted), sizeof wanted);
    payload.append(rows.data, rows.used);
    rows.release();
    send_all(socket, payload.data, payload.used);
    payload.release();
}

void list_plainly(const other_process& server, size_t rows) {
    growing_block reply;
    const size_t length = sizeof(size_t) + rows * sizeof(row);
    server.ask(rows);
    while (reply.used < length) {
        if (reply.used == reply.capacity) reply.grow_to(std::max(2 * reply.capacity, size_t{8192}));
        const size_t step = std::min(length, reply.capacity) - reply.used;
        server.receive(reply.data + reply.used, step);
        reply.used += step;
    }
    auto* array = static_cast<row*>(calloc(rows, sizeof(row)));
    if (array == nullptr) bench::give_up("no memory");
    memcpy(array, reply.data + sizeof(size_t), rows * sizeof(row));
    if (array[rows - 1].id == 0) bench::give_up("the plain way lost rows");
    reply.release();
    free(array);
}

// --- The daemon ----------------------------------------------------------------------------------

void list_through_daemon(size_t rows) {
    db_query_cond cond = {};
    cond.count = static_cast<int64_t>(rows);
    db_conn_server_log_query header = {};
    db_conn_server_log_query* result = &header;
    list_conn_server_log(&cond, &result);
    if (header.count != rows) bench::give_up("the daemon lost rows");
    free(header.data);
}

std::string state_of(size_t rows, size_t table) {
    return std::to_string(rows) + " of " + std::to_string(table) + " rows, one CPU";
}

void compare_page(sum& floor, size_t rows, size_t table) {
    const int times = table > 10000 ? 2 : 10;
    bench::compare("page", state_of(rows, table), 25,
                   bench::repeated(times, [&] { list_through_daemon(rows); }),
                   {{"the sum", bench::repeated(times, [&] { floor.list(rows); }), 1.1}});
}

// As much as the plain way has at its peak.
void have_memory() {
    constexpr size_t length = 6 * largest_reply;
    munmap(resident_block(length), length);
}

bench::sample in_memory_that_is_had(const std::function<void()>& work) {
    return [work] {
        have_memory();
        return bench::microseconds(1, work);
    };
}

void compare_largest(sum& floor) {
    const other_process plain(answer_plainly);
    const auto ours = [] { list_through_daemon(largest); };
    const auto sum = [&] { floor.list(largest); };
    const auto plainly = [&] { list_plainly(plain, largest); };
    bench::compare("listing", state_of(largest, largest), 7, in_memory_that_is_had(ours),
                   {{"the sum", in_memory_that_is_had(sum), 1.5},
                    {"the plain way", in_memory_that_is_had(plainly), 1.0 / 3}});
    bench::compare(
        "listing", state_of(largest, largest) + ", memory as it comes", 5, bench::repeated(1, ours),
        {{"the sum", bench::repeated(1, sum)}, {"the plain way", bench::repeated(1, plainly)}});
}

// --- Memory --------------------------------------------------------------------------------------

// KiB held more than before, when that is little enough or a second has passed.
size_t held_after(pid_t daemon, size_t before) {
    using namespace std::chrono;
    const auto end = steady_clock::now() + seconds(1);
    while (true) {
        const size_t now = bench::memory_of(daemon, "VmRSS");
        const size_t more = now - std::min(now, before);
        if (more <= held_more_kib || steady_clock::now() > end) return more;
        std::this_thread::sleep_for(milliseconds(10));
    }
}

// The second largest listing counts: SQLite's caches are full then.
void show_memory(const char* ravod, const std::string& bus, double at_most) {
    const pid_t daemon = bench::start_service(ravod);
    list_through_daemon(largest);
    (void)held_after(daemon, bench::memory_of(daemon, "VmRSS"));
    const size_t before = bench::memory_of(daemon, "VmRSS");
    std::ofstream("/proc/" + std::to_string(daemon) + "/clear_refs") << "5";
    list_through_daemon(largest);
    const size_t more = held_after(daemon, before);
    const size_t peak = bench::memory_of(daemon, "VmHWM");
    const auto in = [](size_t kib) { return std::vector{static_cast<double>(kib)}; };
    bench::report("memory", "peak, " + bus, "the reply", in(peak), in(largest_reply / 1024),
                  at_most, "KiB");
    bench::report("memory", "held more after, " + bus, "8 MiB", in(more), in(held_more_kib), 1,
                  "KiB");
    bench::stop_service(daemon);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) bench::give_up("usage: list_bench RAVOD FOLDER_OF_A_PLATFORM_BUS");
    bench::run_on(0);
    // The first is there to fill the daemon's table from outside.
    bench::database daemon_side(bench::daemon_file, bench::connections.create_text);
    bench::database peer(bench::peer_file, bench::connections.create_text);
    const pid_t daemon = bench::start_service(argv[1]);
    {
        sum floor(peer);
        for (const size_t table : {size_t{1000}, largest}) {
            bench::fill_connections(daemon_side, table);
            bench::fill_connections(peer, table);
            for (const size_t rows : {size_t{20}, size_t{1000}}) compare_page(floor, rows, table);
        }
        compare_largest(floor);
    }
    bench::stop_service(daemon);
    show_memory(argv[1], "our bus", 1.1);
    setenv("LD_LIBRARY_PATH", argv[2], 1);
    show_memory(argv[1], "a platform's bus", 2.05);
    return 0;
}
