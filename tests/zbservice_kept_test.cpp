// Connections that are kept from one call to the next: who keeps them, what ends them, and that a
// request is run once whatever happens to them.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/bus.h"
#include "support/lingering.h"
#include "support/seconds_ahead.h"

using namespace bus_test;

namespace {
uid_t pretended_user = 0;
}

// In the library's place for geteuid too.
extern "C" __attribute__((visibility("default"))) uid_t geteuid() noexcept {
    using function = uid_t (*)();
    static const auto original = reinterpret_cast<function>(dlsym(RTLD_NEXT, "geteuid"));
    return pretended_user != 0 ? pretended_user : original();
}

namespace {
using sizes = std::initializer_list<std::size_t>;
constexpr int most_descriptors = 1000;  // far more than a test has

const outcome served_well = {0, "m:x"};

void call_well(int times) {
    for (int i = 0; i < times; ++i) EXPECT_EQ(call(address, "m", "x"), served_well);
}

// The first call of an address keeps nothing, the second keeps its connection.
void make_kept() {
    call_well(2);
    EXPECT_EQ(kept_connections(), 1U);
}

// The number of the only descriptor that is a kept connection.
int kept_descriptor() {
    for (int fd = 0; fd < most_descriptors; ++fd) {
        if (is_connected_to_endpoint(fd)) return fd;
    }
    ADD_FAILURE() << "nothing is kept";
    return -1;
}

ino_t inode_of(int fd) {
    struct stat status = {};
    EXPECT_EQ(fstat(fd, &status), 0);
    return status.st_ino;
}
}  // namespace

// ---- What a caller keeps -----------------------------------------------------------------------

namespace {
// What an endpoint by hand does with its callers' requests.
using step = std::function<void(raw_stream& caller, const std::string& request)>;

void reply_and_keep(raw_stream& caller, const std::string& request) {
    const std::string body = request.substr(16, 1) + ":" + request.substr(17);
    EXPECT_TRUE(caller.send(request[5] == 0x31 ? kept_frame(body) : reply_frame(replied, body)));
}

// Takes requests of a method of one byte, and logs the number of their connection and their kind.
// The steps are those for each request that it is about to take; the last goes on.
class scripted_endpoint {
  public:
    explicit scripted_endpoint(std::vector<step> steps)
        : steps_(std::move(steps)),
          endpoint_(address, [this](raw_stream& caller) { serve(caller); }) {}

    // Its thread waits for the end of the connection that it serves.
    ~scripted_endpoint() { end_kept_connections(); }
    scripted_endpoint(const scripted_endpoint&) = delete;
    scripted_endpoint& operator=(const scripted_endpoint&) = delete;

    std::string log() const {
        const std::lock_guard hold(lock_);
        return log_;
    }

  private:
    void serve(raw_stream& caller) {
        ++connection_;
        char byte = 0;
        bool goes_on = true;
        while (goes_on && caller.fd() >= 0 && recv(caller.fd(), &byte, 1, MSG_PEEK) == 1) {
            const step next = steps_.size() > 1 ? steps_.front() : steps_.back();
            if (steps_.size() > 1) steps_.erase(steps_.begin());
            goes_on = next != nullptr;
            if (goes_on) take(caller, next);
        }
    }

    void take(raw_stream& caller, const step& next) {
        const std::string head = caller.receive(17);
        const auto length = static_cast<unsigned char>(head[8]) |
                            std::size_t{static_cast<unsigned char>(head[9])} << 8 |
                            std::size_t{static_cast<unsigned char>(head[10])} << 16;
        {
            const std::lock_guard hold(lock_);
            log_ += std::to_string(connection_) + (head[5] == 1      ? "plain "
                                                   : head[5] == 0x11 ? "dated "
                                                                     : "keep ");
        }
        next(caller, head + caller.receive(length));
    }

    std::vector<step> steps_;
    mutable std::mutex lock_;
    std::string log_;
    int connection_ = 0;
    raw_endpoint endpoint_;
};
}  // namespace

TEST(kept, first_call_keeps_nothing_and_the_second_what_all_others_use) {
    scripted_endpoint served({reply_and_keep});
    EXPECT_EQ(call(address, "m", "x"), served_well);
    EXPECT_EQ(kept_connections(), 0U);
    call_well(3);
    EXPECT_EQ(served.log(), "1dated 2keep 2keep 2keep ");
}

