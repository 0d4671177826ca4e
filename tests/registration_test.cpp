// The handlers of the device methods and of the UUID method over the real store. The linker puts
// this program's functions in the place of what the handlers reply and release with, of open, and
// of the two store functions that a registration calls.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

#include "ravod_db.h"
#include "ravod_db_device_info_handler.h"
#include "ravod_handler.h"
#include "ravod_mobile.h"
#include "support/devices.h"
#include "support/files.h"
#include "support/log_lines.h"
#include "support/sql_trace.h"
#include "zbservice.h"

namespace {

using texts = std::vector<std::string>;

// What the handler does with the request's buffer.
zb_io* request_buffer = nullptr;
texts replies;
int releases = 0;

bool source_is_missing = false;
int insert_result = 0;  // of the store functions; 0: what they return themselves
int select_result = 0;
std::vector<db_query_cond> lookups;

}  // namespace

extern "C" {
int __wrap_zb_reply(zb_io* io);
void __real_zb_io_free(zb_io* io);
void __wrap_zb_io_free(zb_io* io);
int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);
int __real__Z18insert_device_infoP19db_device_info_data(db_device_info_data* data);
int __wrap__Z18insert_device_infoP19db_device_info_data(db_device_info_data* data);
int __real__Z18select_device_infoP13db_query_condPP20db_device_info_query(
    db_query_cond* cond, db_device_info_query** result);
int __wrap__Z18select_device_infoP13db_query_condPP20db_device_info_query(
    db_query_cond* cond, db_device_info_query** result);

int __wrap_zb_reply(zb_io* io) {
    EXPECT_EQ(io, request_buffer);
    size_t length = 0;
    const auto* bytes = static_cast<const char*>(zb_io_read(io, &length));
    replies.emplace_back(bytes, length);
    return 0;
}

void __wrap_zb_io_free(zb_io* io) {
    EXPECT_EQ(io, request_buffer);
    ++releases;
    __real_zb_io_free(io);
}

int __wrap_open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (source_is_missing && std::string(path) == "/proc/sys/kernel/random/uuid") {
        errno = EMFILE;
        return -1;
    }
    return __real_open(path, flags, mode);
}

int __wrap__Z18insert_device_infoP19db_device_info_data(db_device_info_data* data) {
    const int result = __real__Z18insert_device_infoP19db_device_info_data(data);
    return insert_result != 0 ? insert_result : result;
}

int __wrap__Z18select_device_infoP13db_query_condPP20db_device_info_query(
    db_query_cond* cond, db_device_info_query** result) {
    lookups.push_back(*cond);
    const int status =
        __real__Z18select_device_infoP13db_query_condPP20db_device_info_query(cond, result);
    return select_result != 0 ? select_result : status;
}
}

namespace {

const std::string no_uuid(36, '\0');
const expected_line no_source = {"ERROR", "ravod_mobile.cpp", "uuid_gen", "open uuid failed\n"};

template <class Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

bool is_fresh_uuid(const std::string& bytes) {
    return bytes.size() == 36 && bytes.find_first_not_of("0123456789abcdef") == 32 &&
           bytes.substr(32) == std::string("%R?\0", 4);
}

void fail_statement(const std::string& beginning) {
    sql_trace::before_exec = [beginning](const std::string& text) {
        return text.starts_with(beginning) ? SQLITE_ERROR : SQLITE_OK;
    };
}

class registration : public testing::Test {
  protected:
    registration() {
        EXPECT_EQ(create_device_info_db(), 0);
        sql_trace::statements.clear();
    }
    ~registration() override {
        sql_trace::clear();
        finish_device_info_db();
    }

    // Runs the method's handler, in the dispatcher's place. Returns the handler's result.
    static int send(const std::string& method, const std::string& payload) {
        replies.clear();
        releases = 0;
        request_buffer = zb_io_create();
        EXPECT_EQ(zb_io_write(request_buffer, payload.data(), payload.size()), 0);
        const int result = ravod_method_list.at(method)(request_buffer);
        if (releases == 0) __real_zb_io_free(request_buffer);
        return result;
    }

