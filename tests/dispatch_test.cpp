// The method registry and the dispatch of a request, on a bus that records what is called.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "ravod_db.h"
#include "ravod_handler.h"
#include "ravod_mobile.h"
#include "spare_descriptors.h"
#include "standin/standin.h"

namespace {

using strings = std::vector<std::string>;

// What static objects of two kinds found in the registry when they were built.
struct registry_reader {
    size_t found = ravod_method_list.size();
};
[[gnu::init_priority(103)]] registry_reader early_static;
registry_reader ordinary_static;

const std::vector<std::pair<std::string, ravod_method>> methods = {
    {"db_conn_insert", db_conn_insert_handler},
    {"db_conn_server_log_query", db_conn_server_log_query_handler},
    {"db_conn_server_log_clean", db_conn_server_clean_handler},
    {"db_conn_server_log_del", db_conn_server_delete_handler},
    {"db_conn_client_log_insert", db_conn_client_log_insert_handler},
    {"db_conn_client_log_query", db_conn_client_log_query_handler},
    {"db_conn_client_log_clean", db_conn_client_clean_handler},
    {"db_conn_client_log_del", db_conn_client_delete_handler},
    {"db_event_insert", db_event_insert_handler},
    {"db_event_query", db_event_query_handler},
    {"db_server_list_insert", db_server_list_insert_handler},
    {"db_server_list_query", db_server_list_query_handler},
    {"db_server_list_del", db_server_list_delete_handler},
    {"db_server_list_clean", db_server_list_clean_handler},
    {"db_device_info_insert", db_device_info_insert_handler},
    {"db_device_info_query", db_device_info_query_handler},
    {"db_device_info_del", db_device_info_delete_handler},
    {"db_device_info_clean", db_device_info_clean_handler},
    {"ravo_mobile_gen_ravo_uuid", ravo_mobile_gen_ravo_uuid},
    {"db_privilege_user_block_insert", db_privilege_user_block_insert_handler},
    {"db_privilege_user_block_query", db_privilege_user_block_query_handler},
    {"db_privilege_user_block_del", db_privilege_user_block_delete_handler},
    {"db_privilege_user_block_clean", db_privilege_user_block_clean_handler},
    {"db_privilege_user_block_check", db_privilege_user_block_check_handler},
};

bool is_open(int fd) { return fcntl(fd, F_GETFD) >= 0; }

int passed_fd = -1;
bool fd_was_open = false;

// A handler that replied leaves the buffer; one that failed has released it.
int replying_handler(zb_io* io) {
    fd_was_open = is_open(passed_fd);
    zb_reply(io);
    return 0;
}
int failing_handler(zb_io* io) {
    zb_io_free(io);
    return -1;
}
int failing_handler_with_positive_result(zb_io* io) {
    zb_io_free(io);
    return 7;
}

class dispatch : public testing::Test {
  protected:
    dispatch() {
        *standin() = {};
        ravod_method_list["test_reply"] = replying_handler;
        ravod_method_list["test_fail"] = failing_handler;
        ravod_method_list["test_fail_positive"] = failing_handler_with_positive_result;
    }
    ~dispatch() override {
        ravod_method_list.erase("test_reply");
        ravod_method_list.erase("test_fail");
        ravod_method_list.erase("test_fail_positive");
    }

    static zb_io* send(const std::string& method, int fd = -1) {
        zb_io* io = zb_io_create();
        ravod_method_handler(method.c_str(), io, fd);
        return io;
    }
};

}  // namespace

TEST(registry, holds_each_method_with_its_handler_and_no_other) {
    EXPECT_EQ(ravod_method_list.size(), methods.size());
    for (const auto& [name, handler] : methods) {
        ASSERT_EQ(ravod_method_list.count(name), 1U) << name;
        EXPECT_EQ(ravod_method_list.find(name)->second, handler) << name;
    }
}

TEST(registry, is_complete_before_any_static_object_is_built) {
    EXPECT_EQ(early_static.found, methods.size());
    EXPECT_EQ(ordinary_static.found, methods.size());
}

TEST_F(dispatch, replied_request_is_released_once) {
    send("test_reply");
    EXPECT_EQ(standin()->events, (strings{"zb_reply ", "zb_io_free"}));
    EXPECT_EQ(standin()->live_buffers, 0U);
}

TEST_F(dispatch, failed_request_is_released_by_its_handler_alone) {
    send("test_fail");
    send("test_fail_positive");
    EXPECT_EQ(standin()->events, (strings{"zb_io_free", "zb_io_free"}));
}

