// The daemon, unchanged, on another bus library: one with the same C interface, first in
// LD_LIBRARY_PATH, that carries out a script in place of serving and records what is called.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "standin/standin.h"
#include "support/daemon.h"
#include "support/files.h"
#include "support/rows.h"

namespace {

using strings = std::vector<std::string>;
constexpr char script_path[] = "/tmp/script";
constexpr char record_path[] = "/tmp/record";

std::string hex(const std::string& bytes) {
    if (bytes.empty()) return "-";
    std::string text;
    for (const char byte : bytes) {
        constexpr char digits[] = "0123456789abcdef";
        text += digits[static_cast<unsigned char>(byte) / 16];
        text += digits[static_cast<unsigned char>(byte) % 16];
    }
    return text;
}

std::string request(const std::string& method, const std::string& payload) {
    return "request " + method + " " + hex(payload) + "\n";
}

constexpr char stop[] = "signal 15\n";

// Runs the daemon through the script to its end and returns what the bus saw of it.
strings run_daemon(const std::string& script) {
    write_file(script_path, script);
    process_options options;
    options.environment = {"LD_LIBRARY_PATH=" STANDIN_FOLDER,
                           std::string(standin_script) + "=" + script_path,
                           std::string(standin_record) + "=" + record_path};
    EXPECT_EQ(run_process({ravod_path()}, options), 0);
    return split_lines(read_file(record_path));
}

// The same without what is alike in every run.
strings run_requests(const std::string& script) {
    strings all = run_daemon(script + stop);
    const strings head = {"zb_signal 2", "zb_signal 1", "zb_signal 15",
                          "zb_create @/var/run/ravod.sock 4 1", "zb_start"};
    const strings tail = {"signal 15", "zb_stop", "zb_free"};
    if (all.size() < head.size() + tail.size()) return all;
    EXPECT_EQ(strings(all.begin(), all.begin() + 5), head);
    EXPECT_EQ(strings(all.end() - 3, all.end()), tail);
    return {all.begin() + 5, all.end() - 3};
}

}  // namespace

TEST(daemon_on_standin, registers_signals_creates_serves_and_releases) {
    EXPECT_EQ(
        run_daemon("signal 1\nsignal 2\n" + std::string(stop)),
        (strings{"zb_signal 2", "zb_signal 1", "zb_signal 15", "zb_create @/var/run/ravod.sock 4 1",
                 "zb_start", "signal 1", "signal 2", "zb_stop", "zb_free"}));
}

TEST(daemon_on_standin, insert_is_answered_with_nothing_and_its_buffer_released) {
    const auto row = row_with_text<db_conn_server_log>("anna");
    EXPECT_EQ(run_requests(request("db_conn_insert", bytes_of(row))),
              (strings{"entry db_conn_insert", "zb_io_realloc 0", "zb_reply ", "zb_io_free",
                       "returned"}));
}

TEST(daemon_on_standin, query_is_answered_with_header_and_rows) {
    auto row = row_with_text<db_conn_client_log_data>("CH");
    const strings events = run_requests(request("db_conn_client_log_insert", bytes_of(row)) +
                                        request("db_conn_client_log_query", bytes_of(page(0, 1))));
    ASSERT_EQ(events.size(), 10U);
    EXPECT_EQ(events[5], "entry db_conn_client_log_query");
    EXPECT_EQ(events[6], "zb_io_realloc 0");
    row.id = 1;
    const std::string& reply = events[7];
    EXPECT_EQ(reply.substr(0, 9 + 32),
              "zb_reply " + hex(bytes_of(uint64_t{1})) + hex(bytes_of(uint64_t{1})));
    EXPECT_TRUE(reply.substr(9 + 48) == hex(bytes_of(row))) << "behind the daemon's own pointer";
    EXPECT_EQ(events[8], "zb_io_free");
}

TEST(daemon_on_standin, query_without_rows_is_answered_with_24_bytes) {
    EXPECT_EQ(run_requests(request("db_server_list_query", bytes_of(page(0, -1)))),
              (strings{"entry db_server_list_query", "zb_io_realloc 0",
                       "zb_reply " + std::string(48, '0'), "zb_io_free", "returned"}));
}

TEST(daemon_on_standin, refused_request_is_released_once_without_a_reply) {
    EXPECT_EQ(run_requests(request("db_conn_insert", std::string(5199, 'x'))),
              (strings{"entry db_conn_insert", "zb_io_free", "returned"}));
}

TEST(daemon_on_standin, unknown_method_is_left_alone) {
    EXPECT_EQ(run_requests(request("DB_EVENT_QUERY", "") + request("db_event_del", "12345678")),
              (strings{"entry DB_EVENT_QUERY", "returned", "buffer left", "entry db_event_del",
                       "returned", "buffer left"}));
}

TEST(daemon_on_standin, descriptor_of_a_request_is_closed) {
    EXPECT_EQ(
        run_requests("request db_event_insert - fd\nrequest unknown - fd\n"),
        (strings{"entry db_event_insert", "zb_io_realloc 0", "zb_reply ", "zb_io_free", "returned",
                 "fd closed", "entry unknown", "returned", "fd closed", "buffer left"}));
}
