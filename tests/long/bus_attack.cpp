// Attacks on endpoints by callers of an allowed user, and what other callers notice of them. Each
// figure is printed beside its goal. The endpoint and each crowd are processes of their own.
//
// BUS_DESCRIPTORS and BUS_CUTS in the environment change how many descriptors a crowd sends, and
// how many connections are cut.
#include <sqlite3.h>
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "ravo_api.h"
#include "support/bus.h"
#include "support/daemon.h"

using namespace bus_test;

namespace {

using monotonic = std::chrono::steady_clock;
using seconds = std::chrono::duration<double>;

constexpr uid_t member = 5001;
constexpr gid_t deployed_group = 4713;
constexpr int crowd_processes = 4;
constexpr int crowd_connections = 500;  // of each process
constexpr std::size_t mib = std::size_t{1} << 20;

seconds since(monotonic::time_point start) { return monotonic::now() - start; }

// --- Figures -------------------------------------------------------------------------------------

void show(const char* name, double value, const char* unit) {
    (void)std::printf("  %-42s %12.2f %s\n", name, value, unit);
    (void)std::fflush(stdout);
}

void show(const char* name, double value, const char* unit, double goal) {
    (void)std::printf("  %-42s %12.2f %-3s (at most %.2f)\n", name, value, unit, goal);
    (void)std::fflush(stdout);
    EXPECT_LE(value, goal) << name;
}

std::size_t number_of(const char* variable, std::size_t usual) {
    const char* text = std::getenv(variable);
    return text != nullptr ? std::stoul(text) : usual;
}

// --- Processes -----------------------------------------------------------------------------------

// A field of /proc/PID/status, in KiB.
double memory_of(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field + ":")) return std::stod(line.substr(field.size() + 1));
    }
    return 0;
}

double descriptors_of(pid_t pid) {
    using std::filesystem::directory_iterator;
    const directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
    return static_cast<double>(std::distance(all, directory_iterator()));
}

// When connections that have just ended are closed, and those that this process's calls have kept.
double descriptors_at_rest(pid_t pid) {
    end_kept_connections();
    event never;
    double last = descriptors_of(pid);
    for (int same = 0, looks = 0; same < 5 && looks < 1000; ++looks) {
        (void)never.wait(10);
        const double now = descriptors_of(pid);
        same = now == last ? same + 1 : 0;
        last = now;
    }
    return last;
}

