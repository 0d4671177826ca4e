// The handlers of the table methods over the real store, on a bus that records what is called.
//
// A buffer of this bus is a block of exactly the payload's size. Blocks that the handlers and the
// store take from the heap are counted, and the taking can be made to fail. A module keeps its
// statement texts for the life of the process, so each case belongs into a process of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "ravod_db.h"
#include "ravod_db_conn_client_handler.h"
#include "ravod_db_event_handler.h"
#include "ravod_db_handler.h"
#include "ravod_db_list_handler.h"
#include "ravod_handler.h"
#include "standin/standin.h"
#include "support/files.h"
#include "support/rows.h"
#include "support/sql_trace.h"

// --- The heap under the handlers ----------------------------------------------------------------

namespace {

std::set<void*> blocks;  // taken and not given back
bool no_memory = false;

void* taken(void* block) {
    if (block != nullptr) blocks.insert(block);
    return block;
}

}  // namespace

// The linker puts these in the place of the functions of this program's own objects.
extern "C" {
void* __real_calloc(size_t count, size_t size);
void __real_free(void* block);
void* __wrap_calloc(size_t count, size_t size);
void __wrap_free(void* block);

void* __wrap_calloc(size_t count, size_t size) {
    return no_memory ? nullptr : taken(__real_calloc(count, size));
}
void __wrap_free(void* block) {
    blocks.erase(block);
    __real_free(block);
}
}

namespace {

using strings = std::vector<std::string>;

// --- The methods by pattern ---------------------------------------------------------------------

struct method {
    const char* name;
    size_t record;  // bytes of the request's record; 0: any length will do
    size_t row;     // bytes of a row in the reply; 0: the reply is empty
};

constexpr method methods[] = {
    {"db_conn_insert", 5200, 0},
    {"db_conn_server_log_query", 2088, 5200},
    {"db_conn_server_log_clean", 0, 0},
    {"db_conn_server_log_del", 8, 0},
    {"db_conn_client_log_insert", 3152, 0},
    {"db_conn_client_log_query", 2088, 3152},
    {"db_conn_client_log_clean", 0, 0},
    {"db_conn_client_log_del", 8, 0},
    {"db_event_insert", 0, 0},
    {"db_event_query", 2088, 1},
    {"db_server_list_insert", 4128, 0},
    {"db_server_list_query", 2088, 4128},
    {"db_server_list_del", 8, 0},
    {"db_server_list_clean", 0, 0},
};

// A query method, the insert of the same table and the number of its columns, id included.
struct table_methods {
    const char* insert;
    const char* query;
    size_t row;
    int64_t columns;
    size_t text_offset;  // of the first text field
};

constexpr table_methods tables[] = {
    {"db_conn_insert", "db_conn_server_log_query", 5200, 14, 8},
    {"db_conn_client_log_insert", "db_conn_client_log_query", 3152, 13, 8},
    {"db_server_list_insert", "db_server_list_query", 4128, 7, 8},
};

// What a request came to. The handler's result 0 leaves the buffer to the dispatcher, which this
// fixture stands for.
struct outcome {
    int result;
    bool released;  // by the handler
    strings replies;
};

class handlers : public testing::Test {
  protected:
    handlers() {
        create_conn_server_log_db();
        create_conn_client_log_db();
        create_server_list_db();
        start_over();
    }
    ~handlers() override {
        no_memory = false;
        finish_conn_server_log_db();
        finish_conn_client_log_db();
        finish_server_list_db();
    }

    static void start_over() {
        *standin() = {};
        sql_trace::clear();
        for (void* block : blocks) __real_free(block);
        blocks.clear();
    }

    // Leaves free blocks with something in them.
    static void soil_heap() {
        std::vector<std::string> texts;
        for (size_t n = 0; n < 30; ++n) texts.emplace_back(100000, 'x');
    }

    static zb_io* request_of(const std::string& payload) {
        zb_io* io = zb_io_create();
        if (!payload.empty()) zb_io_write(io, payload.data(), payload.size());
        standin()->writes.clear();
        standin()->replies.clear();
        return io;
    }

    static outcome run(const std::string& name, zb_io* io) {
        const int result = ravod_method_list.at(name)(io);
        const bool released = standin()->live_buffers == 0;
        if (!released) zb_io_free(io);
        return {result, released, standin()->replies};
    }

    static outcome send(const std::string& name, const std::string& payload) {
        return run(name, request_of(payload));
    }

