// What a call over the bus costs: against the least that its bytes can cost, a blocking exchange
// over an abstract stream socket with nothing checked, and against sd-bus from peer to peer. Each
// with a connection per call and with a connection that is kept; a record of 5200 bytes goes and an
// acknowledgement comes back.
//
// All servers are processes of their own, and all sides move the same payload. Caller and servers
// are tied to CPUs, once to a single one and once to one each: waking a process on another CPU
// costs more than all the rest of a call, and left to itself the scheduler places the servers now
// so, now otherwise. The number of rounds is the only argument.
//
// The bus keeps a connection from the second of a thread's calls on. So the calls that are to have
// one each go to more endpoints in turn than a thread remembers; the bare exchange does the same.
#include <fcntl.h>
#include <sys/prctl.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

#include "bench_support.h"
#include "zbservice.h"
#ifdef BENCH_SD_BUS
#include <systemd/sd-bus.h>
#endif

namespace {
using bench::give_up;

constexpr const char* method = "db_conn_insert";
constexpr size_t payload_bytes = 5200;
constexpr size_t frame_header_bytes = 16;
constexpr size_t request_bytes = frame_header_bytes + 14 + payload_bytes;
constexpr size_t endpoints = 5;  // one more than a thread of callers remembers
constexpr int calls_per_round = 20;
constexpr int usual_rounds = 301;

const std::vector<char> payload(payload_bytes);

void expect(bool holds, const char* what) {
    if (!holds) give_up(std::string(what) + ": " + strerror(errno));
}

// --- Sockets -------------------------------------------------------------------------------------

struct abstract_address {
    explicit abstract_address(std::string_view text) {
        name.sun_family = AF_UNIX;
        text.copy(name.sun_path + 1, text.size());
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + text.size());
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&name); }

    sockaddr_un name = {};
    socklen_t length = 0;
};

int new_socket() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    expect(fd >= 0, "socket");
    return fd;
}

int listen_at(const std::string& path) {
    const int listener = new_socket();
    const abstract_address address(path);
    expect(bind(listener, address.get(), address.length) == 0, "bind");
    expect(listen(listener, 64) == 0, "listen");
    return listener;
}

int connect_to(const abstract_address& address) {
    const int fd = new_socket();
    expect(connect(fd, address.get(), address.length) == 0, "connect");
    return fd;
}

// --- The bare exchange ---------------------------------------------------------------------------

// False at the end of the stream.
bool receive_all(int fd, char* buffer, size_t size) {
    for (size_t taken = 0; taken < size;) {
        const ssize_t step = recv(fd, buffer + taken, size - taken, 0);
        if (step <= 0) return false;
        taken += static_cast<size_t>(step);
    }
    return true;
}

void send_all(int fd, const char* buffer, size_t size) {
    expect(send(fd, buffer, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size), "send");
}

std::array<char, request_bytes> request;
std::array<char, frame_header_bytes> reply;

void exchange(int fd) {
    send_all(fd, request.data(), request.size());
    expect(receive_all(fd, reply.data(), reply.size()), "recv");
}

// A connection per call: closed after the reply, as its caller does. A kept one: until its end.
template <bool keeps>
void serve_bare(const std::string& path, const std::function<void()>& ready) {
    const int listener = listen_at(path);
    ready();
    while (true) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        expect(fd >= 0, "accept");
        while (receive_all(fd, request.data(), request.size())) {
            send_all(fd, reply.data(), reply.size());
            if (!keeps) break;
        }
        close(fd);
    }
}

void call_bare(const abstract_address& address) {
    const int fd = connect_to(address);
    exchange(fd);
    close(fd);
}

// --- The bus -------------------------------------------------------------------------------------

void acknowledge(const char* /*method*/, zb_io* io, int /*fd*/) {
    (void)zb_io_realloc(io, 0);
    (void)zb_reply(io);
    zb_io_free(io);
}

