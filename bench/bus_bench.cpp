// What a call over the bus costs, as a ratio to the least that its bytes can cost: a blocking
// exchange over an abstract stream socket, with a connection per call and nothing checked.
//
// Both servers are processes of their own, both sides of a pair move the same bytes (frames
// included). The two take turns in rounds shorter than a time slice, so that whatever else the
// machine does meets both; printed are the medians over the rounds of the microseconds per call and
// of the ratio of each round. Run with the number of rounds as the only argument to change it.
//
// Caller and servers are tied to CPUs, once to a single one and once to one each. Waking a process
// on another CPU costs more than all the rest of a call; left to itself the scheduler places the
// two servers now so, now otherwise, and the ratio would tell of that alone.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "zbservice.h"

namespace {
constexpr std::size_t frame_header_bytes = 16;
constexpr const char* method = "db_conn_insert";
constexpr int calls_per_round = 20;
constexpr int usual_rounds = 1001;

struct workload {
    std::size_t request;  // payload bytes
    std::size_t reply;
};

// The requests are the record sizes, the replies an acknowledgement, a short text and one row.
constexpr workload workloads[] = {{8, 0},       {8, 36},    {2088, 0},   {2088, 36},
                                  {2088, 4096}, {5200, 0},  {5200, 36},  {5200, 4096},
                                  {7192, 0},    {7192, 36}, {7192, 4096}};

workload current;  // of the servers
int server_cpu = 0;

void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

// ---- Placement ---------------------------------------------------------------------------------

void run_on(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(cpu), &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) fail("sched_setaffinity");
}

std::vector<int> usable_cpus() {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) != 0) fail("sched_getaffinity");
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(static_cast<std::size_t>(cpu), &set)) cpus.push_back(cpu);
    }
    return cpus;
}

// ---- The bare exchange -------------------------------------------------------------------------

struct abstract_address {
    explicit abstract_address(std::string_view text) {
        name.sun_family = AF_UNIX;
        std::memcpy(name.sun_path + 1, text.data(), text.size());
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + text.size());
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&name); }

    sockaddr_un name = {};
    socklen_t length = 0;
};

int new_socket() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) fail("socket");
    return fd;
}

void receive_all(int fd, std::vector<char>& buffer) {
    for (std::size_t taken = 0; taken < buffer.size();) {
        const ssize_t step = recv(fd, buffer.data() + taken, buffer.size() - taken, 0);
        if (step <= 0) fail("recv");
        taken += static_cast<std::size_t>(step);
    }
}

void send_all(int fd, const std::vector<char>& buffer) {
    if (send(fd, buffer.data(), buffer.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(buffer.size()))
        fail("send");
}

void serve_bare(const std::string& path, int ready) {
    const abstract_address address(path);
    const int listener = new_socket();
    if (bind(listener, address.get(), address.length) != 0 || listen(listener, 64) != 0)
        fail("bind");
    if (write(ready, "", 1) != 1) fail("write");
    std::vector<char> request(frame_header_bytes + std::strlen(method) + current.request);
    const std::vector<char> reply(frame_header_bytes + current.reply);
    while (true) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) fail("accept");
        receive_all(fd, request);
        send_all(fd, reply);
        close(fd);
    }
}

void call_bare(const abstract_address& address, const std::vector<char>& request,
               std::vector<char>& reply) {
    const int fd = new_socket();
    if (connect(fd, address.get(), address.length) != 0) fail("connect");
    send_all(fd, request);
    receive_all(fd, reply);
    close(fd);
}

// ---- The bus -----------------------------------------------------------------------------------

void answer(const char*, zb_io* io, int) {
    if (zb_io_realloc(io, 0) != 0 || zb_io_realloc(io, current.reply) != 0) fail("zb_io_realloc");
    (void)zb_reply(io);
    zb_io_free(io);
}

void serve_bus(const std::string& path, int ready) {
    zb_service* service = zb_create(("@" + path).c_str(), 4, 1, answer);
    if (!service || write(ready, "", 1) != 1) fail("zb_create");
    (void)zb_start(service);
}