double cpu_seconds_of(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string field;
    double ticks = 0;
    for (int i = 1; stat >> field && i <= 15; ++i) {
        if (i >= 14) ticks += std::stod(field);  // in user code, in the kernel
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void allow_descriptors(rlim_t count) {
    const rlimit limit = {count, count};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

bool calls_well() { return call(address, "m", "x", 5) == outcome{0, "m:x"}; }

// An endpoint in a process of its own, which is to have as many descriptors at the end as before.
class watched_endpoint : public served_process {
  public:
    explicit watched_endpoint(const std::function<void()>& before_start = {})
        : served_process(echo_to_anyone, {}, before_start) {
        EXPECT_TRUE(calls_well());
        before_ = descriptors_at_rest(pid());
    }
    ~watched_endpoint() {
        show("exits", calls_well() ? 0 : 1, "", 0);
        show("descriptors leaked", descriptors_at_rest(pid()) - before_, "", 0);
    }
    watched_endpoint(const watched_endpoint&) = delete;
    watched_endpoint& operator=(const watched_endpoint&) = delete;

  private:
    // Most of those who ask are gone by the time of the reply.
    static void echo_to_anyone(const std::string& method, zb_io* io, int fd) {
        if (fd >= 0) close(fd);
        const std::string text = method + ":" + std::string(content(io));
        EXPECT_EQ(zb_io_realloc(io, 0), 0);
        EXPECT_EQ(zb_io_write(io, text.data(), text.size()), 0);
        (void)zb_reply(io);
    }

    double before_ = 0;
};

// --- The other caller ----------------------------------------------------------------------------

// Calls again and again, a thousand times a second at most, until it is stopped.
class other_caller {
  public:
    explicit other_caller(std::function<bool()> call) : call_(std::move(call)) {
        thread_ = std::thread([this] {
            while (!over_.wait(1)) {
                const auto start = monotonic::now();
                failures_ += call_() ? 0 : 1;
                milliseconds_.push_back(1000 * since(start).count());
            }
        });
    }
    ~other_caller() {
        if (thread_.joinable()) stop();
    }
    other_caller(const other_caller&) = delete;
    other_caller& operator=(const other_caller&) = delete;

    void stop() {
        over_.set();
        thread_.join();
        std::sort(milliseconds_.begin(), milliseconds_.end());
    }
    void show_figures() {
        stop();
        show("another caller's calls", static_cast<double>(milliseconds_.size()), "");
        show("  of which failed", failures_, "", 0);
        show("  median", within(0.5), "ms");
        show("  99 of 100 within", within(0.99), "ms", 50);
        show("  longest", within(1), "ms");
    }
    double within(double part) const {
        const auto last = static_cast<double>(milliseconds_.size() - 1);
        return milliseconds_[static_cast<std::size_t>(part * last)];
    }

  private:
    std::function<bool()> call_;
    event over_;
    std::vector<double> milliseconds_;
    double failures_ = 0;
    std::thread thread_;
};

// What else the machine does is in all figures.
void show_machine(const std::function<bool()>& call) {
    other_caller alone(call);
    event never;
    (void)never.wait(2000);
    alone.stop();
    show("without an attack, 99 of 100 calls within", alone.within(0.99), "ms");
}

// --- A crowd -------------------------------------------------------------------------------------

// Counted by all processes of a crowd.
struct crowd_counts {
    std::atomic<long> descriptors;
    std::atomic<long> connections;
};

crowd_counts& shared_counts() {
    void* memory = mmap(nullptr, sizeof(crowd_counts), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    static auto* counts = new (memory) crowd_counts;
    return *counts;
}

// One of the crowd's connections: sends half a request with as many descriptors as there is room
// for and stays until it is put out; then once more. It tries every few milliseconds: a crowd that
// never rests takes the CPUs as well, which no endpoint can help.
class intruder {
  public:
    // Goes one step on.
    void push() {
        if (!stream_ && !connect_once()) return;
        char byte = 0;
        const ssize_t heard = recv(stream_->fd(), &byte, 1, MSG_DONTWAIT);
        if (heard >= 0 || errno != EAGAIN) stream_.reset();
    }

  private:
    bool connect_once() {
        static const abstract_address endpoint(address);
        static const std::vector<int> fds(16, STDERR_FILENO);
        stream_.emplace(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (connect(stream_->fd(), endpoint.get(), endpoint.length) != 0) {
            stream_.reset();
            return false;
        }
        ++shared_counts().connections;
        for (const char byte : {'z', 'b'}) {
            if (stream_->send_with(std::string_view(&byte, 1), fds))
                shared_counts().descriptors += static_cast<long>(fds.size());
        }
        return true;
    }

    std::optional<raw_stream> stream_;
};

void be_a_crowd(uid_t user, event& over) {
    if (user != geteuid() && (setresgid(deployed_group, deployed_group, deployed_group) != 0 ||
                              setresuid(user, user, user) != 0))
        _exit(1);
    std::vector<intruder> all(crowd_connections);
    while (!over.wait(5)) {
        for (intruder& each : all) each.push();
    }
}

void attack_with_a_crowd(uid_t user) {
    const auto wanted = static_cast<long>(number_of("BUS_DESCRIPTORS", 1000000));
    (void)shared_counts();  // before the processes that count
    const watched_endpoint served;
    show_machine(calls_well);
    event over;
    std::vector<std::unique_ptr<process>> crowd;
    for (int i = 0; i < crowd_processes; ++i)
        crowd.push_back(std::make_unique<process>([&] { be_a_crowd(user, over); }));
    other_caller other(calls_well);
    const double before = cpu_seconds_of(served.pid());
    const auto start = monotonic::now();
    event never;
    while ((shared_counts().descriptors < wanted || since(start).count() < 10) &&
           since(start).count() < 300)
        (void)never.wait(100);
    show("connections at a time", crowd_processes * crowd_connections, "");
    show("connections in all", static_cast<double>(shared_counts().connections), "");
    show("descriptors sent", static_cast<double>(shared_counts().descriptors), "");
    EXPECT_GE(shared_counts().descriptors, wanted);
    show("the endpoint's time on the CPU",
         100 * (cpu_seconds_of(served.pid()) - before) / since(start).count(), "%");
    other.show_figures();
    over.set();
    for (const auto& each : crowd) EXPECT_EQ(each->wait(), 0);
}
}  // namespace

TEST(bus_attack, crowd_of_the_callers_own_user) { attack_with_a_crowd(geteuid()); }

TEST(bus_attack, crowd_of_another_user) {
    unsigned from = 0;
    unsigned to = 0;
    unsigned count = 0;
    std::ifstream("/proc/self/uid_map") >> from >> to >> count;
    ASSERT_TRUE(geteuid() == 0 && count > member) << "only the superuser has other users";
    std::ofstream("/etc/zbservice.conf") << "group " << deployed_group << "\n";
    attack_with_a_crowd(member);
}

namespace {
// --- A reader that stalls ------------------------------------------------------------------------

void fill_table() {
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open("/etc/config/ravo/ravo.db", &db), SQLITE_OK);
    const char* text =
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000) "
        "INSERT INTO conn_server_log (username, vpn_type, uptime, time, device_info, source_ip, "
        "vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, action) "
        "SELECT 'user' || (i % 97), 4, i, 1795222858 + i, 'linux', '203.0.113.11', '10.88.0.2', "
        "1, 2, 3 * i, 4 * i, 'tun0', 1 FROM n;";
    EXPECT_EQ(sqlite3_exec(db, text, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
}

// Another table's list, which is empty: what the daemon does for it takes no time of its own.
bool lists_well() {
    db_query_cond cond = {};
    db_conn_client_log_query header = {1, 1, nullptr};
    db_conn_client_log_query* result = &header;
    list_conn_client_log(&cond, &result);
    return header.count == 0;
}

}  // namespace

TEST(bus_attack, reader_of_the_largest_list_who_stalls) {
    const ravod_process ravod;
    fill_table();
    show_machine(lists_well);
    db_query_cond cond = {};
    cond.count = 100000;
    raw_stream reader = connect_to("@/var/run/ravod.sock");
    EXPECT_TRUE(reader.send(request_frame("db_conn_server_log_query",
                                          {reinterpret_cast<const char*>(&cond), sizeof cond})));
    const auto asked = monotonic::now();
    EXPECT_EQ(reader.receive(16), header(1, 2, 0, 24 + 100000 * sizeof(db_conn_server_log)));
    show("time to make the list", since(asked).count(), "s");
    EXPECT_EQ(reader.receive(10 * mib).size(), 10 * mib);
    const auto stalled = monotonic::now();
    other_caller other(lists_well);
    pollfd polled = {reader.fd(), 0, 0};
    EXPECT_EQ(poll(&polled, 1, patience_ms), 1);
    show("dropped after", since(stalled).count(), "s", 10);
    other.show_figures();
    EXPECT_TRUE(lists_well());
    show("ravod's peak memory", memory_of(ravod.pid(), "VmHWM") / 1024 / 1024, "GiB", 1.1);
    show("ravod's memory afterwards", memory_of(ravod.pid(), "VmRSS") / 1024, "MiB");
}

// --- Connections that are cut --------------------------------------------------------------------

namespace {
void cut_request(const std::string& frame, std::size_t length, bool half_closes) {
    raw_stream caller = connect_to(address);
    (void)caller.send_with(frame.substr(0, std::max<std::size_t>(length, 1)),
                           {STDERR_FILENO, STDERR_FILENO});
    if (half_closes) (void)shutdown(caller.fd(), SHUT_WR);
}

void cut_reply(const std::string& frame, std::size_t length) {
    raw_stream caller = connect_to(address);
    EXPECT_TRUE(caller.send(frame));
    EXPECT_EQ(caller.receive(length).size(), length);
}

}  // namespace

TEST(bus_attack, connections_cut_at_every_byte_of_a_request_and_of_a_reply) {
    const std::size_t cuts = number_of("BUS_CUTS", 100000);
    const watched_endpoint served;
    const std::string small = request_frame("method", std::string(100, 'x'));
    const std::string reply = reply_frame(replied, "method:" + std::string(100, 'x'));
    const std::string large = request_frame("method", std::string(400000, 'x'));
    double memory = 0;
    std::size_t made = 0;
    for (std::size_t round = 0; made < cuts; ++round) {
        for (std::size_t n = 1; n <= small.size(); ++n, ++made)
            cut_request(small, n, round % 2 == 0);
        for (std::size_t n = 0; n <= reply.size(); ++n, ++made) cut_reply(small, n);
        for (std::size_t n = 0; n <= 400000; n += 40000, ++made) cut_reply(large, n);
        EXPECT_TRUE(calls_well());
        if (round == 10) memory = memory_of(served.pid(), "VmRSS");
    }
    show("connections cut", static_cast<double>(made), "");
    if (memory > 0) show("memory grown", memory_of(served.pid(), "VmRSS") - memory, "KiB", 1024);
}

// --- Connections that grow old -------------------------------------------------------------------

namespace {
double seconds_until_given_up(const std::vector<raw_stream>& callers, monotonic::time_point start) {
    for (const raw_stream& each : callers) {
        pollfd polled = {each.fd(), POLLIN, 0};
        EXPECT_EQ(poll(&polled, 1, patience_ms), 1);
    }
    return since(start).count();
}

}  // namespace

TEST(bus_attack, connections_that_are_idle_half_open_or_drip) {
    const watched_endpoint served;
    const std::string frame = request_frame("method", std::string(100, 'x'));
    std::vector<raw_stream> idle;
    const auto start = monotonic::now();
    for (std::size_t i = 0; i < 150; ++i) {
        idle.push_back(connect_to(address));
        EXPECT_TRUE(idle.back().send(frame.substr(0, i % 50)));
    }
    show("idle and half open ones gone after", seconds_until_given_up(idle, start), "s", 6);
    raw_stream drips = connect_to(address);
    const auto first_drop = monotonic::now();
    pollfd polled = {drips.fd(), POLLIN, 0};
    for (const char byte : frame) {
        (void)drips.send(std::string_view(&byte, 1));
        if (poll(&polled, 1, 1000) != 0) break;
    }
    show("one that sends a byte a second gone after", since(first_drop).count(), "s", 31);
}

// --- No descriptors left -------------------------------------------------------------------------

TEST(bus_attack, callers_who_keep_all_of_32_descriptors) {
    const watched_endpoint served([] { allow_descriptors(32); });
    const std::string asks = request_frame("m", std::string(400000, 'x'));
    std::vector<raw_stream> readers;
    for (int i = 0; i < 100; ++i) {
        readers.push_back(connect_to(address));
        if (i < 20) {
            EXPECT_TRUE(readers.back().send(asks));
        } else if (i % 2 == 0) {
            EXPECT_TRUE(readers.back().send("zb"));
        }
    }
    const double before = cpu_seconds_of(served.pid());
    const auto start = monotonic::now();
    event never;
    while (since(start).count() < 4) (void)never.wait(100);
    const double spent = 100 * (cpu_seconds_of(served.pid()) - before) / since(start).count();
    show("time on the CPU", spent, "%", 5);
    const auto asked = monotonic::now();
    show("another caller's calls that failed", calls_well() ? 0 : 1, "", 0);
    show("  which took", 1000 * since(asked).count(), "ms", 1500);
}