    static outcome query(const char* name, const db_query_cond& cond) {
        return send(name, bytes_of(cond));
    }
};

template <class Number>
Number number_at(const std::string& bytes, size_t offset) {
    Number number{};
    memcpy(&number, bytes.data() + offset, sizeof number);
    return number;
}

void expect_answered(const outcome& got, size_t reply_size) {
    EXPECT_EQ(got.result, 0);
    EXPECT_FALSE(got.released);
    ASSERT_EQ(got.replies.size(), 1U);
    EXPECT_EQ(got.replies[0].size(), reply_size);
}

void expect_refused(const outcome& got) {
    EXPECT_EQ(got.result, -1);
    EXPECT_TRUE(got.released);
    EXPECT_EQ(got.replies, strings{});
}

}  // namespace

// --- Requests -----------------------------------------------------------------------------------

TEST_F(handlers, every_request_shorter_than_its_record_is_refused_before_the_store) {
    for (const method& m : methods) {
        SCOPED_TRACE(m.name);
        for (size_t length = 0; length < m.record && !HasFailure(); ++length) {
            SCOPED_TRACE(length);
            expect_refused(send(m.name, std::string(length, '\0')));
        }
    }
    EXPECT_EQ(sql_trace::statements, strings{});
    EXPECT_EQ(read_file(log_path), "") << "the handlers write no log lines";
}

TEST_F(handlers, request_of_exactly_its_record_is_answered) {
    for (const method& m : methods) {
        if (std::string(m.name) == "db_event_query") continue;  // refused by the store, see below
        SCOPED_TRACE(m.name);
        expect_answered(send(m.name, std::string(m.record, '\0')), m.row == 0 ? 0 : 24);
    }
}

TEST_F(handlers, longer_request_is_used_by_its_first_bytes) {
    auto row = row_with_text<db_server_list_data>("first bytes");
    const std::string bytes = bytes_of(row);
    expect_answered(send("db_server_list_insert", bytes + std::string(5000, '\xff')), 0);
    row.id = 1;
    const outcome got =
        send("db_server_list_query", bytes_of(page(0, 1)) + std::string(100, '\xff'));
    expect_answered(got, 24 + 4128);
    EXPECT_EQ(got.replies[0].substr(24), bytes_of(row));
    std::string id = bytes_of(db_delete_cond{1});
    expect_answered(send("db_server_list_del", id + std::string(1, '\xff')), 0);
    EXPECT_EQ(number_at<uint64_t>(query("db_server_list_query", page(0, 1)).replies[0], 0), 0U);
}

TEST_F(handlers, clean_and_event_insert_take_any_length) {
    for (const char* name : {"db_conn_server_log_clean", "db_conn_client_log_clean",
                             "db_server_list_clean", "db_event_insert"}) {
        for (const size_t length : {0U, 1U, 7U, 5200U, 70000U}) {
            SCOPED_TRACE(name);
            expect_answered(send(name, std::string(length, '\xff')), 0);
        }
    }
}

TEST_F(handlers, text_without_its_nul_is_cut_to_its_array) {
    struct text_field {
        const char* insert;
        size_t record;
        const char* column;  // a query for what is stored
        size_t length;
    };
    const text_field fields[] = {
        {"db_conn_insert", 5200, "SELECT username FROM conn_server_log", 1024},
        {"db_conn_insert", 5200, "SELECT device_info FROM conn_server_log", 1024},
        {"db_conn_insert", 5200, "SELECT source_ip FROM conn_server_log", 1024},
        {"db_conn_insert", 5200, "SELECT vpn_ip FROM conn_server_log", 1024},
        {"db_conn_insert", 5200, "SELECT outgoing FROM conn_server_log", 1024},
        {"db_conn_client_log_insert", 3152, "SELECT username FROM conn_client_log", 1024},
        {"db_conn_client_log_insert", 3152, "SELECT vpn_ip FROM conn_client_log", 1024},
        {"db_conn_client_log_insert", 3152, "SELECT country_code FROM conn_client_log", 2},
        {"db_conn_client_log_insert", 3152, "SELECT wan_ip FROM conn_client_log", 1024},
    };
    for (const text_field& f : fields) {
        SCOPED_TRACE(f.column);
        expect_answered(send(f.insert, std::string(f.record, 'x')), 0);
        EXPECT_EQ(sql_trace::value_in_file(f.column), std::string(f.length, 'x'));
    }
    expect_answered(send("db_server_list_insert", std::string(4128, 'x')), 0);
    const outcome got = query("db_server_list_query", page(0, 1));
    expect_answered(got, 24 + 4128);
    EXPECT_EQ(std::string(got.replies[0].c_str() + 24 + 8), std::string(1024, 'x'));
    EXPECT_EQ(std::string(got.replies[0].c_str() + 24 + 3083), std::string(1023, 'x'));
}

