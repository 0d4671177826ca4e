// Signals as events of the serving thread, and what children inherit.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/bus.h"

using namespace bus_test;

namespace {
std::atomic<int> delivered = 0;
std::atomic<std::thread::id> delivered_on;
event* delivery = nullptr;
zb_service* running = nullptr;

void count(int) {
    delivered_on = std::this_thread::get_id();
    ++delivered;
    if (delivery) delivery->set();
}

void send_to_self(int sig) { ASSERT_EQ(kill(getpid(), sig), 0); }

bool is_asleep(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    return text.find(") S ") != std::string::npos;
}

// What a program sees whom this process starts: its signal state and its descriptors.
std::string seen_by_a_child() {
    FILE* out =
        popen("grep -E '^Sig(Blk|Ign)' /proc/self/status; ls -l /proc/self/fd | wc -l", "re");
    std::string text;
    char part[4096];
    while (std::fgets(part, sizeof part, out)) text += part;
    EXPECT_EQ(pclose(out), 0);
    return text;
}
}  // namespace

// ---- When ----------------------------------------------------------------------------------

TEST(zb_signal, before_the_endpoint_exists_is_delivered_by_zb_create) {
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    send_to_self(SIGUSR1);
    EXPECT_EQ(delivered, 0);
    zb_service* service = zb_create(address, 4, 1, entry);
    EXPECT_EQ(delivered, 1);
    zb_free(service);
}

TEST(zb_signal, is_delivered_by_a_zb_create_that_fails) {
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    send_to_self(SIGUSR1);
    EXPECT_EQ(zb_create(nullptr, 4, 1, entry), nullptr);
    EXPECT_EQ(delivered, 1);
}

TEST(zb_signal, after_zb_create_is_delivered_by_zb_start) {
    ASSERT_EQ(zb_signal(SIGTERM, [](int) { EXPECT_EQ(zb_stop(running), 0); }), 0);
    running = zb_create(address, 4, 1, entry);
    send_to_self(SIGTERM);
    EXPECT_EQ(zb_start(running), 0);  // stopped by it at once
    zb_free(running);
}

TEST(zb_signal, is_delivered_by_a_zb_start_without_an_endpoint) {
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    send_to_self(SIGUSR1);
    EXPECT_EQ(zb_start(nullptr), -1);
    EXPECT_EQ(delivered, 1);
}

TEST(zb_signal, wakes_an_idle_endpoint_and_runs_on_its_thread) {
    event came;
    delivery = &came;
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    endpoint served;
    send_to_self(SIGUSR1);
    EXPECT_TRUE(came.wait());
    EXPECT_EQ(delivered_on.load(), served.thread());
    EXPECT_EQ(delivered, 1);
}

TEST(zb_signal, several_before_delivery_run_each_function_once) {
    static std::vector<int> order;
    for (const int sig : {SIGHUP, SIGUSR1, SIGUSR2, SIGRTMIN})
        ASSERT_EQ(zb_signal(sig, [](int which) { order.push_back(which); }), 0);
    for (int i = 0; i < 3; ++i) {
        for (const int sig : {SIGUSR2, SIGRTMIN, SIGHUP}) send_to_self(sig);
    }
    EXPECT_EQ(zb_start(nullptr), -1);
    std::sort(order.begin(), order.end());
    EXPECT_EQ(order, (std::vector<int>{SIGHUP, SIGUSR2, SIGRTMIN}));
}

TEST(zb_signal, effect_is_there_before_the_next_request_runs) {
    served_process served(
        [](const std::string&, zb_io* io, int) { answer(io, std::to_string(delivered)); },
        [] {
            EXPECT_EQ(zb_signal(SIGHUP, count), 0);
            EXPECT_EQ(zb_signal(SIGTERM, [](int) { zb_stop(served_process::service()); }), 0);
        });
    for (int i = 1; i <= 300; ++i) {
        ASSERT_EQ(kill(served.pid(), SIGHUP), 0);
        ASSERT_EQ(call(address, "m"), (outcome{0, std::to_string(i)}));
    }
    ASSERT_EQ(kill(served.pid(), SIGTERM), 0);
    EXPECT_EQ(served.wait(), 0);
}

