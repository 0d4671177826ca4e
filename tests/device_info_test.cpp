// The device_info table: its statements, its unique index, and the UUID that a mac keeps.
#include "ravod_db_device_info_handler.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/devices.h"
#include "support/files.h"
#include "support/log_lines.h"
#include "support/sql_trace.h"

namespace {

using texts = std::vector<std::string>;

constexpr char create_text[] =
    "CREATE TEMPORARY TABLE IF NOT EXISTS device_info (id INTEGER PRIMARY KEY AUTOINCREMENT "
    "UNIQUE, ip TEXT, mac TEXT, vossid TEXT, user_id TEXT, dev_name TEXT, dev_uuid TEXT, nic TEXT, "
    "time INTEGER);";
constexpr char index_text[] = "CREATE UNIQUE INDEX idx_device_info_mac ON device_info (mac);";
constexpr char count_text[] = "SELECT Count(*) FROM device_info;";
constexpr char first_id_text[] =
    "SELECT id FROM (SELECT * FROM device_info ORDER BY id DESC LIMIT 100000) ORDER BY id ASC "
    "LIMIT 1;";

constexpr char unit[] = "ravod_db_device_info_handler.cpp";

// The INSERT of a record whose texts stand here as they stand in the statement.
std::string insert_text(const std::string& ip, const std::string& mac, const std::string& vossid,
                        const std::string& user_id, const std::string& dev_name,
                        const std::string& dev_uuid, const std::string& nic,
                        const std::string& time) {
    return "INSERT OR REPLACE INTO device_info (ip, mac, vossid, user_id, dev_name, dev_uuid, nic, "
           "time) VALUES ('" +
           ip + "', '" + mac + "', '" + vossid + "', '" + user_id + "', '" + dev_name +
           "', CASE WHEN EXISTS (SELECT * FROM device_info) AND (SELECT dev_uuid FROM device_info "
           "WHERE mac = '" +
           mac + "') IS NOT NULL THEN (SELECT dev_uuid FROM device_info WHERE mac = '" + mac +
           "') ELSE '" + dev_uuid + "' END, '" + nic + "', " + time + ");";
}

int insert(db_device_info_data data) { return insert_device_info(&data); }

int remove_device(int64_t id) {
    db_delete_cond cond = {id};
    return delete_device_info(&cond);
}

// The statements so far without those that SQLite itself runs to read a schema.
texts own_statements() {
    texts own = sql_trace::statements;
    std::erase_if(own, [](const std::string& text) { return text.starts_with("SELECT*FROM\""); });
    return own;
}

// What one query answers.
class page {
  public:
    explicit page(db_query_cond cond) { status = select_device_info(&cond, &pointer); }
    ~page() { free(result.data); }
    page(const page&) = delete;
    page& operator=(const page&) = delete;

    texts macs() const {
        texts list;
        for (uint64_t n = 0; n < result.count; ++n) list.emplace_back(result.data[n].mac);
        return list;
    }

    int status = 0;
    db_device_info_query result = {};

  private:
    db_device_info_query* pointer = &result;
};

db_query_cond condition(int64_t start, int64_t count, int64_t order_by = 0,
                        int64_t order_style = 0) {
    db_query_cond cond = {};
    cond.start = start;
    cond.count = count;
    cond.order_by = order_by;
    cond.order_style = order_style;
    return cond;
}

// Makes each statement that begins so fail before SQLite sees it.
void fail_statement(const std::string& beginning) {
    sql_trace::before_exec = [beginning](const std::string& text) {
        return text.starts_with(beginning) ? SQLITE_ERROR : SQLITE_OK;
    };
}

std::string closing(const void* handle) {
    char text[64];
    (void)snprintf(text, sizeof text, "close db %p\n", handle);
    return text;
}

// The three lines of a statement that failed on an open connection.
std::vector<expected_line> failure(const std::string& function, const std::string& statement,
                                   const std::string& error) {
    return {{"ERROR", unit, function, "sql = " + statement + ", err = " + error + "\n"},
            {"WARN", unit, function, closing(sql_trace::opened.back())},
            {"ERROR", unit, function, "RET = 1\n"}};
}

class device_info_create : public testing::Test {
  protected:
    ~device_info_create() override {
        sql_trace::clear();
        finish_device_info_db();
    }
};

class device_info : public testing::Test {
  protected:
    device_info() {
        EXPECT_EQ(create_device_info_db(), 0);
        sql_trace::statements.clear();
    }
    ~device_info() override {
        sql_trace::clear();
        finish_device_info_db();
    }
};

}  // namespace

