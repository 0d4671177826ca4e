// The configuration table: its statements letter for letter, texts that stand in them as they are,
// a clock cut to 32 bits, and the daemon, which carries the module and calls none of it.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ravod_db_conf_handler.h"
#include "support/daemon.h"
#include "support/files.h"
#include "support/sql_trace.h"
#include "support/store.h"

namespace {
std::optional<time_t> stopped_clock;
}  // namespace

// In front of the module's own call.
extern "C" __attribute__((visibility("default"))) time_t time(time_t* place) noexcept {
    static const auto real_time = reinterpret_cast<time_t (*)(time_t*)>(dlsym(RTLD_NEXT, "time"));
    const time_t now = stopped_clock ? *stopped_clock : real_time(nullptr);
    if (place != nullptr) *place = now;
    return now;
}

namespace {

const std::string create_text =
    "CREATE  TABLE IF NOT EXISTS configuration (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, "
    "access_user TEXT, profile_name TEXT, server_address TEXT, username TEXT, action INTEGER, date "
    "DATETIME);";
const std::string insert_head =
    "INSERT OR REPLACE INTO configuration (access_user, profile_name, server_address, username, "
    "action, date) VALUES (";
const std::string begin = "BEGIN TRANSACTION;";
const std::string count = "SELECT Count(*) FROM configuration;";
const std::string trim =
    "DELETE from configuration WHERE id IN (SELECT id from configuration LIMIT 2000);";
const std::string end = "END TRANSACTION;";
const std::string no_transaction = "cannot commit - no transaction is active";

struct conf_values {
    const char* access_user = "Ann";
    const char* profile_name = "Office";
    const char* server_address = "192.0.2.1";
    const char* username = "ann";
    int32_t action = 3;
};

constexpr time_t some_time = 1700000000;

int insert(const conf_values& v) {
    return insert_conf_data(v.access_user, v.profile_name, v.server_address, v.username, v.action);
}

// The whole INSERT at some_time, whatever the texts hold.
std::string insert_text(const conf_values& v) {
    return insert_head + "'" + v.access_user + "', '" + v.profile_name + "', '" + v.server_address +
           "', '" + v.username + "', " + std::to_string(v.action) + ", 1700000000);";
}

// The four text columns, and values with a text in that column.
using place = std::pair<const char*, conf_values (*)(const char*)>;
constexpr place places[] = {
    {"access_user", [](const char* text) { return conf_values{.access_user = text}; }},
    {"profile_name", [](const char* text) { return conf_values{.profile_name = text}; }},
    {"server_address", [](const char* text) { return conf_values{.server_address = text}; }},
    {"username", [](const char* text) { return conf_values{.username = text}; }},
};

std::string in_table(const std::string& columns) {
    return sql_trace::value(db(), "SELECT " + columns + " FROM configuration ORDER BY id DESC");
}

// Read past the module, whose connection may be closed.
std::string rows() { return sql_trace::value_in_file("SELECT count(*) FROM configuration"); }

std::string whole_row() {
    return in_table(
        "access_user || '|' || profile_name || '|' || server_address || '|' || username || '|' || "
        "action || '|' || date");
}

class configuration : public testing::Test {
  protected:
    void SetUp() override {
        stopped_clock = some_time;
        ASSERT_EQ(create_conf_db(), 0);
        sql_trace::statements.clear();
    }
    ~configuration() override { EXPECT_EQ(finish_conf_db(), 0); }