// --- Bytes on the wire --------------------------------------------------------------------------

TEST_F(handlers, server_log_fields_are_read_from_their_places) {
    std::string record(5200, '\0');
    const auto text = [&](size_t at, const char* value) {
        record.replace(at, strlen(value), value);
    };
    const auto number = [&](size_t at, size_t size, int64_t value) {
        memcpy(record.data() + at, &value, size);
    };
    number(0, 8, 77);
    text(8, "user"), number(1036, 4, -2), number(1040, 8, 3), number(1048, 8, 4);
    text(1056, "device"), text(2081, "source"), text(3106, "vpn");
    number(4136, 8, -5), number(4144, 8, 6), number(4152, 8, 1LL << 40), number(4160, 8, -8);
    text(4168, "out"), number(5196, 4, 9);
    expect_answered(send("db_conn_insert", record), 0);
    EXPECT_EQ(sql_trace::value_in_file(
                  "SELECT username||' '||vpn_type||' '||uptime||' '||time||' '||device_info||' '||"
                  "source_ip||' '||vpn_ip||' '||tx_rate||' '||rx_rate||' '||tx_total||' '||"
                  "rx_total||' '||outgoing||' '||action FROM conn_server_log"),
              "user -2 3 4 device source vpn -5 6 1099511627776 -8 out 9");
    number(0, 8, 1);
    const outcome got = query("db_conn_server_log_query", page(0, 1));
    expect_answered(got, 24 + 5200);
    EXPECT_EQ(got.replies[0].substr(24), record) << "the reply has the row in the same places";
}

TEST_F(handlers, client_log_fields_are_read_from_their_places) {
    std::string record(3152, '\0');
    const auto text = [&](size_t at, const char* value) {
        record.replace(at, strlen(value), value);
    };
    const auto number = [&](size_t at, size_t size, int64_t value) {
        memcpy(record.data() + at, &value, size);
    };
    text(8, "user"), number(1036, 4, -2), number(1040, 8, 3), number(1048, 8, 4);
    text(1056, "vpn"), number(2088, 8, -5), number(2096, 8, 6), number(2104, 8, 1LL << 40);
    number(2112, 8, -8), text(2120, "CH"), text(2123, "wan"), number(3148, 4, 9);
    expect_answered(send("db_conn_client_log_insert", record), 0);
    EXPECT_EQ(sql_trace::value_in_file(
                  "SELECT username||' '||vpn_type||' '||uptime||' '||time||' '||vpn_ip||' '||"
                  "tx_rate||' '||rx_rate||' '||tx_total||' '||rx_total||' '||country_code||' '||"
                  "wan_ip||' '||action FROM conn_client_log"),
              "user -2 3 4 vpn -5 6 1099511627776 -8 CH wan 9");
    number(0, 8, 1);
    const outcome got = query("db_conn_client_log_query", page(0, 1));
    expect_answered(got, 24 + 3152);
    EXPECT_EQ(got.replies[0].substr(24), record);
}

TEST_F(handlers, server_list_fields_are_read_from_their_places) {
    std::string record(4128, '\0');
    const auto text = [&](size_t at, const char* value) {
        record.replace(at, strlen(value), value);
    };
    const auto number = [&](size_t at, int64_t value) { memcpy(record.data() + at, &value, 8); };
    text(8, "uuid"), text(1033, "user"), text(2058, "s'id"), text(3083, "device");
    number(4112, 1LL << 40), number(4120, 6);
    expect_answered(send("db_server_list_insert", record), 0);
    const strings expected = {"uuid", "user", "s'id", "device"};
    const strings names = {"uuid", "username", "sid", "device_name"};
    number(0, 1);
    for (size_t n = 0; n < names.size(); ++n) {
        const outcome got = query("db_server_list_query", filtered(names[n], expected[n]));
        expect_answered(got, 24 + 4128);
        EXPECT_EQ(got.replies[0].substr(24), record);
    }
    const outcome got = query("db_server_list_query", filtered("expire_time", "1099511627776"));
    expect_answered(got, 24 + 4128);
}