TEST(zb_signal, never_runs_inside_the_entry) {
    served_process served(
        [](const std::string& method, zb_io* io, int) {
            const int before = delivered;
            if (method == "raise") send_to_self(SIGHUP);
            EXPECT_EQ(delivered, before);
            answer(io, std::to_string(before));
        },
        [] {
            EXPECT_EQ(zb_signal(SIGHUP, count), 0);
            EXPECT_EQ(zb_signal(SIGTERM, [](int) { zb_stop(served_process::service()); }), 0);
        });
    EXPECT_EQ(call(address, "raise"), (outcome{0, "0"}));
    EXPECT_EQ(call(address, "m"), (outcome{0, "1"}));
    ASSERT_EQ(kill(served.pid(), SIGTERM), 0);
    EXPECT_EQ(served.wait(), 0);
}

TEST(zb_signal, does_not_interrupt_what_the_entry_waits_for) {
    channel pipe;
    event inside;
    served_process served(
        [&](const std::string&, zb_io* io, int) {
            inside.set();
            char byte = 0;
            EXPECT_EQ(read(pipe.out.get(), &byte, 1), 1);
            answer(io, "read");
        },
        [] {
            EXPECT_EQ(zb_signal(SIGHUP, count), 0);
            EXPECT_EQ(zb_signal(SIGTERM, [](int) { zb_stop(served_process::service()); }), 0);
        });
    std::thread caller([] { EXPECT_EQ(call(address, "m"), (outcome{0, "read"})); });
    ASSERT_TRUE(inside.wait());
    // There is no event for "waits now"; between its own event and that it is running.
    while (!is_asleep(served.pid())) std::this_thread::yield();
    ASSERT_EQ(kill(served.pid(), SIGHUP), 0);
    ASSERT_EQ(write(pipe.in.get(), "", 1), 1);
    caller.join();
    ASSERT_EQ(kill(served.pid(), SIGTERM), 0);
    EXPECT_EQ(served.wait(), 0);
}

TEST(zb_signal, runs_while_a_call_made_by_the_entry_waits) {
    event came;
    delivery = &came;
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    // The neighbour answers only after the signal's function has run.
    raw_endpoint neighbour("@/test/neighbour", [&](raw_stream& caller) {
        (void)caller.receive(request_frame("n", "").size());
        send_to_self(SIGUSR1);
        EXPECT_TRUE(came.wait());
        EXPECT_TRUE(caller.send(reply_frame(replied, "neighbour")));
    });
    endpoint served([](const std::string&, zb_io* io, int) {
        EXPECT_EQ(zb_call("@/test/neighbour", "n", io, timeout_s, -1), 0);
        EXPECT_EQ(zb_reply(io), 0);
    });
    EXPECT_EQ(call(address, "m"), (outcome{0, "neighbour"}));
    EXPECT_EQ(delivered_on.load(), served.thread());
}

