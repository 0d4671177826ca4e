// Calls and their answers: what arrives, in which order, and what a caller learns when it fails.
#include <gtest/gtest.h>
#include <sys/timerfd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/bus.h"

using namespace bus_test;

namespace {
using sizes = std::initializer_list<std::size_t>;

// Bytes that differ from place to place.
std::string pattern(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 7 + i / 251);
    return text;
}

// Waits for a point in time as for any other event.
void wait_for_timer(std::chrono::milliseconds time) {
    const file timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    const itimerspec when = {{0, 0}, {time.count() / 1000, (time.count() % 1000) * 1000000}};
    ASSERT_EQ(timerfd_settime(timer.get(), 0, &when, nullptr), 0);
    std::uint64_t ticks = 0;
    ASSERT_EQ(read(timer.get(), &ticks, sizeof ticks), static_cast<ssize_t>(sizeof ticks));
}

// How long something took, in seconds.
template <class Run>
double seconds_of(Run run) {
    const auto start = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The reply of the largest list: 100000 rows behind a header of 24 bytes. Its shadow memory does
// not fit a small machine, so the sanitizer build takes a tenth.
constexpr std::size_t list_bytes = 24 + (sanitized ? 10000 : 100000) * std::size_t{7192};

// An endpoint whose first request, "hold", keeps the entry busy until it is let go.
class busy_endpoint {
  public:
    explicit busy_endpoint(const handler& handle = echo)
        : endpoint_([this, handle](const std::string& method, zb_io* io, int fd) {
              if (method == "hold") {
                  held_.set();
                  EXPECT_TRUE(go_on_.wait());
              }
              handle(method, io, fd);
          }),
          holder_([] { EXPECT_EQ(call(address, "hold").result, 0); }) {
        EXPECT_TRUE(held_.wait());
    }
    ~busy_endpoint() { release(); }
    busy_endpoint(const busy_endpoint&) = delete;
    busy_endpoint& operator=(const busy_endpoint&) = delete;
    void release() {
        if (!holder_.joinable()) return;
        go_on_.set();
        holder_.join();
    }
    endpoint& get() { return endpoint_; }

  private:
    event held_;
    event go_on_;
    endpoint endpoint_;
    std::thread holder_;
};
}  // namespace

// ---- Addresses ---------------------------------------------------------------------------------