TEST_F(handlers, condition_is_read_from_its_places) {
    for (int32_t n = 1; n <= 5; ++n) {
        auto row = row_with_text<db_conn_server_log>(n == 2 ? "other" : "same");
        set_numbers(row, 10 - n);
        insert_conn_server_log(&row);
    }
    std::string cond(2088, '\0');
    const auto number = [&](size_t at, int64_t value) { memcpy(cond.data() + at, &value, 8); };
    number(0, 1), number(8, 2), number(16, 2), number(24, 2);  // order_style 2 descends like 1
    cond.replace(32, 8, "username"), cond.replace(1057, 4, "same");
    const outcome got = send("db_conn_server_log_query", cond);
    expect_answered(got, 24 + 2 * 5200);
    EXPECT_EQ(number_at<int64_t>(got.replies[0], 24), 3)
        << "1, 3, 4, 5 by vpn_type down, one skipped";
    EXPECT_EQ(number_at<int64_t>(got.replies[0], 24 + 5200), 4);
    EXPECT_EQ(number_at<uint64_t>(got.replies[0], 8), 5U) << "the total counts the whole table";
}

TEST_F(handlers, delete_takes_its_eight_bytes_as_the_id) {
    for (int n = 0; n < 3; ++n) {
        auto row = row_with_text<db_conn_client_log_data>("CH");
        insert_conn_client_log(&row);
    }
    expect_answered(send("db_conn_client_log_del", std::string("\x02\0\0\0\0\0\0\0", 8)), 0);
    EXPECT_EQ(sql_trace::value_in_file("SELECT group_concat(id) FROM conn_client_log"), "1,3");
}

// --- Replies ------------------------------------------------------------------------------------

TEST_F(handlers, query_replies_with_its_header_as_it_lies_and_the_rows) {
    for (const table_methods& t : tables) {
        SCOPED_TRACE(t.query);
        for (int n = 0; n < 3; ++n) send(t.insert, std::string(t.row, 'x'));
        start_over();
        const outcome got = query(t.query, page(1, -1));
        expect_answered(got, 24 + 2 * t.row);
        const std::string& reply = got.replies[0];
        EXPECT_EQ(number_at<uint64_t>(reply, 0), 2U);
        EXPECT_EQ(number_at<uint64_t>(reply, 8), 3U);
        EXPECT_EQ(number_at<int64_t>(reply, 24), 2);
        EXPECT_EQ(number_at<int64_t>(reply, 24 + t.row), 3);
        ASSERT_EQ(standin()->writes.size(), 1U);
        EXPECT_EQ(standin()->writes[0].length, 24U);
        ASSERT_EQ(standin()->adopted.size(), 1U);
        EXPECT_EQ(standin()->adopted[0].length, 2 * t.row);
        EXPECT_EQ(number_at<const void*>(reply, 16), standin()->adopted[0].data)
            << "the rows go out from the store's array, whose address the header holds";
        EXPECT_EQ(standin()->events[0], "zb_io_realloc 0");
        EXPECT_EQ(blocks.size(), 0U) << "the header is released, the rows are the bus's";
    }
}

// As on a bus that takes no blocks.
TEST_F(handlers, query_writes_its_rows_when_the_bus_does_not_take_them) {
    for (const table_methods& t : tables) {
        SCOPED_TRACE(t.query);
        for (int n = 0; n < 3; ++n) send(t.insert, std::string(t.row, 'x'));
        const std::string handed_over = query(t.query, page(1, -1)).replies[0];
        start_over();
        standin()->takes_blocks = false;
        const outcome got = query(t.query, page(1, -1));
        expect_answered(got, 24 + 2 * t.row);
        ASSERT_EQ(standin()->writes.size(), 2U);
        EXPECT_EQ(standin()->writes[1].length, 2 * t.row);
        EXPECT_EQ(number_at<const void*>(got.replies[0], 16), standin()->writes[1].data);
        EXPECT_EQ(got.replies[0].substr(24), handed_over.substr(24));
        EXPECT_EQ(blocks.size(), 0U) << "header and rows are released";
    }
}

// Nothing of what the daemon's heap has held goes out with a reply.
TEST_F(handlers, bytes_that_no_field_fills_are_zero) {
    for (const table_methods& t : tables) {
        SCOPED_TRACE(t.query);
        constexpr size_t rows = 90;  // more than a small block has room for
        for (size_t n = 0; n < rows; ++n) send(t.insert, std::string(t.row, '\0'));
        for (const size_t n : {size_t{1}, rows}) {
            soil_heap();
            const outcome got = query(t.query, page(0, static_cast<int64_t>(n)));
            expect_answered(got, 24 + n * t.row);
            for (size_t row = 0; row < n; ++row)
                EXPECT_TRUE(got.replies[0].substr(24 + row * t.row + 8, t.row - 8) ==
                            std::string(t.row - 8, '\0'))
                    << row;
        }
    }
}

