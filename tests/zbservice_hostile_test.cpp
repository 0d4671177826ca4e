// Callers who abuse the bus: each is refused or dropped by itself, and everybody else is served.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include "support/bus.h"
#include "support/lingering.h"

using namespace bus_test;

namespace {
constexpr std::size_t full_share = 192;  // of connections, for the endpoint's own user

// Both ends of all connections are in this process.
void raise_descriptor_limit() {
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

// Sooner than a caller is given up because it makes no progress.
bool hears_soon(const raw_stream& caller) {
    pollfd polled = {caller.fd(), POLLIN, 0};
    return poll(&polled, 1, 2000) == 1;
}

// After 5 s without progress.
bool is_given_up_in_time(raw_stream& caller) {
    pollfd polled = {caller.fd(), POLLIN, 0};
    return poll(&polled, 1, 10000) == 1 && caller.receive_all() == reply_frame(busy);
}

class hostile : public testing::Test {
  protected:
    ~hostile() override { EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"})); }

    // Sends bytes and returns what comes back until the endpoint hangs up.
    static std::string response_to(std::string_view bytes) {
        raw_stream caller = connect_to(address);
        (void)caller.send(bytes);
        return caller.receive_all();
    }

    leak_check descriptors_;
    endpoint served_;
};
}  // namespace

// ---- Frames ------------------------------------------------------------------------------------

TEST_F(hostile, malformed_frames_are_refused_by_name) {
    const std::string cases[] = {
        "GET / HTTP/1.1\r\nHost: x\r\n\r\n",
        std::string(100000, '\xff'),
        std::string(16, '\0'),
        "ZBUS" + request_frame("m", "").substr(4),  // magic
        header(0, 1, 1, 0) + "m",                   // version
        header(2, 1, 1, 0) + "m",
        header(1, 2, 1, 0) + "m",  // a reply
        header(1, 0, 1, 0) + "m",
        header(1, 1, 0, 0),  // no method
        header(1, 1, 0, 3) + "abc",
        request_frame(std::string("m\0x", 3), "a"),  // a zero byte in the method
        request_frame(std::string("\0", 1), "a"),
        request_frame("m", "a") + "b",                      // more than announced
        request_frame("m", "a") + request_frame("m", "a"),  // two requests
    };
    for (const std::string& frame : cases) EXPECT_EQ(response_to(frame), reply_frame(malformed));
}

TEST_F(hostile, lengths_over_a_bound_are_refused_by_name) {
    const std::string cases[] = {
        header(1, 1, 256, 0),
        header(1, 1, 65535, 0) + std::string(65535, 'm'),
        header(1, 1, 1, (4 << 20) + 1),
        header(1, 1, 1, 1ULL << 32),
        header(1, 1, 1, UINT64_MAX),
        header(1, 1, 1, (4 << 20) + 1) + "m" + std::string((4 << 20) + 1, 'x'),
    };
    for (const std::string& frame : cases) EXPECT_EQ(response_to(frame), reply_frame(too_large));
}

TEST_F(hostile, frame_in_single_bytes_is_a_frame) {
    raw_stream caller = connect_to(address);
    for (const char byte : request_frame("method", "payload"))
        ASSERT_TRUE(caller.send(std::string_view(&byte, 1)));
    EXPECT_EQ(caller.receive_all(), reply_frame(replied, "method:payload"));
}

TEST_F(hostile, every_cut_of_a_frame_is_harmless) {
    const std::string frame = request_frame("method", "payload");
    for (std::size_t length = 0; length < frame.size(); ++length) {
        raw_stream caller = connect_to(address);
        ASSERT_TRUE(caller.send(frame.substr(0, length)));
        ASSERT_EQ(shutdown(caller.fd(), SHUT_WR), 0);
        EXPECT_EQ(caller.receive_all(), "");
    }
}

TEST_F(hostile, every_cut_of_a_reply_is_harmless) {
    const std::string expected = reply_frame(replied, "method:payload");
    for (std::size_t length = 0; length <= expected.size(); ++length) {
        raw_stream caller = connect_to(address);
        ASSERT_TRUE(caller.send(request_frame("method", "payload")));
        EXPECT_EQ(caller.receive(length), expected.substr(0, length));
    }
}

TEST_F(hostile, every_cut_of_a_frame_by_a_caller_who_is_gone_is_harmless) {
    const std::string frame = request_frame("method", "payload");
    for (std::size_t length = 0; length <= frame.size(); ++length) {
        channel pipe;
        raw_stream caller = connect_to(address);
        if (length > 0) {
            ASSERT_TRUE(caller.send_with(frame.substr(0, length), {pipe.in.get()}));
        }
        caller.shut();
        pipe.in.shut();
        EXPECT_TRUE(pipe.is_hung_up()) << length;
    }
}

TEST_F(hostile, half_frame_is_given_up_after_a_while_and_keeps_nobody_waiting) {
    raw_stream caller = connect_to(address);
    ASSERT_TRUE(caller.send(request_frame("method", "payload").substr(0, 20)));
    EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    EXPECT_TRUE(is_given_up_in_time(caller));
}

TEST_F(hostile, caller_who_says_nothing_is_given_up_too) {
    raw_stream caller = connect_to(address);
    EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    EXPECT_TRUE(is_given_up_in_time(caller));
}

// ---- Callers who leave -------------------------------------------------------------------------

TEST(zb_start, callers_who_left_before_their_turn_are_not_run) {
    std::string ran;
    event held;
    event go_on;
    endpoint served([&](const std::string& method, zb_io* io, int fd) {
        ran += method;
        if (method == "hold") {
            held.set();
            EXPECT_TRUE(go_on.wait());
        }
        echo(method, io, fd);
    });
    raw_stream holder = connect_to(address);
    ASSERT_TRUE(holder.send(request_frame("hold", "")));
    ASSERT_TRUE(held.wait());
    {
        raw_stream closes = connect_to(address);
        ASSERT_TRUE(closes.send(request_frame("closes", "")));
    }
    raw_stream ends = connect_to(address);
    ASSERT_TRUE(ends.send(request_frame("ends", "")));
    ASSERT_EQ(shutdown(ends.fd(), SHUT_WR), 0);
    go_on.set();
    EXPECT_EQ(ends.receive_all(), "");
    EXPECT_EQ(call(address, "m").result, 0);
    EXPECT_EQ(ran, "holdm");
}

// ---- Descriptors -------------------------------------------------------------------------------

namespace {
// Pieces of a frame, each with the number of descriptors that it carries.
using pieces = std::vector<std::pair<std::string, std::size_t>>;

// Sends the pieces and then the end of file. Tells whether all descriptors are closed afterwards,
// but for those that the test has itself.
bool all_are_closed_after(const pieces& sent) {
    channel pipe;
    raw_stream caller = connect_to(address);
    for (const auto& [bytes, count] : sent) {
        const std::vector<int> fds(count, pipe.in.get());
        EXPECT_TRUE(fds.empty() ? caller.send(bytes) : caller.send_with(bytes, fds));
    }
    if (sent.back().first.size() < 20) (void)shutdown(caller.fd(), SHUT_WR);
    (void)caller.receive_all();
    caller.shut();
    pipe.in.shut();
    return pipe.is_hung_up();
}
}  // namespace

TEST(descriptors, one_is_handed_on_and_the_rest_are_closed) {
    const leak_check descriptors;
    std::vector<int> handed;
    endpoint served([&](const std::string&, zb_io* io, int fd) {
        handed.push_back(fd);
        answer(io, "");
    });
    for (std::size_t count = 1; count <= 8; ++count)
        EXPECT_TRUE(all_are_closed_after({{request_frame("method", "payload"), count}})) << count;
    EXPECT_EQ(call(address, "m").result, 0);
    ASSERT_EQ(handed.size(), 9U);
    for (std::size_t i = 0; i < 8; ++i) EXPECT_GE(handed[i], 0);
    EXPECT_EQ(handed[8], -1);
}

TEST(descriptors, those_of_several_pieces_count_together) {
    const leak_check descriptors;
    std::vector<int> handed;
    endpoint served([&](const std::string&, zb_io* io, int fd) {
        handed.push_back(fd);
        answer(io, "");
    });
    const std::string frame = request_frame("method", std::string(50, 'x'));
    EXPECT_TRUE(all_are_closed_after(
        {{frame.substr(0, 7), 1}, {frame.substr(7, 20), 2}, {frame.substr(27), 3}}));
    EXPECT_TRUE(all_are_closed_after({{frame.substr(0, 30), 0}, {frame.substr(30), 2}}));
    ASSERT_EQ(handed.size(), 2U);
    EXPECT_GE(handed[0], 0);
    EXPECT_GE(handed[1], 0);
}

TEST_F(hostile, descriptors_of_requests_that_come_to_nothing_are_closed) {
    const std::string frame = request_frame("m", "x");
    EXPECT_TRUE(all_are_closed_after({{frame.substr(0, 10), 1}}));  // end of file in the header
    EXPECT_TRUE(all_are_closed_after({{frame.substr(0, 10), 3}}));
    EXPECT_TRUE(all_are_closed_after({{frame.substr(0, 17), 2}}));  // and in the payload
    EXPECT_TRUE(all_are_closed_after({{std::string(100, 'x'), 2}}));
    EXPECT_TRUE(all_are_closed_after({{header(1, 1, 1, UINT64_MAX) + "mmmm", 2}}));
    EXPECT_TRUE(all_are_closed_after({{frame + "more", 2}}));
}

TEST(descriptors, those_of_a_caller_who_left_are_closed) {
    const leak_check descriptors;
    event held;
    event go_on;
    endpoint served([&](const std::string& method, zb_io* io, int fd) {
        if (method == "hold") {
            held.set();
            EXPECT_TRUE(go_on.wait());
        }
        echo(method, io, fd);
    });
    raw_stream holder = connect_to(address);
    ASSERT_TRUE(holder.send(request_frame("hold", "")));
    ASSERT_TRUE(held.wait());
    channel pipe;
    raw_stream leaves = connect_to(address);
    ASSERT_TRUE(leaves.send_with(request_frame("m", ""), {pipe.in.get()}));
    leaves.shut();
    pipe.in.shut();
    go_on.set();
    EXPECT_TRUE(pipe.is_hung_up());
}

// ---- Descriptors whose close waits -------------------------------------------------------------

namespace {
// An endpoint whose entry is held until the senders of such descriptors have closed their copies.
class lingering : public testing::Test {
  protected:
    lingering()
        : served_([this](const std::string& method, zb_io* io, int fd) {
              if (method == "hold") {
                  held_.set();
                  EXPECT_TRUE(go_on_.wait());
              }
              echo(method, io, fd);
          }) {
        EXPECT_TRUE(holder_.send(request_frame("hold", "")));
        EXPECT_TRUE(held_.wait());
    }

    leak_check descriptors_;
    event held_;
    event go_on_;
    endpoint served_;
    raw_stream holder_ = connect_to(address);
    raw_stream caller_ = connect_to(address);
    lingering_sockets sockets_{3};
};
}  // namespace

TEST_F(lingering, descriptors_of_a_request_are_waited_for_by_nobody) {
    ASSERT_TRUE(sockets_.send_through(caller_, request_frame("m", "x")));
    go_on_.set();
    expect_soon([this] { EXPECT_EQ(caller_.receive_all(), reply_frame(replied, "m:x")); });
}

TEST_F(lingering, descriptors_of_half_a_request_are_waited_for_by_nobody) {
    ASSERT_TRUE(sockets_.send_through(caller_, "zb"));
    caller_.shut();
    go_on_.set();
    expect_soon([] { EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"})); });
}

TEST_F(lingering, descriptors_that_are_never_read_are_waited_for_by_nobody) {
    ASSERT_TRUE(holder_.send("more"));
    ASSERT_TRUE(sockets_.send_through(holder_, "still more"));
    go_on_.set();
    expect_soon([this] { EXPECT_EQ(holder_.receive_all(), reply_frame(replied, "hold:")); });
    expect_soon([] { EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"})); });
}

TEST_F(lingering, descriptors_of_an_urgent_byte_are_waited_for_by_nobody) {
    ASSERT_TRUE(sockets_.send_through(caller_, "z", MSG_OOB));
    ASSERT_TRUE(caller_.send("other than a frame, and so read no further"));
    go_on_.set();
    expect_soon([this] { EXPECT_EQ(caller_.receive_all(), reply_frame(malformed)); });
    expect_soon([] { EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"})); });
}

TEST(lingering_in_the_queue, descriptors_do_not_delay_the_end_of_the_endpoint) {
    zb_service* service = zb_create(address, 4, 1, entry);
    ASSERT_NE(service, nullptr);
    raw_stream caller = connect_to(address);
    lingering_sockets sockets(2);
    ASSERT_TRUE(sockets.send_through(caller, "zb"));
    expect_soon([&] { zb_free(service); });
}

// ---- Too many, too much ------------------------------------------------------------------------

TEST_F(hostile, connections_over_the_share_push_out_the_one_that_waits_longest) {
    raise_descriptor_limit();
    std::vector<raw_stream> idle;
    for (std::size_t i = 0; i < full_share; ++i) {
        idle.push_back(connect_to(address));
        ASSERT_TRUE(idle.back().send("zb"));
        if (i % 50 == 0) {
            EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
        }
    }
    // A connection that was kept makes room for one caller; the next one costs the oldest its
    // place.
    EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    raw_stream another = connect_to(address);
    ASSERT_TRUE(another.send(request_frame("an", "other")));
    EXPECT_EQ(another.receive_all(), reply_frame(replied, "an:other"));
    EXPECT_TRUE(hears_soon(idle[0]));
    EXPECT_EQ(idle[0].receive_all(), reply_frame(busy));
    EXPECT_TRUE(idle[1].send(request_frame("still", "here").substr(2)));
    EXPECT_EQ(idle[1].receive_all(), reply_frame(replied, "still:here"));
}

TEST(bounds, slow_readers_with_a_full_share_make_room_at_once) {
    raise_descriptor_limit();
    const std::string large(400000, 'x');
    endpoint served([&](const std::string& method, zb_io* io, int fd) {
        method == "large" ? answer(io, large) : echo(method, io, fd);
    });
    const std::string expected = reply_frame(replied, large);
    std::vector<raw_stream> readers;
    std::vector<std::string> heard;
    for (std::size_t i = 0; i < full_share; ++i) {
        readers.push_back(connect_to(address));
        ASSERT_TRUE(readers.back().send(request_frame("large", "")));
        heard.push_back(readers.back().receive(70000));
    }
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 5; ++i) EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
    // Cut off, and nothing else in the middle of the reply.
    heard.front() += readers.front().receive_all();
    EXPECT_LT(heard.front().size(), expected.size());
    EXPECT_EQ(heard.front(), expected.substr(0, heard.front().size()));
    EXPECT_EQ(heard.back() + readers.back().receive_all(), expected);
}

TEST_F(hostile, unfinished_requests_over_the_bound_push_out_the_largest_and_oldest) {
    const std::string small = request_frame("m", "small");
    raw_stream slow = connect_to(address);
    ASSERT_TRUE(slow.send(small.substr(0, 3)));
    const std::string most = request_frame("m", std::string(4 << 20, 'x')).substr(0, 4 << 20);
    std::vector<raw_stream> hogs;
    for (int i = 0; i < 17; ++i) {
        hogs.push_back(connect_to(address));
        ASSERT_TRUE(hogs.back().send(most));
        EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    }
    EXPECT_TRUE(hears_soon(hogs[0]));
    EXPECT_EQ(hogs[0].receive_all(), reply_frame(busy));
    EXPECT_TRUE(slow.send(small.substr(3)));
    EXPECT_EQ(slow.receive_all(), reply_frame(replied, "m:small"));
    EXPECT_TRUE(hogs[16].send(std::string(17, 'x')));
    EXPECT_EQ(hogs[16].receive(20),
              reply_frame(replied, "m:" + std::string(4 << 20, 'x')).substr(0, 20));
}

namespace {
constexpr std::size_t third_of_the_bound = std::size_t{700} << 20;

void answer_large(const std::string& method, zb_io* io, int fd) {
    if (method != "large") {
        echo(method, io, fd);
        return;
    }
    EXPECT_EQ(zb_io_realloc(io, third_of_the_bound), 0);
    (void)zb_reply(io);
}
}  // namespace

TEST(bounds, unsent_replies_over_the_bound_push_out_a_reader_who_stalls) {
    endpoint served(answer_large);
    std::vector<raw_stream> stalled;
    for (int i = 0; i < 2; ++i) {
        stalled.push_back(connect_to(address));
        ASSERT_TRUE(stalled.back().send(request_frame("large", "")));
        EXPECT_EQ(stalled.back().receive(16).size(), 16U);
        EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    }
    event never;
    EXPECT_FALSE(never.wait(1200));  // longer than the second that a reader is given
    raw_stream third = connect_to(address);
    ASSERT_TRUE(third.send(request_frame("large", "")));
    EXPECT_EQ(third.receive(16), header(1, 2, 0, third_of_the_bound));
    pollfd dropped = {stalled[0].fd(), 0, 0};
    EXPECT_EQ(poll(&dropped, 1, patience_ms), 1);
    EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
}

TEST(bounds, unsent_replies_over_the_bound_are_refused_while_readers_go_on) {
    endpoint served(answer_large);
    event enough;
    std::vector<std::thread> readers;
    std::vector<channel> started(2);
    for (channel& each : started) {
        readers.emplace_back([&] {
            raw_stream reader = connect_to(address);
            EXPECT_TRUE(reader.send(request_frame("large", "")));
            EXPECT_EQ(reader.receive(16).size(), 16U);
            EXPECT_EQ(write(each.in.get(), "", 1), 1);
            while (!enough.wait(50)) EXPECT_EQ(reader.receive(300000).size(), 300000U);
        });
        char byte = 0;
        ASSERT_EQ(read(each.out.get(), &byte, 1), 1);
    }
    EXPECT_EQ(call(address, "large", "x"), (outcome{ZB_ERROR_BUSY, "x"}));
    EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    enough.set();
    for (std::thread& each : readers) each.join();
}

// ---- No descriptors left -----------------------------------------------------------------------

namespace {
// Lets the process open so many descriptors more, and no others.
void allow_descriptors(std::size_t more) {
    std::vector<file> probes;
    for (std::size_t i = 0; i <= more; ++i)
        probes.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = static_cast<rlim_t>(probes.back().get());
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

void stop_on_sigterm() {
    EXPECT_EQ(zb_signal(SIGTERM, [](int) { zb_stop(served_process::service()); }), 0);
}
}  // namespace

TEST(no_descriptors_left, endpoint_does_not_spin_and_recovers) {
    served_process served(
        echo,
        [] {
            stop_on_sigterm();
            EXPECT_EQ(zb_signal(SIGUSR1, [](int) { raise_descriptor_limit(); }), 0);
        },
        [] { allow_descriptors(1); });  // the loop's own
    EXPECT_EQ(call(address, "m", "x", 2), (outcome{ZB_ERROR_TIMEOUT, "x"}));
    ASSERT_EQ(kill(served.pid(), SIGUSR1), 0);
    EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    ASSERT_EQ(kill(served.pid(), SIGTERM), 0);
    rusage usage = {};
    EXPECT_EQ(served.wait(&usage), 0);
    const auto& user = usage.ru_utime;
    const auto& kernel = usage.ru_stime;
    EXPECT_LT(static_cast<double>(user.tv_sec + kernel.tv_sec) +
                  static_cast<double>(user.tv_usec + kernel.tv_usec) * 1e-6,
              0.2);
}

TEST(no_descriptors_left, unfinished_request_makes_room) {
    served_process served(echo, stop_on_sigterm, [] { allow_descriptors(2); });
    raw_stream idle = connect_to(address);
    ASSERT_TRUE(idle.send("zb"));
    EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    EXPECT_EQ(idle.receive_all(), reply_frame(busy));
    ASSERT_EQ(kill(served.pid(), SIGTERM), 0);
    EXPECT_EQ(served.wait(), 0);
}

TEST(no_descriptors_left, request_whose_descriptor_cannot_be_received_runs_without_it) {
    served_process served(
        [](const std::string&, zb_io* io, int fd) { answer(io, std::to_string(fd)); },
        stop_on_sigterm, [] { allow_descriptors(2); });
    EXPECT_EQ(call(address, "m", "x", timeout_s, STDERR_FILENO), (outcome{0, "-1"}));
    ASSERT_EQ(kill(served.pid(), SIGTERM), 0);
    EXPECT_EQ(served.wait(), 0);
}

TEST(no_descriptors_left, caller_with_the_last_one_is_not_given_up_for_nobody) {
    served_process served(echo, stop_on_sigterm, [] { allow_descriptors(2); });
    raw_stream lone = connect_to(address);
    pollfd polled = {lone.fd(), POLLIN, 0};
    EXPECT_EQ(poll(&polled, 1, 200), 0);  // told nothing
    ASSERT_TRUE(lone.send(request_frame("m", "x")));
    EXPECT_EQ(lone.receive_all(), reply_frame(replied, "m:x"));
    ASSERT_EQ(kill(served.pid(), SIGTERM), 0);
    EXPECT_EQ(served.wait(), 0);
}

// ---- No watches left ---------------------------------------------------------------------------

namespace {
bool may_watch_connections = true;

bool is_connection(int fd) {
    int listens = 0;
    socklen_t size = sizeof listens;
    return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens == 0;
}
}  // namespace

// In the library's place for epoll_ctl.
extern "C" __attribute__((visibility("default"))) int epoll_ctl(int epoll, int operation, int fd,
                                                                epoll_event* event) noexcept {
    using function = int (*)(int, int, int, epoll_event*);
    static const auto original = reinterpret_cast<function>(dlsym(RTLD_NEXT, "epoll_ctl"));
    if (!may_watch_connections && operation == EPOLL_CTL_ADD && is_connection(fd)) {
        errno = ENOSPC;
        return -1;
    }
    return original(epoll, operation, fd, event);
}

TEST(no_watches_left, half_a_request_ends_alone) {
    served_process served(echo, stop_on_sigterm, [] { may_watch_connections = false; });
    raw_stream half = connect_to(address);
    ASSERT_TRUE(half.send("zbus"));
    EXPECT_EQ(half.receive_all(), "");
    ASSERT_EQ(kill(served.pid(), SIGTERM), 0);
    EXPECT_EQ(served.wait(), 0);
}