TEST(zb_address, abstract_name_has_its_exact_length) {
    endpoint served;
    raw_stream caller = connect_to(address);
    ASSERT_TRUE(caller.send(request_frame("m", "x")));
    EXPECT_EQ(caller.receive_all(), reply_frame(replied, "m:x"));

    raw_stream padded(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const abstract_address name(address);
    EXPECT_EQ(connect(padded.fd(), name.get(), sizeof name.name), -1);
}

TEST(zb_address, plain_name_is_a_registered_service) {
    endpoint served(echo, "vpncaas");
    EXPECT_EQ(call("vpncaas", "m", "x"), (outcome{0, "m:x"}));
    EXPECT_EQ(call("@/var/run/zbservice/vpncaas", "m", "x"), (outcome{0, "m:x"}));
}

TEST(zb_address, longest_name_is_107_bytes) {
    const std::string longest = std::string("@").append(107, 'a');
    endpoint served(echo, longest.c_str());
    EXPECT_EQ(call(longest, "m", "x"), (outcome{0, "m:x"}));
    EXPECT_EQ(call(longest + "a", "m", "x"), (outcome{ZB_ERROR_ARGUMENT, "x"}));
}

TEST(zb_address, malformed_ones_are_refused_on_both_sides) {
    const std::string too_long = std::string("@").append(108, 'a');
    const std::string name_too_long(89, 'a');
    for (const std::string& path : {std::string(), std::string("@"), too_long, name_too_long,
                                    std::string("/var/run/socket"), std::string("a/b")}) {
        EXPECT_EQ(call(path, "m", "x"), (outcome{ZB_ERROR_ARGUMENT, "x"})) << path;
        EXPECT_EQ(zb_create(path.c_str(), 4, 1, entry), nullptr) << path;
    }
}

// ---- Requests and replies ----------------------------------------------------------------------

TEST(zb_call, carries_method_and_payload_there_and_the_reply_back) {
    endpoint served;
    EXPECT_EQ(call(address, "db_conn_insert", "payload"), (outcome{0, "db_conn_insert:payload"}));
}

TEST(zb_call, frames_are_the_documented_ones) {
    // The worked example of docs/zbservice.md, but for the date.
    const std::string_view request(
        "zbus\x01\x11\x12\0\x08\0\0\0date"
        "db_server_list_del\x07\0\0\0\0\0\0\0",
        42);
    const std::string_view reply("zbus\x01\x02\0\0\0\0\0\0\0\0\0\0", 16);
    std::string sent;
    raw_endpoint served(address, [&](raw_stream& caller) {
        sent = caller.receive(request.size());
        EXPECT_TRUE(caller.send(reply));
        sent += caller.receive_all();
    });
    EXPECT_EQ(call(address, "db_server_list_del", request.substr(34)), (outcome{0, ""}));
    EXPECT_EQ(sent.replace(12, 4, "date"), request);
}

TEST(zb_call, payloads_of_every_size_pass) {
    endpoint served([](const std::string&, zb_io* io, int) { EXPECT_EQ(zb_reply(io), 0); });
    for (const std::size_t size : sizes{0, 1, 8, 2088, 5200, 7192, 8191, 8192, 8193, 65505, 65506,
                                        65507, 300000, 1 << 20, (1 << 22) - 1, 1 << 22}) {
        const std::string body = pattern(size);
        EXPECT_EQ(call(address, "m", body), (outcome{0, body})) << size;
    }
}

TEST(zb_call, replies_of_every_size_pass) {
    endpoint served(
        [](const std::string& method, zb_io* io, int) { answer(io, pattern(std::stoul(method))); });
    for (const std::size_t size :
         sizes{0, 1, 36, 4096, 8191, 8192, 8193, 100000, 262128, 5000000}) {
        EXPECT_EQ(call(address, std::to_string(size), "?"), (outcome{0, pattern(size)})) << size;
    }
}

TEST(zb_call, empty_reply_is_empty_text) {
    endpoint served([](const std::string&, zb_io* io, int) { answer(io, ""); });
    io_buffer io("request");
    ASSERT_EQ(zb_call(address, "m", io.get(), timeout_s, -1), 0);
    EXPECT_STREQ(static_cast<const char*>(zb_io_read(io.get(), nullptr)), "");
}

TEST(zb_call, request_and_reply_have_a_zero_byte_behind) {
    endpoint served([](const std::string&, zb_io* io, int) {
        EXPECT_STREQ(static_cast<const char*>(zb_io_read(io, nullptr)), "text");
        answer(io, pattern(9000));
    });
    io_buffer io("text");
    ASSERT_EQ(zb_call(address, "m", io.get(), timeout_s, -1), 0);
    EXPECT_EQ(static_cast<const char*>(zb_io_read(io.get(), nullptr))[9000], '\0');
}

TEST(zb_call, the_largest_list_passes) {
    endpoint served([](const std::string&, zb_io* io, int) {
        EXPECT_EQ(zb_io_realloc(io, list_bytes), 0);
        char* data = static_cast<char*>(zb_io_read(io, nullptr));
        for (std::size_t i = 0; i < list_bytes; i += 4096) data[i] = static_cast<char>(i / 4096);
        data[list_bytes - 1] = 'z';
        EXPECT_EQ(zb_reply(io), 0);
    });
    io_buffer io;
    ASSERT_EQ(zb_call(address, "m", io.get(), timeout_s, -1), 0);
    const std::string_view reply = content(io.get());
    ASSERT_EQ(reply.size(), list_bytes);
    for (std::size_t i = 0; i < list_bytes - 1; i += 4096)
        ASSERT_EQ(reply[i], static_cast<char>(i / 4096)) << i;
    EXPECT_EQ(reply[list_bytes - 1], 'z');
    EXPECT_EQ(reply.data()[list_bytes], '\0');
}

TEST(zb_call, one_buffer_serves_call_after_call) {
    endpoint served;
    io_buffer io("x");
    for (int i = 0; i < 3; ++i) ASSERT_EQ(zb_call(address, "m", io.get(), timeout_s, -1), 0);
    EXPECT_EQ(content(io.get()), "m:m:m:x");
}

TEST(zb_call, longest_method_is_255_bytes) {
    endpoint served;
    const std::string longest(255, 'm');
    EXPECT_EQ(call(address, longest, "x"), (outcome{0, longest + ":x"}));
    EXPECT_EQ(call(address, longest + "m", "x"), (outcome{ZB_ERROR_ARGUMENT, "x"}));
}

TEST(zb_call, request_over_4_mib_is_refused_and_kept) {
    const std::string body = pattern((4 << 20) + 1);
    EXPECT_EQ(call(address, "m", body), (outcome{ZB_ERROR_TOO_LARGE, body}));
}

TEST(zb_call, null_and_empty_arguments_are_told) {
    io_buffer io("x");
    EXPECT_EQ(zb_call(nullptr, "m", io.get(), 5, -1), ZB_ERROR_ARGUMENT);
    EXPECT_EQ(zb_call(address, nullptr, io.get(), 5, -1), ZB_ERROR_ARGUMENT);
    EXPECT_EQ(zb_call(address, "m", nullptr, 5, -1), ZB_ERROR_ARGUMENT);
    EXPECT_EQ(zb_call(address, "", io.get(), 5, -1), ZB_ERROR_ARGUMENT);
    EXPECT_EQ(content(io.get()), "x");
}

TEST(zb_call, nobody_there_is_unreachable) {
    EXPECT_EQ(call(address, "m", "x"), (outcome{ZB_ERROR_UNREACHABLE, "x"}));
}

TEST(zb_call, timeouts_of_zero_and_less_are_the_usual_one) {
    endpoint served;
    EXPECT_EQ(call(address, "m", "x", 0), (outcome{0, "m:x"}));
    EXPECT_EQ(call(address, "m", "x", -1), (outcome{0, "m:x"}));
    EXPECT_EQ(call(address, "m", "x", INT32_MAX), (outcome{0, "m:x"}));
}

TEST(zb_call, many_threads_call_at_once) {
    std::atomic<int> inside = 0;
    endpoint served([&](const std::string& method, zb_io* io, int fd) {
        EXPECT_EQ(++inside, 1) << "two requests at a time";
        echo(method, io, fd);
        --inside;
    });
    std::vector<std::thread> callers;
    callers.reserve(32);
    for (int i = 0; i < 32; ++i) {
        callers.emplace_back([i] {
            for (int k = 0; k < 50; ++k) {
                const std::string body = std::to_string(i) + "/" + std::to_string(k);
                EXPECT_EQ(call(address, "m", body), (outcome{0, "m:" + body}));
            }
        });
    }
    for (std::thread& each : callers) each.join();
}

TEST(zb_call, entry_runs_on_the_thread_of_zb_start) {
    std::thread::id ran_on;
    endpoint served([&](const std::string& method, zb_io* io, int fd) {
        ran_on = std::this_thread::get_id();
        echo(method, io, fd);
    });
    const std::thread::id expected = served.thread();
    EXPECT_EQ(call(address, "m").result, 0);
    EXPECT_EQ(ran_on, expected);
}

TEST(zb_call, requests_run_in_order_of_arrival) {
    std::string order;
    busy_endpoint served([&](const std::string& method, zb_io* io, int fd) {
        order += method;
        echo(method, io, fd);
    });
    std::vector<raw_stream> callers;
    for (const char* method : {"a", "b", "c", "d", "e", "f"}) {
        callers.push_back(connect_to(address));
        ASSERT_TRUE(callers.back().send(request_frame(method, "")));
    }
    served.release();
    for (raw_stream& each : callers) EXPECT_NE(each.receive_all(), "");
    EXPECT_EQ(order, "holdabcdef");
}

// ---- Descriptors -------------------------------------------------------------------------------

TEST(zb_call, entry_receives_the_descriptor_as_its_own) {
    channel pipe;
    endpoint served([](const std::string&, zb_io* io, int fd) {
        ASSERT_GE(fd, 0);
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(write(fd, "here", 4), 4);
        answer(io, "");
    });
    EXPECT_EQ(call(address, "m", "", timeout_s, pipe.in.get()).result, 0);
    char text[5] = {};
    ASSERT_EQ(read(pipe.out.get(), text, 4), 4);
    EXPECT_STREQ(text, "here");
    EXPECT_FALSE(pipe.is_hung_up(0));  // the caller's own is still open
    pipe.in.shut();
    EXPECT_TRUE(pipe.is_hung_up());
}

TEST(zb_call, descriptor_comes_with_a_request_of_any_size) {
    for (const std::size_t size : sizes{0, 100, 1000000}) {
        channel pipe;
        endpoint served([&](const std::string&, zb_io* io, int fd) {
            EXPECT_GE(fd, 0);
            EXPECT_EQ(content(io).size(), size);
            answer(io, "");
        });
        EXPECT_EQ(call(address, "m", pattern(size), timeout_s, pipe.in.get()).result, 0);
    }
}

TEST(zb_call, without_a_descriptor_the_entry_gets_minus_1) {
    endpoint served([](const std::string&, zb_io* io, int fd) { answer(io, std::to_string(fd)); });
    EXPECT_EQ(call(address, "m"), (outcome{0, "-1"}));
    EXPECT_EQ(call(address, "m", "", timeout_s, -7), (outcome{0, "-1"}));
}

TEST(zb_call, descriptor_that_is_not_open_is_a_bad_argument) {
    endpoint served;
    EXPECT_EQ(call(address, "m", "x", timeout_s, 987654), (outcome{ZB_ERROR_ARGUMENT, "x"}));
}

TEST(zb_call, descriptors_in_a_reply_are_discarded) {
    channel pipe;
    raw_endpoint served(address, [&](raw_stream& caller) {
        (void)caller.receive(request_frame("m", "").size());
        EXPECT_TRUE(caller.send_with(reply_frame(replied, "x"), {pipe.in.get()}));
    });
    EXPECT_EQ(call(address, "m"), (outcome{0, "x"}));
    pipe.in.shut();
    EXPECT_TRUE(pipe.is_hung_up());
}

TEST(zb_call, leaks_no_descriptor_however_it_ends) {
    const leak_check descriptors;
    endpoint served([](const std::string& method, zb_io* io, int) {
        if (method == "m") answer(io, "");
    });
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(call(address, "m").result, 0);
        EXPECT_EQ(call(address, "unknown").result, ZB_ERROR_NO_REPLY);
        EXPECT_EQ(call("@/nobody", "m").result, ZB_ERROR_UNREACHABLE);
    }
}

