// What every table module does alike: create, insert, delete, clean, optimize, finish, and the
// guarded execution below them. Statements are seen on their way to SQLite, messages in the log.
#include "table_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/files.h"
#include "support/sql_trace.h"
#include "support/store.h"

namespace {

const texts pragmas = {
    "PRAGMA page_size = 2048;",           "PRAGMA synchronous = ON;",
    "PRAGMA auto_vacuum = FULL;",         "PRAGMA journal_mode = OFF;",
    "PRAGMA default_cache_size = 10000;", "PRAGMA cache_size = 10000;",
};
const std::string begin = "BEGIN TRANSACTION;";
const std::string end = "END TRANSACTION;";
const std::string no_transaction = "cannot commit - no transaction is active";

template <class Table>
class table_store : public testing::Test {
  protected:
    const std::string name = Table::name;
    const std::string count = "SELECT Count(*) FROM " + name + ";";
    const std::string trim =
        "DELETE from " + name + " WHERE id IN (SELECT id from " + name + " LIMIT 2000);";
    const std::string delete_head = "DELETE FROM " + name;
};
TYPED_TEST_SUITE(table_store, every_table, number_only);

// The same for what only a table in the database file can show.
template <class Table>
class stored_table : public table_store<Table> {};
TYPED_TEST_SUITE(stored_table, persistent_tables, number_only);

// --- Create -------------------------------------------------------------------------------------

TYPED_TEST(table_store, create_runs_the_pragmas_and_then_the_create) {
    std::string path;
    sql_trace::before_open = [&path](const std::string& file) {
        path = file;
        return SQLITE_OK;
    };
    EXPECT_EQ(TypeParam::create(), 0);
    EXPECT_EQ(path, "/etc/config/ravo/ravo.db");
    EXPECT_EQ(sql_trace::opened.size(), 1U);
    EXPECT_EQ(sql_trace::statements, joined({pragmas, {TypeParam::create_text}}));
    EXPECT_EQ(read_file(log_path), "");
}

TYPED_TEST(table_store, create_ignores_failed_pragmas) {
    fail_statement("PRAGMA");
    EXPECT_EQ(TypeParam::create(), 0);
    EXPECT_EQ(sql_trace::statements, joined({pragmas, {TypeParam::create_text}}));
    EXPECT_EQ(read_file(log_path), "");
    insert_sample<TypeParam>(1);
    EXPECT_EQ(row_count<TypeParam>(), "1");
}

TYPED_TEST(table_store, create_keeps_a_connection_that_is_open) {
    ASSERT_EQ(TypeParam::create(), 0);
    EXPECT_EQ(TypeParam::create(), -1) << "its text is longer by now, see below";
    EXPECT_EQ(sql_trace::opened.size(), 1U);
    EXPECT_EQ(sql_trace::statements.size(), 14U);
}

TYPED_TEST(table_store, create_without_the_directory_logs_rc_null) {
    std::filesystem::remove("/etc/config/ravo");
    EXPECT_EQ(TypeParam::create(), -1);
    EXPECT_EQ(log_messages(), (texts{"ERROR rc NULL\n", closing(db())}));
    EXPECT_TRUE(sql_trace::statements.empty());
    EXPECT_FALSE(std::filesystem::exists("/etc/config/ravo"));
}

TYPED_TEST(table_store, create_below_a_file_logs_rc_null) {
    std::filesystem::remove("/etc/config/ravo");
    write_file("/etc/config/ravo", "no directory");
    EXPECT_EQ(TypeParam::create(), -1);
    EXPECT_EQ(log_messages(), (texts{"ERROR rc NULL\n", closing(db())}));
}

TYPED_TEST(table_store, create_in_a_directory_without_write_permission_logs_rc_null) {
    chmod("/etc/config/ravo", 0555);
    EXPECT_EQ(TypeParam::create(), -1);
    EXPECT_EQ(log_messages(), (texts{"ERROR rc NULL\n", closing(db())}));
}

TYPED_TEST(table_store, create_without_a_handle_has_none_to_close) {
    sql_trace::before_open = [](const std::string&) { return SQLITE_NOMEM; };
    EXPECT_EQ(TypeParam::create(), -1);
    EXPECT_EQ(log_messages(), texts{"ERROR rc NULL\n"});
}

TYPED_TEST(table_store, create_that_failed_to_open_leaves_a_module_that_opens_later) {
    std::filesystem::rename("/etc/config/ravo", "/etc/config/away");
    EXPECT_EQ(TypeParam::create(), -1);
    std::filesystem::rename("/etc/config/away", "/etc/config/ravo");
    sql_trace::clear();
    EXPECT_EQ(TypeParam::clean(), 0);
    EXPECT_EQ(sql_trace::opened.size(), 1U);
    EXPECT_EQ(sql_trace::statements, texts{this->delete_head + ";"});
}

TYPED_TEST(table_store, failed_create_is_logged_and_closes) {
    fail_statement("CREATE");
    EXPECT_EQ(TypeParam::create(), -1);
    EXPECT_EQ(log_messages(), (texts{"ERROR create db failed: (null)\n", closing(db())}));
    sql_trace::before_exec = nullptr;
    insert_sample<TypeParam>(1);
    EXPECT_GT(sql_trace::opened.size(), 1U);
}

TYPED_TEST(table_store, create_on_garbage_fails_with_the_error_of_sqlite) {
    write_file(db_path, std::string(8192, 'g'));
    EXPECT_EQ(TypeParam::create(), -1);
    EXPECT_EQ(log_messages(),
              (texts{"ERROR create db failed: file is not a database\n", closing(db())}));
    EXPECT_EQ(sql_trace::statements, joined({pragmas, {TypeParam::create_text}}));
    EXPECT_EQ(read_file(db_path), std::string(8192, 'g'));
}

TYPED_TEST(table_store, insert_on_garbage_fails_with_code_26_and_returns_0) {
    write_file(db_path, std::string(8192, 'g'));
    EXPECT_EQ(TypeParam::create(), -1);
    const size_t before = log_messages().size();
    insert_sample<TypeParam>(1);
    texts log = log_messages();
    log.erase(log.begin(), log.begin() + static_cast<std::ptrdiff_t>(before));
    ASSERT_EQ(log.size(), 9U);
    EXPECT_EQ(log[2], "ERROR RET = 26\n");
    EXPECT_EQ(log[3], "ERROR sql = " + this->count + ", err = file is not a database\n");
    EXPECT_EQ(log[5], "ERROR RET = 26\n");
    EXPECT_EQ(log[6], "ERROR sql = " + end + ", err = " + no_transaction + "\n");
}

TYPED_TEST(table_store, create_keeps_the_rows_that_another_process_stored) {
    const pid_t child = fork();
    if (child == 0) {
        TypeParam::create();
        insert_sample<TypeParam>(1);
        TypeParam::finish();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    start<TypeParam>();
    EXPECT_EQ(row_count<TypeParam>(), TypeParam::temporary ? "0" : "1");
}

// --- Repeated create ----------------------------------------------------------------------------

TYPED_TEST(table_store, second_create_appends_the_columns_again) {
    start<TypeParam>();
    EXPECT_EQ(TypeParam::create(), -1);
    std::string whole = TypeParam::create_text;
    const size_t columns = whole.find("UNIQUE") + 6;
    EXPECT_EQ(sql_trace::statements.back(), whole + whole.substr(columns));
    EXPECT_EQ(log_messages(),
              (texts{"ERROR create db failed: near \",\": syntax error\n", closing(db())}));
}

TYPED_TEST(stored_table, insert_after_a_second_create_names_each_column_twice) {
    start<TypeParam>();
    EXPECT_EQ(TypeParam::create(), -1);
    forget_log();
    sql_trace::clear();
    insert_sample<TypeParam>(1);
    const std::string once = insert_text<TypeParam>(sample<TypeParam>(1));
    const size_t open = once.find('(') + 1;
    const size_t close = once.find(')');
    const size_t values = once.find('(', close) + 1;
    const std::string names = once.substr(open, close - open);
    const std::string data = once.substr(values, once.size() - 2 - values);
    EXPECT_EQ(sql_trace::statements[1], "INSERT OR REPLACE INTO " + this->name + " (" + names +
                                            ", " + names + ") VALUES (" + data + ", " + data +
                                            ");");
    EXPECT_EQ(read_file(log_path), "");
    const page<TypeParam> stored;
    ASSERT_EQ(stored.count(), 1U);
    EXPECT_EQ(values_of<TypeParam>(stored.rows()[0]), values_of<TypeParam>(sample<TypeParam>(1)));
}

TYPED_TEST(table_store, second_create_doubles_the_range_of_order_by) {
    const int64_t columns = 1 + static_cast<int64_t>(std::size(TypeParam::fields));
    start<TypeParam>();
    EXPECT_EQ(TypeParam::create(), -1);
    EXPECT_EQ(page<TypeParam>({.order_by = columns}).status, 0);
    EXPECT_EQ(page<TypeParam>({.order_by = 2 * columns - 2}).status, 0);
    EXPECT_EQ(page<TypeParam>({.order_by = 2 * columns - 1}).status, -1);
}

TYPED_TEST(table_store, forty_creates_stay_within_the_buffers) {
    ASSERT_EQ(TypeParam::create(), 0);
    for (int n = 2; n <= 40; ++n) EXPECT_EQ(TypeParam::create(), -1) << n;
    const texts log = log_messages();
    ASSERT_EQ(log.size(), 78U) << "two lines for each failure";
    EXPECT_EQ(log[76], "ERROR create db failed: too many columns for the statement buffers\n");
    for (const std::string& text : sql_trace::statements) EXPECT_LT(text.size(), 4096U);
    EXPECT_EQ(page<TypeParam>({.order_by = 127}).status, 0);
    EXPECT_EQ(page<TypeParam>({.order_by = 128}).status, -1);
    insert_sample<TypeParam>(1);
    EXPECT_EQ(TypeParam::finish(), 0);
}

TYPED_TEST(table_store, create_after_finish_builds_an_insert_that_sqlite_rejects) {
    start<TypeParam>();
    EXPECT_EQ(TypeParam::finish(), 0);
    sql_trace::clear();
    EXPECT_EQ(TypeParam::create(), 0);
    EXPECT_EQ(sql_trace::statements, joined({pragmas, {TypeParam::create_text}}));
    sql_trace::statements.clear();
    forget_log();
    insert_sample<TypeParam>(1);
    std::string text = insert_text<TypeParam>(sample<TypeParam>(1));
    text.insert(text.find('(') + 1, ", ");
    text.insert(text.find("VALUES (") + 8, ", ");
    EXPECT_EQ(sql_trace::statements[1], text);
    EXPECT_EQ(log_messages()[0], "ERROR sql = " + text + ", err = near \",\": syntax error\n");
}

TYPED_TEST(table_store, create_after_finish_counts_the_columns_again) {
    const int64_t columns = 1 + static_cast<int64_t>(std::size(TypeParam::fields));
    start<TypeParam>();
    EXPECT_EQ(TypeParam::finish(), 0);
    EXPECT_EQ(TypeParam::create(), 0);
    sql_trace::statements.clear();
    EXPECT_EQ(page<TypeParam>({.order_by = columns}).status, 0);
    EXPECT_NE(sql_trace::statements[1].find(" ORDER BY id ASC "), std::string::npos);
    EXPECT_EQ(page<TypeParam>({.order_by = 2 * columns - 1}).status, 0);
    EXPECT_EQ(page<TypeParam>({.order_by = 2 * columns}).status, -1);
}

TYPED_TEST(table_store, forty_creates_with_finish_between_stay_within_the_buffers) {
    int succeeded = 0;
    for (int n = 0; n < 40; ++n) {
        succeeded += TypeParam::create() == 0 ? 1 : 0;
        EXPECT_EQ(TypeParam::finish(), 0);
    }
    const size_t columns = 1 + std::size(TypeParam::fields);
    EXPECT_EQ(succeeded, static_cast<int>(128 / columns));
    EXPECT_EQ(page<TypeParam>({.order_by = 128}).status, -1);
    EXPECT_EQ(TypeParam::create(), -1);
    EXPECT_EQ(log_messages()[log_messages().size() - 2],
              "ERROR create db failed: too many columns for the statement buffers\n");
}

// --- Insert -------------------------------------------------------------------------------------

TYPED_TEST(table_store, insert_runs_its_four_statements_in_order) {
    start<TypeParam>();
    insert_sample<TypeParam>(1);
    EXPECT_EQ(sql_trace::statements,
              (texts{begin, insert_text<TypeParam>(sample<TypeParam>(1)), this->count, end}));
    EXPECT_EQ(sql_trace::opened.size(), 1U) << "on the connection of the create";
    EXPECT_EQ(read_file(log_path), "");
}

TYPED_TEST(table_store, insert_ignores_the_id_of_the_record) {
    start<TypeParam>();
    insert_sample<TypeParam>(1);
    insert_sample<TypeParam>(2);
    EXPECT_EQ(page<TypeParam>().ids(), (std::vector<int64_t>{1, 2}));
}

TYPED_TEST(table_store, insert_opens_a_closed_connection_before_begin) {
    start<TypeParam>();
    drop_connection<TypeParam>();
    sql_trace::opened.clear();
    std::vector<size_t> opened_before;
    sql_trace::before_exec = [&opened_before](const std::string&) {
        opened_before.push_back(sql_trace::opened.size());
        return SQLITE_OK;
    };
    insert_sample<TypeParam>(1);
    ASSERT_FALSE(opened_before.empty());
    EXPECT_EQ(opened_before[0], 1U);
    EXPECT_EQ(sql_trace::statements[0], begin) << "no PRAGMA and no CREATE comes before it";
}

TYPED_TEST(stored_table, insert_on_a_reopened_connection_stores_the_row) {
    start<TypeParam>();
    drop_connection<TypeParam>();
    insert_sample<TypeParam>(1);
    EXPECT_EQ(row_count<TypeParam>(), "1");
    EXPECT_EQ(read_file(log_path), "");
}

TYPED_TEST(table_store, insert_at_101998_rows_leaves_101999_and_trims_nothing) {
    start<TypeParam>();
    seed<TypeParam>(101998);
    insert_sample<TypeParam>(1);
    EXPECT_EQ(row_count<TypeParam>(), "101999");
    EXPECT_EQ(sql_trace::statements.size(), 4U);
}

TYPED_TEST(table_store, insert_at_101999_rows_deletes_the_2000_oldest) {
    start<TypeParam>();
    seed<TypeParam>(101999);
    insert_sample<TypeParam>(1);
    EXPECT_EQ(sql_trace::statements, (texts{begin, insert_text<TypeParam>(sample<TypeParam>(1)),
                                            this->count, this->trim, end}));
    EXPECT_EQ(row_count<TypeParam>(), "100000");
    EXPECT_EQ(sql_trace::value(db(), "SELECT min(id) || ' ' || max(id) FROM " + this->name),
              "2001 102000");
    insert_sample<TypeParam>(2);
    EXPECT_EQ(row_count<TypeParam>(), "100001");
}

TYPED_TEST(table_store, insert_far_above_the_cap_still_deletes_2000) {
    start<TypeParam>();
    seed<TypeParam>(105000);
    insert_sample<TypeParam>(1);
    EXPECT_EQ(row_count<TypeParam>(), "103001");
}

TYPED_TEST(stored_table, insert_whose_count_fails_skips_the_trim) {
    start<TypeParam>();
    seed<TypeParam>(102500);
    fail_statement("SELECT Count");
    insert_sample<TypeParam>(1);
    EXPECT_EQ(sql_trace::statements,
              (texts{begin, insert_text<TypeParam>(sample<TypeParam>(1)), this->count, end}));
}

TYPED_TEST(stored_table, insert_whose_begin_fails_stores_the_row_outside_a_transaction) {
    start<TypeParam>();
    sqlite3* const first = db();
    fail_statement(begin);
    insert_sample<TypeParam>(1);
    EXPECT_EQ(sql_trace::value_in_file("SELECT count(*) FROM " + this->name), "1");
    EXPECT_EQ(log_messages(),
              joined({failure(begin, "(null)", 1, first), failure(end, no_transaction, 1, db())}));
}

TYPED_TEST(stored_table, insert_that_fails_ends_its_transaction) {
    start<TypeParam>();
    sqlite3* const first = db();
    const std::string text = insert_text<TypeParam>(sample<TypeParam>(1));
    fail_statement("INSERT", SQLITE_FULL);
    insert_sample<TypeParam>(1);
    ASSERT_EQ(sql_trace::opened.size(), 2U);
    EXPECT_EQ(log_messages(),
              joined({failure(text, "(null)", 13, first), failure(end, no_transaction, 1, db())}));
    EXPECT_EQ(sql_trace::statements, (texts{begin, text, this->count, end}));
    EXPECT_EQ(sql_trace::value_in_file("SELECT count(*) FROM " + this->name), "0");
}

TYPED_TEST(stored_table, insert_whose_trim_fails_goes_on) {
    start<TypeParam>();
    seed<TypeParam>(101999);
    sqlite3* const first = db();
    fail_statement("DELETE");
    insert_sample<TypeParam>(1);
    EXPECT_EQ(log_messages(), joined({failure(this->trim, "(null)", 1, first),
                                      failure(end, no_transaction, 1, db())}));
}

TYPED_TEST(stored_table, insert_whose_end_fails_returns_0) {
    start<TypeParam>();
    sqlite3* const first = db();
    fail_statement(end, SQLITE_IOERR);
    insert_sample<TypeParam>(1);
    EXPECT_EQ(log_messages(), failure(end, "(null)", 10, first));
    sql_trace::before_exec = nullptr;
    insert_sample<TypeParam>(2);
    EXPECT_EQ(log_messages().size(), 3U) << "the next one works";
}

TYPED_TEST(table_store, insert_without_the_directory_logs_each_statement) {
    start<TypeParam>();
    drop_connection<TypeParam>();
    std::filesystem::rename("/etc/config/ravo", "/etc/config/away");
    sql_trace::opened.clear();
    insert_sample<TypeParam>(1);
    ASSERT_EQ(sql_trace::opened.size(), 4U) << "each statement tries to open";
    texts expected;
    for (size_t n = 0; n < 4; ++n) {
        expected.push_back("ERROR open db failed, unable to open database file\n");
        expected.push_back(closing(sql_trace::opened[n]));
        expected = joined({expected, failure(sql_trace::statements[n], "(null)", 21, nullptr)});
    }
    EXPECT_EQ(log_messages(), expected);
}

TYPED_TEST(table_store, insert_without_a_handle_has_none_to_close) {
    start<TypeParam>();
    drop_connection<TypeParam>();
    sql_trace::before_open = [](const std::string&) { return SQLITE_NOMEM; };
    EXPECT_EQ(TypeParam::clean(), 0);
    EXPECT_EQ(log_messages(), joined({{"ERROR open db failed, out of memory\n"},
                                      failure(this->delete_head + ";", "(null)", 21, nullptr)}));
}

TYPED_TEST(table_store, insert_before_the_create_opens_nothing) {
    insert_sample<TypeParam>(1);
    EXPECT_TRUE(sql_trace::opened.empty());
    texts expected;
    for (const std::string& text : {begin, std::string(), this->count, end}) {
        const bool counts = text == this->count;
        expected = joined(
            {expected, failure(counts ? "SELECT Count(*) FROM ;" : text, "(null)", 21, nullptr)});
    }
    EXPECT_EQ(log_messages(), expected);
    EXPECT_FALSE(std::filesystem::exists(db_path));
}

TYPED_TEST(table_store, log_lines_carry_unit_place_and_operation) {
    start<TypeParam>();
    fail_statement("SELECT");
    insert_sample<TypeParam>(1);
    const std::vector<log_entry> log = read_log();
    ASSERT_FALSE(log.empty());
    const texts source = split_lines(read_file(std::string(RAVO_SOURCES) + "/" + TypeParam::unit));
    for (const log_entry& entry : log) {
        EXPECT_EQ(entry.pid, getpid());
        EXPECT_EQ(entry.file, TypeParam::unit);
        EXPECT_EQ(entry.function, "insert_" + this->name);
        ASSERT_LE(static_cast<size_t>(entry.line), source.size());
        EXPECT_NE(source[static_cast<size_t>(entry.line - 1)].find("HERE"), std::string::npos);
    }
    EXPECT_TRUE(read_file(log_path).starts_with(std::to_string(getpid()) + " [ERROR] " +
                                                TypeParam::unit + " ["));
}

TYPED_TEST(table_store, each_operation_logs_in_its_own_name) {
    start<TypeParam>();
    fail_statement("", SQLITE_ERROR);
    const auto function_of = [](auto operation) {
        forget_log();
        operation();
        const std::vector<log_entry> log = read_log();
        return log.empty() ? "(nothing)" : log[0].function;
    };
    EXPECT_EQ(function_of([] { remove_row<TypeParam>(1); }), "delete_" + this->name);
    EXPECT_EQ(function_of([] { TypeParam::clean(); }), "clean_" + this->name);
    EXPECT_EQ(function_of([] { page<TypeParam>(); }), "select_" + this->name);
    EXPECT_EQ(function_of([] { TypeParam::create(); }), "create_" + this->name + "_db");
    sql_trace::before_exec = nullptr;
    EXPECT_EQ(function_of([] {
                  (void)page<TypeParam>().status;  // opens the connection
                  forget_log();
                  TypeParam::finish();
              }),
              TypeParam::temporary ? "(nothing)" : "finish_" + this->name + "_db");
}

// --- A temporary table --------------------------------------------------------------------------

class temporary_table : public testing::Test {
  protected:
    void SetUp() override {
        start<server_list>();
        insert_sample<server_list>(1);
        drop_connection<server_list>();
        sql_trace::opened.clear();
    }
    const std::string missing = "no such table: server_list";
};

TEST_F(temporary_table, is_not_recreated_for_an_insert) {
    insert_sample<server_list>(2);
    const std::string text = insert_text<server_list>(sample<server_list>(2));
    const std::string count = "SELECT Count(*) FROM server_list;";
    EXPECT_EQ(sql_trace::statements, (texts{begin, text, count, end}));
    ASSERT_EQ(sql_trace::opened.size(), 3U);
    EXPECT_EQ(log_messages(), joined({failure(text, missing, 1, sql_trace::opened[0]),
                                      failure(count, missing, 1, sql_trace::opened[1]),
                                      failure(end, no_transaction, 1, sql_trace::opened[2])}));
}

TEST_F(temporary_table, is_not_recreated_for_a_delete) {
    EXPECT_EQ(remove_row<server_list>(1), 0);
    EXPECT_EQ(log_messages(), failure("DELETE FROM server_list WHERE id = 1;", missing, 1, db()));
}

TEST_F(temporary_table, is_not_recreated_for_a_clean) {
    EXPECT_EQ(server_list::clean(), 0);
    EXPECT_EQ(log_messages(), failure("DELETE FROM server_list;", missing, 1, db()));
}

TEST_F(temporary_table, is_not_recreated_for_a_query) {
    const page<server_list> result;
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.count(), 0U);
    EXPECT_EQ(result.total(), UINT64_MAX);
    ASSERT_EQ(sql_trace::statements.size(), 3U);
    texts expected;
    for (size_t n = 0; n < 3; ++n) {
        expected =
            joined({expected, failure(sql_trace::statements[n], missing, 1, sql_trace::opened[n])});
    }
    EXPECT_EQ(log_messages(), expected);
}

TEST_F(temporary_table, leaves_no_trace_in_the_file) {
    EXPECT_EQ(sql_trace::value_in_file("SELECT count(*) FROM sqlite_master"), "0");
}

// --- Delete and clean ---------------------------------------------------------------------------

TYPED_TEST(table_store, first_delete_takes_its_row_and_logs_nothing) {
    start<TypeParam>();
    seed<TypeParam>(3);
    EXPECT_EQ(remove_row<TypeParam>(2), 0);
    EXPECT_EQ(sql_trace::statements, texts{this->delete_head + " WHERE id = 2;"});
    EXPECT_EQ(page<TypeParam>().ids(), (std::vector<int64_t>{1, 3}));
    EXPECT_EQ(read_file(log_path), "");
}

TYPED_TEST(table_store, delete_of_a_missing_row_is_no_failure) {
    start<TypeParam>();
    seed<TypeParam>(2);
    EXPECT_EQ(remove_row<TypeParam>(99), 0);
    EXPECT_EQ(row_count<TypeParam>(), "2");
    EXPECT_EQ(read_file(log_path), "");
}

TYPED_TEST(table_store, delete_writes_the_id_as_an_unsigned_number) {
    start<TypeParam>();
    EXPECT_EQ(remove_row<TypeParam>(-1), 0);
    EXPECT_EQ(sql_trace::statements,
              texts{this->delete_head + " WHERE id = 18446744073709551615;"});
}

TYPED_TEST(table_store, second_delete_runs_the_suffix_twice) {
    start<TypeParam>();
    seed<TypeParam>(3);
    sqlite3* const first = db();
    EXPECT_EQ(remove_row<TypeParam>(1), 0);
    EXPECT_EQ(remove_row<TypeParam>(3), 0);
    const std::string text = this->delete_head + " WHERE id = 3; WHERE id = 3;";
    EXPECT_EQ(sql_trace::statements.back(), text);
    EXPECT_EQ(log_messages(), failure(text, "near \"WHERE\": syntax error", 1, first));
}

TYPED_TEST(stored_table, second_delete_takes_its_row) {
    start<TypeParam>();
    seed<TypeParam>(3);
    EXPECT_EQ(remove_row<TypeParam>(1), 0);
    EXPECT_EQ(remove_row<TypeParam>(3), 0);
    EXPECT_EQ(page<TypeParam>().ids(), std::vector<int64_t>{2});
}

TYPED_TEST(table_store, clean_deletes_every_row) {
    start<TypeParam>();
    seed<TypeParam>(3);
    EXPECT_EQ(TypeParam::clean(), 0);
    EXPECT_EQ(sql_trace::statements, texts{this->delete_head + ";"});
    EXPECT_EQ(row_count<TypeParam>(), "0");
    EXPECT_EQ(read_file(log_path), "");
}

TYPED_TEST(table_store, second_clean_has_one_more_semicolon_and_works) {
    start<TypeParam>();
    EXPECT_EQ(TypeParam::clean(), 0);
    seed<TypeParam>(3);
    EXPECT_EQ(TypeParam::clean(), 0);
    EXPECT_EQ(sql_trace::statements.back(), this->delete_head + ";;");
    EXPECT_EQ(row_count<TypeParam>(), "0");
    EXPECT_EQ(read_file(log_path), "");
}

TYPED_TEST(stored_table, clean_after_a_delete_is_rejected_and_takes_nothing) {
    start<TypeParam>();
    seed<TypeParam>(3);
    sqlite3* const first = db();
    EXPECT_EQ(remove_row<TypeParam>(1), 0);
    EXPECT_EQ(TypeParam::clean(), 0);
    const std::string text = this->delete_head + " WHERE id = %lu;;";
    EXPECT_EQ(sql_trace::statements.back(), text);
    EXPECT_EQ(log_messages(), failure(text, "near \"%\": syntax error", 1, first));
    EXPECT_EQ(page<TypeParam>().ids(), (std::vector<int64_t>{2, 3}));
}

TYPED_TEST(stored_table, delete_after_a_clean_takes_every_row) {
    start<TypeParam>();
    EXPECT_EQ(TypeParam::clean(), 0);
    seed<TypeParam>(3);
    sqlite3* const first = db();
    EXPECT_EQ(remove_row<TypeParam>(2), 0);
    const std::string text = this->delete_head + "; WHERE id = 2;";
    EXPECT_EQ(sql_trace::statements.back(), text);
    EXPECT_EQ(log_messages(), failure(text, "near \"WHERE\": syntax error", 1, first));
    EXPECT_EQ(page<TypeParam>().count(), 0U);
}

TYPED_TEST(stored_table, three_hundred_deletes_fill_the_buffer_and_take_their_rows) {
    start<TypeParam>();
    seed<TypeParam>(301);
    for (int64_t id = 1; id <= 300; ++id) EXPECT_EQ(remove_row<TypeParam>(id), 0);
    const size_t suffixes = (4095 - this->delete_head.size()) / strlen(" WHERE id = %lu;");
    std::string text = this->delete_head;
    for (size_t n = 0; n < suffixes; ++n) text += " WHERE id = 300;";
    EXPECT_EQ(sql_trace::statements.back(), text);
    EXPECT_EQ(page<TypeParam>().ids(), std::vector<int64_t>{301});
}

TYPED_TEST(table_store, cleans_fill_the_buffer_to_its_last_byte) {
    start<TypeParam>();
    for (int n = 0; n < 5000; ++n) EXPECT_EQ(TypeParam::clean(), 0);
    EXPECT_EQ(sql_trace::statements.back(),
              this->delete_head + std::string(4095 - this->delete_head.size(), ';'));
    EXPECT_EQ(read_file(log_path), "");
    EXPECT_EQ(remove_row<TypeParam>(1), 0);
    EXPECT_EQ(sql_trace::statements.back().size(), 4095U) << "no room for a suffix";
}

TYPED_TEST(table_store, delete_and_clean_before_the_create_open_nothing) {
    EXPECT_EQ(remove_row<TypeParam>(7), 0);
    EXPECT_EQ(TypeParam::clean(), 0);
    EXPECT_TRUE(sql_trace::opened.empty());
    EXPECT_EQ(log_messages(), joined({failure(" WHERE id = 7;", "(null)", 21, nullptr),
                                      failure(" WHERE id = %lu;;", "(null)", 21, nullptr)}));
}

// --- Optimize and finish ------------------------------------------------------------------------

TYPED_TEST(table_store, optimize_runs_two_pragmas) {
    start<TypeParam>();
    EXPECT_EQ(TypeParam::optimize(), 0);
    EXPECT_EQ(sql_trace::statements, (texts{"PRAGMA optimize;", "PRAGMA shrink_memory;"}));
}

TYPED_TEST(table_store, optimize_ignores_failures) {
    start<TypeParam>();
    fail_statement("PRAGMA");
    EXPECT_EQ(TypeParam::optimize(), 0);
    EXPECT_EQ(sql_trace::statements, (texts{"PRAGMA optimize;", "PRAGMA shrink_memory;"}));
    EXPECT_EQ(read_file(log_path), "");
    sql_trace::before_exec = nullptr;
    insert_sample<TypeParam>(1);
    EXPECT_EQ(sql_trace::opened.size(), 1U) << "the connection is still open";
}

TYPED_TEST(table_store, optimize_never_opens_the_database) {
    EXPECT_EQ(TypeParam::optimize(), 0);
    start<TypeParam>();
    drop_connection<TypeParam>();
    sql_trace::opened.clear();
    EXPECT_EQ(TypeParam::optimize(), 0);
    EXPECT_TRUE(sql_trace::opened.empty());
    EXPECT_TRUE(sql_trace::statements.empty());
}

TYPED_TEST(table_store, finish_tries_to_vacuum_and_closes) {
    start<TypeParam>();
    EXPECT_EQ(TypeParam::finish(), 0);
    EXPECT_EQ(sql_trace::statements, texts{"VACCUM " + this->name});
    EXPECT_EQ(log_messages(), texts{closing(db())});
    EXPECT_EQ(read_log()[0].function, "finish_" + this->name + "_db");
}

TYPED_TEST(table_store, finish_twice_closes_once) {
    start<TypeParam>();
    EXPECT_EQ(TypeParam::finish(), 0);
    EXPECT_EQ(TypeParam::finish(), 0);
    EXPECT_EQ(sql_trace::statements.size(), 1U);
    EXPECT_EQ(log_messages().size(), 1U);
}

TYPED_TEST(table_store, finish_of_a_closed_connection_only_empties_the_texts) {
    start<TypeParam>();
    drop_connection<TypeParam>();
    sql_trace::opened.clear();
    EXPECT_EQ(TypeParam::finish(), 0);
    EXPECT_TRUE(sql_trace::statements.empty());
    EXPECT_TRUE(sql_trace::opened.empty());
    EXPECT_EQ(read_file(log_path), "");
    insert_sample<TypeParam>(1);
    EXPECT_EQ(sql_trace::statements[1], "") << "the INSERT text is empty";
}

TYPED_TEST(table_store, finish_before_the_create_does_nothing) {
    EXPECT_EQ(TypeParam::finish(), 0);
    EXPECT_TRUE(sql_trace::statements.empty());
    EXPECT_TRUE(sql_trace::opened.empty());
    EXPECT_EQ(read_file(log_path), "");
}

TYPED_TEST(stored_table, insert_after_finish_opens_the_kept_path_and_stores_nothing) {
    start<TypeParam>();
    EXPECT_EQ(TypeParam::finish(), 0);
    sql_trace::clear();
    forget_log();
    insert_sample<TypeParam>(1);
    EXPECT_EQ(sql_trace::statements, (texts{begin, "", this->count, end}));
    EXPECT_EQ(sql_trace::opened.size(), 1U);
    EXPECT_EQ(read_file(log_path), "") << "an empty text is no failure";
    EXPECT_EQ(row_count<TypeParam>(), "0");
}

TYPED_TEST(stored_table, finish_keeps_the_delete_text) {
    start<TypeParam>();
    seed<TypeParam>(2);
    EXPECT_EQ(TypeParam::finish(), 0);
    sql_trace::statements.clear();
    EXPECT_EQ(remove_row<TypeParam>(1), 0);
    EXPECT_EQ(sql_trace::statements, texts{this->delete_head + " WHERE id = 1;"});
    EXPECT_EQ(row_count<TypeParam>(), "1");
}

TYPED_TEST(stored_table, create_after_finish_leaves_a_delete_that_sqlite_rejects) {
    start<TypeParam>();
    EXPECT_EQ(TypeParam::finish(), 0);
    EXPECT_EQ(TypeParam::create(), 0);
    seed<TypeParam>(2);
    forget_log();
    sqlite3* const handle = db();
    EXPECT_EQ(TypeParam::clean(), 0);
    const std::string text = this->delete_head + this->delete_head + ";";
    EXPECT_EQ(log_messages(), failure(text, "near \"FROM\": syntax error", 1, handle));
    EXPECT_EQ(page<TypeParam>().count(), 2U);
}

// --- The three connections ----------------------------------------------------------------------

TEST(connections, each_table_has_one_of_its_own) {
    ASSERT_EQ(conn_server_log::create(), 0);
    ASSERT_EQ(conn_client_log::create(), 0);
    ASSERT_EQ(server_list::create(), 0);
    EXPECT_EQ(sql_trace::opened.size(), 3U);
    insert_sample<conn_server_log>(1);
    insert_sample<conn_client_log>(1);
    insert_sample<server_list>(1);
    EXPECT_EQ(sql_trace::opened.size(), 3U);
    EXPECT_EQ(read_file(log_path), "");
    EXPECT_EQ(sql_trace::value_in_file("SELECT count(*) FROM conn_server_log"), "1");
    EXPECT_EQ(sql_trace::value_in_file("SELECT count(*) FROM conn_client_log"), "1");
    EXPECT_EQ(sql_trace::value_in_file("SELECT count(*) FROM server_list"),
              "error: no such table: server_list");
}

TEST(connections, failure_of_one_table_leaves_the_others_open) {
    ASSERT_EQ(conn_server_log::create(), 0);
    ASSERT_EQ(server_list::create(), 0);
    insert_sample<server_list>(1);
    drop_connection<conn_server_log>();
    EXPECT_EQ(page<server_list>().count(), 1U);
}

TEST(connections, pragmas_take_effect_on_the_first_connection_only) {
    start<conn_server_log>();
    const auto settings = [] {
        texts list;
        for (const char* name :
             {"page_size", "synchronous", "auto_vacuum", "journal_mode", "cache_size"}) {
            list.push_back(sql_trace::value(db(), std::string("PRAGMA ") + name));
        }
        return list;
    };
    EXPECT_EQ(settings(), (texts{"2048", "1", "1", "off", "10000"}));
    drop_connection<conn_server_log>();
    insert_sample<conn_server_log>(1);
    EXPECT_EQ(settings(), (texts{"2048", "2", "1", "delete", "10000"}))
        << "page size, vacuum and default cache size live in the file";
}

TEST(connections, descriptors_are_close_on_exec) {
    start<conn_server_log>();
    size_t seen = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (std::filesystem::read_symlink(entry, error) != db_path) continue;
        ++seen;
        EXPECT_EQ(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    EXPECT_EQ(seen, 1U);
}

// --- A database that cannot be written ----------------------------------------------------------

// What another process left behind: the table with one row.
void leave_a_database() {
    const pid_t child = fork();
    if (child == 0) {
        conn_server_log::create();
        insert_sample<conn_server_log>(1);
        conn_server_log::finish();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    forget_log();
}

TEST(unwritable_database, read_only_file_is_read_and_loses_inserts) {
    leave_a_database();
    chmod(db_path, 0444);
    start<conn_server_log>();
    sqlite3* const first = db();
    insert_sample<conn_server_log>(2);
    const texts log = log_messages();
    const std::string text = insert_text<conn_server_log>(sample<conn_server_log>(2));
    EXPECT_EQ(log, joined({failure(text, "attempt to write a readonly database", 8, first),
                           failure(end, no_transaction, 1, sql_trace::opened[1])}));
    const page<conn_server_log> rows;
    EXPECT_EQ(rows.count(), 1U);
    EXPECT_EQ(rows.total(), 1U);
}

TEST(unwritable_database, read_only_file_keeps_its_rows) {
    leave_a_database();
    chmod(db_path, 0444);
    start<conn_server_log>();
    EXPECT_EQ(remove_row<conn_server_log>(1), 0);
    EXPECT_EQ(conn_server_log::clean(), 0);
    EXPECT_EQ(page<conn_server_log>().count(), 1U);
    EXPECT_EQ(log_messages()[2], "ERROR RET = 8\n");
}

TEST(unwritable_database, missing_table_in_a_read_only_file_fails_the_create) {
    leave_a_database();
    chmod(db_path, 0444);
    EXPECT_EQ(conn_client_log::create(), -1);
    EXPECT_EQ(
        log_messages(),
        (texts{"ERROR create db failed: attempt to write a readonly database\n", closing(db())}));
}

TEST(unwritable_database, file_that_nobody_may_read_cannot_be_opened) {
    leave_a_database();
    chmod(db_path, 0);
    EXPECT_EQ(conn_server_log::create(), -1);
    EXPECT_EQ(log_messages(), (texts{"ERROR rc NULL\n", closing(db())}));
}

TEST(unwritable_database, reopened_connection_in_a_read_only_directory_loses_inserts) {
    leave_a_database();
    chmod("/etc/config/ravo", 0555);
    start<conn_server_log>();
    insert_sample<conn_server_log>(2);
    EXPECT_EQ(read_file(log_path), "") << "without a journal the file is enough";
    drop_connection<conn_server_log>();
    insert_sample<conn_server_log>(3);
    EXPECT_EQ(log_messages()[2], "ERROR RET = 8\n") << "no directory for its journal";
    EXPECT_EQ(page<conn_server_log>().count(), 2U);
}

TEST(unwritable_database, full_disk_fails_the_insert_and_the_module_goes_on) {
    std::filesystem::remove("/etc/config/ravo");
    std::filesystem::create_symlink("/small", "/etc/config/ravo");
    start<conn_server_log>();
    db_conn_server_log row = sample<conn_server_log>(1);
    for (const field& f : conn_server_log::fields) {
        if (f.kind == field_kind::text) set_text(f, &row, std::string(1024, 'x'));
    }
    for (int n = 0; n < 400 && log_messages().empty(); ++n)
        EXPECT_EQ(conn_server_log::insert(&row), 0);
    const texts log = log_messages();
    ASSERT_GE(log.size(), 3U);
    EXPECT_NE(log[0].find("err = database or disk is full"), std::string::npos) << log[0];
    EXPECT_EQ(log[2], "ERROR RET = 13\n");
    EXPECT_EQ(page<conn_server_log>().status, 0);
    EXPECT_EQ(conn_server_log::finish(), 0);
}

TEST(unwritable_database, file_replaced_by_garbage_fails_and_is_dropped) {
    start<conn_server_log>();
    insert_sample<conn_server_log>(1);
    drop_connection<conn_server_log>();
    write_file(db_path, std::string(8192, 'g'));
    const page<conn_server_log> rows;
    EXPECT_EQ(rows.status, 0);
    EXPECT_EQ(rows.count(), 0U);
    EXPECT_EQ(rows.total(), UINT64_MAX);
    const texts log = log_messages();
    ASSERT_EQ(log.size(), 9U);
    for (const size_t n : {2U, 5U, 8U}) EXPECT_EQ(log[n], "ERROR RET = 26\n");
}

TEST(unwritable_database, missing_log_directory_costs_only_the_lines) {
    std::filesystem::remove("/var/log/network");
    start<conn_server_log>();
    drop_connection<conn_server_log>();
    EXPECT_EQ(remove_row<conn_server_log>(1), 0);
    EXPECT_EQ(remove_row<conn_server_log>(1), 0);
    insert_sample<conn_server_log>(1);
    EXPECT_EQ(page<conn_server_log>().count(), 1U);
    EXPECT_FALSE(std::filesystem::exists("/var/log/network"));
}

// --- The state of a module ----------------------------------------------------------------------

struct probe_row {
    int64_t id;
    char text[1025];
    int32_t small;
    uint64_t large;
    int64_t other;
};
constexpr column probe_columns[] = {
    {"text", FIELD(probe_row, text)},
    {"small", FIELD(probe_row, small)},
    {"large", FIELD(probe_row, large)},
    {"other", FIELD(probe_row, other)},
};

// A module of the test's own, whose state is open to it.
class module_state : public testing::Test {
  protected:
    table<probe_row> probe{{.name = "probe", .columns = probe_columns}};
    table_state& state = probe.state;
};

TEST_F(module_state, buffers_have_the_prescribed_sizes) {
    for (const size_t size :
         {sizeof state.__db_file, sizeof state.__db_table_name_str, sizeof state.__db_create_str,
          sizeof state.__db_insert_str, sizeof state.__db_delete_str, sizeof state.__db_update_str,
          sizeof state.__db_insert_field, sizeof state.__db_insert_arg}) {
        EXPECT_EQ(size, 4096U);
    }
    EXPECT_EQ(std::size(state.__db_fields), 128U);
    EXPECT_EQ(sizeof state.__db_fields[0], 40U);
    EXPECT_TRUE((std::is_same_v<decltype(state.__db_field_index__), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(state.__is_first_field), int32_t>));
}

TEST_F(module_state, is_empty_before_the_create) {
    EXPECT_EQ(state.__db__, nullptr);
    EXPECT_STREQ(state.__db_file, "");
    EXPECT_STREQ(state.__db_create_str, "");
    EXPECT_EQ(state.__db_field_index__, 0);
    EXPECT_EQ(state.__is_first_field, 1);
}

TEST_F(module_state, create_builds_every_text) {
    EXPECT_EQ(probe.create(HERE), 0);
    EXPECT_NE(state.__db__, nullptr);
    EXPECT_STREQ(state.__db_file, "/etc/config/ravo/ravo.db");
    EXPECT_STREQ(state.__db_table_name_str, "probe");
    EXPECT_STREQ(state.__db_create_str,
                 "CREATE  TABLE IF NOT EXISTS probe (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, "
                 "text TEXT, small INTEGER, large INTEGER, other INTEGER);");
    EXPECT_STREQ(state.__db_insert_str,
                 "INSERT OR REPLACE INTO probe (text, small, large, other) VALUES ('%q', %d, %lu, "
                 "%ld);");
    EXPECT_STREQ(state.__db_delete_str, "DELETE FROM probe");
    EXPECT_STREQ(state.__db_update_str,
                 "UPDATE probe SET text = '%q', small = %d, large = %lu, other = %ld");
    EXPECT_STREQ(state.__db_insert_field, "text, small, large, other");
    EXPECT_STREQ(state.__db_insert_arg, "'%q', %d, %lu, %ld");
    EXPECT_EQ(state.__db_field_index__, 5);
    EXPECT_EQ(state.__is_first_field, 0);
    const texts names(std::begin(state.__db_fields), std::begin(state.__db_fields) + 5);
    EXPECT_EQ(names, (texts{"id", "text", "small", "large", "other"}));
    EXPECT_EQ(probe.finish(HERE), 0);
}

TEST_F(module_state, finish_empties_four_texts_and_keeps_the_rest) {
    EXPECT_EQ(probe.create(HERE), 0);
    EXPECT_EQ(probe.finish(HERE), 0);
    EXPECT_EQ(state.__db__, nullptr);
    for (const char* emptied : {state.__db_create_str, state.__db_insert_str,
                                state.__db_insert_field, state.__db_insert_arg}) {
        EXPECT_STREQ(emptied, "");
    }
    EXPECT_STREQ(state.__db_file, "/etc/config/ravo/ravo.db");
    EXPECT_STREQ(state.__db_table_name_str, "probe");
    EXPECT_STREQ(state.__db_delete_str, "DELETE FROM probe");
    EXPECT_STREQ(state.__db_update_str,
                 "UPDATE probe SET text = '%q', small = %d, large = %lu, other = %ld");
    EXPECT_EQ(state.__db_field_index__, 5);
    EXPECT_EQ(state.__is_first_field, 0);
}

TEST_F(module_state, create_after_a_failed_create_appends_once_more) {
    fail_statement("CREATE");
    EXPECT_EQ(probe.create(HERE), -1);
    EXPECT_EQ(state.__db__, nullptr);
    EXPECT_EQ(probe.create(HERE), -1);
    EXPECT_EQ(state.__db_field_index__, 9);
    EXPECT_STREQ(state.__db_insert_field, "text, small, large, other, text, small, large, other");
}

TEST_F(module_state, creates_without_columns_fill_the_text_and_then_fail) {
    table_state bare{.name = "bare"};
    ASSERT_EQ(create_table(bare, HERE), 0);
    memset(bare.__db_create_str + strlen(bare.__db_create_str), ';',
           4092 - strlen(bare.__db_create_str));
    EXPECT_EQ(create_table(bare, HERE), -1) << "fits, but SQLite rejects it";
    EXPECT_EQ(strlen(bare.__db_create_str), 4094U);
    sql_trace::statements.clear();
    EXPECT_EQ(create_table(bare, HERE), -1);
    EXPECT_EQ(strlen(bare.__db_create_str), 4094U);
    EXPECT_EQ(sql_trace::statements, pragmas) << "the text that no longer fits is not run";
    EXPECT_EQ(bare.__db_field_index__, 1);
}

TEST_F(module_state, name_of_39_characters_fits_and_of_40_does_not) {
    for (const size_t length : {39U, 40U}) {
        const std::string name(length, 'c');
        const column columns[] = {{name.c_str(), FIELD(probe_row, text)}};
        table<probe_row> named{{.name = "named", .columns = columns}};
        EXPECT_EQ(named.create(HERE), length == 39 ? 0 : -1);
        EXPECT_LT(strnlen(named.state.__db_fields[1], 40), 40U);
        EXPECT_EQ(named.finish(HERE), 0);
        std::filesystem::remove(db_path);
    }
}

// Creates a table of many columns whose names are so long at least. Returns create's result.
int create_wide(table_state& state, size_t columns, size_t name_length) {
    std::vector<std::string> names(columns, std::string(name_length, 'c'));
    std::vector<column> list;
    for (size_t n = 0; n < columns; ++n) {
        names[n] += std::to_string(n);
        list.push_back({names[n].c_str(), FIELD(probe_row, small)});
    }
    state.columns = list;
    const int status = create_table(state, HERE);
    finish_table(state, HERE);
    state.columns = {};
    return status;
}

TEST_F(module_state, fields_end_at_128) {
    table_state fitting{.name = "fitting"};
    EXPECT_EQ(create_wide(fitting, 127, 1), 0);
    EXPECT_STREQ(fitting.__db_fields[127], "c126");
    table_state wide{.name = "wide"};
    EXPECT_EQ(create_wide(wide, 128, 1), -1);
    EXPECT_EQ(wide.__db_field_index__, 128);
    EXPECT_EQ(wide.__is_first_field, 0);
}

TEST_F(module_state, texts_end_at_4096_bytes) {
    table_state wide{.name = "wide"};
    EXPECT_EQ(create_wide(wide, 120, 30), -1);
    EXPECT_EQ(log_messages()[0],
              "ERROR create db failed: too many columns for the statement buffers\n");
    EXPECT_LT(strnlen(wide.__db_update_str, 4096), 4096U);
    EXPECT_STREQ(wide.__db_delete_str, "DELETE FROM wide");
}

// --- The callback of every count query ----------------------------------------------------------

int call_common_callback(int columns, const std::vector<const char*>& values, int64_t& number) {
    std::vector<char*> pointers;
    pointers.reserve(values.size());
    for (const char* value : values) pointers.push_back(const_cast<char*>(value));
    return common_callback(&number, columns, values.empty() ? nullptr : pointers.data(), nullptr);
}

TEST(common_callback, reads_one_base_10_number_narrowed_to_32_bits) {
    const std::pair<const char*, int64_t> cases[] = {
        {"0", 0},
        {"123", 123},
        {"-7", -7},
        {"2147483647", 2147483647},
        {"2147483648", -2147483648LL},
        {"4294967297", 1},
        {"12 apples", 12},
        {"0x10", 0},
        {"010", 10},
        {"", 0},
    };
    for (const auto& [text, wanted] : cases) {
        int64_t number = 77;
        EXPECT_EQ(call_common_callback(1, {text}, number), 0) << text;
        EXPECT_EQ(number, wanted) << text;
    }
}

TEST(common_callback, refuses_anything_but_one_value) {
    int64_t number = 77;
    EXPECT_EQ(call_common_callback(0, {"1"}, number), -1);
    EXPECT_EQ(call_common_callback(2, {"1", "2"}, number), -1);
    EXPECT_EQ(call_common_callback(1, {}, number), -1);
    EXPECT_EQ(call_common_callback(1, {nullptr}, number), -1);
    EXPECT_EQ(number, 77);
}

}  // namespace
