// What is each log table's own: columns, value formats, what a row keeps of its record, and the
// event table, which departs from the shape of the others.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "ravod_db_event_handler.h"
#include "support/files.h"
#include "support/sql_trace.h"
#include "support/store.h"

namespace {
// Called before each growth of an event block; true refuses the memory.
std::function<bool()> refuse_memory;
std::vector<size_t> block_sizes;

bool refused(size_t size) {
    block_sizes.push_back(size);
    return refuse_memory && refuse_memory();
}
}  // namespace

extern "C" {
// The leak of a failed event query is known by the whole stack of its allocation, which lies in a
// library without frame pointers. Read by the sanitizer build only.
const char* __asan_default_options();
__attribute__((visibility("default"))) const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0";
}

void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
    return refused(count * size) ? nullptr : __real_calloc(count, size);
}
void* __real_realloc(void* block, size_t size);
void* __wrap_realloc(void* block, size_t size);
void* __wrap_realloc(void* block, size_t size) {
    return refused(size) ? nullptr : __real_realloc(block, size);
}
}

namespace {

// --- The three full tables ----------------------------------------------------------------------

template <class Table>
class log_table : public testing::Test {
  protected:
    const std::string name = Table::name;
};
TYPED_TEST_SUITE(log_table, every_table, number_only);

// A row that went through the table.
template <class Table>
typename Table::row stored(typename Table::row row) {
    EXPECT_EQ(Table::insert(&row), 0);
    const page<Table> last({.count = 1, .order_style = 1});
    EXPECT_EQ(last.count(), 1U);
    return last.count() == 1 ? last.rows()[0] : typename Table::row{};
}

TYPED_TEST(log_table, has_its_columns_in_order) {
    start<TypeParam>();
    std::string columns = "id INTEGER";
    for (const field& f : TypeParam::fields) {
        columns += std::string(", ") + f.name;
        columns += f.kind == field_kind::text ? " TEXT" : " INTEGER";
    }
    EXPECT_EQ(sql_trace::value(db(),
                               "SELECT group_concat(name || ' ' || type, ', ') FROM "
                               "pragma_table_info('" +
                                   this->name + "')"),
              columns);
}

TYPED_TEST(log_table, reads_back_what_was_written) {
    start<TypeParam>();
    for (int number = 1; number <= 3; ++number) {
        const typename TypeParam::row row = sample<TypeParam>(number);
        EXPECT_EQ(values_of<TypeParam>(stored<TypeParam>(row)), values_of<TypeParam>(row));
    }
    EXPECT_TRUE(log_messages().empty());
}

TYPED_TEST(log_table, keeps_every_byte_of_a_text) {
    start<TypeParam>();
    std::string all;
    for (int byte = 1; byte <= 255; ++byte) all += static_cast<char>(byte);
    typename TypeParam::row row = sample<TypeParam>(1);
    for (const field& f : TypeParam::fields) {
        if (f.kind == field_kind::text && f.size > 3) set_text(f, &row, all);
    }
    EXPECT_EQ(values_of<TypeParam>(stored<TypeParam>(row)), values_of<TypeParam>(row));
}

TYPED_TEST(log_table, keeps_each_byte_on_its_own) {
    start<TypeParam>();
    typename TypeParam::row row{};
    for (int byte = 1; byte <= 255; ++byte) {
        for (const field& f : TypeParam::fields) {
            if (f.kind == field_kind::text) set_text(f, &row, {static_cast<char>(byte)});
        }
        EXPECT_EQ(TypeParam::insert(&row), 0);
    }
    const page<TypeParam> all;
    ASSERT_EQ(all.count(), 255U);
    for (int byte = 1; byte <= 255; ++byte) {
        for (const field& f : TypeParam::fields) {
            if (f.kind != field_kind::text) continue;
            EXPECT_EQ(value_of(f, &all.rows()[static_cast<size_t>(byte - 1)]),
                      std::string(1, static_cast<char>(byte)));
        }
    }
}

TYPED_TEST(log_table, keeps_quotes_percent_signs_and_utf_8) {
    start<TypeParam>();
    for (const char* text : {"'", "''", "it's", "%", "%%", "%q%s%d%n%lu", "\"", "\\", "\\'", ";--",
                             "'); DROP TABLE conn_server_log; --", "\n\r\t", "NULL", " ",
                             "\xc3\xa4\xe6\x97\xa5\xf0\x9f\x98\x80", "\xff\xfe\x80"}) {
        typename TypeParam::row row{};
        for (const field& f : TypeParam::fields) {
            if (f.kind == field_kind::text && f.size > 3) set_text(f, &row, text);
        }
        EXPECT_EQ(values_of<TypeParam>(stored<TypeParam>(row)), values_of<TypeParam>(row)) << text;
    }
    EXPECT_TRUE(log_messages().empty());
}

TYPED_TEST(log_table, keeps_empty_texts_and_zeros) {
    start<TypeParam>();
    const typename TypeParam::row empty{};
    EXPECT_EQ(values_of<TypeParam>(stored<TypeParam>(empty)), values_of<TypeParam>(empty));
}

TYPED_TEST(log_table, keeps_texts_that_fill_their_arrays) {
    start<TypeParam>();
    for (const char letter : {'x', '\''}) {
        typename TypeParam::row row{};
        for (const field& f : TypeParam::fields) {
            if (f.kind == field_kind::text) set_text(f, &row, std::string(f.size - 1, letter));
        }
        EXPECT_EQ(values_of<TypeParam>(stored<TypeParam>(row)), values_of<TypeParam>(row));
    }
}

TYPED_TEST(log_table, cuts_texts_that_do_not_end_in_their_arrays) {
    start<TypeParam>();
    typename TypeParam::row row;
    memset(&row, 'X', sizeof row);
    typename TypeParam::row cut = row;
    for (const field& f : TypeParam::fields) {
        if (f.kind == field_kind::text) set_text(f, &cut, std::string(f.size - 1, 'X'));
    }
    const typename TypeParam::row back = stored<TypeParam>(row);
    EXPECT_EQ(sql_trace::statements[1], insert_text<TypeParam>(cut));
    EXPECT_EQ(values_of<TypeParam>(back), values_of<TypeParam>(cut));
    EXPECT_TRUE(log_messages().empty());
}

TYPED_TEST(log_table, keeps_the_ends_of_its_number_ranges) {
    start<TypeParam>();
    for (const int64_t number :
         {int64_t{INT32_MIN}, int64_t{INT32_MAX}, INT64_MIN, INT64_MAX, int64_t{-1}, int64_t{1}}) {
        typename TypeParam::row row{};
        for (const field& f : TypeParam::fields) {
            const bool above = f.kind == field_kind::uint64 && number < 0;
            if (f.kind != field_kind::text && !above) {
                memcpy(reinterpret_cast<char*>(&row) + f.offset, &number, f.size);
            }
        }
        EXPECT_EQ(values_of<TypeParam>(stored<TypeParam>(row)), values_of<TypeParam>(row));
    }
}

TYPED_TEST(log_table, keeps_the_first_digits_of_unsigned_numbers_above_2_to_63) {
    start<TypeParam>();
    const std::pair<uint64_t, uint64_t> cases[] = {
        {UINT64_MAX, 1}, {uint64_t{1} << 63, 9}, {uint64_t{INT64_MAX}, uint64_t{INT64_MAX}}};
    for (const auto& [written, read] : cases) {
        typename TypeParam::row row{};
        row.time = written;
        sql_trace::statements.clear();
        EXPECT_EQ(stored<TypeParam>(row).time, read);
        EXPECT_NE(sql_trace::statements[1].find(std::to_string(written)), std::string::npos);
    }
    EXPECT_EQ(sql_trace::value(db(), "SELECT typeof(time) FROM " + this->name), "real");
}

TYPED_TEST(log_table, numbers_its_rows_anew_after_a_clean_and_never_twice) {
    start<TypeParam>();
    for (int number = 1; number <= 3; ++number) insert_sample<TypeParam>(number);
    EXPECT_EQ(TypeParam::clean(), 0);
    insert_sample<TypeParam>(4);
    EXPECT_EQ(page<TypeParam>().ids(), std::vector<int64_t>{4}) << "ids are not used again";
}

TYPED_TEST(log_table, of_fewer_columns_reads_as_if_they_were_null) {
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open_v2(db_path, &other, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr),
              SQLITE_OK);
    const std::string columns =
        std::string(" (id INTEGER PRIMARY KEY, ") + TypeParam::fields[0].name + ")";
    ASSERT_EQ(sql_trace::run(other, "CREATE TABLE " + this->name + columns), SQLITE_OK);
    ASSERT_EQ(sql_trace::run(other, "INSERT INTO " + this->name + " VALUES (9, 'Ann')"), SQLITE_OK);
    sqlite3_close(other);
    start<TypeParam>();
    const page<TypeParam> result;
    if (TypeParam::temporary) {
        EXPECT_EQ(result.count(), 0U) << "its own table hides the one in the file";
        return;
    }
    ASSERT_EQ(result.count(), 1U);
    EXPECT_EQ(result.data()->id, 9);
    const texts values = values_of<TypeParam>(result.rows()[0]);
    EXPECT_EQ(values.front(), "Ann");
    EXPECT_EQ(values.back(), "-1");
}