// ---- No reply ----------------------------------------------------------------------------------

TEST(zb_reply, entry_that_releases_without_reply_is_told_at_once) {
    endpoint served([](const std::string&, zb_io* io, int) { zb_io_free(io); });
    const double taken = seconds_of([] {
        EXPECT_EQ(call(address, "m", "x"), (outcome{ZB_ERROR_NO_REPLY, "x"}));
    });
    EXPECT_LT(taken, timeout_s / 2.0);
}

TEST(zb_reply, entry_that_does_nothing_is_told_at_once_and_the_buffer_reclaimed) {
    endpoint served([](const std::string&, zb_io*, int) {});
    const double taken = seconds_of([] {
        EXPECT_EQ(call(address, "m", pattern(100000)),
                  (outcome{ZB_ERROR_NO_REPLY, pattern(100000)}));
    });
    EXPECT_LT(taken, timeout_s / 2.0);
}

TEST(zb_reply, entry_may_release_after_its_reply) {
    endpoint served([](const std::string&, zb_io* io, int) {
        answer(io, "done");
        zb_io_free(io);
    });
    for (int i = 0; i < 3; ++i) EXPECT_EQ(call(address, "m", "x"), (outcome{0, "done"}));
}

TEST(zb_reply, second_reply_fails_and_does_not_reach_the_caller) {
    endpoint served([](const std::string&, zb_io* io, int) {
        answer(io, "first");
        EXPECT_EQ(zb_io_write(io, "second", 6), 0);
        EXPECT_EQ(zb_reply(io), -1);
    });
    EXPECT_EQ(call(address, "m"), (outcome{0, "first"}));
    EXPECT_EQ(call(address, "m"), (outcome{0, "first"}));
}