    // The one reply of a request that is answered.
    static std::string answer(const std::string& method, const std::string& payload) {
        EXPECT_EQ(send(method, payload), 0);
        EXPECT_EQ(releases, 0) << "an answered buffer is the dispatcher's";
        EXPECT_EQ(replies.size(), 1U);
        return replies.empty() ? "" : replies[0];
    }

    // Registers a device; returns the 36 bytes of the reply.
    static std::string enter(const db_device_info_data& data) {
        std::string reply = answer("db_device_info_insert", bytes_of(data));
        EXPECT_EQ(reply.size(), 36U);
        return reply;
    }

    static void expect_refused(const std::string& method, const std::string& payload) {
        EXPECT_EQ(send(method, payload), -1);
        EXPECT_EQ(releases, 1);
        EXPECT_EQ(replies, texts{});
    }
};

using uuid_method = registration;

}  // namespace

// --- Registration -------------------------------------------------------------------------------

TEST_F(registration, into_an_empty_table_stores_and_returns_a_fresh_uuid) {
    const std::string reply = enter(device("aa"));
    EXPECT_TRUE(is_fresh_uuid(reply)) << reply;
    EXPECT_EQ(uuid_of("aa"), reply.substr(0, 35));
    EXPECT_EQ(row_count(), "1");
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(registration, of_a_known_mac_returns_the_same_uuid_and_replaces_the_row) {
    const std::string first = enter(device("aa", "1"));
    const std::string other = enter(device("bb", "22"));
    const std::string second = enter(device("aa", "333"));
    EXPECT_EQ(first, second);
    EXPECT_NE(first, other);
    EXPECT_EQ(row_count(), "2");
    EXPECT_EQ(in_registry("SELECT id || ip || vossid || user_id || dev_name || nic || time FROM "
                          "device_info WHERE mac = 'aa'"),
              "3ip 333vossid 333user_id 333dev_name 333nic 3331700000003");
}

TEST_F(registration, of_a_mac_that_is_gone_returns_a_new_uuid) {
    const std::string first = enter(device("aa"));
    EXPECT_EQ(answer("db_device_info_del", bytes_of(db_delete_cond{1})), "");
    const std::string second = enter(device("aa"));
    EXPECT_NE(second, first);
    EXPECT_TRUE(is_fresh_uuid(second));
}

TEST_F(registration, takes_nothing_from_the_uuid_that_the_client_sends) {
    for (const char* mac : {"aa", "bb", "aa"}) {
        for (const std::string& forged :
             {std::string("forged"), std::string(1025, 'f'), std::string("' || 'x")}) {
            db_device_info_data data = device(mac);
            fill_text(data.dev_uuid, forged);
            const std::string reply = enter(data);
            EXPECT_TRUE(is_fresh_uuid(reply)) << reply;
            EXPECT_EQ(uuid_of(mac), reply.substr(0, 35));
        }
    }
    for (const std::string& statement : sql_trace::statements) {
        EXPECT_EQ(statement.find("forged"), std::string::npos) << statement;
        EXPECT_EQ(statement.find("ffffff"), std::string::npos) << statement;
    }
}

TEST_F(registration, inserts_and_then_looks_the_mac_up) {
    enter(device("a'a"));
    ASSERT_EQ(sql_trace::statements.size(), 7U);
    EXPECT_EQ(sql_trace::statements[0], "BEGIN TRANSACTION;");
    EXPECT_EQ(sql_trace::statements[1].substr(0, 34), "INSERT OR REPLACE INTO device_info");
    EXPECT_EQ(sql_trace::statements[2], "SELECT Count(*) FROM device_info;");
    EXPECT_EQ(sql_trace::statements[3], "END TRANSACTION;");
    EXPECT_EQ(sql_trace::statements[4],
              "SELECT id FROM (SELECT * FROM device_info ORDER BY id DESC LIMIT 100000) ORDER BY "
              "id ASC LIMIT 1;");
    EXPECT_EQ(sql_trace::statements[5],
              "SELECT * FROM device_info WHERE mac = 'a''a' AND id >= 1 ORDER BY id ASC LIMIT 1 "
              "OFFSET 0;");
    EXPECT_EQ(sql_trace::statements[6], "SELECT Count(*) FROM device_info;");
}

TEST_F(registration, looks_up_with_exactly_one_row_of_this_mac) {
    enter(device("aa"));
    ASSERT_EQ(lookups.size(), 1U);
    db_query_cond wanted;
    memset(&wanted, 0, sizeof wanted);
    wanted.count = 1;
    fill_text(wanted.field, "mac");
    fill_text(wanted.value, "aa");
    const db_query_cond& got = lookups[0];
    EXPECT_EQ(got.start, 0);
    EXPECT_EQ(got.count, 1);
    EXPECT_EQ(got.order_by, 0);
    EXPECT_EQ(got.order_style, 0);
    EXPECT_EQ(memcmp(got.field, wanted.field, sizeof got.field), 0);
    EXPECT_EQ(memcmp(got.value, wanted.value, sizeof got.value), 0);
}

TEST_F(registration, of_an_empty_mac_returns_the_oldest_device) {
    const std::string alone = enter(device("", "1"));
    EXPECT_TRUE(is_fresh_uuid(alone)) << "as long as it is the only one";
    const std::string oldest = enter(device("aa"));
    EXPECT_EQ(enter(device("", "2")), oldest) << "its own row is the newest now";
    EXPECT_EQ(uuid_of(""), alone.substr(0, 35)) << "and keeps what it has";
    EXPECT_EQ(row_count(), "2");
}

TEST_F(registration, of_an_empty_mac_sees_no_device_beyond_the_visible_range) {
    seed_registry(100001);
    EXPECT_EQ(enter(device("")), "m3" + std::string(34, '\0'));
}

TEST_F(registration, keeps_hostile_macs_apart) {
    const std::string bystander = enter(device("bystander"));
    std::vector<std::string> uuids;
    for (const std::string& mac : hostile_texts) uuids.push_back(enter(device(mac, "1")));
    for (size_t n = 0; n < uuids.size(); ++n) {
        SCOPED_TRACE(hostile_texts[n]);
        EXPECT_TRUE(is_fresh_uuid(uuids[n]));
        EXPECT_EQ(enter(device(hostile_texts[n], "2")), uuids[n]);
    }
    EXPECT_EQ(enter(device("bystander", "2")), bystander);
    EXPECT_EQ(row_count(), std::to_string(std::size(hostile_texts) + 1));
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(registration, of_arrays_without_nuls_goes_by_1024_bytes) {
    db_device_info_data data;
    memset(&data, 'x', sizeof data);
    const std::string first = enter(data);
    EXPECT_TRUE(is_fresh_uuid(first));
    EXPECT_EQ(enter(device(std::string(1024, 'x'))), first);
    EXPECT_EQ(row_count(), "1");
}

TEST_F(registration, is_answered_whichever_statement_fails) {
    // The last one comes when the row has been read already.
    const char* const statements[] = {"BEGIN", "INSERT",    "SELECT Count",
                                      "END",   "SELECT id", "SELECT * FROM device_info WHERE"};
    for (const char* statement : statements) {
        SCOPED_TRACE(statement);
        finish_device_info_db();
        ASSERT_EQ(create_device_info_db(), 0);
        enter(device("aa", "1"));
        fail_statement(statement);
        EXPECT_EQ(enter(device("aa", "2")), no_uuid);
        sql_trace::before_exec = nullptr;
    }
}

TEST_F(registration, returns_the_uuid_when_only_the_total_fails) {
    const std::string first = enter(device("aa", "1"));
    sql_trace::statements.clear();
    sql_trace::before_exec = [](const std::string&) {
        return sql_trace::statements.size() == 7 ? SQLITE_ERROR : SQLITE_OK;
    };
    EXPECT_EQ(enter(device("aa", "2")), first);
    EXPECT_EQ(count_of(read_file(log_path), "sql = SELECT Count(*) FROM device_info;"), 1U);
}

TEST_F(registration, logs_failures_in_the_name_of_the_store_function_only) {
    fail_statement("INSERT");
    enter(device("aa"));
    const std::string log = read_file(log_path);
    EXPECT_EQ(count_of(log, " insert_device_info:") + count_of(log, " select_device_info:"),
              count_of(log, "\n"));
    EXPECT_EQ(count_of(log, " insert_device_info:sql = INSERT"), 1U);
    EXPECT_EQ(count_of(log, " select_device_info:sql = SELECT id FROM"), 1U)
        << "the new connection has no table";
}

TEST_F(registration, starts_anew_with_an_empty_table_after_a_restart) {
    const std::string first = enter(device("aa"));
    finish_device_info_db();
    ASSERT_EQ(create_device_info_db(), 0);
    EXPECT_EQ(row_count(), "0");
    const std::string second = enter(device("aa"));
    EXPECT_TRUE(is_fresh_uuid(second));
    EXPECT_NE(first, second);
}

TEST_F(registration, gets_no_reply_when_the_store_refuses) {
    insert_result = -1;
    expect_refused("db_device_info_insert", bytes_of(device("aa")));
    EXPECT_EQ(lookups.size(), 0U) << "nothing is looked up then";
    insert_result = 1;
    expect_refused("db_device_info_insert", bytes_of(device("bb")));
    insert_result = 0;
    select_result = -1;
    expect_refused("db_device_info_insert", bytes_of(device("cc")));
    EXPECT_EQ(row_count(), "3") << "the row stays";
}

TEST_F(registration, without_a_kernel_source_stores_an_empty_uuid) {
    source_is_missing = true;
    EXPECT_EQ(enter(device("aa")), no_uuid);
    EXPECT_EQ(uuid_of("aa"), "");
    expect_log({no_source});
    source_is_missing = false;
    EXPECT_EQ(enter(device("aa")), no_uuid) << "an empty UUID is kept like any other";
    EXPECT_EQ(row_count(), "1");
}

TEST_F(registration, of_a_known_mac_needs_no_kernel_source) {
    const std::string first = enter(device("aa", "1"));
    source_is_missing = true;
    EXPECT_EQ(enter(device("aa", "2")), first);
    expect_log({no_source});
}

TEST_F(registration, of_a_longer_stored_uuid_returns_35_bytes_of_it) {
    enter(device("aa"));
    sql_trace::run(sql_trace::opened.back(),
                   "UPDATE device_info SET dev_uuid = '0123456789012345678901234567890123456789'");
    EXPECT_EQ(enter(device("aa")), "01234567890123456789012345678901234" + std::string(1, '\0'));
}

TEST_F(registration, of_a_shorter_stored_uuid_returns_zeros_behind_it) {
    enter(device("aa"));
    sql_trace::run(sql_trace::opened.back(), "UPDATE device_info SET dev_uuid = 'short'");
    EXPECT_EQ(enter(device("aa")), "short" + std::string(31, '\0'));
}

TEST_F(registration, request_that_is_too_short_is_refused_before_anything_else) {
    source_is_missing = true;  // would be logged
    for (const size_t length : {0U, 1U, 8U, 36U, 1033U, 7183U, 7191U}) {
        expect_refused("db_device_info_insert", std::string(length, 'x'));
    }
    for (const size_t length : {0U, 2087U}) {
        expect_refused("db_device_info_query", std::string(length, '\0'));
    }
    for (const size_t length : {0U, 7U}) {
        expect_refused("db_device_info_del", std::string(length, '\0'));
    }
    EXPECT_EQ(sql_trace::statements, texts{});
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(registration, of_a_longer_request_uses_the_first_bytes) {
    const std::string reply =
        answer("db_device_info_insert", bytes_of(device("aa")) + std::string(9000, 'x'));
    EXPECT_EQ(uuid_of("aa"), reply.substr(0, 35));
}

// --- The other device methods -------------------------------------------------------------------

TEST_F(registration, query_replies_with_the_header_and_rows_of_7192_bytes) {
    const std::string uuid = enter(device("aa", "1"));
    enter(device("bb", "2"));
    db_query_cond cond = {};
    cond.count = -1;
    const std::string reply = answer("db_device_info_query", bytes_of(cond));
    ASSERT_EQ(reply.size(), 24U + 2 * 7192);
    db_device_info_query header;
    memcpy(&header, reply.data(), sizeof header);
    EXPECT_EQ(header.count, 2U);
    EXPECT_EQ(header.total, 2U);
    db_device_info_data wanted = device("aa", "1");
    wanted.id = 1;
    fill_text(wanted.dev_uuid, uuid.substr(0, 35));
    EXPECT_EQ(reply.substr(24, 7192), bytes_of(wanted));
    EXPECT_EQ(answer("db_device_info_clean", "whatever"), "");
    EXPECT_EQ(answer("db_device_info_query", bytes_of(cond)).size(), 24U);
}

TEST_F(registration, all_24_methods_are_registered) {
    texts names;
    for (const auto& [name, handler] : ravod_method_list) {
        EXPECT_NE(handler, nullptr);
        names.push_back(name);
    }
    EXPECT_EQ(names, (texts{"db_conn_client_log_clean",
                            "db_conn_client_log_del",
                            "db_conn_client_log_insert",
                            "db_conn_client_log_query",
                            "db_conn_insert",
                            "db_conn_server_log_clean",
                            "db_conn_server_log_del",
                            "db_conn_server_log_query",
                            "db_device_info_clean",
                            "db_device_info_del",
                            "db_device_info_insert",
                            "db_device_info_query",
                            "db_event_insert",
                            "db_event_query",
                            "db_privilege_user_block_check",
                            "db_privilege_user_block_clean",
                            "db_privilege_user_block_del",
                            "db_privilege_user_block_insert",
                            "db_privilege_user_block_query",
                            "db_server_list_clean",
                            "db_server_list_del",
                            "db_server_list_insert",
                            "db_server_list_query",
                            "ravo_mobile_gen_ravo_uuid"}));
}

TEST_F(registration, each_of_the_ten_new_methods_has_its_handler) {
    const auto& list = ravod_method_list;
    EXPECT_EQ(list.at("db_device_info_insert"), db_device_info_insert_handler);
    EXPECT_EQ(list.at("db_device_info_query"), db_device_info_query_handler);
    EXPECT_EQ(list.at("db_device_info_del"), db_device_info_delete_handler);
    EXPECT_EQ(list.at("db_device_info_clean"), db_device_info_clean_handler);
    EXPECT_EQ(list.at("ravo_mobile_gen_ravo_uuid"), ravo_mobile_gen_ravo_uuid);
    EXPECT_EQ(list.at("db_privilege_user_block_insert"), db_privilege_user_block_insert_handler);
    EXPECT_EQ(list.at("db_privilege_user_block_query"), db_privilege_user_block_query_handler);
    EXPECT_EQ(list.at("db_privilege_user_block_del"), db_privilege_user_block_delete_handler);
    EXPECT_EQ(list.at("db_privilege_user_block_clean"), db_privilege_user_block_clean_handler);
    EXPECT_EQ(list.at("db_privilege_user_block_check"), db_privilege_user_block_check_handler);
}

// --- The UUID method ----------------------------------------------------------------------------

TEST_F(uuid_method, replies_with_a_fresh_uuid_whatever_the_request_holds) {
    texts seen;
    for (const size_t length : {0U, 1U, 4U, 36U, 5000U}) {
        const std::string reply = answer("ravo_mobile_gen_ravo_uuid", std::string(length, '\xff'));
        EXPECT_TRUE(is_fresh_uuid(reply)) << reply;
        for (const std::string& other : seen) EXPECT_NE(reply, other);
        seen.push_back(reply);
    }
    EXPECT_EQ(sql_trace::statements, texts{}) << "nothing is stored";
}

TEST_F(uuid_method, replies_with_36_zero_bytes_when_there_is_no_source) {
    source_is_missing = true;
    EXPECT_EQ(answer("ravo_mobile_gen_ravo_uuid", std::string(4, '\1')), no_uuid);
    expect_log({no_source});
}

TEST_F(uuid_method, is_answered_without_a_database) {
    fail_statement("");
    EXPECT_TRUE(is_fresh_uuid(answer("ravo_mobile_gen_ravo_uuid", std::string(4, '\0'))));
}