// --- Statements, letter for letter --------------------------------------------------------------

TEST(insert_text, of_conn_server_log) {
    start<conn_server_log>();
    db_conn_server_log row = {};
    row.id = 99;
    strcpy(row.username, "O'Hara");
    row.vpn_type = -2;
    row.uptime = UINT64_MAX;
    row.time = 1700000000;
    strcpy(row.device_info, "phone");
    strcpy(row.source_ip, "192.0.2.1");
    strcpy(row.vpn_ip, "10.0.0.2");
    row.tx_rate = -1;
    row.rx_rate = INT64_MIN;
    row.tx_total = 5;
    row.rx_total = INT64_MAX;
    strcpy(row.outgoing, "eth0");
    row.action = INT_MIN;
    EXPECT_EQ(insert_conn_server_log(&row), 0);
    EXPECT_EQ(sql_trace::statements[1],
              "INSERT OR REPLACE INTO conn_server_log (username, vpn_type, uptime, time, "
              "device_info, source_ip, vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, "
              "action) VALUES ('O''Hara', -2, 18446744073709551615, 1700000000, 'phone', "
              "'192.0.2.1', '10.0.0.2', -1, -9223372036854775808, 5, 9223372036854775807, 'eth0', "
              "-2147483648);");
}

TEST(insert_text, of_conn_client_log) {
    start<conn_client_log>();
    db_conn_client_log_data row = {};
    strcpy(row.username, "Ann");
    row.vpn_type = 3;
    row.uptime = 60;
    row.time = 1700000000;
    strcpy(row.vpn_ip, "10.0.0.2");
    row.tx_rate = 1;
    row.rx_rate = 2;
    row.tx_total = 3;
    row.rx_total = 4;
    strcpy(row.country_code, "TW");
    strcpy(row.wan_ip, "192.0.2.1");
    row.action = 1;
    EXPECT_EQ(insert_conn_client_log(&row), 0);
    EXPECT_EQ(sql_trace::statements[1],
              "INSERT OR REPLACE INTO conn_client_log (username, vpn_type, uptime, time, vpn_ip, "
              "tx_rate, rx_rate, tx_total, rx_total, country_code, wan_ip, action) VALUES ('Ann', "
              "3, 60, 1700000000, '10.0.0.2', 1, 2, 3, 4, 'TW', '192.0.2.1', 1);");
}