TEST(zb_reply, moves_the_payload_out) {
    endpoint served([](const std::string&, zb_io* io, int) {
        answer(io, pattern(1000000));
        EXPECT_EQ(content(io), "");
        EXPECT_STREQ(static_cast<const char*>(zb_io_read(io, nullptr)), "");
    });
    EXPECT_EQ(call(address, "m"), (outcome{0, pattern(1000000)}));
}

TEST(zb_reply, buffer_of_nobodys_request_fails) {
    endpoint served([](const std::string&, zb_io* io, int) {
        io_buffer own("own");
        EXPECT_EQ(zb_reply(own.get()), -1);
        answer(io, "right");
    });
    EXPECT_EQ(call(address, "m"), (outcome{0, "right"}));
    io_buffer io;
    EXPECT_EQ(zb_reply(io.get()), -1);
    EXPECT_EQ(zb_reply(nullptr), -1);
}

TEST(zb_reply, caller_who_left_meanwhile_is_told_to_the_entry) {
    channel left;
    endpoint served([&](const std::string&, zb_io* io, int) {
        EXPECT_TRUE(left.is_hung_up());
        EXPECT_EQ(zb_reply(io), -1);
    });
    raw_stream caller = connect_to(address);
    ASSERT_TRUE(caller.send(request_frame("m", "")));
    caller.shut();
    left.in.shut();
    served.stop();
}

