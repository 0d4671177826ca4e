// Users who share the bus: what each holds is charged to him and given back, whoever holds most
// makes room, and an address that another user has taken is refused and told to the system log.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "global_options.h"
#include "ravo_api.h"
#include "support/bus.h"
#include "support/other_side.h"
#include "support/seconds_ahead.h"

using namespace bus_test;

namespace {
constexpr uid_t own = 0;  // root has the own user's share
constexpr uid_t first_member = 5001;
constexpr uid_t second_member = 5002;
constexpr std::size_t own_connections = 192;
constexpr std::size_t member_connections = 64;
constexpr std::size_t mib = std::size_t{1} << 20;

using callers = std::vector<raw_stream>;

const std::string half_a_request = "zb";
const std::string rest_of_it = request_frame("m", "x").substr(2);

callers connect_many(uid_t user, std::size_t count, const std::string& sent = half_a_request) {
    callers many;
    for (std::size_t i = 0; i < count; ++i) {
        many.push_back(connect_as(user));
        EXPECT_TRUE(many.back().send(sent));
    }
    return many;
}

// Everything that was sent before has been seen when this returns.
void let_endpoint_catch_up() { EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"})); }

bool is_given_up(raw_stream& caller) {
    pollfd polled = {caller.fd(), POLLIN, 0};
    return poll(&polled, 1, 2000) == 1 && caller.receive_all() == reply_frame(busy);
}

bool is_served(raw_stream& caller, const std::string& rest = rest_of_it) {
    return caller.send(rest) && caller.receive(16).substr(0, 8) == header(1, 2, 0, 0).substr(0, 8);
}

// Replies with as many bytes as the method says, or echoes.
void answer_bytes(const std::string& method, zb_io* io, int fd) {
    if (method == "silent") return;
    if (method.find_first_not_of("0123456789") != std::string::npos) {
        echo(method, io, fd);
        return;
    }
    EXPECT_EQ(zb_io_realloc(io, std::stoul(method)), 0);
    (void)zb_reply(io);
}

class users : public testing::Test {
  protected:
    // The endpoint reads the file when it is created.
    users() : served_((deploy("group 4713\n"), answer_bytes)) {}

    leak_check descriptors_;
    endpoint served_;
};
}  // namespace

// ---- Who makes room ----------------------------------------------------------------------------

TEST_F(users, one_with_a_full_share_of_connections_makes_room_himself) {
    callers others = connect_many(own, 10);  // older
    callers hostile = connect_many(first_member, member_connections);
    let_endpoint_catch_up();
    callers more = connect_many(first_member, 2);
    EXPECT_TRUE(is_given_up(hostile[0]));
    EXPECT_TRUE(is_given_up(hostile[1]));
    EXPECT_TRUE(is_served(hostile[2]));
    for (raw_stream& each : others) EXPECT_TRUE(is_served(each));
}

TEST_F(users, one_who_holds_most_connections_makes_room_when_the_endpoint_is_full) {
    callers others = connect_many(first_member, member_connections);  // older
    callers hostile = connect_many(own, own_connections);
    raw_stream newcomer = connect_as(second_member);
    EXPECT_TRUE(newcomer.send(half_a_request));
    EXPECT_TRUE(is_given_up(hostile[0]));
    EXPECT_TRUE(is_served(newcomer));
    for (raw_stream& each : others) EXPECT_TRUE(is_served(each));
}

TEST_F(users, readers_of_one_within_his_share_are_given_a_second) {
    const std::string asks = request_frame("400000", "");
    const auto start = std::chrono::steady_clock::now();
    std::vector<callers> readers;
    for (uid_t user = first_member; user < first_member + 4; ++user)
        readers.push_back(connect_many(user, member_connections - 1, asks));
    readers.push_back(connect_many(own, 4, asks));
    for (callers& each : readers) {
        for (raw_stream& reader : each) ASSERT_EQ(reader.receive(16), header(1, 2, 0, 400000));
    }
    let_endpoint_catch_up();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(readers.back().back().receive_all().size(), 400000U);
}

TEST_F(users, unfinished_requests_over_a_share_push_out_those_of_the_same_user) {
    const std::string body(4 * mib, 'x');
    const std::string most = request_frame("m", body).substr(0, 4 * mib);
    callers others = connect_many(own, 2, most);  // older
    callers hostile = connect_many(first_member, 5, most);
    EXPECT_TRUE(is_given_up(hostile[0]));
    const std::string rest = request_frame("m", body).substr(most.size());
    for (raw_stream& each : others) EXPECT_TRUE(is_served(each, rest));
    EXPECT_TRUE(is_served(hostile[4], rest));
}

TEST_F(users, unfinished_requests_over_the_bound_push_out_those_of_who_holds_most) {
    const std::string body(4 * mib, 'x');
    const std::string most = request_frame("m", body).substr(0, 4 * mib);
    callers others = connect_many(first_member, 3, most);  // older
    callers hostile = connect_many(own, 11, most);
    callers newcomers = connect_many(second_member, 3, most);
    EXPECT_TRUE(is_given_up(hostile[0]));
    const std::string rest = request_frame("m", body).substr(most.size());
    for (raw_stream& each : others) EXPECT_TRUE(is_served(each, rest));
    for (raw_stream& each : newcomers) EXPECT_TRUE(is_served(each, rest));
}

TEST_F(users, idle_connections_make_room_before_anybody_else) {
    callers others = connect_many(own, own_connections - 1);
    let_endpoint_catch_up();
    let_endpoint_catch_up();  // from now on this thread's connection is kept
    callers more = connect_many(first_member, member_connections - 1);
    callers idle = connect_many(second_member, 1, dated_frame("m", "x", keep));
    EXPECT_EQ(idle[0].receive(19), kept_frame("m:x"));
    callers newcomers = connect_many(second_member, 3);
    EXPECT_TRUE(is_given_up(others[0]));  // by the third of them
    EXPECT_EQ(idle[0].receive_all(), "");
    EXPECT_TRUE(is_served(others[1]));
    for (raw_stream& each : more) EXPECT_TRUE(is_served(each));
    for (raw_stream& each : newcomers) EXPECT_TRUE(is_served(each));
}

// ---- What is given back ------------------------------------------------------------------------

namespace {
// How a connection ends.
using ending = std::function<void(raw_stream&)>;

const std::string half_a_megabyte = request_frame("m", std::string(mib, 'x')).substr(0, mib / 2);

const ending endings[] = {
    [](raw_stream& c) { EXPECT_TRUE(is_served(c, request_frame("m", "x"))); },
    [](raw_stream& c) { EXPECT_TRUE(c.send(half_a_request)); },
    [](raw_stream& c) {
        EXPECT_TRUE(c.send(half_a_megabyte));
        EXPECT_EQ(shutdown(c.fd(), SHUT_WR), 0);
        EXPECT_EQ(c.receive_all(), "");
    },
    [](raw_stream& c) {
        const channel pipe;
        EXPECT_TRUE(c.send_with(half_a_megabyte.substr(0, 100), {pipe.in.get(), pipe.in.get()}));
        EXPECT_TRUE(c.send(half_a_megabyte.substr(100)));
    },
    [](raw_stream& c) {
        (void)c.send(request_frame("m", "x") + "more");
        EXPECT_EQ(c.receive_all(), reply_frame(malformed));
    },
    [](raw_stream& c) {
        (void)c.send(header(1, 1, 1, 1ULL << 40));
        EXPECT_EQ(c.receive_all(), reply_frame(too_large));
    },
    [](raw_stream& c) {
        (void)c.send(request_frame("silent", ""));
        EXPECT_EQ(c.receive_all(), reply_frame(no_reply));
    },
    [](raw_stream& c) { EXPECT_TRUE(is_served(c, request_frame("400000", ""))); },
    [](raw_stream& c) { EXPECT_TRUE(is_served(c, request_frame("2000000", ""))); },
    [](raw_stream& c) {
        EXPECT_TRUE(c.send(request_frame("1500000", "")));
        EXPECT_EQ(c.receive_all().size(), 1500016U);
    },
};
}  // namespace

// More of each than a share, one after the other: what is not given back fills the share.
TEST_F(users, everything_is_given_back_however_a_connection_ends) {
    for (const ending& end : endings) {
        for (std::size_t i = 0; i < member_connections + 2; ++i) {
            raw_stream caller = connect_as(first_member);
            end(caller);
        }
        let_endpoint_catch_up();
    }
    callers idle = connect_many(first_member, member_connections);
    callers large = connect_many(second_member, 3, half_a_megabyte);
    let_endpoint_catch_up();
    for (raw_stream& each : idle) EXPECT_TRUE(is_served(each));
}

namespace {
std::size_t resident_bytes() {
    std::size_t whole = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> whole >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Takes no memory for what is received.
std::size_t skip(const raw_stream& stream, std::size_t count) {
    static char part[64 * 1024];
    std::size_t skipped = 0;
    for (ssize_t got = 1; got > 0 && skipped < count;
         skipped += static_cast<std::size_t>(std::max<ssize_t>(got, 0)))
        got = recv(stream.fd(), part, std::min(sizeof part, count - skipped), 0);
    return skipped;
}
}  // namespace

TEST_F(users, memory_of_a_long_reply_goes_back_as_it_is_read) {
    raw_stream reader = connect_as(first_member);
    EXPECT_TRUE(is_served(reader, request_frame(std::to_string(64 * mib), "")));
    const std::size_t before = resident_bytes();
    EXPECT_EQ(skip(reader, 48 * mib), 48 * mib);
    EXPECT_LT(resident_bytes(), before - 32 * mib);
    EXPECT_EQ(skip(reader, SIZE_MAX), 16 * mib);
}

// ---- Age ---------------------------------------------------------------------------------------

TEST_F(users, steady_drip_holds_no_connection_for_long) {
    raw_stream drips = connect_to(address);
    const std::string frame = request_frame("m", std::string(20, 'x'));
    for (std::size_t i = 0; i < 8; ++i) {
        ASSERT_TRUE(drips.send(frame.substr(i, 1)));
        let_endpoint_catch_up();
        seconds_ahead += 4;  // less than what counts as no progress
    }
    (void)drips.send("x");
    EXPECT_TRUE(is_given_up(drips));
}

TEST_F(users, reader_without_progress_is_dropped_within_ten_seconds) {
    raw_stream reader = connect_as(first_member);
    EXPECT_TRUE(is_served(reader, request_frame("2000000", "")));
    let_endpoint_catch_up();
    pollfd hung_up = {reader.fd(), 0, 0};
    seconds_ahead += 8;
    let_endpoint_catch_up();
    EXPECT_EQ(poll(&hung_up, 1, 0), 0);
    seconds_ahead += 1;
    let_endpoint_catch_up();
    EXPECT_EQ(poll(&hung_up, 1, 0), 1);
}

// ---- Addresses that another user has taken -----------------------------------------------------

namespace {
class system_log {
  public:
    system_log() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un name = {};
        name.sun_family = AF_UNIX;
        std::strcpy(name.sun_path, "/dev/log");
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
    }
    // The next line: its priority, and what stands behind the program's name.
    std::string line() const {
        char text[1024] = {};
        if (recv(socket_.get(), text, sizeof text - 1, MSG_DONTWAIT) <= 0) return "(none)";
        const std::string whole = text;
        return whole.substr(0, whole.find('>') + 1) + whole.substr(whole.find("zbservice: "));
    }