TEST(insert_text, of_server_list) {
    start<server_list>();
    db_server_list_data row = {};
    strcpy(row.uuid, "a-b");
    strcpy(row.username, "Ann");
    strcpy(row.sid, "s'1");
    strcpy(row.device_name, "phone");
    row.expire_time = 7;
    row.time = 6;
    EXPECT_EQ(insert_server_list(&row), 0);
    EXPECT_EQ(sql_trace::statements[1],
              "INSERT OR REPLACE INTO server_list (uuid, username, sid, device_name, expire_time, "
              "time) VALUES ('a-b', 'Ann', 's''1', 'phone', 7, 6);");
    const page<server_list> result;
    ASSERT_EQ(result.count(), 1U);
    EXPECT_STREQ(result.data()->sid, "s'1");
    EXPECT_EQ(result.data()->time, 6U) << "no time stamp of its own";
}

TEST(conn_client_log_table, country_code_of_three_letters_is_cut_to_two) {
    start<conn_client_log>();
    db_conn_client_log_data row = {};
    memcpy(row.country_code, "TWN", 3);
    strcpy(row.wan_ip, "192.0.2.1");
    const db_conn_client_log_data back = stored<conn_client_log>(row);
    EXPECT_STREQ(back.country_code, "TW");
    EXPECT_STREQ(back.wan_ip, "192.0.2.1");
}