TEST(zb_signal, runs_while_a_call_made_by_the_entry_waits_for_its_place) {
    event came;
    delivery = &came;
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    file full(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const abstract_address name("@/test/neighbour");
    ASSERT_EQ(bind(full.get(), name.get(), name.length), 0);
    ASSERT_EQ(listen(full.get(), 0), 0);
    const raw_stream first = connect_to("@/test/neighbour");
    event inside;
    endpoint served([&](const std::string&, zb_io* io, int) {
        inside.set();
        answer(io, std::to_string(call("@/test/neighbour", "n", "", 3).result));
    });
    std::thread caller([] {
        EXPECT_EQ(call(address, "m"), (outcome{0, std::to_string(ZB_ERROR_TIMEOUT)}));
    });
    ASSERT_TRUE(inside.wait());
    send_to_self(SIGUSR1);
    EXPECT_TRUE(came.wait(2500));
    caller.join();
}

TEST(zb_signal, its_function_may_call_and_is_not_run_inside_itself) {
    static int depth = 0;
    static int deepest = 0;
    raw_endpoint neighbour("@/test/neighbour", [](raw_stream& caller) {
        (void)caller.receive(request_frame("n", "").size());
        send_to_self(SIGUSR1);
        EXPECT_TRUE(caller.send(reply_frame(replied)));
    });
    event came;
    delivery = &came;
    const auto fn = [](int) {
        deepest = std::max(deepest, ++depth);
        if (++delivered <= 2) {
            EXPECT_EQ(call("@/test/neighbour", "n").result, 0);
        }
        --depth;
        if (delivered == 3) delivery->set();
    };
    ASSERT_EQ(zb_signal(SIGUSR1, fn), 0);
    endpoint served;
    send_to_self(SIGUSR1);
    EXPECT_TRUE(came.wait());
    served.stop();
    EXPECT_EQ(deepest, 1);
}

TEST(zb_signal, its_function_may_create_an_endpoint_and_is_not_run_inside_itself) {
    static int depth = 0;
    const auto fn = [](int) {
        EXPECT_EQ(++depth, 1);
        if (++delivered == 1) {
            send_to_self(SIGUSR1);
            zb_free(zb_create(address, 4, 1, entry));
            EXPECT_EQ(zb_start(nullptr), -1);
        }
        --depth;
    };
    ASSERT_EQ(zb_signal(SIGUSR1, fn), 0);
    send_to_self(SIGUSR1);
    EXPECT_EQ(zb_start(nullptr), -1);
    EXPECT_EQ(delivered, 2);
}

TEST(zb_signal, call_outside_a_serving_thread_delivers_nothing) {
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    raw_endpoint neighbour("@/test/neighbour", [](raw_stream& caller) {
        (void)caller.receive(request_frame("n", "").size());
        send_to_self(SIGUSR1);
        EXPECT_TRUE(caller.send(reply_frame(replied)));
    });
    EXPECT_EQ(call("@/test/neighbour", "n").result, 0);
    EXPECT_EQ(delivered, 0);
}

// ---- Stopping ----------------------------------------------------------------------------------

TEST(zb_stop, works_from_a_signal_function) {
    ASSERT_EQ(zb_signal(SIGTERM, [](int) { EXPECT_EQ(zb_stop(running), 0); }), 0);
    endpoint served;
    running = served.get();
    EXPECT_EQ(call(address, "m").result, 0);
    send_to_self(SIGTERM);
    EXPECT_EQ(served.join(), 0);
}

TEST(zb_stop, works_from_a_raw_signal_handler) {
    struct sigaction action = {};
    action.sa_handler = [](int) { (void)zb_stop(running); };
    ASSERT_EQ(sigaction(SIGTERM, &action, nullptr), 0);
    endpoint served;
    running = served.get();
    EXPECT_EQ(call(address, "m").result, 0);
    send_to_self(SIGTERM);
    EXPECT_EQ(served.join(), 0);
}

TEST(zb_stop, from_a_signal_during_a_call_of_the_entry_ends_after_the_entry) {
    ASSERT_EQ(zb_signal(SIGTERM, [](int) { EXPECT_EQ(zb_stop(running), 0); }), 0);
    raw_endpoint neighbour("@/test/neighbour", [](raw_stream& caller) {
        (void)caller.receive(request_frame("n", "").size());
        send_to_self(SIGTERM);
        EXPECT_TRUE(caller.send(reply_frame(replied, "neighbour")));
    });
    running = zb_create(address, 4, 1, entry);
    current_handler() = [](const std::string&, zb_io* io, int) {
        EXPECT_EQ(zb_call("@/test/neighbour", "n", io, timeout_s, -1), 0);
        EXPECT_EQ(zb_reply(io), 0);
    };
    std::thread server([] { EXPECT_EQ(zb_start(running), 0); });
    EXPECT_EQ(call(address, "m"), (outcome{0, "neighbour"}));
    server.join();
    zb_free(running);
}

// ---- Registering -------------------------------------------------------------------------------

TEST(zb_signal, what_cannot_be_caught_or_is_a_fault_is_refused) {
    for (const int sig : {-1, 0, NSIG, 1000, SIGKILL, SIGSTOP, SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        EXPECT_EQ(zb_signal(sig, count), -1) << sig;
}

TEST(zb_signal, null_restores_the_default_action) {
    process child([] {
        EXPECT_EQ(zb_signal(SIGUSR1, count), 0);
        send_to_self(SIGUSR1);
        EXPECT_EQ(zb_signal(SIGUSR1, nullptr), 0);
        EXPECT_EQ(zb_start(nullptr), -1);
        EXPECT_EQ(delivered, 0);  // what had come was forgotten
        send_to_self(SIGUSR1);
    });
    const int status = child.wait();
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGUSR1);
}

TEST(zb_signal, blocks_and_ignores_nothing) {
    sigset_t before;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &before), 0);
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    endpoint served([&](const std::string&, zb_io* io, int) {
        sigset_t now;
        EXPECT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &now), 0);
        for (int sig = 1; sig < NSIG; ++sig)
            EXPECT_EQ(sigismember(&now, sig), sigismember(&before, sig)) << sig;
        answer(io, "");
    });
    EXPECT_EQ(call(address, "m").result, 0);
}

// ---- Children ----------------------------------------------------------------------------------