void serve_bus(const std::string& path, const std::function<void()>& ready) {
    zb_service* service = zb_create(("@" + path).c_str(), 4, 1, acknowledge);
    if (service == nullptr) give_up("zb_create");
    ready();
    (void)zb_start(service);
}

// As the client library does it: a buffer per call.
void call_bus(const std::string& path) {
    zb_io* io = zb_io_create();
    if (zb_io_write(io, payload.data(), payload.size()) != 0) give_up("zb_io_write");
    const int result = zb_call(path.c_str(), method, io, 5, -1);
    if (result != 0) give_up(std::string("zb_call: ") + zb_strerror(result));
    zb_io_free(io);
}

// --- sd-bus --------------------------------------------------------------------------------------

#ifdef BENCH_SD_BUS
constexpr const char* object = "/bench";
constexpr const char* interface = "bench.Records";
constexpr const char* member = "Insert";

int acknowledge_message(sd_bus_message* call, void* /*context*/, sd_bus_error* /*error*/) {
    const void* data = nullptr;
    size_t size = 0;
    if (sd_bus_message_read_array(call, 'y', &data, &size) < 0 || size != payload_bytes)
        give_up("sd-bus: bad request");
    return sd_bus_reply_method_return(call, "");
}

void serve_sd_bus_connection(int fd) {
    sd_bus* bus = nullptr;
    sd_id128_t id = {};
    expect(sd_id128_randomize(&id) >= 0 && sd_bus_new(&bus) >= 0 &&
               sd_bus_set_fd(bus, fd, fd) >= 0 && sd_bus_set_server(bus, 1, id) >= 0 &&
               sd_bus_add_object(bus, nullptr, object, acknowledge_message, nullptr) >= 0 &&
               sd_bus_start(bus) >= 0,
           "sd-bus server");
    for (int done = 0; done >= 0;) {
        done = sd_bus_process(bus, nullptr);
        if (done == 0) done = sd_bus_wait(bus, UINT64_MAX);
    }
    sd_bus_unref(bus);
}

void serve_sd_bus(const std::string& path, const std::function<void()>& ready) {
    const int listener = listen_at(path);
    ready();
    while (true) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        expect(fd >= 0, "accept");
        serve_sd_bus_connection(fd);
    }
}

using sd_bus_connection = std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)>;

sd_bus_connection connect_sd_bus(const std::string& path) {
    sd_bus* bus = nullptr;
    expect(sd_bus_new(&bus) >= 0 &&
               sd_bus_set_address(bus, ("unix:abstract=" + path).c_str()) >= 0 &&
               sd_bus_start(bus) >= 0,
           "sd-bus caller");
    return {bus, sd_bus_close_unref};
}

void call_sd_bus(sd_bus* bus) {
    sd_bus_message* call = nullptr;
    sd_bus_message* answer = nullptr;
    expect(sd_bus_message_new_method_call(bus, &call, nullptr, object, interface, member) >= 0 &&
               sd_bus_message_append_array(call, 'y', payload.data(), payload.size()) >= 0 &&
               sd_bus_call(bus, call, 0, nullptr, &answer) >= 0,
           "sd-bus call");
    sd_bus_message_unref(answer);
    sd_bus_message_unref(call);
}
#endif

// --- Servers -------------------------------------------------------------------------------------

using serve_function = void (*)(const std::string& path, const std::function<void()>& ready);

// A server in a process of its own, which can be called when the constructor returns.
class server {
  public:
    server(serve_function serve, int cpu) {
        static int count = 0;
        path_ = "bus_bench/" + std::to_string(getpid()) + "/" + std::to_string(count++);
        int ready[2];
        expect(pipe2(ready, O_CLOEXEC) == 0, "pipe2");
        child_ = fork();
        expect(child_ >= 0, "fork");
        if (child_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            bench::run_on(cpu);
            serve(path_, [&] { expect(write(ready[1], "", 1) == 1, "write"); });
            _exit(1);
        }
        close(ready[1]);
        char byte = 0;
        expect(read(ready[0], &byte, 1) == 1, "the server's start");
        close(ready[0]);
    }
    ~server() {
        (void)kill(child_, SIGKILL);
        (void)waitpid(child_, nullptr, 0);
    }
    server(const server&) = delete;
    server& operator=(const server&) = delete;
    const std::string& path() const { return path_; }
    std::string bus_path() const { return "@" + path_; }