TEST(conn_client_log_table, insert_by_insert_never_holds_more_than_101999_rows) {
    start<conn_client_log>();
    seed<conn_client_log>(101997);
    texts counts;
    for (int number = 1; number <= 4; ++number) {
        insert_sample<conn_client_log>(number);
        counts.push_back(row_count<conn_client_log>());
    }
    EXPECT_EQ(counts, (texts{"101998", "101999", "100000", "100001"}));
}

TEST(log_tables, survive_a_restart_except_the_server_list) {
    const pid_t child = fork();
    if (child == 0) {
        conn_server_log::create();
        conn_client_log::create();
        server_list::create();
        insert_sample<conn_server_log>(1);
        insert_sample<conn_client_log>(2);
        insert_sample<server_list>(3);
        conn_server_log::finish();
        conn_client_log::finish();
        server_list::finish();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    start<conn_server_log>();
    start<conn_client_log>();
    start<server_list>();
    const page<conn_server_log> servers;
    ASSERT_EQ(servers.count(), 1U);
    EXPECT_EQ(values_of<conn_server_log>(servers.rows()[0]),
              values_of<conn_server_log>(sample<conn_server_log>(1)));
    const page<conn_client_log> clients;
    ASSERT_EQ(clients.count(), 1U);
    EXPECT_EQ(values_of<conn_client_log>(clients.rows()[0]),
              values_of<conn_client_log>(sample<conn_client_log>(2)));
    EXPECT_EQ(page<server_list>().count(), 0U);
}

// --- The event table ----------------------------------------------------------------------------

constexpr char create_event_text[] =
    "CREATE  TABLE IF NOT EXISTS event_log (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE);";

class event_log : public testing::Test {
  protected:
    ~event_log() override { free(result.data); }

    void start() {
        ASSERT_EQ(create_event_db(), 0);
        sql_trace::statements.clear();
    }
    static void add_rows(int rows) {
        for (int n = 0; n < rows; ++n) {
            ASSERT_EQ(sql_trace::run(db(), "INSERT INTO event_log DEFAULT VALUES"), SQLITE_OK);
        }
    }
    int select(const page_request& request = {}) {
        db_query_cond cond = condition(request);
        db_event_query* pointer = &result;
        return select_event_data(&cond, &pointer);
    }

    db_event_query result = {};
};

TEST_F(event_log, before_its_create_refuses_every_query) {
    for (const int64_t index : {int64_t{0}, int64_t{1}, int64_t{-1}, INT64_MIN, INT64_MAX}) {
        EXPECT_EQ(select({.order_by = index}), -1) << index;
    }
    EXPECT_EQ(result.count, 0U);
    EXPECT_EQ(result.data, nullptr);
    EXPECT_TRUE(sql_trace::opened.empty());
    EXPECT_TRUE(sql_trace::statements.empty());
    EXPECT_FALSE(std::filesystem::exists(db_path));
    EXPECT_TRUE(log_messages().empty());
}

TEST_F(event_log, create_closes_its_text_after_the_id) {
    EXPECT_EQ(create_event_db(), 0);
    ASSERT_EQ(sql_trace::statements.size(), 7U);
    EXPECT_EQ(sql_trace::statements[0], "PRAGMA page_size = 2048;");
    EXPECT_EQ(sql_trace::statements[6], create_event_text);
    EXPECT_EQ(sql_trace::value_in_file("SELECT count(*) FROM event_log"), "0");
}

TEST_F(event_log, second_create_fails) {
    start();
    EXPECT_EQ(create_event_db(), -1);
    EXPECT_EQ(sql_trace::statements.back(), std::string(create_event_text) + ");");
    EXPECT_EQ(log_messages(),
              (texts{"ERROR create db failed: near \")\": syntax error\n", closing(db())}));
    EXPECT_EQ(read_log()[0].file, "ravod_db_event_handler.cpp");
    EXPECT_EQ(read_log()[0].function, "create_event_db");
}

TEST_F(event_log, create_without_the_directory_logs_rc_null) {
    std::filesystem::remove("/etc/config/ravo");
    EXPECT_EQ(create_event_db(), -1);
    EXPECT_EQ(log_messages(), (texts{"ERROR rc NULL\n", closing(db())}));
}

TEST_F(event_log, insert_does_nothing) {
    start();
    db_event_data event = {};
    EXPECT_EQ(insert_event_data(&event), 0);
    EXPECT_EQ(insert_event_data(nullptr), 0);
    EXPECT_TRUE(sql_trace::statements.empty());
    EXPECT_EQ(sql_trace::value(db(), "SELECT count(*) FROM event_log"), "0");
}

TEST_F(event_log, query_runs_one_statement) {
    start();
    add_rows(3);
    EXPECT_EQ(select({.start = 1, .count = 2, .order_style = 2}), 0);
    EXPECT_EQ(sql_trace::statements,
              texts{"SELECT * FROM event_log ORDER BY id DESC LIMIT 2 OFFSET 1;"});
    EXPECT_EQ(result.count, 2U);
    EXPECT_EQ(result.total, 0U);
    EXPECT_TRUE(log_messages().empty());
}

TEST_F(event_log, query_clamps_nothing_and_filters_nothing) {
    start();
    for (const int64_t count : {int64_t{-1}, int64_t{0}, int64_t{100001}, INT64_MIN, INT64_MAX}) {
        sql_trace::statements.clear();
        EXPECT_EQ(select({.start = -5, .count = count, .field = "id", .value = "1"}), 0);
        EXPECT_EQ(sql_trace::statements, texts{"SELECT * FROM event_log ORDER BY id ASC LIMIT " +
                                               std::to_string(count) + " OFFSET -5;"});
    }
}

TEST_F(event_log, query_keeps_the_total_of_the_caller) {
    start();
    result.total = 77;
    add_rows(2);
    EXPECT_EQ(select(), 0);
    EXPECT_EQ(result.count, 2U);
    EXPECT_EQ(result.total, 77U);
}

TEST_F(event_log, query_by_any_column_but_the_id_is_refused_untouched) {
    start();
    for (const int64_t index : {int64_t{1}, int64_t{2}, int64_t{-1}, int64_t{1} << 32, INT64_MIN}) {
        EXPECT_EQ(select({.order_by = index}), -1) << index;
    }
    EXPECT_TRUE(sql_trace::statements.empty());
    EXPECT_EQ(result.count, 0U);
}

TEST_F(event_log, each_row_is_one_byte) {
    start();
    add_rows(4);
    block_sizes.clear();
    EXPECT_EQ(select(), 0);
    ASSERT_EQ(result.count, 4U);
    EXPECT_EQ(block_sizes, (std::vector<size_t>{1, 2, 3, 4}));
    for (size_t n = 0; n < 4; ++n) EXPECT_EQ(result.data[n].no_content, 0);
}

TEST_F(event_log, row_without_memory_is_dropped) {
    start();
    add_rows(5);
    int growths = 0;
    refuse_memory = [&growths] { return ++growths == 1 || growths == 3; };
    EXPECT_EQ(select(), 0);
    refuse_memory = nullptr;
    EXPECT_EQ(result.count, 3U);
    EXPECT_NE(result.data, nullptr);
    EXPECT_EQ(block_sizes.back(), 3U);
}

TEST_F(event_log, failed_query_is_logged_and_keeps_the_connection) {
    start();
    ASSERT_EQ(sql_trace::run(db(), "DROP TABLE event_log"), SQLITE_OK);
    EXPECT_EQ(select({.count = 5}), 0);
    EXPECT_EQ(log_messages(),
              texts{"ERROR Error in select statement SELECT * FROM event_log ORDER BY id ASC LIMIT "
                    "5 OFFSET 0; [no such table: event_log].\n"});
    const log_entry line = read_log()[0];
    EXPECT_EQ(line.file, "ravod_db_event_handler.cpp");
    EXPECT_EQ(line.function, "select_stmt");
    EXPECT_EQ(result.count, 0U);
    EXPECT_EQ(result.data, nullptr);
    EXPECT_EQ(select(), 0);
    EXPECT_EQ(sql_trace::opened.size(), 1U);
}

TEST_F(event_log, failed_query_without_an_error_text_logs_null) {
    start();
    fail_statement("SELECT");
    EXPECT_EQ(select({.count = 5}), 0);
    EXPECT_EQ(log_messages(), texts{"ERROR Error in select statement SELECT * FROM event_log ORDER "
                                    "BY id ASC LIMIT 5 OFFSET 0; [(null)].\n"});
}

TEST_F(event_log, query_opens_a_closed_connection) {
    start();
    add_rows(2);
    EXPECT_EQ(finish_event_db(), 0);
    sql_trace::clear();
    EXPECT_EQ(select(), 0);
    EXPECT_EQ(result.count, 2U);
    EXPECT_EQ(sql_trace::opened.size(), 1U);
    EXPECT_EQ(sql_trace::statements.size(), 1U);
}

TEST_F(event_log, query_that_cannot_open_logs_only_the_statement) {
    start();
    EXPECT_EQ(finish_event_db(), 0);
    std::filesystem::rename("/etc/config/ravo", "/etc/config/away");
    forget_log();
    EXPECT_EQ(select({.count = 5}), 0);
    EXPECT_EQ(log_messages(), texts{"ERROR Error in select statement SELECT * FROM event_log ORDER "
                                    "BY id ASC LIMIT 5 OFFSET 0; [(null)].\n"});
    EXPECT_EQ(result.count, 0U);
    std::filesystem::rename("/etc/config/away", "/etc/config/ravo");
    EXPECT_EQ(select(), 0) << "and the next one opens it";
    EXPECT_EQ(log_messages().size(), 1U);
}

TEST_F(event_log, delete_takes_a_row_and_accumulates) {
    start();
    add_rows(3);
    sqlite3* const handle = db();
    EXPECT_EQ(delete_event_data(2), 0);
    EXPECT_EQ(sql_trace::statements, texts{"DELETE FROM event_log WHERE id = 2;"});
    EXPECT_EQ(sql_trace::value(db(), "SELECT group_concat(id) FROM event_log"), "1,3");
    EXPECT_TRUE(log_messages().empty());
    EXPECT_EQ(delete_event_data(3), 0);
    const std::string text = "DELETE FROM event_log WHERE id = 3; WHERE id = 3;";
    EXPECT_EQ(log_messages(), failure(text, "near \"WHERE\": syntax error", 1, handle));
    EXPECT_EQ(read_log()[0].function, "delete_event_data");
    EXPECT_EQ(sql_trace::value_in_file("SELECT group_concat(id) FROM event_log"), "1");
}

TEST_F(event_log, finish_tries_to_vacuum_and_closes) {
    start();
    EXPECT_EQ(finish_event_db(), 0);
    EXPECT_EQ(sql_trace::statements, texts{"VACCUM event_log"});
    EXPECT_EQ(log_messages(), texts{closing(db())});
    EXPECT_EQ(read_log()[0].function, "finish_event_db");
    EXPECT_EQ(finish_event_db(), 0);
    EXPECT_EQ(log_messages().size(), 1U);
}

}  // namespace