    // Adds rows in bulk, past the module.
    static void seed(int rows) {
        ASSERT_EQ(sql_trace::run(db(),
                                 "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 "
                                 "FROM n WHERE i < " +
                                     std::to_string(rows) +
                                     ") INSERT INTO configuration (date) SELECT i FROM n"),
                  SQLITE_OK);
    }
};

// --- Create -------------------------------------------------------------------------------------

TEST(configuration_create, runs_the_pragmas_and_then_the_create_on_a_connection_of_its_own) {
    ASSERT_EQ(conn_server_log::create(), 0);
    sql_trace::statements.clear();
    std::string path;
    sql_trace::before_open = [&path](const std::string& file) {
        path = file;
        return SQLITE_OK;
    };
    EXPECT_EQ(create_conf_db(), 0);
    EXPECT_EQ(path, "/etc/config/ravo/ravo.db");
    EXPECT_EQ(sql_trace::opened.size(), 2U);
    EXPECT_EQ(
        sql_trace::statements,
        (texts{"PRAGMA page_size = 2048;", "PRAGMA synchronous = ON;", "PRAGMA auto_vacuum = FULL;",
               "PRAGMA journal_mode = OFF;", "PRAGMA default_cache_size = 10000;",
               "PRAGMA cache_size = 10000;", create_text}));
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(configuration, table_has_its_columns_in_order) {
    EXPECT_EQ(
        sql_trace::value(db(),
                         "SELECT group_concat(name || ' ' || type, ', ') FROM "
                         "pragma_table_info('configuration')"),
        "id INTEGER, access_user TEXT, profile_name TEXT, server_address TEXT, username TEXT, "
        "action INTEGER, date DATETIME");
}

TEST(configuration_create, without_the_directory_logs_rc_null) {
    std::filesystem::remove("/etc/config/ravo");
    EXPECT_EQ(create_conf_db(), -1);
    EXPECT_EQ(log_messages(), (texts{"ERROR rc NULL\n", closing(db())}));
    EXPECT_TRUE(sql_trace::statements.empty());
}

TEST(configuration_create, on_garbage_fails_with_the_error_of_sqlite) {
    write_file(db_path, std::string(8192, 'g'));
    EXPECT_EQ(create_conf_db(), -1);
    EXPECT_EQ(log_messages(),
              (texts{"ERROR create db failed: file is not a database\n", closing(db())}));
}

TEST(configuration_create, that_failed_leaves_a_module_that_opens_again) {
    stopped_clock = some_time;
    fail_statement("CREATE");
    EXPECT_EQ(create_conf_db(), -1);
    EXPECT_EQ(log_messages(), (texts{"ERROR create db failed: (null)\n", closing(db())}));
    sql_trace::clear();
    forget_log();
    EXPECT_EQ(insert({}), 0);
    ASSERT_EQ(sql_trace::statements, (texts{begin, insert_text({}), count, end}));
    EXPECT_EQ(log_messages()[0],
              "ERROR sql = " + insert_text({}) + ", err = no such table: configuration\n");
}

TEST_F(configuration, second_create_appends_the_columns_again) {
    EXPECT_EQ(create_conf_db(), -1);
    EXPECT_EQ(sql_trace::statements.back(),
              create_text + create_text.substr(create_text.find("UNIQUE") + 6));
    EXPECT_EQ(log_messages(),
              (texts{"ERROR create db failed: near \",\": syntax error\n", closing(db())}));
}

TEST_F(configuration, create_after_finish_builds_an_insert_that_sqlite_rejects) {
    EXPECT_EQ(finish_conf_db(), 0);
    sql_trace::statements.clear();
    EXPECT_EQ(create_conf_db(), 0);
    EXPECT_EQ(sql_trace::statements.back(), create_text);
    forget_log();
    sql_trace::statements.clear();
    EXPECT_EQ(insert({}), 0);
    std::string text = insert_text({});
    text.insert(text.find('(') + 1, ", ");
    text.insert(text.find("VALUES (") + 8, ", ");
    EXPECT_EQ(sql_trace::statements[1], text);
    EXPECT_EQ(log_messages()[0], "ERROR sql = " + text + ", err = near \",\": syntax error\n");
    EXPECT_EQ(rows(), "0");
}

// --- Insert -------------------------------------------------------------------------------------

TEST_F(configuration, insert_runs_its_four_statements_in_order) {
    EXPECT_EQ(insert({}), 0);
    EXPECT_EQ(sql_trace::statements,
              (texts{"BEGIN TRANSACTION;",
                     "INSERT OR REPLACE INTO configuration (access_user, profile_name, "
                     "server_address, username, action, date) VALUES ('Ann', 'Office', "
                     "'192.0.2.1', 'ann', 3, 1700000000);",
                     "SELECT Count(*) FROM configuration;", "END TRANSACTION;"}));
    EXPECT_EQ(sql_trace::opened.size(), 1U) << "on the connection of the create";
    EXPECT_EQ(whole_row(), "Ann|Office|192.0.2.1|ann|3|1700000000");
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(configuration, rows_are_numbered_and_stay_when_the_connection_is_closed) {
    for (int32_t n = 1; n <= 3; ++n) EXPECT_EQ(insert({.action = n * 10}), 0);
    EXPECT_EQ(finish_conf_db(), 0);
    EXPECT_EQ(sql_trace::value_in_file("SELECT group_concat(id || ' ' || action) FROM "
                                       "configuration"),
              "1 10,2 20,3 30");
}

TEST_F(configuration, action_is_a_number_of_32_bits) {
    for (const int32_t action : {INT_MIN, -1, 0, 1, INT_MAX}) {
        EXPECT_EQ(insert({.action = action}), 0);
        EXPECT_EQ(in_table("typeof(action) || ' ' || action"), "integer " + std::to_string(action));
    }
}

TEST_F(configuration, date_is_the_time_of_the_insert) {
    stopped_clock.reset();
    const time_t before = time(nullptr);
    EXPECT_EQ(insert({}), 0);
    const time_t after = time(nullptr);
    EXPECT_EQ(in_table("typeof(date)"), "integer");
    const int64_t date = std::stoll(in_table("date"));
    EXPECT_GE(date, before);
    EXPECT_LE(date, after);
}

TEST_F(configuration, date_is_the_clock_cut_to_32_bits) {
    const std::pair<time_t, const char*> cases[] = {
        {0, "0"},
        {some_time + 1, "1700000001"},
        {INT32_MAX, "2147483647"},
        {time_t{INT32_MAX} + 1, "-2147483648"},
        {time_t{UINT32_MAX}, "-1"},
        {time_t{UINT32_MAX} + 6, "5"},
        {-1, "-1"},
    };
    for (const auto& [now, date] : cases) {
        stopped_clock = now;
        sql_trace::statements.clear();
        EXPECT_EQ(insert({}), 0);
        EXPECT_EQ(sql_trace::statements[1],
                  insert_head + "'Ann', 'Office', '192.0.2.1', 'ann', 3, " + date + ");");
        EXPECT_EQ(in_table("date"), date);
    }
}

TEST_F(configuration, insert_opens_a_closed_connection_before_begin) {
    fail_statement("BEGIN");
    EXPECT_EQ(insert({}), 0);  // its failures close the connection
    sql_trace::clear();
    EXPECT_EQ(insert({}), 0);
    EXPECT_EQ(sql_trace::opened.size(), 1U);
    EXPECT_EQ(sql_trace::statements, (texts{begin, insert_text({}), count, end}));
}

TEST(configuration_insert, before_the_create_opens_nothing) {
    EXPECT_EQ(insert({}), 0);
    EXPECT_EQ(delete_conf_data(7), 0);
    EXPECT_TRUE(sql_trace::opened.empty());
    EXPECT_EQ(log_messages(),
              joined({failure(begin, "(null)", 21, nullptr), failure("", "(null)", 21, nullptr),
                      failure("SELECT Count(*) FROM ;", "(null)", 21, nullptr),
                      failure(end, "(null)", 21, nullptr),
                      failure(" WHERE id = 7;", "(null)", 21, nullptr)}));
    EXPECT_FALSE(std::filesystem::exists(db_path));
}

// --- The texts ----------------------------------------------------------------------------------

TEST_F(configuration, texts_without_a_quote_are_stored_as_they_are) {
    std::string all;
    for (int byte = 1; byte <= 255; ++byte) {
        if (byte != '\'') all += static_cast<char>(byte);
    }
    const std::string long_text(100000, 'x');
    for (const std::string& text :
         {std::string(), std::string("%"), std::string("%%"), std::string("%s%n%q%d%lu"),
          std::string("\\"), std::string("\"x\""), std::string("a; DROP TABLE configuration; --"),
          std::string("/*"), std::string("NULL"), std::string("12"), std::string(" \n\r\t"),
          std::string("\xc3\xa4\xe6\x97\xa5\xf0\x9f\x98\x80"), std::string("\xff"), all,
          long_text}) {
        for (const auto& [column, with] : places) {
            SCOPED_TRACE(column);
            SCOPED_TRACE(text.substr(0, 40));
            sql_trace::statements.clear();
            EXPECT_EQ(insert(with(text.c_str())), 0);
            EXPECT_TRUE(sql_trace::statements[1] == insert_text(with(text.c_str())));
            EXPECT_TRUE(in_table(column) == text);
            EXPECT_EQ(in_table(std::string("typeof(") + column + ")"), "text");
        }
    }
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(configuration, null_text_is_an_empty_one) {
    EXPECT_EQ(insert_conf_data(nullptr, nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(sql_trace::statements[1], insert_head + "'', '', '', '', 0, 1700000000);");
    EXPECT_EQ(whole_row(), "||||0|1700000000");
    for (const auto& [column, with] : places) {
        EXPECT_EQ(insert(with(nullptr)), 0);
        EXPECT_EQ(in_table(column), "");
    }
    EXPECT_EQ(rows(), "5");
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(configuration, four_long_texts_at_once_are_stored_whole) {
    const std::string text(100000, 'x');
    const conf_values values = {text.c_str(), text.c_str(), text.c_str(), text.c_str(), 1};
    EXPECT_EQ(insert(values), 0);
    EXPECT_EQ(in_table("length(access_user) + length(profile_name) + length(server_address) + "
                       "length(username)"),
              "400000");
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(configuration, statement_too_long_for_sqlite_is_a_logged_failure) {
    sqlite3_limit(db(), SQLITE_LIMIT_SQL_LENGTH, 50000);
    const std::string text(100000, 'x');
    EXPECT_EQ(insert({.profile_name = text.c_str()}), 0);
    ASSERT_FALSE(log_messages().empty());
    EXPECT_EQ(log_messages()[2], "ERROR RET = 18\n");
    EXPECT_EQ(rows(), "0");
    EXPECT_EQ(insert({}), 0);
    EXPECT_EQ(rows(), "1");
}

TEST_F(configuration, quote_in_any_text_fails_and_stores_nothing) {
    for (const auto& [column, with] : places) {
        SCOPED_TRACE(column);
        forget_log();
        sql_trace::statements.clear();
        const conf_values values = with("O'Hara");
        EXPECT_EQ(insert(values), 0);
        ASSERT_GE(sql_trace::opened.size(), 2U);
        sqlite3* const first = sql_trace::opened.end()[-2];
        EXPECT_EQ(sql_trace::statements, (texts{begin, insert_text(values), count, end}));
        EXPECT_EQ(log_messages(),
                  joined({failure(insert_text(values), "near \"Hara\": syntax error", 1, first),
                          failure(end, no_transaction, 1, db())}));
        EXPECT_EQ(rows(), "0");
    }
    forget_log();
    EXPECT_EQ(insert({}), 0);
    EXPECT_EQ(rows(), "1") << "the table goes on working";
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(configuration, unbalanced_quotes_store_nothing_wherever_they_stand) {
    for (const char* text : {"'", "'x", "x'", "'''", "a'b'c", "'; --"}) {
        for (const auto& [column, with] : places) {
            SCOPED_TRACE(column);
            SCOPED_TRACE(text);
            forget_log();
            EXPECT_EQ(insert(with(text)), 0);
            EXPECT_FALSE(log_messages().empty());
            EXPECT_EQ(rows(), "0");
        }
    }
}

// Deliberate: what the quotes of a text make of the statement is run.
TEST_F(configuration, quotes_that_make_sql_are_run_as_sql) {
    struct test_case {
        const char* profile_name;
        const char* row;
    };
    constexpr test_case cases[] = {
        {"it''s", "Ann|it's|192.0.2.1|ann|3|1700000000"},
        {"a' || 'b", "Ann|ab|192.0.2.1|ann|3|1700000000"},
        {"' || (1 + 2) || '", "Ann|3|192.0.2.1|ann|3|1700000000"},
        {"b', 'c', 'd', 5, 6); --", "Ann|b|c|d|5|6"},
    };
    for (const test_case& c : cases) {
        sql_trace::statements.clear();
        const conf_values values = {.profile_name = c.profile_name};
        EXPECT_EQ(insert(values), 0);
        EXPECT_EQ(sql_trace::statements[1], insert_text(values));
        EXPECT_EQ(whole_row(), c.row);
    }
    EXPECT_EQ(insert({.username = "x', 1, 2); UPDATE configuration SET action = 99; --"}), 0);
    EXPECT_EQ(in_table("group_concat(action)"), "99,99,99,99,99");
    EXPECT_EQ(read_file(log_path), "");
}

// --- The row cap --------------------------------------------------------------------------------

TEST_F(configuration, insert_at_101998_rows_leaves_101999_and_trims_nothing) {
    seed(101998);
    EXPECT_EQ(insert({}), 0);
    EXPECT_EQ(rows(), "101999");
    EXPECT_EQ(sql_trace::statements.size(), 4U);
}

TEST_F(configuration, insert_at_101999_rows_deletes_the_2000_oldest) {
    seed(101999);
    EXPECT_EQ(insert({}), 0);
    EXPECT_EQ(sql_trace::statements, (texts{begin, insert_text({}), count, trim, end}));
    EXPECT_EQ(in_table("count(*) || ' ' || min(id) || ' ' || max(id)"), "100000 2001 102000");
    EXPECT_EQ(in_table("access_user"), "Ann") << "the new row is there";
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(configuration, insert_whose_count_fails_skips_the_trim) {
    seed(102500);
    fail_statement("SELECT Count");
    EXPECT_EQ(insert({}), 0);
    EXPECT_EQ(sql_trace::statements, (texts{begin, insert_text({}), count, end}));
}

// --- Delete -------------------------------------------------------------------------------------

TEST_F(configuration, first_delete_takes_its_row_and_logs_nothing) {
    seed(3);
    EXPECT_EQ(delete_conf_data(2), 0);
    EXPECT_EQ(sql_trace::statements, texts{"DELETE FROM configuration WHERE id = 2;"});
    EXPECT_EQ(in_table("group_concat(id)"), "1,3");
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(configuration, delete_of_a_missing_row_is_no_failure) {
    seed(2);
    EXPECT_EQ(delete_conf_data(99), 0);
    EXPECT_EQ(rows(), "2");
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(configuration, each_further_delete_lengthens_the_text_and_takes_its_row) {
    seed(4);
    for (const int32_t id : {3, 1, 4}) EXPECT_EQ(delete_conf_data(id), 0);
    const std::string second = "DELETE FROM configuration WHERE id = 1; WHERE id = 1;";
    const std::string third = "DELETE FROM configuration WHERE id = 4; WHERE id = 4; WHERE id = 4;";
    EXPECT_EQ(sql_trace::statements,
              (texts{"DELETE FROM configuration WHERE id = 3;", second, third}));
    ASSERT_EQ(sql_trace::opened.size(), 2U);
    const std::string error = "near \"WHERE\": syntax error";
    EXPECT_EQ(log_messages(), joined({failure(second, error, 1, sql_trace::opened[0]),
                                      failure(third, error, 1, sql_trace::opened[1])}));
    EXPECT_EQ(sql_trace::value_in_file("SELECT group_concat(id) FROM configuration"), "2");
}

TEST(configuration_delete, writes_the_id_extended_to_64_bits_as_an_unsigned_number) {
    const std::pair<int32_t, std::string> cases[] = {
        {0, "0"},
        {INT_MAX, "2147483647"},
        {-1, "18446744073709551615"},
        {-2, "18446744073709551614"},
        {INT_MIN, "18446744071562067968"},
    };
    ASSERT_EQ(create_conf_db(), 0);
    ASSERT_EQ(
        sql_trace::run(db(), "INSERT INTO configuration (id) VALUES (-1), (-2), (-2147483648)"),
        SQLITE_OK);
    for (const auto& [id, number] : cases) {
        EXPECT_EQ(delete_conf_data(id), 0);
        const std::string& text = sql_trace::statements.back();
        EXPECT_EQ(text.substr(0, text.find(';')), "DELETE FROM configuration WHERE id = " + number);
    }
    EXPECT_EQ(rows(), "3") << "rows with negative numbers are out of reach";
}

// --- Finish -------------------------------------------------------------------------------------

TEST_F(configuration, finish_tries_to_vacuum_and_closes) {
    EXPECT_EQ(finish_conf_db(), 0);
    EXPECT_EQ(sql_trace::statements, texts{"VACCUM configuration"});
    EXPECT_EQ(log_messages(), texts{closing(db())});
    EXPECT_EQ(finish_conf_db(), 0);
    EXPECT_EQ(sql_trace::statements.size(), 1U) << "nothing is open any more";
    EXPECT_EQ(log_messages().size(), 1U);
}

TEST(configuration_finish, before_the_create_does_nothing) {
    EXPECT_EQ(finish_conf_db(), 0);
    EXPECT_TRUE(sql_trace::statements.empty());
    EXPECT_TRUE(sql_trace::opened.empty());
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(configuration, insert_after_finish_opens_the_kept_path_and_stores_nothing) {
    EXPECT_EQ(finish_conf_db(), 0);
    sql_trace::clear();
    forget_log();
    EXPECT_EQ(insert({}), 0);
    EXPECT_EQ(sql_trace::statements, (texts{begin, "", count, end}));
    EXPECT_EQ(sql_trace::opened.size(), 1U);
    EXPECT_EQ(rows(), "0");
    EXPECT_EQ(read_file(log_path), "") << "an empty text is no failure";
}

TEST_F(configuration, finish_keeps_the_delete_text) {
    seed(2);
    EXPECT_EQ(finish_conf_db(), 0);
    EXPECT_EQ(delete_conf_data(1), 0);
    EXPECT_EQ(sql_trace::statements.back(), "DELETE FROM configuration WHERE id = 1;");
    EXPECT_EQ(in_table("group_concat(id)"), "2");
}

// --- The log ------------------------------------------------------------------------------------

TEST_F(configuration, log_lines_carry_unit_place_and_operation) {
    struct test_case {
        const char* function;
        std::function<int()> call;
        int result;
    };
    const test_case cases[] = {
        {"create_conf_db", create_conf_db, -1},
        {"insert_conf_data", [] { return insert({}); }, 0},
        {"delete_conf_data", [] { return delete_conf_data(1); }, 0},
    };
    const texts source = split_lines(read_file(RAVO_SOURCES "/ravod_db_conf_handler.cpp"));
    const auto expect_lines = [&source](const std::string& function) {
        EXPECT_FALSE(read_log().empty());
        for (const log_entry& entry : read_log()) {
            EXPECT_EQ(entry.pid, getpid());
            EXPECT_EQ(entry.file, "ravod_db_conf_handler.cpp");
            EXPECT_EQ(entry.function, function);
            ASSERT_LE(static_cast<size_t>(entry.line), source.size());
            EXPECT_NE(source[static_cast<size_t>(entry.line - 1)].find("HERE"), std::string::npos);
        }
        forget_log();
    };
    EXPECT_EQ(finish_conf_db(), 0);
    expect_lines("finish_conf_db");
    fail_statement("");
    for (const test_case& c : cases) {
        EXPECT_EQ(c.call(), c.result);
        expect_lines(c.function);
    }
}

// --- The daemon ---------------------------------------------------------------------------------

TEST(configuration_in_the_daemon, is_carried) {
    process_options how;
    how.output = "/tmp/symbols";
    ASSERT_EQ(run_process({"/usr/bin/nm", "--demangle", "--defined-only", "--format=just-symbols",
                           ravod_path()},
                          how),
              0);
    const texts symbols = split_lines(read_file(how.output));
    for (const char* function :
         {"create_conf_db()", "delete_conf_data(int)", "finish_conf_db()",
          "insert_conf_data(char const*, char const*, char const*, char const*, int)"}) {
        EXPECT_EQ(std::count(symbols.begin(), symbols.end(), function), 1) << function;
    }
}

TEST(configuration_in_the_daemon, is_not_called) {
    ravod_process ravod;
    const std::string tables =
        "SELECT group_concat(name) FROM (SELECT name FROM sqlite_master WHERE type = 'table' ORDER "
        "BY name)";
    const std::string own = "conn_client_log,conn_server_log,privilege_user_block,sqlite_sequence";
    EXPECT_EQ(sql_trace::value_in_file(tables), own) << "no configuration and no event_log";
    EXPECT_EQ(ravod.stop(), 0);
    EXPECT_EQ(sql_trace::value_in_file(tables), own);
    EXPECT_EQ(count_of(read_file(log_path), "conf_handler"), 0U);
}

}  // namespace