  private:
    file socket_;
};

// Holds addresses in a process of another user, and expects not to hear a byte. Where the test may
// not become another user, it is taken for one by this thread's calls.
class squatter {
  public:
    explicit squatter(const std::vector<std::string>& addresses)
        : child_([&] {
              const bool is_stranger = setresgid(their_group, their_group, their_group) == 0 &&
                                       setresuid(stranger, stranger, stranger) == 0;
              const auto listen = [](raw_stream& c) { EXPECT_EQ(c.receive_all(), ""); };
              std::vector<std::unique_ptr<raw_endpoint>> held;
              held.reserve(addresses.size());
              for (const std::string& each : addresses)
                  held.push_back(std::make_unique<raw_endpoint>(each, listen));
              EXPECT_EQ(write(ready_.in.get(), is_stranger ? "y" : "n", 1), 1);
              EXPECT_TRUE(over_.wait());
          }) {
        char is_stranger = 0;
        EXPECT_EQ(read(ready_.out.get(), &is_stranger, 1), 1);
        EXPECT_EQ(is_stranger == 'y', geteuid() == 0 && can_become_others());
        if (is_stranger == 'n') other_side = identity{stranger, their_group};
    }
    ~squatter() {
        other_side.reset();
        over_.set();
        EXPECT_EQ(child_.wait(), 0);
    }
    squatter(const squatter&) = delete;
    squatter& operator=(const squatter&) = delete;