TEST(children, program_started_by_the_entry_inherits_nothing_of_the_bus) {
    const std::string before = seen_by_a_child();
    ASSERT_NE(before, "");
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    endpoint served([&](const std::string& method, zb_io* io, int) {
        if (method == "m") answer(io, seen_by_a_child());
    });
    raw_stream idle = connect_to(address);
    ASSERT_TRUE(idle.send("zb"));
    const file extra(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(call(address, "m", "x", timeout_s, extra.get()), (outcome{0, before}));
}

TEST(children, every_descriptor_is_close_on_exec) {
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    std::vector<int> before;
    for (int fd = 0; fd < 200; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0) before.push_back(fd);
    }
    endpoint served([&](const std::string&, zb_io* io, int) {
        for (int fd = 3; fd < 200; ++fd) {
            const int flags = fcntl(fd, F_GETFD);
            if (flags < 0 || std::count(before.begin(), before.end(), fd) > 0) continue;
            EXPECT_EQ(flags, FD_CLOEXEC) << fd;
        }
        answer(io, "");
    });
    EXPECT_EQ(call(address, "m", "", timeout_s, STDERR_FILENO).result, 0);
}

TEST(children, signal_of_a_forked_child_is_not_delivered_in_the_parent) {
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    endpoint served([](const std::string&, zb_io* io, int) {
        process child([] { send_to_self(SIGUSR1); });
        EXPECT_EQ(child.wait(), 0);
        answer(io, "");
    });
    for (int i = 0; i < 3; ++i) EXPECT_EQ(call(address, "m").result, 0);
    EXPECT_EQ(delivered, 0);
}

TEST(children, forked_child_does_not_deliver_what_its_parent_is_about_to) {
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    send_to_self(SIGUSR1);
    process child([] {
        EXPECT_EQ(zb_start(nullptr), -1);
        EXPECT_EQ(delivered, 0);
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(zb_start(nullptr), -1);
    EXPECT_EQ(delivered, 1);
}

TEST(children, forked_child_takes_no_wake_from_its_parent) {
    event came;
    event may_end;
    delivery = &came;
    ASSERT_EQ(zb_signal(SIGUSR1, count), 0);
    endpoint served;
    EXPECT_EQ(call(address, "m").result, 0);
    // The child serves an endpoint of its own, woken by signals of its own, as long as it lives.
    event child_serves;
    process child([&] {
        running = zb_create("@/test/child", 4, 1, entry);
        child_serves.set();
        EXPECT_EQ(zb_start(running), 0);
    });
    ASSERT_TRUE(child_serves.wait());
    for (int i = 1; i <= 50; ++i) {
        ASSERT_EQ(kill(child.pid(), SIGUSR1), 0);
        event next;
        delivery = &next;
        send_to_self(SIGUSR1);
        ASSERT_TRUE(next.wait()) << i;
        EXPECT_EQ(delivered, i);
    }
}

TEST(children, endpoint_made_before_a_fork_is_served_by_the_child) {
    ASSERT_EQ(zb_signal(SIGTERM, [](int) { zb_stop(running); }), 0);
    current_handler() = echo;
    running = zb_create(address, 4, 1, entry);
    process child([] { EXPECT_EQ(zb_start(running), 0); });
    EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    ASSERT_EQ(kill(child.pid(), SIGTERM), 0);
    EXPECT_EQ(child.wait(), 0);
    zb_free(running);
}

TEST(children, one_that_holds_a_connection_keeps_nobody_waiting) {
    event may_end;
    std::unique_ptr<process> child;
    endpoint served([&](const std::string& method, zb_io* io, int fd) {
        if (method == "fork")
            child = std::make_unique<process>([&] { EXPECT_TRUE(may_end.wait()); });
        if (method != "unanswered") echo(method, io, fd);
    });
    raw_stream unfinished = connect_to(address);
    ASSERT_TRUE(unfinished.send("zb"));
    EXPECT_EQ(call(address, "fork", "x"), (outcome{0, "fork:x"}));
    // Dropped by the endpoint, and seen so by the caller, though the child has the socket still.
    ASSERT_TRUE(unfinished.send("no frame of the bus"));
    EXPECT_EQ(unfinished.receive_all(), reply_frame(malformed));
    EXPECT_EQ(call(address, "unanswered").result, ZB_ERROR_NO_REPLY);
    EXPECT_EQ(call(address, "m", "x"), (outcome{0, "m:x"}));
    may_end.set();
    EXPECT_EQ(child->wait(), 0);
}