// As the client library does it: a buffer per call.
void call_bus(const std::string& path, const std::vector<char>& payload) {
    zb_io* io = zb_io_create();
    if (zb_io_write(io, payload.data(), payload.size()) != 0) fail("zb_io_write");
    const int result = zb_call(path.c_str(), method, io, 5, -1);
    if (result != 0) {
        (void)std::fprintf(stderr, "zb_call: %s\n", zb_strerror(result));
        std::exit(1);
    }
    zb_io_free(io);
}

// ---- Measuring ---------------------------------------------------------------------------------

// Starts a server process and returns once it can be called.
pid_t start_server(void (*serve)(const std::string&, int), const std::string& path) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) fail("pipe2");
    const pid_t pid = fork();
    if (pid < 0) fail("fork");
    if (pid == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        run_on(server_cpu);
        serve(path, ready[1]);
        _exit(1);
    }
    close(ready[1]);
    char byte = 0;
    if (read(ready[0], &byte, 1) != 1) fail("server");
    close(ready[0]);
    return pid;
}

void stop_server(pid_t pid) {
    (void)kill(pid, SIGKILL);
    (void)waitpid(pid, nullptr, 0);
}

template <class Call>
double microseconds_per_call(Call call) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < calls_per_round; ++i) call();
    const std::chrono::duration<double, std::micro> taken =
        std::chrono::steady_clock::now() - start;
    return taken.count() / calls_per_round;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double measure(long rounds) {
    const std::string bare_path = "bus_bench/bare/" + std::to_string(getpid());
    const std::string bus_path = "bus_bench/bus/" + std::to_string(getpid());
    const pid_t bare_server = start_server(serve_bare, bare_path);
    const pid_t bus_server = start_server(serve_bus, bus_path);

    const abstract_address bare_address(bare_path);
    const std::string bus_address = "@" + bus_path;
    const std::vector<char> payload(current.request);
    const std::vector<char> request(frame_header_bytes + std::strlen(method) + current.request);
    std::vector<char> reply(frame_header_bytes + current.reply);
    const auto bare_call = [&] { call_bare(bare_address, request, reply); };
    const auto bus_call = [&] { call_bus(bus_address, payload); };

    std::vector<double> bare, bus, ratio;
    (void)microseconds_per_call(bare_call);
    (void)microseconds_per_call(bus_call);
    for (long i = 0; i < rounds; ++i) {
        bare.push_back(microseconds_per_call(bare_call));
        bus.push_back(microseconds_per_call(bus_call));
        ratio.push_back(bus.back() / bare.back());
    }
    stop_server(bare_server);
    stop_server(bus_server);
    std::printf("%8zu %8zu %10.2f %10.2f %8.3f\n", current.request, current.reply, median(bare),
                median(bus), median(ratio));
    return median(ratio);
}

double measure_all(const char* placement, int caller, int server, long rounds) {
    server_cpu = server;
    run_on(caller);
    std::printf("%s (medians of %ld rounds of %d calls)\n", placement, rounds, calls_per_round);
    std::printf("%8s %8s %10s %10s %8s\n", "request", "reply", "bare us", "bus us", "ratio");
    double worst = 0;
    for (const workload& each : workloads) {
        current = each;
        worst = std::max(worst, measure(rounds));
        (void)std::fflush(stdout);
    }
    return worst;
}
}  // namespace

int main(int argc, char** argv) {
    const long rounds = argc > 1 ? std::strtol(argv[1], nullptr, 10) : usual_rounds;
    if (rounds < 1) {
        (void)std::fprintf(stderr, "usage: %s [ROUNDS]\n", argv[0]);
        return 2;
    }
    const std::vector<int> cpus = usable_cpus();
    double worst = measure_all("caller and server on one CPU", cpus.front(), cpus.front(), rounds);
    if (cpus.size() > 1) {
        const double apart =
            measure_all("caller and server on two CPUs", cpus.front(), cpus.back(), rounds);
        worst = std::max(worst, apart);
    } else {
        std::printf("only one CPU: not measured on two\n");
    }
    std::printf("worst ratio %.3f\n", worst);
    return 0;
}
