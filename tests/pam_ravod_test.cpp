// pam_ravod inside of a program: threads, forks and what the program had set up go on as they were.
// What it answers is tested with services in e2e_pam_test.py.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <security/pam_appl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ravo_api.h"
#include "support/alloc_fault.h"
#include "support/daemon.h"
#include "support/files.h"
#include "support/service.h"

namespace {

constexpr char services[] = "/tmp/pam.d";

// A service with the step as its only line.
void write_service(const std::string& step) {
    std::filesystem::create_directories(services);
    write_file(services + ("/" + step), "auth required " PAM_RAVOD " " + step + "\n");
}

int say_nothing(int /*count*/, const pam_message** /*messages*/, pam_response** /*replies*/,
                void* /*arg*/) {
    return PAM_CONV_ERR;
}

int authenticate(const std::string& step, const char* user) {
    const pam_conv conversation = {say_nothing, nullptr};
    pam_handle_t* pam = nullptr;
    EXPECT_EQ(pam_start_confdir(step.c_str(), user, &conversation, services, &pam), PAM_SUCCESS);
    const int result = pam_authenticate(pam, 0);
    EXPECT_EQ(pam_end(pam, result), PAM_SUCCESS);
    return result;
}

bool is_loaded() {
    void* module = dlopen(PAM_RAVOD, RTLD_LAZY | RTLD_NOLOAD);
    if (module != nullptr) dlclose(module);
    return module != nullptr;
}

int failures_of(const std::string& user) {
    db_query_cond all = {};
    all.count = -1;
    db_privilege_user_block_query header = {};
    db_privilege_user_block_query* query = &header;
    (void)list_privilege_user_block(&all, &query);
    int count = 0;
    for (uint64_t n = 0; n < header.count; ++n) {
        if (header.data[n].username == user) count = header.data[n].limit;
    }
    free(header.data);
    return count;
}

std::vector<int> descriptors_kept_on_exec() {
    std::vector<int> kept;
    for (int fd = 3; fd < 1024; ++fd) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0) kept.push_back(fd);
    }
    return kept;
}

}  // namespace

TEST(pam_ravod, threads_end_in_peace_after_their_last_login) {
    write_service("authfail");
    const ravod_process ravod;
    EXPECT_FALSE(is_loaded());
    std::vector<std::thread> threads;
    for (int n = 0; n < 8; ++n) {
        threads.emplace_back([n] {
            const std::string user = "user" + std::to_string(n);
            for (int k = 0; k < 5; ++k)
                EXPECT_EQ(authenticate("authfail", user.c_str()), PAM_AUTH_ERR);
        });
    }
    for (std::thread& each : threads) each.join();
    EXPECT_TRUE(is_loaded());
    for (int n = 0; n < 8; ++n) EXPECT_EQ(failures_of("user" + std::to_string(n)), 5);
}

TEST(pam_ravod, program_keeps_its_signals_and_gives_nothing_to_those_it_starts) {
    write_service("authsucc");
    const auto kept_before = descriptors_kept_on_exec();
    sigset_t mask_before;
    sigset_t mask_after;
    (void)sigprocmask(SIG_SETMASK, nullptr, &mask_before);
    {
        ravod_process ravod;
        EXPECT_EQ(authenticate("authsucc", "alice"), PAM_SUCCESS);
        EXPECT_EQ(descriptors_kept_on_exec(), kept_before);
    }
    // Over a connection whose other side has gone: SIGPIPE would end this process.
    EXPECT_EQ(authenticate("authsucc", "alice"), PAM_SUCCESS);
    (void)sigprocmask(SIG_SETMASK, nullptr, &mask_after);
    for (int sig = 1; sig < 32; ++sig) {
        EXPECT_EQ(sigismember(&mask_before, sig), sigismember(&mask_after, sig)) << sig;
        struct sigaction action = {};
        if (sigaction(sig, nullptr, &action) == 0 && (sig == SIGPIPE || sig == SIGALRM)) {
            EXPECT_EQ(action.sa_handler, SIG_DFL) << sig;
        }
    }
}

TEST(pam_ravod, forked_child_logs_in_by_itself) {
    write_service("authfail");
    const ravod_process ravod;
    EXPECT_EQ(authenticate("authfail", "alice"), PAM_AUTH_ERR);
    const pid_t child = fork();
    if (child == 0) _exit(authenticate("authfail", "alice") == PAM_AUTH_ERR ? 0 : 1);
    EXPECT_EQ(wait_for_exit(child), 0);
    EXPECT_EQ(authenticate("authfail", "alice"), PAM_AUTH_ERR);
    EXPECT_EQ(failures_of("alice"), 3);
}

// Each allocation fails once, in a process of its own. The client library may end that when there
// is none for a request; nothing else may.
void run_out_of_memory(const std::string& name, const char* step, const char* user) {
    write_service(step);
    const auto log_in = [=](size_t n) {
        std::set_terminate([] { _exit(1); });  // an exception that was let out
        (void)signal(SIGABRT, [](int) { _exit(0); });
        const pam_conv conversation = {say_nothing, nullptr};
        pam_handle_t* pam = nullptr;
        ASSERT_EQ(pam_start_confdir(step, user, &conversation, services, &pam), PAM_SUCCESS);
        int result = PAM_SUCCESS;
        {
            const alloc_fault::failing_allocation fault(n);
            result = pam_authenticate(pam, 0);
        }
        EXPECT_EQ(pam_end(pam, result), PAM_SUCCESS);
    };
    alloc_fault::exhaust(name, log_in, [] {});
}

TEST(pam_ravod, memory_that_runs_out_ends_a_login_and_not_its_program) {
    write_file("/etc/config/vpn_block.conf",
               R"({"global": {"enable": true, "limit": 1, "time": 5}})");
    const service_process vpncaas(VPNCAAS, "vpncaas");
    const ravod_process ravod;
    char mallory[] = "mallory";
    EXPECT_EQ(add_privilege_user_block(mallory), 0);
    run_out_of_memory("blocked", "preauth", mallory);
    for (const char* step : {"preauth", "authfail", "authsucc"}) {
        run_out_of_memory(step, step, "alice");
    }
}

TEST(pam_ravod, user_without_a_name_is_nobody) {
    write_service("preauth");
    EXPECT_EQ(authenticate("preauth", ""), PAM_AUTH_ERR);
    EXPECT_EQ(authenticate("preauth", nullptr), PAM_CONV_ERR);  // nobody tells
}