  private:
    std::string path_;
    pid_t child_ = -1;
};

using servers = std::vector<std::unique_ptr<server>>;

servers start_servers(serve_function serve, int cpu) {
    servers all;
    while (all.size() < endpoints) all.push_back(std::make_unique<server>(serve, cpu));
    return all;
}

#ifdef BENCH_SD_BUS
void call_sd_bus_at(const server& at) {
    const sd_bus_connection peer = connect_sd_bus(at.path());
    call_sd_bus(peer.get());
}
#endif

// --- Measuring -----------------------------------------------------------------------------------

// A call to each server in turn.
template <class Call>
bench::sample in_turn(const servers& all, Call call) {
    return bench::repeated(calls_per_round, [&all, call] {
        static size_t next = 0;
        call(*all[next++ % endpoints]);
    });
}

void compare_per_call(const std::string& state, int rounds, int cpu) {
    const servers bus = start_servers(serve_bus, cpu);
    const servers bare = start_servers(serve_bare<false>, cpu);
#ifdef BENCH_SD_BUS
    const servers peers = start_servers(serve_sd_bus, cpu);
#endif
    const auto call_bare_at = [](const server& at) { call_bare(abstract_address(at.path())); };
    const auto call_bus_at = [](const server& at) { call_bus(at.bus_path()); };
    bench::compare("call, connection each", state, rounds, in_turn(bus, call_bus_at),
                   {{"raw exchange", in_turn(bare, call_bare_at), 1.15},
#ifdef BENCH_SD_BUS
                    {"sd-bus, peer to peer", in_turn(peers, call_sd_bus_at), 0.4}
#endif
                   });
}

void compare_kept(const std::string& state, int rounds, int cpu) {
    const server bus(serve_bus, cpu);
    const server bare(serve_bare<true>, cpu);
    const int kept = connect_to(abstract_address(bare.path()));
#ifdef BENCH_SD_BUS
    const server peer(serve_sd_bus, cpu);
    const sd_bus_connection connection = connect_sd_bus(peer.path());
#endif
    const std::string path = bus.bus_path();
    bench::compare(
        "call, connection kept", state, rounds,
        bench::repeated(calls_per_round, [&] { call_bus(path); }),
        {{"raw exchange", bench::repeated(calls_per_round, [&] { exchange(kept); }), 1.2},
#ifdef BENCH_SD_BUS
         {"sd-bus, peer to peer",
          bench::repeated(calls_per_round, [&] { call_sd_bus(connection.get()); }), 1}
#endif
        });
    close(kept);
}

void compare_all(const std::string& state, int rounds, int caller, int serving) {
    bench::run_on(caller);
    compare_per_call(state, rounds, serving);
    compare_kept(state, rounds, serving);
}
}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? static_cast<int>(strtol(argv[1], nullptr, 10)) : usual_rounds;
    if (argc > 2 || rounds < 1) give_up("usage: bus_bench [ROUNDS]");
#ifndef BENCH_SD_BUS
    printf("sd-bus is not measured: built without libsystemd-dev\n");
#endif
    cpu_set_t usable;
    if (sched_getaffinity(0, sizeof usable, &usable) != 0) give_up("no CPUs");
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(static_cast<size_t>(cpu), &usable)) cpus.push_back(cpu);
    }
    compare_all("5200 bytes, one CPU", rounds, cpus.front(), cpus.front());
    if (cpus.size() > 1) {
        compare_all("5200 bytes, two CPUs", rounds, cpus.front(), cpus.back());
    } else {
        printf("only one CPU: not measured on two\n");
    }
    return 0;
}