TEST(kept, endpoint_that_closes_after_each_reply_is_called_anew) {
    const step once = [](raw_stream& caller, const std::string& request) {
        EXPECT_TRUE(caller.send(reply_frame(replied, "m:" + request.substr(17))));
        caller.shut();
    };
    scripted_endpoint served({once});
    call_well(3);
    EXPECT_EQ(kept_connections(), 0U);
    EXPECT_EQ(served.log(), "1dated 2keep 3keep ");
}

TEST(kept, older_endpoint_is_called_in_its_own_way) {
    const step older = [](raw_stream& caller, const std::string& request) {
        EXPECT_TRUE(caller.send(request[5] == 1 ? reply_frame(replied, "m:" + request.substr(17))
                                                : reply_frame(malformed)));
        caller.shut();
    };
    scripted_endpoint served({older});
    call_well(3);
    EXPECT_EQ(served.log(), "1dated 2plain 3plain 4plain ");
}

TEST(kept, thread_keeps_no_more_than_four) {
    std::vector<std::unique_ptr<endpoint>> served;
    for (int i = 0; i < 6; ++i)
        served.push_back(std::make_unique<endpoint>(echo, ("@/" + std::to_string(i)).c_str()));
    for (std::size_t i = 0; i < 6; ++i) {
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(call("@/" + std::to_string(i), "m", "x"), served_well);
        EXPECT_EQ(kept_connections(), std::min<std::size_t>(i + 1, 4));
    }
}

TEST(kept, idle_one_is_closed_by_its_caller_at_a_later_call) {
    const endpoint served;
    const endpoint other(echo, "@/other");
    make_kept();
    const ino_t first = inode_of(kept_descriptor());
    seconds_ahead += 4;
    call_well(1);
    EXPECT_EQ(inode_of(kept_descriptor()), first);
    seconds_ahead += 6;
    EXPECT_EQ(call("@/other", "m", "x"), served_well);
    EXPECT_EQ(kept_connections(), 0U);
}

TEST(kept, ten_thousand_calls_leave_the_descriptors_as_they_were) {
    const leak_check descriptors;
    const endpoint served;
    for (int i = 0; i < (sanitized ? 1000 : 10000); ++i)
        ASSERT_EQ(call(address, "m", "x"), served_well);
}

TEST(kept, carries_payloads_of_every_size_and_descriptors) {
    const endpoint served([](const std::string&, zb_io* io, int fd) {
        EXPECT_TRUE(fd < 0 || write(fd, "here", 4) == 4);
        EXPECT_EQ(zb_reply(io), 0);
    });
    for (const std::size_t size : sizes{0, 5200, 65000, 66000, 300000, 1 << 22, 1}) {
        const std::string body(size, 'b');
        const channel pipe;
        EXPECT_EQ(call(address, "m", body, timeout_s, pipe.in.get()), (outcome{0, body}));
        char text[5] = {};
        EXPECT_EQ(read(pipe.out.get(), text, 4), 4);
    }
    EXPECT_EQ(kept_connections(), 1U);
}

TEST(kept, timeout_is_that_of_each_call) {
    const endpoint served([](const std::string& method, zb_io* io, int fd) {
        if (method == "late") {
            event never;
            EXPECT_FALSE(never.wait(1200));
            (void)zb_reply(io);
            return;
        }
        echo(method, io, fd);
    });
    make_kept();
    EXPECT_EQ(call(address, "m", "x", 20), served_well);
    EXPECT_EQ(call(address, "late", "", 1).result, ZB_ERROR_TIMEOUT);
    EXPECT_EQ(kept_connections(), 0U);
}

// ---- Nothing is run twice ----------------------------------------------------------------------

namespace {
struct ending {
    const char* what;
    step third;        // what becomes of the first request that comes on a kept connection
    int result;        // of that call
    const char* seen;  // by the endpoint, behind the first two
    std::size_t size = 1;
};

const ending endings[] = {
    {"closed unread", nullptr, 0, "3keep "},
    {"closed in the middle of the request", nullptr, 0, "3keep ", 3000000},
    {"not run",
     [](raw_stream& caller, const std::string&) {
         EXPECT_TRUE(caller.send(reply_frame(not_run)));
         caller.shut();
     },
     0, "2keep 3keep "},
    {"closed when it was read", [](raw_stream& caller, const std::string&) { caller.shut(); },
     ZB_ERROR_BROKEN, "2keep "},
    {"closed in the middle of the reply",
     [](raw_stream& caller, const std::string&) {
         EXPECT_TRUE(caller.send(kept_frame("m:x").substr(0, 17)));
         caller.shut();
     },
     ZB_ERROR_BROKEN, "2keep "},
    {"busy",
     [](raw_stream& caller, const std::string&) {
         EXPECT_TRUE(caller.send(reply_frame(busy)));
         caller.shut();
     },
     ZB_ERROR_BUSY, "2keep "},
    {"not replied",
     [](raw_stream& caller, const std::string&) {
         EXPECT_TRUE(caller.send(reply_frame(no_reply)));
         caller.shut();
     },
     ZB_ERROR_NO_REPLY, "2keep "},
};
}  // namespace