// --- Create and finish --------------------------------------------------------------------------

TEST_F(device_info_create, runs_the_pragmas_the_table_and_then_the_index) {
    EXPECT_EQ(create_device_info_db(), 0);
    EXPECT_EQ(own_statements(), (texts{"PRAGMA page_size = 2048;", "PRAGMA synchronous = ON;",
                                       "PRAGMA auto_vacuum = FULL;", "PRAGMA journal_mode = OFF;",
                                       "PRAGMA default_cache_size = 10000;",
                                       "PRAGMA cache_size = 10000;", create_text, index_text}));
    EXPECT_EQ(sql_trace::opened.size(), 1U);
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(device_info_create, table_and_index_are_temporary) {
    ASSERT_EQ(create_device_info_db(), 0);
    EXPECT_EQ(insert(device("aa")), 0);
    const std::string names = "SELECT group_concat(type || ' ' || name || ' ' || tbl_name) FROM ";
    EXPECT_EQ(in_registry(names + "sqlite_temp_master WHERE sql IS NOT NULL AND name NOT LIKE "
                                  "'sqlite%'"),
              "table device_info device_info,index idx_device_info_mac device_info");
    EXPECT_EQ(in_registry("SELECT sql FROM sqlite_temp_master WHERE type = 'index' AND sql IS NOT "
                          "NULL") +
                  ";",
              index_text);
    EXPECT_EQ(in_registry("SELECT count(*) FROM main.sqlite_master"), "0");
    EXPECT_EQ(sql_trace::value_in_file("SELECT count(*) FROM sqlite_master"), "0");
}

TEST_F(device_info_create, index_that_exists_already_is_logged_and_0_is_returned) {
    sql_trace::before_exec = [](const std::string& text) {
        if (text == index_text) sql_trace::run(sql_trace::opened.back(), text);
        return SQLITE_OK;
    };
    EXPECT_EQ(create_device_info_db(), 0);
    expect_log(
        failure("create_device_info_db", index_text, "index idx_device_info_mac already exists"));
}

TEST_F(device_info_create, failing_index_loses_the_table_with_its_connection) {
    fail_statement("CREATE UNIQUE INDEX");
    EXPECT_EQ(create_device_info_db(), 0);
    expect_log(failure("create_device_info_db", index_text, "(null)"));
    sql_trace::before_exec = nullptr;
    sql_trace::statements.clear();
    EXPECT_EQ(insert(device("aa")), 0);
    EXPECT_EQ(sql_trace::opened.size(), 4U) << "again for BEGIN, for the count and for END";
    EXPECT_EQ(count_of(read_file(log_path), "err = no such table: device_info\n"), 2U);
}

TEST_F(device_info_create, table_that_cannot_be_created_gets_no_index) {
    fail_statement("CREATE TEMPORARY TABLE");
    EXPECT_EQ(create_device_info_db(), -1);
    EXPECT_EQ(sql_trace::statements.back(), create_text);
    expect_log({{"ERROR", unit, "create_device_info_db", "create db failed: (null)\n"},
                {"WARN", unit, "create_device_info_db", closing(sql_trace::opened.back())}});
}

TEST_F(device_info_create, database_that_cannot_be_opened_gets_no_statement) {
    sql_trace::before_open = [](const std::string& path) {
        EXPECT_EQ(path, db_path);
        return SQLITE_CANTOPEN;
    };
    EXPECT_EQ(create_device_info_db(), -1);
    EXPECT_EQ(own_statements(), texts{});
    expect_log({{"ERROR", unit, "create_device_info_db", "rc NULL\n"}});
}

TEST_F(device_info, finish_closes_and_the_next_create_starts_empty) {
    ASSERT_EQ(insert(device("aa")), 0);
    sql_trace::statements.clear();
    EXPECT_EQ(finish_device_info_db(), 0);
    EXPECT_EQ(own_statements(), texts{"VACCUM device_info"});
    expect_log({{"WARN", unit, "finish_device_info_db", closing(sql_trace::opened.back())}});
    EXPECT_EQ(create_device_info_db(), 0);
    EXPECT_EQ(row_count(), "0");
}

TEST_F(device_info, optimize_runs_on_an_open_connection_only) {
    EXPECT_EQ(optimize_device_info_db(), 0);
    EXPECT_EQ(own_statements(), (texts{"PRAGMA optimize;", "PRAGMA shrink_memory;"}));
    finish_device_info_db();
    sql_trace::statements.clear();
    EXPECT_EQ(optimize_device_info_db(), 0);
    EXPECT_EQ(own_statements(), texts{});
    EXPECT_EQ(sql_trace::opened.size(), 1U);
}

// --- The INSERT's text --------------------------------------------------------------------------

TEST_F(device_info, insert_runs_its_text_in_the_transaction_frame) {
    EXPECT_EQ(insert(device("00:11:22:33:44:55")), 0);
    EXPECT_EQ(own_statements(),
              (texts{"BEGIN TRANSACTION;",
                     insert_text("ip 1", "00:11:22:33:44:55", "vossid 1", "user_id 1", "dev_name 1",
                                 "dev_uuid 1", "nic 1", "1700000001"),
                     count_text, "END TRANSACTION;"}));
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(device_info, empty_record_is_inserted_with_empty_texts) {
    db_device_info_data data = {};
    EXPECT_EQ(insert_device_info(&data), 0);
    EXPECT_EQ(sql_trace::statements[1], insert_text("", "", "", "", "", "", "", "0"));
    EXPECT_EQ(in_registry("SELECT quote(mac) || quote(dev_uuid) || time FROM device_info"),
              "''''0");
}

TEST_F(device_info, every_text_of_the_insert_has_its_quotes_doubled) {
    db_device_info_data data = {};
    fill_text(data.ip, "i'1");
    fill_text(data.mac, "'m'");
    fill_text(data.vossid, "v''");
    fill_text(data.user_id, "'u");
    fill_text(data.dev_name, "d'n");
    fill_text(data.dev_uuid, "'''");
    fill_text(data.nic, "n'");
    EXPECT_EQ(insert_device_info(&data), 0);
    EXPECT_EQ(sql_trace::statements[1],
              insert_text("i''1", "''m''", "v''''", "''u", "d''n", "''''''", "n''", "0"));
    EXPECT_EQ(in_registry("SELECT ip || mac || vossid || user_id || dev_name || dev_uuid || nic "
                          "FROM device_info"),
              "i'1'm'v'''ud'n'''n'");
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(device_info, array_without_its_nul_is_cut_at_1024_bytes) {
    db_device_info_data data;
    memset(&data, 'x', sizeof data);
    data.time = UINT64_MAX;
    const std::string x(1024, 'x');
    EXPECT_EQ(insert_device_info(&data), 0);
    EXPECT_EQ(sql_trace::statements[1], insert_text(x, x, x, x, x, x, x, "18446744073709551615"));
    EXPECT_EQ(in_registry("SELECT length(ip) || length(mac) || length(nic) FROM device_info"),
              "102410241024");
}

TEST_F(device_info, arrays_of_nothing_but_quotes_fit_into_the_statement) {
    db_device_info_data data;
    memset(&data, '\'', sizeof data);
    data.time = 1;
    EXPECT_EQ(insert_device_info(&data), 0);
    EXPECT_EQ(uuid_of(std::string(1024, '\'')), std::string(1024, '\''));
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(device_info, id_of_the_record_is_ignored_and_the_record_stays) {
    db_device_info_data data = device("aa");
    const db_device_info_data before = data;
    EXPECT_EQ(insert_device_info(&data), 0);
    EXPECT_EQ(in_registry("SELECT id FROM device_info"), "1");
    EXPECT_EQ(bytes_of_device(data), bytes_of_device(before));
}

TEST_F(device_info, percent_signs_are_text) {
    for (const char* text : {"%s", "%n", "100%", "%q%Q%z", "%%", "%lu"}) {
        db_device_info_data data = device(text, text);
        EXPECT_EQ(insert_device_info(&data), 0);
        EXPECT_EQ(uuid_of(text), data.dev_uuid);
    }
    EXPECT_EQ(read_file(log_path), "");
}

// --- The UUID that a mac keeps ------------------------------------------------------------------

TEST_F(device_info, new_mac_gets_the_uuid_that_is_offered) {
    EXPECT_EQ(insert(device("aa", "1")), 0);
    EXPECT_EQ(insert(device("bb", "22")), 0);
    EXPECT_EQ(uuid_of("aa"), "dev_uuid 1");
    EXPECT_EQ(uuid_of("bb"), "dev_uuid 22");
    EXPECT_EQ(row_count(), "2");
}

TEST_F(device_info, known_mac_keeps_its_uuid_in_a_new_row_with_the_new_fields) {
    EXPECT_EQ(insert(device("aa", "1")), 0);
    EXPECT_EQ(insert(device("bb", "22")), 0);
    EXPECT_EQ(insert(device("aa", "333")), 0);
    EXPECT_EQ(in_registry("SELECT count(*) FROM device_info WHERE mac = 'aa'"), "1");
    EXPECT_EQ(in_registry("SELECT id || ip || vossid || user_id || dev_name || dev_uuid || nic || "
                          "time FROM device_info WHERE mac = 'aa'"),
              "3ip 333vossid 333user_id 333dev_name 333dev_uuid 1nic 3331700000003");
    EXPECT_EQ(uuid_of("bb"), "dev_uuid 22");
}

TEST_F(device_info, known_mac_keeps_its_uuid_through_many_registrations) {
    for (size_t n = 1; n <= 50; ++n) EXPECT_EQ(insert(device("aa", std::string(n, 'n'))), 0);
    EXPECT_EQ(uuid_of("aa"), "dev_uuid n");
    EXPECT_EQ(in_registry("SELECT id FROM device_info"), "50");
}

TEST_F(device_info, empty_uuid_is_kept_too) {
    db_device_info_data without = device("aa");
    without.dev_uuid[0] = '\0';
    EXPECT_EQ(insert_device_info(&without), 0);
    EXPECT_EQ(insert(device("aa", "2")), 0);
    EXPECT_EQ(uuid_of("aa"), "");
}

// A null never comes from an insert of the store; the expression's words cover it.
TEST_F(device_info, mac_without_any_uuid_takes_the_offered_one) {
    sql_trace::run(sql_trace::opened.back(), "INSERT INTO device_info (mac) VALUES ('aa')");
    EXPECT_EQ(insert(device("aa", "2")), 0);
    EXPECT_EQ(uuid_of("aa"), "dev_uuid 2");
}

TEST_F(device_info, macs_are_told_apart_byte_for_byte) {
    for (const char* mac : {"aa", "AA", "aa ", " aa", "a", "aaa"}) {
        EXPECT_EQ(insert(device(mac, mac)), 0);
    }
    EXPECT_EQ(row_count(), "6");
    EXPECT_EQ(uuid_of("AA"), "dev_uuid AA");
    EXPECT_EQ(uuid_of("aa "), "dev_uuid aa ");
}

TEST_F(device_info, empty_mac_is_a_key_like_any_other) {
    EXPECT_EQ(insert(device("", "1")), 0);
    EXPECT_EQ(insert(device("", "2")), 0);
    EXPECT_EQ(row_count(), "1");
    EXPECT_EQ(uuid_of(""), "dev_uuid 1");
}

TEST_F(device_info, macs_are_the_same_by_their_first_1024_bytes) {
    EXPECT_EQ(insert(device(std::string(1025, 'a'), "1")), 0);
    EXPECT_EQ(insert(device(std::string(1024, 'a'), "2")), 0);
    EXPECT_EQ(row_count(), "1");
    EXPECT_EQ(uuid_of(std::string(1024, 'a')), "dev_uuid 1");
}

TEST_F(device_info, hostile_macs_are_stored_as_they_stand_and_keep_their_uuids) {
    const db_device_info_data bystander = device("bystander", "0");
    EXPECT_EQ(insert(bystander), 0);
    for (const char* round : {"first", "second"}) {
        for (const std::string& mac : hostile_texts) {
            db_device_info_data data = device(mac, round);
            if (std::string(round) == "first") fill_text(data.dev_uuid, mac);
            EXPECT_EQ(insert_device_info(&data), 0);
            EXPECT_EQ(uuid_of(mac), mac);
        }
    }
    EXPECT_EQ(row_count(), std::to_string(std::size(hostile_texts) + 1));
    EXPECT_EQ(uuid_of("bystander"), "dev_uuid 0");
    EXPECT_EQ(read_file(log_path), "") << "no statement failed";
}

// --- The end of an entry ------------------------------------------------------------------------

TEST_F(device_info, deleted_mac_gets_a_new_uuid) {
    EXPECT_EQ(insert(device("aa", "1")), 0);
    EXPECT_EQ(remove_device(1), 0);
    EXPECT_EQ(insert(device("aa", "2")), 0);
    EXPECT_EQ(uuid_of("aa"), "dev_uuid 2");
    EXPECT_EQ(in_registry("SELECT id FROM device_info"), "2") << "ids are not used again";
}

TEST_F(device_info, cleaned_mac_gets_a_new_uuid) {
    EXPECT_EQ(insert(device("aa", "1")), 0);
    EXPECT_EQ(clean_device_info(), 0);
    EXPECT_EQ(row_count(), "0");
    EXPECT_EQ(insert(device("aa", "2")), 0);
    EXPECT_EQ(uuid_of("aa"), "dev_uuid 2");
}

TEST_F(device_info, row_cap_of_101999_is_reached_without_a_trim) {
    seed_registry(101998);
    EXPECT_EQ(insert(device("new")), 0);
    EXPECT_EQ(sql_trace::statements.size(), 4U);
    EXPECT_EQ(row_count(), "101999");
    sql_trace::statements.clear();
    EXPECT_EQ(insert(device("m1", "2")), 0);
    EXPECT_EQ(sql_trace::statements.size(), 4U) << "a known mac adds no row";
    EXPECT_EQ(row_count(), "101999");
    EXPECT_EQ(uuid_of("m1"), "m1");
}

TEST_F(device_info, insert_past_the_row_cap_trims_the_2000_oldest_ids) {
    seed_registry(101999);
    EXPECT_EQ(insert(device("m1", "known")), 0);  // m1 is the newest now, and m2 the oldest
    sql_trace::statements.clear();
    EXPECT_EQ(insert(device("new")), 0);
    ASSERT_EQ(own_statements().size(), 5U);
    EXPECT_EQ(sql_trace::statements[3],
              "DELETE from device_info WHERE id IN (SELECT id from device_info LIMIT 2000);");
    EXPECT_EQ(row_count(), "100000");
    EXPECT_EQ(in_registry("SELECT min(id) FROM device_info"), "2002");
    EXPECT_EQ(uuid_of("m2001"), "(no row)");
    EXPECT_EQ(uuid_of("m2002"), "m2002");
    EXPECT_EQ(uuid_of("m1"), "m1");
    EXPECT_EQ(uuid_of("new"), "dev_uuid 1");
    EXPECT_EQ(insert(device("m2", "again")), 0);
    EXPECT_EQ(uuid_of("m2"), "dev_uuid again");
}

TEST_F(device_info, any_failed_statement_loses_the_registry) {
    EXPECT_EQ(insert(device("aa", "1")), 0);
    fail_statement("END TRANSACTION");
    EXPECT_EQ(insert(device("bb", "2")), 0);
    expect_log(failure("insert_device_info", "END TRANSACTION;", "(null)"));
    sql_trace::before_exec = nullptr;
    forget_log();
    EXPECT_EQ(insert(device("aa", "3")), 0);
    EXPECT_EQ(count_of(read_file(log_path), "err = no such table: device_info\n"), 2U);
    const page all(condition(0, -1));
    EXPECT_EQ(all.status, 0);
    EXPECT_EQ(all.result.count, 0U);
    EXPECT_EQ(all.result.total, UINT64_MAX);
    EXPECT_EQ(all.result.data, nullptr);
}

TEST_F(device_info, insert_of_which_each_statement_fails_in_turn_returns_0) {
    for (const char* statement : {"BEGIN", "INSERT", "SELECT Count", "END"}) {
        SCOPED_TRACE(statement);
        finish_device_info_db();
        ASSERT_EQ(create_device_info_db(), 0);
        forget_log();
        fail_statement(statement);
        EXPECT_EQ(insert(device("aa")), 0);
        sql_trace::before_exec = nullptr;
        EXPECT_GE(count_of(read_file(log_path), std::string("sql = ") + statement), 1U);
        EXPECT_EQ(count_of(read_file(log_path), " insert_device_info:"),
                  count_of(read_file(log_path), "\n"));
    }
}

// --- Delete and clean: one text that grows ------------------------------------------------------

TEST_F(device_info, first_delete_removes_its_row_only) {
    insert(device("aa"));
    insert(device("bb"));
    sql_trace::statements.clear();
    EXPECT_EQ(remove_device(1), 0);
    EXPECT_EQ(own_statements(), texts{"DELETE FROM device_info WHERE id = 1;"});
    EXPECT_EQ(uuid_of("aa"), "(no row)");
    EXPECT_EQ(row_count(), "1");
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(device_info, second_delete_has_the_condition_twice_and_costs_the_registry) {
    insert(device("aa"));
    EXPECT_EQ(remove_device(7), 0) << "an unknown id is no failure";
    sql_trace::statements.clear();
    EXPECT_EQ(remove_device(8), 0);
    const std::string text = "DELETE FROM device_info WHERE id = 8; WHERE id = 8;";
    EXPECT_EQ(own_statements(), texts{text});
    expect_log(failure("delete_device_info", text, "near \"WHERE\": syntax error"));
    sql_trace::statements.clear();
    EXPECT_EQ(remove_device(9), 0);
    EXPECT_EQ(own_statements(),
              texts{"DELETE FROM device_info WHERE id = 9; WHERE id = 9; WHERE id = 9;"});
    EXPECT_EQ(count_of(read_file(log_path), "err = no such table: device_info\n"), 1U);
}

TEST_F(device_info, delete_formats_the_id_without_a_sign) {
    EXPECT_EQ(remove_device(-1), 0);
    EXPECT_EQ(sql_trace::statements.back(),
              "DELETE FROM device_info WHERE id = 18446744073709551615;");
}

TEST_F(device_info, cleans_append_semicolons) {
    insert(device("aa"));
    sql_trace::statements.clear();
    EXPECT_EQ(clean_device_info(), 0);
    EXPECT_EQ(clean_device_info(), 0);
    EXPECT_EQ(own_statements(), (texts{"DELETE FROM device_info;", "DELETE FROM device_info;;"}));
    EXPECT_EQ(read_file(log_path), "") << "SQLite takes the second semicolon";
}

TEST_F(device_info, delete_after_a_clean_empties_the_table_first) {
    clean_device_info();
    insert(device("aa"));
    insert(device("bb"));
    sql_trace::statements.clear();
    EXPECT_EQ(remove_device(77), 0);
    const std::string text = "DELETE FROM device_info; WHERE id = 77;";
    EXPECT_EQ(own_statements(), texts{text});
    expect_log(failure("delete_device_info", text, "near \"WHERE\": syntax error"));
}

TEST_F(device_info, clean_after_a_delete_runs_the_unformatted_text_and_fails) {
    insert(device("aa"));
    remove_device(77);
    sql_trace::statements.clear();
    EXPECT_EQ(clean_device_info(), 0);
    const std::string text = "DELETE FROM device_info WHERE id = %lu;;";
    EXPECT_EQ(own_statements(), texts{text});
    EXPECT_EQ(count_of(read_file(log_path), "sql = " + text + ", err = "), 1U);
}

// --- Select -------------------------------------------------------------------------------------

TEST_F(device_info, select_reads_every_field_back) {
    db_device_info_data data = device("aa", "22");
    EXPECT_EQ(insert_device_info(&data), 0);
    data.id = 1;
    sql_trace::statements.clear();
    const page all(condition(0, 1));
    EXPECT_EQ(all.status, 0);
    ASSERT_EQ(all.result.count, 1U);
    EXPECT_EQ(all.result.total, 1U);
    EXPECT_EQ(bytes_of_device(all.result.data[0]), bytes_of_device(data));
    EXPECT_EQ(own_statements(),
              (texts{first_id_text,
                     "SELECT * FROM device_info WHERE  id >= 1 ORDER BY id ASC LIMIT 1 OFFSET 0;",
                     count_text}));
}

TEST_F(device_info, select_by_mac_doubles_its_quotes) {
    insert(device("a'a", "1"));
    insert(device("bb", "2"));
    sql_trace::statements.clear();
    db_query_cond cond = condition(0, 1);
    fill_text(cond.field, "mac");
    fill_text(cond.value, "a'a");
    const page found(cond);
    EXPECT_EQ(found.macs(), texts{"a'a"});
    EXPECT_EQ(found.result.total, 2U) << "the whole table";
    EXPECT_EQ(sql_trace::statements[1],
              "SELECT * FROM device_info WHERE mac = 'a''a' AND id >= 1 ORDER BY id ASC LIMIT 1 "
              "OFFSET 0;");
}

TEST_F(device_info, select_sorts_by_each_of_its_nine_columns) {
    insert(device("aa", "22"));
    insert(device("bb", "1"));
    const char* const names[] = {"id",       "ip",       "mac", "vossid", "user_id",
                                 "dev_name", "dev_uuid", "nic", "time"};
    for (int64_t n = 0; n < 9; ++n) {
        sql_trace::statements.clear();
        EXPECT_EQ(page(condition(0, -1, n)).status, 0);
        EXPECT_EQ(sql_trace::statements[1],
                  std::string("SELECT * FROM device_info WHERE  id >= 1 ORDER BY ") + names[n] +
                      " ASC LIMIT 100000 OFFSET 0;");
    }
    EXPECT_EQ(page(condition(0, -1, 2, 2)).macs(), (texts{"bb", "aa"}));
    EXPECT_EQ(page(condition(0, -1, 5, 0)).macs(), (texts{"bb", "aa"}));
    EXPECT_EQ(page(condition(1, -1)).macs(), texts{"bb"});
}

TEST_F(device_info, select_refuses_what_is_no_column_before_anything_else) {
    for (const int64_t order_by : {int64_t{9}, int64_t{-1}, INT64_MAX, INT64_MIN}) {
        const page refused(condition(0, 1, order_by));
        EXPECT_EQ(refused.status, -1);
        EXPECT_EQ(refused.result.data, nullptr);
        EXPECT_EQ(refused.result.total, 0U);
    }
    EXPECT_EQ(own_statements(), texts{});
}

TEST_F(device_info, select_sees_the_100000_newest_devices) {
    seed_registry(100050);
    const page first(condition(0, 1));
    EXPECT_EQ(first.macs(), texts{"m51"});
    EXPECT_EQ(first.result.total, 100000U);
    expect_log({{"WARN", unit, "select_device_info",
                 "total_count 100050 > maxium 100000, set total_count = 100000\n"}});
}