TEST_F(handlers, query_without_rows_replies_with_the_header_alone) {
    for (const table_methods& t : tables) {
        SCOPED_TRACE(t.query);
        const outcome empty_table = query(t.query, page(0, -1));
        expect_answered(empty_table, 24);
        EXPECT_EQ(empty_table.replies[0], std::string(24, '\0'));
        send(t.insert, std::string(t.row, 'x'));
        const outcome empty_page = query(t.query, page(0, 0));
        expect_answered(empty_page, 24);
        EXPECT_EQ(number_at<uint64_t>(empty_page.replies[0], 0), 0U);
        EXPECT_EQ(number_at<uint64_t>(empty_page.replies[0], 8), 1U);
        EXPECT_EQ(blocks.size(), 0U);
    }
}

TEST_F(handlers, refused_query_is_not_answered_and_leaks_its_header_alone) {
    for (const table_methods& t : tables) {
        for (const int64_t order_by :
             {t.columns, int64_t{-1}, INT64_MAX, INT64_MIN, int64_t{1} << 32}) {
            SCOPED_TRACE(std::string(t.query) + " " + std::to_string(order_by));
            start_over();
            db_query_cond cond = page(0, -1);
            cond.order_by = order_by;
            expect_refused(query(t.query, cond));
            EXPECT_EQ(blocks.size(), 1U) << "deliberate: the header stays";
            EXPECT_EQ(sql_trace::statements, strings{});
        }
    }
    start_over();
}

TEST_F(handlers, failed_statement_is_answered_all_the_same) {
    sql_trace::before_exec = [](const std::string&) { return SQLITE_FULL; };
    for (const table_methods& t : tables) {
        SCOPED_TRACE(t.query);
        expect_answered(send(t.insert, std::string(t.row, 'x')), 0);
        const outcome got = query(t.query, page(0, -1));
        expect_answered(got, 24);
        EXPECT_EQ(number_at<uint64_t>(got.replies[0], 0), 0U);
        EXPECT_EQ(number_at<uint64_t>(got.replies[0], 8), UINT64_MAX) << "the count failed, too";
    }
    expect_answered(send("db_conn_server_log_del", std::string(8, '\0')), 0);
    expect_answered(send("db_conn_server_log_clean", ""), 0);
}

TEST_F(handlers, query_without_memory_for_its_header_is_refused) {
    for (const table_methods& t : tables) {
        SCOPED_TRACE(t.query);
        zb_io* io = request_of(bytes_of(page(0, -1)));
        no_memory = true;
        const outcome got = run(t.query, io);
        no_memory = false;
        expect_refused(got);
        EXPECT_EQ(sql_trace::statements, strings{});
    }
}

TEST_F(handlers, reply_that_cannot_be_built_is_no_reply) {
    for (const table_methods& t : tables) {
        for (const size_t failing : {1U, 2U}) {
            SCOPED_TRACE(std::string(t.query) + " write " + std::to_string(failing));
            send(t.insert, std::string(t.row, 'x'));
            start_over();
            standin()->takes_blocks = false;
            zb_io* io = request_of(bytes_of(page(0, -1)));
            standin()->failing_write = failing;
            expect_refused(run(t.query, io));
            EXPECT_EQ(blocks.size(), 0U) << "header and rows are released";
        }
    }
}

// --- Events -------------------------------------------------------------------------------------

TEST_F(handlers, event_content_never_reaches_the_store) {
    for (const size_t length : {0U, 1U, 100U}) {
        expect_answered(send("db_event_insert", std::string(length, '\'')), 0);
    }
    EXPECT_EQ(sql_trace::statements, strings{});
}

TEST_F(handlers, event_query_is_refused_while_the_table_is_not_created) {
    for (const int64_t order_by : {int64_t{0}, int64_t{1}, int64_t{-1}}) {
        db_query_cond cond = page(0, -1);
        cond.order_by = order_by;
        expect_refused(query("db_event_query", cond));
    }
    EXPECT_EQ(sql_trace::statements, strings{});
    start_over();
}

TEST_F(handlers, event_query_replies_with_a_byte_for_each_row) {
    ASSERT_EQ(create_event_db(), 0);
    sql_trace::run(sql_trace::opened.back(), "INSERT INTO event_log VALUES (1), (2), (3)");
    const outcome got = query("db_event_query", page(1, -1));
    expect_answered(got, 24 + 2);
    EXPECT_EQ(number_at<uint64_t>(got.replies[0], 0), 2U);
    EXPECT_EQ(number_at<uint64_t>(got.replies[0], 8), 0U);
    finish_event_db();
}