TEST_F(dispatch, unknown_names_touch_nothing) {
    const strings unknown = {
        "",
        "DB_EVENT_QUERY",
        "Db_event_query",
        "db_event_querY",
        "db_event",
        "db_event_query ",
        " db_event_query",
        "db_event_query_",
        "db_event_del",
        "db_event_clean",
        "test_repl",
        "test_replyy",
        "db_conn_server_log_insert",
        "insert_conn_server_log",
        std::string(4000, 'x'),
        "db_event_query\n",
        "%s%n",
        "\xff\xfe",
    };
    for (const std::string& name : unknown) {
        zb_io* io = send(name);
        EXPECT_EQ(standin()->events, strings{}) << name;
        EXPECT_EQ(standin()->live_buffers, 1U) << name;
        zb_io_free(io);
        standin()->events.clear();
    }
}

TEST_F(dispatch, wrong_case_of_every_method_is_unknown) {
    for (const auto& [name, handler] : methods) {
        std::string upper;
        for (const char c : name) upper += static_cast<char>(std::toupper(c));
        zb_io* io = send(upper);
        EXPECT_EQ(standin()->events, strings{}) << upper;
        zb_io_free(io);
        standin()->events.clear();
    }
}

TEST_F(dispatch, descriptor_is_closed_before_the_handler_runs) {
    passed_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    fd_was_open = true;
    send("test_reply", passed_fd);
    EXPECT_FALSE(fd_was_open);
}

TEST_F(dispatch, descriptor_is_closed_also_for_failures_and_unknown_names) {
    for (const char* name : {"test_fail", "db_event_del", "DB_EVENT_QUERY"}) {
        const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        zb_io* io = send(name, fd);
        EXPECT_FALSE(is_open(fd)) << name;
        if (standin()->live_buffers != 0) zb_io_free(io);
    }
}

TEST_F(dispatch, descriptor_0_is_a_descriptor) {
    const int spare = fcntl(0, F_DUPFD_CLOEXEC, 10);
    ASSERT_GE(spare, 0);
    send("test_reply", 0);
    EXPECT_FALSE(is_open(0));
    EXPECT_EQ(dup2(spare, 0), 0);
    close(spare);
}

// --- Descriptors set aside ----------------------------------------------------------------------

namespace {

constexpr rlim_t whole_limit = 64;
constexpr rlim_t lowered_limit = 56;

class spare : public testing::Test {
  protected:
    spare() {
        const rlimit few = {whole_limit, whole_limit};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
        set_descriptors_aside();
    }

    static rlim_t limit() {
        rlimit now = {};
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &now), 0);
        return now.rlim_cur;
    }
    // Opens descriptors until there are no more. Returns their numbers, the lowest first.
    static std::vector<int> take_all() {
        std::vector<int> taken;
        for (int fd = -1; (fd = fcntl(0, F_DUPFD_CLOEXEC, 0)) >= 0;) taken.push_back(fd);
        return taken;
    }
    static void give_back(const std::vector<int>& taken) {
        for (const int fd : taken) close(fd);
    }
    static size_t free_in_a_request() {
        const spare_descriptors request;
        const std::vector<int> taken = take_all();
        give_back(taken);
        return taken.size();
    }
};

}  // namespace

TEST_F(spare, stay_aside_while_as_many_others_are_free) {
    EXPECT_EQ(limit(), lowered_limit);
    const spare_descriptors request;
    EXPECT_EQ(limit(), lowered_limit);
}

TEST_F(spare, serve_a_request_and_whatever_it_starts_when_none_else_is_free) {
    const std::vector<int> taken = take_all();
    {
        const spare_descriptors request;
        EXPECT_EQ(limit(), whole_limit);
        { const spare_descriptors signal; }
        EXPECT_EQ(limit(), whole_limit);
    }
    EXPECT_EQ(limit(), lowered_limit);
    give_back(taken);
}

// However the free ones lie, below the numbers in use or above them.
TEST_F(spare, leave_a_request_eight_however_few_are_free) {
    std::vector<int> open = take_all();
    while (!open.empty()) {
        EXPECT_GE(free_in_a_request(), 8U) << open.size();
        EXPECT_EQ(limit(), lowered_limit) << open.size();
        close(open.back());
        open.pop_back();
    }
    open = take_all();
    for (const int fd : open) {
        EXPECT_GE(free_in_a_request(), 8U) << fd;
        close(fd);
    }
}