TEST(zb_reply, slow_reader_keeps_nobody_waiting) {
    endpoint served([](const std::string& method, zb_io* io, int fd) {
        method == "large" ? answer(io, pattern(20000000)) : echo(method, io, fd);
    });
    raw_stream slow = connect_to(address);
    ASSERT_TRUE(slow.send(request_frame("large", "")));
    const std::string expected = reply_frame(replied, pattern(20000000));
    EXPECT_EQ(slow.receive(1000), expected.substr(0, 1000));
    for (int i = 0; i < 20; ++i) EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    EXPECT_EQ(slow.receive_all(), expected.substr(1000));
}

TEST(zb_reply, reader_who_stops_reading_is_dropped_alone) {
    endpoint served([](const std::string& method, zb_io* io, int fd) {
        method == "large" ? answer(io, pattern(2000000)) : echo(method, io, fd);
    });
    raw_stream stuck = connect_to(address);
    ASSERT_TRUE(stuck.send(request_frame("large", "")));
    EXPECT_EQ(stuck.receive(16).size(), 16U);
    EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    pollfd polled = {stuck.fd(), 0, 0};
    EXPECT_EQ(poll(&polled, 1, patience_ms), 1);  // hung up, after 9 s without progress
    EXPECT_NE(polled.revents & POLLHUP, 0);
    EXPECT_LT(stuck.receive_all().size(), 2000000U);
}

// ---- Time --------------------------------------------------------------------------------------

TEST(zb_call, no_progress_ends_in_a_timeout_and_keeps_the_request) {
    busy_endpoint served;
    EXPECT_EQ(call(address, "m", "x", 1), (outcome{ZB_ERROR_TIMEOUT, "x"}));
}

TEST(zb_call, progress_starts_the_time_anew) {
    const std::string frame = reply_frame(replied, "slow");
    raw_endpoint served(address, [&](raw_stream& caller) {
        (void)caller.receive(request_frame("m", "").size());
        for (std::size_t i = 0; i < frame.size(); i += 5) {
            wait_for_timer(std::chrono::milliseconds(600));
            EXPECT_TRUE(caller.send(frame.substr(i, 5)));
        }
    });
    EXPECT_EQ(call(address, "m", "", 1), (outcome{0, "slow"}));
}