  private:
    // As root outside of any user namespace.
    static bool can_become_others() {
        unsigned from = 0;
        unsigned to = 0;
        unsigned count = 0;
        std::ifstream("/proc/self/uid_map") >> from >> to >> count;
        return count > stranger;
    }

    channel ready_;
    event over_;
    process child_;
};

std::string line_about(const std::string& path) {
    return "<27>zbservice: \"" + path +
           "\" is held by user 4711, who is not trusted: calls of it "
           "are refused";
}
}  // namespace

TEST(squatter, is_refused_by_calls_and_told_to_the_log_once_a_minute) {
    const system_log log;
    const squatter holds({address, "@/test/other"});
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(call(address, "m", "x"), (outcome{ZB_ERROR_UNTRUSTED, "x"}));
    EXPECT_EQ(log.line(), line_about(address));
    EXPECT_EQ(log.line(), "(none)");
    EXPECT_EQ(call("@/test/other", "m").result, ZB_ERROR_UNTRUSTED);
    EXPECT_EQ(log.line(), line_about("@/test/other"));
    seconds_ahead += 61;
    EXPECT_EQ(call(address, "m").result, ZB_ERROR_UNTRUSTED);
    EXPECT_EQ(log.line(), line_about(address));
    EXPECT_EQ(log.line(), "(none)");
}

TEST(squatter, on_the_daemons_address_is_refused_by_the_client_library) {
    const system_log log;
    const squatter holds({"@/var/run/ravod.sock"});
    db_conn_server_log row = {};
    EXPECT_EQ(add_conn_server_log(&row), ZB_ERROR_UNTRUSTED);
    EXPECT_EQ(log.line(), line_about("@/var/run/ravod.sock"));
    EXPECT_EQ(log.line(), "(none)");
}

TEST(squatter, on_the_settings_services_address_is_refused_by_the_daemons_calls) {
    const system_log log;
    const squatter holds({"@/var/run/zbservice/vpncaas"});
    EXPECT_EQ(ravo::easy_zb_call("vpncaas", "read_json", "{}"), nullptr);
    EXPECT_EQ(log.line(), line_about("@/var/run/zbservice/vpncaas"));
    EXPECT_EQ(log.line(), "(none)");
}