TEST(kept, request_is_sent_again_only_if_it_is_certain_not_to_be_run) {
    for (const ending& each : endings) {
        SCOPED_TRACE(each.what);
        const step first = [](raw_stream& caller, const std::string& request) {
            reply_and_keep(caller, request);
            caller.shut();
        };
        std::thread caller([&] {  // whose end closes what it keeps
            scripted_endpoint served({first, reply_and_keep, each.third, reply_and_keep});
            call_well(2);
            const std::string body(each.size, 'x');
            EXPECT_EQ(call(address, "m", body),
                      (outcome{each.result, (each.result == 0 ? "m:" : "") + body}));
            EXPECT_EQ(served.log(), std::string("1dated 2keep ") + each.seen);
        });
        caller.join();
    }
}

namespace {
// Counts what is run, in all processes.
class run_count {
  public:
    run_count()
        : count_(static_cast<std::atomic<int>*>(mmap(nullptr, sizeof(std::atomic<int>),
                                                     PROT_READ | PROT_WRITE,
                                                     MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    ~run_count() { munmap(count_, sizeof *count_); }
    run_count(const run_count&) = delete;
    run_count& operator=(const run_count&) = delete;
    int add() const { return ++*count_; }
    int get() const { return *count_; }

  private:
    std::atomic<int>* count_;
};
}  // namespace

TEST(kept, endpoint_that_was_started_anew_runs_the_next_request_once) {
    const run_count runs;
    const auto handle = [&](const std::string& method, zb_io* io, int fd) {
        runs.add();
        echo(method, io, fd);
    };
    for (int round = 0; round < 2; ++round) {
        const endpoint served(handle);
        call_well(3);
    }
    EXPECT_EQ(runs.get(), 6);
}

TEST(kept, endpoint_killed_between_two_calls_is_no_longer_there) {
    {
        const served_process served(echo);
        make_kept();
    }
    EXPECT_EQ(call(address, "m", "x"), (outcome{ZB_ERROR_UNREACHABLE, "x"}));
    const served_process again(echo);
    call_well(1);
}

TEST(kept, request_that_kills_its_endpoint_is_run_once) {
    const run_count runs;
    const auto handle = [&](const std::string& method, zb_io* io, int fd) {
        if (runs.add() == 3) (void)raise(SIGKILL);
        echo(method, io, fd);
    };
    {
        const served_process served(handle);
        make_kept();
        EXPECT_EQ(call(address, "m", "x"), (outcome{ZB_ERROR_BROKEN, "x"}));
    }
    const served_process again(handle);
    EXPECT_EQ(runs.get(), 3);
    call_well(1);
    EXPECT_EQ(runs.get(), 4);
}

// ---- Threads, children, other users ------------------------------------------------------------

TEST(kept, thread_has_its_own_and_closes_it_at_its_end) {
    const endpoint served;
    make_kept();
    std::thread another([] {
        call_well(3);
        EXPECT_EQ(kept_connections(), 2U);
    });
    another.join();
    EXPECT_EQ(kept_connections(), 1U);
    call_well(1);
}

TEST(kept, child_has_none_of_its_parents_and_leaves_them_alone) {
    const served_process served(echo);
    make_kept();
    const ino_t before = inode_of(kept_descriptor());
    process child([&] {
        EXPECT_EQ(kept_connections(), 0U);
        call_well(3);
        EXPECT_NE(inode_of(kept_descriptor()), before);
    });
    EXPECT_EQ(child.wait(), 0);
    call_well(3);
    EXPECT_EQ(inode_of(kept_descriptor()), before);
}

TEST(kept, child_has_none_of_another_thread_of_its_parent) {
    const served_process served(echo);
    event kept;
    event over;
    std::thread another([&] {
        make_kept();
        kept.set();
        EXPECT_TRUE(over.wait());
        call_well(1);
    });
    ASSERT_TRUE(kept.wait());
    process child([] {
        EXPECT_EQ(kept_connections(), 0U);
        call_well(3);
    });
    EXPECT_EQ(child.wait(), 0);
    over.set();
    another.join();
}

TEST(kept, is_not_used_by_another_user) {
    const endpoint served;
    make_kept();
    const ino_t before = inode_of(kept_descriptor());
    pretended_user = 4711;
    call_well(1);
    EXPECT_NE(inode_of(kept_descriptor()), before);
}

// ---- Programs that close descriptors behind our back -------------------------------------------

TEST(kept, number_that_the_program_has_closed_is_left_alone) {
    const endpoint served;
    make_kept();
    EXPECT_EQ(close(kept_descriptor()), 0);
    call_well(3);
    EXPECT_EQ(kept_connections(), 1U);
}

TEST(kept, number_that_stands_for_something_else_now_is_left_alone) {
    const endpoint served;
    make_kept();
    const int number = kept_descriptor();
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    ASSERT_EQ(dup3(ends[0], number, O_CLOEXEC), number);
    close(ends[0]);
    process child([&] { EXPECT_EQ(send(number, "c", 1, MSG_NOSIGNAL), 1); });
    EXPECT_EQ(child.wait(), 0);
    call_well(3);
    EXPECT_EQ(send(number, "p", 1, MSG_NOSIGNAL), 1);
    char heard[8] = {};
    EXPECT_EQ(recv(ends[1], heard, sizeof heard, 0), 2);
    EXPECT_STREQ(heard, "cp");
}

// ---- What an endpoint keeps --------------------------------------------------------------------

namespace {
// A caller by hand whose connection is kept.
raw_stream connect_and_keep() {
    raw_stream caller = connect_to(address);
    EXPECT_TRUE(caller.send(dated_frame("m", "x", keep)));
    EXPECT_EQ(caller.receive(19), kept_frame("m:x"));
    return caller;
}

// An endpoint that is busy with a request until it is let go.
class held_endpoint {
  public:
    explicit held_endpoint(std::size_t kept)
        : served_([this](const std::string& method, zb_io* io, int fd) {
              if (method == "hold") {
                  held_.set();
                  EXPECT_TRUE(go_on_.wait());
              } else if (method != "m") {
                  order_ += method;
              }
              echo(method, io, fd);
          }) {
        for (std::size_t i = 0; i < kept; ++i) callers_.push_back(connect_and_keep());
        EXPECT_TRUE(holder_.send(request_frame("hold", "")));
        EXPECT_TRUE(held_.wait());
    }
    raw_stream& caller(std::size_t which) { return callers_[which]; }
    endpoint& get() { return served_; }
    std::vector<raw_stream>& callers() { return callers_; }
    // What has run when it has been let go and stopped.
    std::string order() {
        go_on_.set();
        for (int i = 0; i < 200; ++i) EXPECT_EQ(call(address, "m", "x"), served_well);
        served_.stop();
        return order_;
    }
    void let_go() { go_on_.set(); }

  private:
    event held_;
    event go_on_;
    std::string order_;
    endpoint served_;
    std::vector<raw_stream> callers_;
    raw_stream holder_ = connect_to(address);
};
}  // namespace

TEST(kept_by_endpoint, serves_request_after_request_and_then_one_that_is_the_last) {
    const endpoint served;
    raw_stream caller = connect_and_keep();
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(caller.send(dated_frame("again", "y", keep)));
        EXPECT_EQ(caller.receive(23), kept_frame("again:y"));
    }
    ASSERT_TRUE(caller.send(dated_frame("last", "", keep_not)));
    EXPECT_EQ(caller.receive_all(), reply_frame(replied, "last:"));
}

TEST(kept_by_endpoint, long_requests_and_replies_come_between_short_ones) {
    const endpoint served;
    raw_stream caller = connect_and_keep();
    for (const std::size_t size : sizes{1, 3000000, 0, 200000, 5}) {
        const std::string body(size, 'b');
        std::thread sender([&] { EXPECT_TRUE(caller.send(dated_frame("n", body, keep))); });
        EXPECT_EQ(caller.receive(18 + size), kept_frame("n:" + body));
        sender.join();
    }
}

TEST(kept_by_endpoint, older_caller_is_hung_up_on_after_the_reply) {
    const endpoint served;
    raw_stream plain = connect_to(address);
    ASSERT_TRUE(plain.send(request_frame("m", "x")));
    EXPECT_EQ(plain.receive_all(), reply_frame(replied, "m:x"));
}

TEST(kept_by_endpoint, malformed_request_ends_it) {
    const endpoint served;
    raw_stream caller = connect_and_keep();
    ASSERT_TRUE(caller.send("GET / HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(caller.receive_all(), reply_frame(malformed));
}

TEST(kept_by_endpoint, idle_one_is_closed_after_a_while) {
    const endpoint served;
    raw_stream caller = connect_and_keep();
    call_well(1);  // the endpoint has come to rest before the time is changed
    seconds_ahead += 9;
    call_well(1);
    ASSERT_TRUE(caller.send(dated_frame("m", "x", keep)));
    EXPECT_EQ(caller.receive(19), kept_frame("m:x"));
    call_well(1);
    seconds_ahead += 10;
    call_well(1);
    EXPECT_EQ(caller.receive_all(), "");
}

TEST(kept_by_endpoint, none_are_kept_where_descriptors_are_few) {
    const served_process served(echo, {}, [] {
        const rlimit few = {500, 500};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    });
    raw_stream caller = connect_to(address);
    ASSERT_TRUE(caller.send(dated_frame("m", "x", keep)));
    EXPECT_EQ(caller.receive_all(), reply_frame(replied, "m:x"));
}

TEST(kept, nothing_is_kept_where_descriptors_are_few) {
    const endpoint served;
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = 500;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    call_well(3);
    EXPECT_EQ(kept_connections(), 0U);
}

TEST(kept_by_endpoint, stop_does_not_wait_for_those_that_are_idle) {
    endpoint served;
    make_kept();
    raw_stream caller = connect_and_keep();
    expect_soon([&] { EXPECT_EQ(served.stop(), 0); });
    EXPECT_EQ(caller.receive_all(), "");
}

TEST(kept_by_endpoint, request_that_came_too_late_is_told_not_to_be_run) {
    held_endpoint held(1);
    ASSERT_TRUE(held.caller(0).send(dated_frame("late", "", keep)));
    EXPECT_EQ(zb_stop(held.get().get()), 0);
    held.let_go();
    EXPECT_EQ(held.get().join(), 0);
    EXPECT_EQ(held.caller(0).receive_all(), reply_frame(not_run));
}

TEST(kept_by_endpoint, caller_who_left_before_his_turn_is_not_run) {
    held_endpoint held(2);
    ASSERT_TRUE(held.caller(0).send(dated_frame("a", "", keep)));
    held.caller(0).shut();
    ASSERT_TRUE(held.caller(1).send(dated_frame("b", "", keep)));
    EXPECT_EQ(held.order(), "b");
}

TEST(kept_by_endpoint, lingering_descriptors_are_waited_for_by_nobody) {
    held_endpoint held(2);
    lingering_sockets with_request(2);
    lingering_sockets unread(2);
    ASSERT_TRUE(with_request.send_through(held.caller(0), dated_frame("a", "", keep)));
    ASSERT_TRUE(held.caller(1).send(dated_frame("b", "", keep)));
    ASSERT_TRUE(unread.send_through(held.caller(1), "more"));
    held.caller(1).shut();
    expect_soon([&] { EXPECT_EQ(held.order(), "a"); });
}

// ---- Order of arrival --------------------------------------------------------------------------

TEST(kept_by_endpoint, requests_on_kept_and_on_new_connections_run_in_their_order) {
    for (const std::string_view pattern : {"nnkknk", "knnkkn", "nknnnk", "kkknnn", "nnnkkk"}) {
        held_endpoint held(pattern.size());
        std::vector<raw_stream> newcomers;
        std::string expected;
        for (std::size_t i = 0; i < pattern.size(); ++i) {
            const std::string method(1, static_cast<char>('a' + i));
            expected += method;
            if (pattern[i] == 'n') newcomers.push_back(connect_to(address));
            raw_stream& caller = pattern[i] == 'n' ? newcomers.back() : held.caller(i);
            ASSERT_TRUE(caller.send(dated_frame(method, "", keep)));
        }
        EXPECT_EQ(held.order(), expected) << pattern;
    }
}

TEST(kept_by_endpoint, dates_that_lie_overtake_nobody_for_long) {
    constexpr std::size_t liars = 100;
    held_endpoint held(liars + 1);
    ASSERT_TRUE(held.caller(liars).send(dated_frame("K", "", keep)));
    for (std::size_t i = 0; i < liars; ++i)
        ASSERT_TRUE(held.caller(i).send(dated_frame("l", "", keep, next_date() - 1000000000)));
    const std::string order = held.order();
    EXPECT_EQ(order.size(), liars + 1);
    EXPECT_EQ(order.find('K'), 65U);
}