TEST(zb_call, reply_that_stops_in_the_middle_is_a_timeout) {
    event done;
    raw_endpoint served(address, [&](raw_stream& caller) {
        EXPECT_TRUE(caller.send(header(1, 2, 0, 20000) + "half"));
        EXPECT_TRUE(done.wait());
    });
    EXPECT_EQ(call(address, "m", "x", 1), (outcome{ZB_ERROR_TIMEOUT, "x"}));
    done.set();
}

TEST(zb_call, endpoint_that_reads_nothing_is_a_timeout) {
    event done;
    raw_endpoint served(address, [&](raw_stream&) { EXPECT_TRUE(done.wait()); });
    const std::string body = pattern(3000000);
    EXPECT_EQ(call(address, "m", body, 1), (outcome{ZB_ERROR_TIMEOUT, body}));
    done.set();
}

TEST(zb_call, full_queue_of_callers_is_a_timeout) {
    zb_service* service = zb_create(address, 4, 1, entry);  // nobody serves it
    std::vector<file> waiting;
    const abstract_address name(address);
    while (true) {
        waiting.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (connect(waiting.back().get(), name.get(), name.length) != 0) break;
        ASSERT_LT(waiting.size(), 1000U);
    }
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(call(address, "m", "x", 1), (outcome{ZB_ERROR_TIMEOUT, "x"}));
    zb_free(service);
}

TEST(zb_call, place_in_a_full_queue_is_waited_for) {
    zb_service* service = zb_create(address, 4, 1, entry);
    current_handler() = echo;
    std::vector<file> waiting;
    const abstract_address name(address);
    do {
        waiting.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    } while (connect(waiting.back().get(), name.get(), name.length) == 0);
    std::thread caller([] { EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"})); });
    waiting.clear();
    std::thread server([&] { EXPECT_EQ(zb_start(service), 0); });
    caller.join();
    EXPECT_EQ(zb_stop(service), 0);
    server.join();
    zb_free(service);
}

// ---- Broken endpoints --------------------------------------------------------------------------

TEST(zb_call, endpoint_that_hangs_up_raises_no_sigpipe) {
    raw_endpoint served(address, [](raw_stream& caller) { caller.shut(); });
    for (const std::size_t size : sizes{1, 3000000}) {
        const std::string body = pattern(size);
        EXPECT_EQ(call(address, "m", body), (outcome{ZB_ERROR_BROKEN, body}));
    }
}

TEST(zb_call, status_left_before_the_request_was_read_is_heard) {
    raw_endpoint served(address, [](raw_stream& caller) {
        EXPECT_TRUE(caller.send(reply_frame(refused)));
        caller.shut();
    });
    for (const std::size_t size : sizes{1, 3000000}) {
        const std::string body = pattern(size);
        EXPECT_EQ(call(address, "m", body), (outcome{ZB_ERROR_DENIED, body}));
    }
}

TEST(zb_call, every_status_has_its_result) {
    const std::pair<int, int> cases[] = {
        {no_reply, ZB_ERROR_NO_REPLY},   {refused, ZB_ERROR_DENIED},
        {too_large, ZB_ERROR_TOO_LARGE}, {busy, ZB_ERROR_BUSY},
        {malformed, ZB_ERROR_PROTOCOL},  {999, ZB_ERROR_PROTOCOL},
    };
    for (const auto& [how, result] : cases) {
        raw_endpoint served(address, [how = how](raw_stream& caller) {
            (void)caller.receive(request_frame("m", "x").size());
            EXPECT_TRUE(caller.send(reply_frame(static_cast<status>(how))));
        });
        EXPECT_EQ(call(address, "m", "x"), (outcome{result, "x"})) << how;
    }
}

TEST(zb_call, malformed_replies_are_told_and_the_request_kept) {
    const std::pair<std::string, int> cases[] = {
        {"garbage that is no frame", ZB_ERROR_PROTOCOL},
        {header(2, 2, 0, 0), ZB_ERROR_PROTOCOL},                  // another version
        {header(1, 1, 0, 0), ZB_ERROR_PROTOCOL},                  // a request
        {reply_frame(replied, "x") + "more", ZB_ERROR_PROTOCOL},  // more than announced
        {header(1, 2, 0, (1ULL << 30) + 1), ZB_ERROR_TOO_LARGE},
        {header(1, 2, 0, UINT64_MAX), ZB_ERROR_TOO_LARGE},
        {header(1, 2, 0, 1 << 30) + "x", ZB_ERROR_BROKEN},  // announced and never sent
        {header(1, 2, 0, 10).substr(0, 15), ZB_ERROR_BROKEN},
        {"", ZB_ERROR_BROKEN},
    };
    for (const auto& [frame, result] : cases) {
        raw_endpoint served(address, [&frame = frame](raw_stream& caller) {
            (void)caller.receive(request_frame("m", "x").size());
            EXPECT_TRUE(caller.send(frame));
        });
        EXPECT_EQ(call(address, "m", "x"), (outcome{result, "x"})) << frame;
    }
}

// ---- The life of an endpoint -------------------------------------------------------------------

TEST(zb_create, address_in_use_is_told_to_standard_error) {
    endpoint served;
    testing::internal::CaptureStderr();
    EXPECT_EQ(zb_create(address, 4, 1, entry), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "zbservice: cannot create endpoint \"@/test/endpoint\": Address already in use\n");
}

TEST(zb_create, bad_arguments_are_told_to_standard_error) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(zb_create(nullptr, 4, 1, entry), nullptr);
    EXPECT_EQ(zb_create(address, 4, 1, nullptr), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "zbservice: cannot create endpoint \"(null)\": malformed address\n"
              "zbservice: cannot create endpoint \"@/test/endpoint\": no entry\n");
}

TEST(zb_create, settings_are_accepted_as_they_come) {
    for (const int setting : {0, 4, -1, INT32_MAX}) {
        zb_service* service = zb_create(address, setting, -setting, entry);
        EXPECT_NE(service, nullptr);
        zb_free(service);
    }
}

TEST(zb_create, failure_and_release_leak_no_descriptor) {
    const leak_check descriptors;
    zb_service* service = zb_create(address, 4, 1, entry);
    EXPECT_EQ(zb_create(address, 4, 1, entry), nullptr);
    zb_free(service);
}

TEST(zb_free, releases_the_address_and_cuts_off_who_waits) {
    zb_service* service = zb_create(address, 4, 1, entry);
    raw_stream waiting = connect_to(address);
    zb_free(service);
    EXPECT_EQ(waiting.receive_all(), "");
    endpoint again;
    EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
}

TEST(zb_free, null_is_allowed) { zb_free(nullptr); }

TEST(zb_free, does_nothing_while_the_endpoint_is_served) {
    endpoint served;
    EXPECT_EQ(call(address, "m").result, 0);  // it runs
    testing::internal::CaptureStderr();
    zb_free(served.get());
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
}

TEST(zb_start, null_cannot_be_served_nor_stopped) {
    EXPECT_EQ(zb_start(nullptr), -1);
    EXPECT_EQ(zb_stop(nullptr), -1);
}

TEST(zb_start, same_endpoint_cannot_be_served_twice_at_once) {
    endpoint served;
    EXPECT_EQ(call(address, "m").result, 0);
    EXPECT_EQ(zb_start(served.get()), -1);
    EXPECT_EQ(call(address, "m").result, 0);
}

TEST(zb_start, leaves_no_descriptor_open) {
    zb_service* service = zb_create(address, 4, 1, entry);
    {
        const leak_check descriptors;
        EXPECT_EQ(zb_stop(service), 0);
        EXPECT_EQ(zb_start(service), 0);
    }
    zb_free(service);
}

TEST(zb_start, tells_that_it_is_ready) {
    file listener(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const abstract_address name("@/test/notify");
    ASSERT_EQ(bind(listener.get(), name.get(), name.length), 0);
    setenv("NOTIFY_SOCKET", "@/test/notify", 1);
    endpoint served;
    char text[32] = {};
    ASSERT_EQ(recv(listener.get(), text, sizeof text, 0), 7);
    EXPECT_STREQ(text, "READY=1");
}

TEST(zb_start, tells_that_it_is_ready_on_a_named_socket) {
    file listener(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un name = {AF_UNIX, "/tmp/notify"};
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
    setenv("NOTIFY_SOCKET", "/tmp/notify", 1);
    endpoint served;
    char text[32] = {};
    ASSERT_EQ(recv(listener.get(), text, sizeof text, 0), 7);
    EXPECT_STREQ(text, "READY=1");
}

TEST(zb_start, serves_also_when_nobody_hears_that_it_is_ready) {
    for (const char* where : {"@/nobody", "/tmp/nobody", "", "x"}) {
        setenv("NOTIFY_SOCKET", where, 1);
        endpoint served;
        EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    }
}

TEST(zb_stop, before_zb_start_makes_it_return_at_once) {
    zb_service* service = zb_create(address, 4, 1, entry);
    EXPECT_EQ(zb_stop(service), 0);
    EXPECT_EQ(zb_start(service), 0);
    zb_free(service);
}

TEST(zb_stop, works_from_the_entry_and_the_reply_still_goes_out) {
    zb_service* service = nullptr;
    event known;
    endpoint served([&](const std::string&, zb_io* io, int) {
        EXPECT_TRUE(known.wait());
        EXPECT_EQ(zb_stop(service), 0);
        answer(io, pattern(1000000));
    });
    service = served.get();
    known.set();
    EXPECT_EQ(call(address, "m"), (outcome{0, pattern(1000000)}));
    EXPECT_EQ(served.join(), 0);
}

TEST(zb_stop, requests_that_have_not_started_are_answered_with_no_reply) {
    busy_endpoint served;
    raw_stream unfinished = connect_to(address);
    ASSERT_TRUE(unfinished.send("zb"));
    EXPECT_EQ(zb_stop(served.get().get()), 0);
    served.release();
    EXPECT_EQ(served.get().join(), 0);
    // Not accepted before the stop: it waits in the kernel until the endpoint goes or serves again.
    EXPECT_EQ(call(address, "m", "x", 1), (outcome{ZB_ERROR_TIMEOUT, "x"}));
}

TEST(zb_stop, endpoint_can_be_served_again) {
    current_handler() = echo;
    zb_service* service = zb_create(address, 4, 1, entry);
    for (int i = 0; i < 3; ++i) {
        std::thread server([&] { EXPECT_EQ(zb_start(service), 0); });
        EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
        EXPECT_EQ(zb_stop(service), 0);
        server.join();
    }
    zb_free(service);
}

TEST(zb_stop, flush_gives_a_reader_time_but_not_for_ever) {
    endpoint served([](const std::string&, zb_io* io, int) { answer(io, pattern(2000000)); });
    raw_stream stuck = connect_to(address);
    ASSERT_TRUE(stuck.send(request_frame("m", "")));
    EXPECT_EQ(stuck.receive(16).size(), 16U);
    int result = -2;
    const double taken = seconds_of([&] { result = served.stop(); });
    EXPECT_EQ(result, 0);
    EXPECT_GE(taken, 1.5);
    EXPECT_LT(taken, 9.0);
}

// ---- Signals that interrupt --------------------------------------------------------------------

TEST(zb_call, storm_of_signals_disturbs_neither_side) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);  // no SA_RESTART
    endpoint served;
    const itimerval fast = {{0, 300}, {0, 300}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &fast, nullptr), 0);
    const std::string body = pattern(1000000);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(call(address, "m", body), (outcome{0, "m:" + body}));
    const itimerval off = {};
    ASSERT_EQ(setitimer(ITIMER_REAL, &off, nullptr), 0);
}
