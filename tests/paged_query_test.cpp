// The paged query: its statements, its bounds, the rows it delivers, and the fence around a filter.
//
// Two things of the system are replaced in this program: the steady clock, which stands still
// unless a test moves it, so that the time a filter may take passes at once; and growing the row
// array, which can fail.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/sql_trace.h"
#include "support/store.h"

namespace {
using std::chrono::nanoseconds;

// Called whenever the steady clock is read; says by how much it moves on.
std::function<nanoseconds()> clock_step;
nanoseconds clock_now = std::chrono::hours(1);

// Called before each growth of a row array; true refuses the memory.
std::function<bool()> refuse_memory;
}  // namespace

extern "C" {
__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (clock != CLOCK_MONOTONIC) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (clock_step) clock_now += clock_step();
    now->tv_sec = std::chrono::floor<std::chrono::seconds>(clock_now).count();
    now->tv_nsec = (clock_now % std::chrono::seconds(1)).count();
    return 0;
}

void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
    if (refuse_memory && refuse_memory()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(count, size);
}
}

namespace {

const texts silence;

template <class Table>
class paged_query : public testing::Test {
  protected:
    const std::string name = Table::name;
    const int64_t columns = 1 + static_cast<int64_t>(std::size(Table::fields));
    const std::string first_id = "SELECT id FROM (SELECT * FROM " + name +
                                 " ORDER BY id DESC LIMIT 100000) ORDER BY id ASC LIMIT 1;";
    const std::string total = "SELECT Count(*) FROM " + name + ";";

    std::string page_text(const std::string& rest) const {
        return "SELECT * FROM " + name + " WHERE " + rest;
    }
    // The page statement of a query with this request.
    std::string statement_of(const page_request& request) const {
        sql_trace::statements.clear();
        EXPECT_EQ(page<Table>(request).status, 0);
        return sql_trace::statements.size() == 3 ? sql_trace::statements[1] : "(none)";
    }
};
TYPED_TEST_SUITE(paged_query, every_table, number_only);

// --- Statements ---------------------------------------------------------------------------------

TYPED_TEST(paged_query, runs_three_statements_in_order) {
    start<TypeParam>();
    seed<TypeParam>(5);
    const page<TypeParam> result({.start = 1, .count = 3});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(sql_trace::statements,
              (texts{this->first_id, this->page_text(" id >= 1 ORDER BY id ASC LIMIT 3 OFFSET 1;"),
                     this->total}));
    EXPECT_EQ(result.ids(), (std::vector<int64_t>{2, 3, 4}));
    EXPECT_EQ(result.total(), 5U);
    EXPECT_EQ(log_messages(), silence);
}

TYPED_TEST(paged_query, on_an_empty_table_starts_at_id_minus_1) {
    start<TypeParam>();
    const page<TypeParam> result;
    EXPECT_EQ(sql_trace::statements[1],
              this->page_text(" id >= -1 ORDER BY id ASC LIMIT 100000 OFFSET 0;"));
    EXPECT_EQ(result.count(), 0U);
    EXPECT_EQ(result.total(), 0U);
    EXPECT_EQ(result.data(), nullptr);
    EXPECT_EQ(log_messages(), silence);
}

TYPED_TEST(paged_query, sorts_by_each_column) {
    start<TypeParam>();
    for (int64_t index = 0; index < this->columns; ++index) {
        const std::string column =
            index == 0 ? "id" : TypeParam::fields[static_cast<size_t>(index - 1)].name;
        EXPECT_EQ(this->statement_of({.order_by = index}),
                  this->page_text(" id >= -1 ORDER BY " + column + " ASC LIMIT 100000 OFFSET 0;"));
    }
}

TYPED_TEST(paged_query, order_style_other_than_0_is_descending) {
    start<TypeParam>();
    for (const int64_t style :
         {int64_t{1}, int64_t{2}, int64_t{-1}, INT64_MIN, INT64_MAX, int64_t{1} << 32}) {
        EXPECT_EQ(this->statement_of({.order_style = style}),
                  this->page_text(" id >= -1 ORDER BY id DESC LIMIT 100000 OFFSET 0;"))
            << style;
    }
}

TYPED_TEST(paged_query, delivers_rows_in_the_order_asked_for) {
    start<TypeParam>();
    for (const int number : {2, 3, 1}) insert_sample<TypeParam>(number);
    EXPECT_EQ(page<TypeParam>({.order_style = 2}).ids(), (std::vector<int64_t>{3, 2, 1}));
    for (int64_t index = 1; index < this->columns; ++index) {
        const field& f = TypeParam::fields[index - 1];
        if (f.size == 3) continue;  // the same in each row
        EXPECT_EQ(page<TypeParam>({.order_by = index}).ids(), (std::vector<int64_t>{3, 1, 2}));
        EXPECT_EQ(page<TypeParam>({.order_by = index, .order_style = 1}).ids(),
                  (std::vector<int64_t>{2, 1, 3}));
    }
}

TYPED_TEST(paged_query, page_size_is_capped) {
    start<TypeParam>();
    const std::pair<int64_t, const char*> cases[] = {
        {-1, "100000"},
        {100000, "100000"},
        {100001, "100000"},
        {INT64_MAX, "100000"},
        {99999, "99999"},
        {1, "1"},
        {0, "0"},
        {-2, "-2"},
        {INT64_MIN, "-9223372036854775808"},
    };
    for (const auto& [count, limit] : cases) {
        EXPECT_EQ(this->statement_of({.count = count}),
                  this->page_text(std::string(" id >= -1 ORDER BY id ASC LIMIT ") + limit +
                                  " OFFSET 0;"));
    }
}

TYPED_TEST(paged_query, count_0_delivers_nothing_but_the_total) {
    start<TypeParam>();
    seed<TypeParam>(5);
    const page<TypeParam> result({.count = 0});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.count(), 0U);
    EXPECT_EQ(result.data(), nullptr);
    EXPECT_EQ(result.total(), 5U);
}

TYPED_TEST(paged_query, count_below_minus_1_has_no_limit) {
    start<TypeParam>();
    seed<TypeParam>(5);
    EXPECT_EQ(page<TypeParam>({.count = -2}).count(), 5U);
    EXPECT_EQ(page<TypeParam>({.count = INT64_MIN}).count(), 5U);
}

TYPED_TEST(paged_query, start_is_used_as_it_stands) {
    start<TypeParam>();
    seed<TypeParam>(5);
    EXPECT_EQ(page<TypeParam>({.start = 4}).ids(), std::vector<int64_t>{5});
    EXPECT_EQ(page<TypeParam>({.start = 5}).count(), 0U);
    EXPECT_EQ(page<TypeParam>({.start = INT64_MAX}).count(), 0U);
    EXPECT_EQ(page<TypeParam>({.start = -3}).count(), 5U) << "SQLite takes it for 0";
    EXPECT_EQ(this->statement_of({.start = INT64_MIN}),
              this->page_text(" id >= 1 ORDER BY id ASC LIMIT 100000 OFFSET "
                              "-9223372036854775808;"));
}

TYPED_TEST(paged_query, order_by_outside_the_columns_is_refused_before_anything) {
    start<TypeParam>();
    seed<TypeParam>(3);
    sql_trace::clear();
    for (const int64_t index : {this->columns, this->columns + 1, int64_t{128}, int64_t{-1},
                                int64_t{1} << 32, INT64_MIN, INT64_MAX}) {
        const page<TypeParam> result({.order_by = index});
        EXPECT_EQ(result.status, -1) << index;
        EXPECT_EQ(result.count(), 0U);
        EXPECT_EQ(result.total(), 0U);
        EXPECT_EQ(result.data(), nullptr);
    }
    EXPECT_TRUE(sql_trace::statements.empty());
    EXPECT_EQ(log_messages(), silence);
}

TYPED_TEST(paged_query, refused_query_leaves_the_result_untouched) {
    start<TypeParam>();
    typename TypeParam::row row{};
    typename TypeParam::query result = {77, 88, &row};
    typename TypeParam::query* pointer = &result;
    db_query_cond cond = condition({.order_by = this->columns});
    EXPECT_EQ(TypeParam::select(&cond, &pointer), -1);
    EXPECT_EQ(result.count, 77U);
    EXPECT_EQ(result.total, 88U);
    EXPECT_EQ(result.data, &row);
}

TYPED_TEST(paged_query, before_the_create_every_index_is_refused) {
    EXPECT_EQ(page<TypeParam>({.order_by = 0}).status, -1);
    EXPECT_TRUE(sql_trace::opened.empty());
}

TYPED_TEST(paged_query, condition_is_left_as_it_is) {
    start<TypeParam>();
    db_query_cond cond = condition({.start = 1, .count = -1, .field = "id", .value = "1"});
    const auto bytes = [&cond] {
        return std::string(reinterpret_cast<const char*>(&cond), sizeof cond);
    };
    const std::string before = bytes();
    EXPECT_EQ(page<TypeParam>(cond).status, 0);
    EXPECT_EQ(bytes(), before);
}

TYPED_TEST(paged_query, rows_are_appended_to_those_in_the_result) {
    start<TypeParam>();
    seed<TypeParam>(3);
    typename TypeParam::query result = {};
    typename TypeParam::query* pointer = &result;
    db_query_cond cond = condition({});
    EXPECT_EQ(TypeParam::select(&cond, &pointer), 0);
    EXPECT_EQ(TypeParam::select(&cond, &pointer), 0);
    ASSERT_EQ(result.count, 6U);
    EXPECT_EQ(result.data[2].id, 3);
    EXPECT_EQ(result.data[3].id, 1);
    free(result.data);
}

// --- Failures -----------------------------------------------------------------------------------

template <class Table>
class failing_query : public paged_query<Table> {};
TYPED_TEST_SUITE(failing_query, persistent_tables, number_only);

TYPED_TEST(failing_query, failed_first_id_stays_minus_1) {
    start<TypeParam>();
    seed<TypeParam>(3);
    sqlite3* const handle = db();
    fail_statement("SELECT id FROM (");
    const page<TypeParam> result;
    EXPECT_EQ(result.count(), 3U);
    EXPECT_EQ(result.total(), 3U);
    EXPECT_EQ(sql_trace::statements[1],
              this->page_text(" id >= -1 ORDER BY id ASC LIMIT 100000 OFFSET 0;"));
    EXPECT_EQ(log_messages(), failure(this->first_id, "(null)", 1, handle));
    EXPECT_EQ(sql_trace::opened.size(), 2U) << "the page runs on a fresh connection";
}

TYPED_TEST(failing_query, failed_page_leaves_count_and_data) {
    start<TypeParam>();
    seed<TypeParam>(3);
    sqlite3* const handle = db();
    fail_statement("SELECT * FROM");
    const page<TypeParam> result;
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.count(), 0U);
    EXPECT_EQ(result.data(), nullptr);
    EXPECT_EQ(result.total(), 3U);
    EXPECT_EQ(log_messages(), failure(sql_trace::statements[1], "(null)", 1, handle));
}

TYPED_TEST(failing_query, failed_count_leaves_every_bit_of_the_total_set) {
    start<TypeParam>();
    seed<TypeParam>(3);
    sqlite3* const handle = db();
    fail_statement("SELECT Count");
    const page<TypeParam> result;
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.count(), 3U);
    EXPECT_EQ(result.total(), UINT64_MAX);
    EXPECT_EQ(log_messages(), failure(this->total, "(null)", 1, handle));
}

TYPED_TEST(failing_query, database_that_cannot_be_opened_gives_no_rows_and_no_total) {
    start<TypeParam>();
    seed<TypeParam>(3);
    drop_connection<TypeParam>();
    std::filesystem::rename("/etc/config/ravo", "/etc/config/away");
    const page<TypeParam> result({.field = "username", .value = "x"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.count(), 0U);
    EXPECT_EQ(result.total(), UINT64_MAX);
    EXPECT_EQ(log_messages().size(), 12U) << "four lines for each statement";
}

TYPED_TEST(paged_query, unknown_column_is_a_failed_page) {
    start<TypeParam>();
    seed<TypeParam>(3);
    sqlite3* const handle = db();
    const page<TypeParam> result({.field = "no_such_column", .value = "x"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.count(), 0U);
    EXPECT_EQ(result.data(), nullptr);
    const texts log = log_messages();
    const texts page_failure =
        failure(sql_trace::statements[1], "no such column: no_such_column", 1, handle);
    ASSERT_GE(log.size(), 3U);
    EXPECT_EQ(texts(log.begin(), log.begin() + 3), page_failure);
    EXPECT_EQ(result.total(), TypeParam::temporary ? UINT64_MAX : 3U)
        << "a temporary table is gone with its connection";
}

// --- Memory -------------------------------------------------------------------------------------

TYPED_TEST(paged_query, without_memory_every_row_is_dropped) {
    start<TypeParam>();
    seed<TypeParam>(10);
    refuse_memory = [] { return true; };
    const page<TypeParam> result;
    refuse_memory = nullptr;
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.count(), 0U);
    EXPECT_EQ(result.data(), nullptr);
    EXPECT_EQ(result.total(), 10U);
    EXPECT_EQ(log_messages(), silence);
}

// Rows outgrow a small block once; then room for all that the page may have is asked for, and
// without it for twice as many as there are.
TYPED_TEST(paged_query, rows_that_got_memory_stay_when_more_is_refused) {
    start<TypeParam>();
    seed<TypeParam>(300);
    int growths = 0;
    refuse_memory = [&growths] { return ++growths > 1; };
    const page<TypeParam> result;
    refuse_memory = nullptr;
    const std::vector<int64_t> ids = result.ids();
    ASSERT_GE(ids.size(), 3U);
    ASSERT_LT(ids.size(), 300U);
    for (size_t n = 0; n < ids.size(); ++n) EXPECT_EQ(ids[n], static_cast<int64_t>(n + 1));
    EXPECT_EQ(result.total(), 300U);
}

TYPED_TEST(paged_query, row_refused_in_between_leaves_no_hole) {
    start<TypeParam>();
    seed<TypeParam>(300);
    int growths = 0;
    refuse_memory = [&growths] { return ++growths == 2 || growths == 3; };
    const page<TypeParam> result;
    refuse_memory = nullptr;
    std::vector<int64_t> ids = result.ids();
    ASSERT_EQ(ids.size(), 299U);
    size_t dropped = 0;
    while (dropped < 299 && ids[dropped] == static_cast<int64_t>(dropped + 1)) ++dropped;
    EXPECT_GT(dropped, 3U);
    for (size_t n = dropped; n < 299; ++n) EXPECT_EQ(ids[n], static_cast<int64_t>(n + 2));
}

TYPED_TEST(paged_query, rows_grow_on_when_there_is_no_room_for_all_at_once) {
    start<TypeParam>();
    seed<TypeParam>(1000);
    int growths = 0;
    refuse_memory = [&growths] { return ++growths % 2 == 0; };
    const page<TypeParam> result;
    refuse_memory = nullptr;
    const std::vector<int64_t> ids = result.ids();
    ASSERT_EQ(ids.size(), 1000U);
    for (size_t n = 0; n < ids.size(); ++n) EXPECT_EQ(ids[n], static_cast<int64_t>(n + 1));
}

TYPED_TEST(paged_query, page_of_few_rows_takes_memory_once) {
    start<TypeParam>();
    seed<TypeParam>(30);
    int growths = 0;
    refuse_memory = [&growths] { return ++growths > 1; };
    const page<TypeParam> result({.count = 20});
    refuse_memory = nullptr;
    EXPECT_EQ(result.ids().size(), 20U);
    EXPECT_EQ(growths, 1);
}

TYPED_TEST(paged_query, statement_without_memory_is_a_failed_statement) {
    start<TypeParam>();
    seed<TypeParam>(3);
    sqlite3* const handle = db();
    sqlite3_hard_heap_limit64(1);
    page<TypeParam> result({.field = "username", .value = "x"});
    sqlite3_hard_heap_limit64(0);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.count(), 0U);
    EXPECT_EQ(result.total(), UINT64_MAX);
    const texts log = log_messages();
    ASSERT_GE(log.size(), 3U);
    EXPECT_EQ(texts(log.begin(), log.begin() + 3), failure("(null)", "(null)", 7, handle));
    EXPECT_TRUE(sql_trace::statements.empty());
}

// --- Values -------------------------------------------------------------------------------------

TYPED_TEST(paged_query, null_columns_read_as_minus_1_and_NULL) {
    start<TypeParam>();
    ASSERT_EQ(sql_trace::run(db(), "INSERT INTO " + this->name + " DEFAULT VALUES"), SQLITE_OK);
    const page<TypeParam> result;
    ASSERT_EQ(result.count(), 1U);
    for (const field& f : TypeParam::fields) {
        const std::string text = f.size == 3 ? "NU" : "NULL";
        const std::string number = f.kind == field_kind::uint64 ? "18446744073709551615" : "-1";
        EXPECT_EQ(value_of(f, result.data()), f.kind == field_kind::text ? text : number) << f.name;
    }
}

TYPED_TEST(paged_query, texts_longer_than_their_arrays_are_cut) {
    start<TypeParam>();
    std::string names;
    std::string values;
    char letter = 'a';
    for (const field& f : TypeParam::fields) {
        if (f.kind != field_kind::text) continue;
        names += std::string(names.empty() ? "" : ", ") + f.name;
        values += (values.empty() ? "'" : ", '") + std::string(5000, letter++) + "'";
    }
    ASSERT_EQ(sql_trace::run(
                  db(), "INSERT INTO " + this->name + " (" + names + ") VALUES (" + values + ")"),
              SQLITE_OK);
    const page<TypeParam> result;
    ASSERT_EQ(result.count(), 1U);
    letter = 'a';
    for (const field& f : TypeParam::fields) {
        const std::string value = value_of(f, result.data());
        if (f.kind == field_kind::text) {
            EXPECT_EQ(value, std::string(f.size - 1, letter++)) << f.name;
        } else {
            EXPECT_EQ(value, f.kind == field_kind::uint64 ? "18446744073709551615" : "-1");
        }
    }
}

TYPED_TEST(paged_query, numbers_are_read_in_base_10_and_narrowed_to_their_kind) {
    start<TypeParam>();
    std::string names;
    std::string values;
    for (const field& f : TypeParam::fields) {
        if (f.kind == field_kind::text) continue;
        names += std::string(", ") + f.name;
        values += ", 4294967303";  // 2^32 + 7
    }
    ASSERT_EQ(sql_trace::run(db(), "INSERT INTO " + this->name + " (id" + names +
                                       ") VALUES (2147483648" + values + ")"),
              SQLITE_OK);
    const page<TypeParam> result;
    ASSERT_EQ(result.count(), 1U);
    EXPECT_EQ(result.data()->id, -2147483648LL) << "an id is narrowed, too";
    for (const field& f : TypeParam::fields) {
        if (f.kind == field_kind::text) continue;
        EXPECT_EQ(value_of(f, result.data()), f.kind == field_kind::int32 ? "7" : "4294967303");
    }
}

TYPED_TEST(paged_query, texts_in_number_columns_give_what_base_10_gives) {
    start<TypeParam>();
    ASSERT_EQ(sql_trace::run(db(), "INSERT INTO " + this->name + " (time) VALUES ('12 o''clock')"),
              SQLITE_OK);
    const page<TypeParam> result;
    ASSERT_EQ(result.count(), 1U);
    EXPECT_EQ(result.data()->time, 12U);
}

// --- Filter -------------------------------------------------------------------------------------

TYPED_TEST(paged_query, filter_stands_before_the_range) {
    start<TypeParam>();
    EXPECT_EQ(this->statement_of({.field = "username", .value = "Ann"}),
              this->page_text("username = 'Ann' AND id >= -1 ORDER BY id ASC LIMIT 100000 "
                              "OFFSET 0;"));
}

TYPED_TEST(paged_query, filter_needs_both_field_and_value) {
    start<TypeParam>();
    const std::string whole = this->page_text(" id >= -1 ORDER BY id ASC LIMIT 100000 OFFSET 0;");
    EXPECT_EQ(this->statement_of({.field = "username"}), whole);
    EXPECT_EQ(this->statement_of({.value = "Ann"}), whole);
    EXPECT_EQ(this->statement_of({}), whole);
    EXPECT_EQ(this->statement_of({.field = "no such column; --"}), whole);
}

TYPED_TEST(paged_query, filter_delivers_the_matching_rows_and_the_whole_total) {
    start<TypeParam>();
    for (int number = 1; number <= 5; ++number) insert_sample<TypeParam>(number);
    for (const field& f : TypeParam::fields) {
        if (f.size == 3) continue;
        const typename TypeParam::row third = sample<TypeParam>(3);
        const page<TypeParam> result({.field = f.name, .value = value_of(f, &third)});
        EXPECT_EQ(result.ids(), std::vector<int64_t>{3}) << f.name;
        EXPECT_EQ(result.total(), 5U);
    }
    EXPECT_EQ(page<TypeParam>({.field = "id", .value = "4"}).ids(), std::vector<int64_t>{4});
    EXPECT_EQ(page<TypeParam>({.field = "username", .value = "nobody"}).count(), 0U);
    EXPECT_EQ(log_messages(), silence);
}

TYPED_TEST(paged_query, filter_and_page_work_together) {
    start<TypeParam>();
    ASSERT_EQ(sql_trace::run(db(),
                             "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
                             "WHERE i < 10) INSERT INTO " +
                                 this->name +
                                 " (username) SELECT CASE i % 2 WHEN 0 THEN 'even' ELSE "
                                 "'odd' END FROM n"),
              SQLITE_OK);
    EXPECT_EQ(page<TypeParam>(
                  {.start = 1, .count = 2, .order_style = 1, .field = "username", .value = "even"})
                  .ids(),
              (std::vector<int64_t>{8, 6}));
}

TYPED_TEST(paged_query, value_is_a_literal_whatever_it_holds) {
    start<TypeParam>();
    for (const char* text : {"O'Hara", "100%q %s %d %n", "J\xc3\xbcrgen \xe2\x82\xac", "a\nb\\c\"d",
                             "x' OR '1' = '1", "'; DELETE FROM conn_server_log; --"}) {
        typename TypeParam::row row{};
        for (const field& f : TypeParam::fields) {
            if (std::string(f.name) == "username") set_text(f, &row, text);
        }
        EXPECT_EQ(TypeParam::insert(&row), 0);
        const page<TypeParam> result({.field = "username", .value = text});
        ASSERT_EQ(result.count(), 1U) << text;
        EXPECT_STREQ(result.data()->username, text);
    }
    EXPECT_EQ(log_messages(), silence);
}

TYPED_TEST(paged_query, quotes_in_the_field_are_doubled) {
    start<TypeParam>();
    EXPECT_EQ(this->statement_of({.field = "user'name", .value = "x"}),
              this->page_text("user''name = 'x' AND id >= -1 ORDER BY id ASC LIMIT 100000 OFFSET "
                              "0;"));
}

TYPED_TEST(paged_query, unterminated_field_and_value_end_with_their_arrays) {
    start<TypeParam>();
    db_query_cond cond = {};
    memset(&cond, 'X', sizeof cond);
    cond.start = 0;
    cond.count = 10;
    cond.order_by = 0;
    cond.order_style = 0;
    memset(cond.field, 'f', sizeof cond.field);
    memset(cond.value, 'v', sizeof cond.value);
    const page<TypeParam> result(cond);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(sql_trace::statements[1],
              this->page_text(std::string(1024, 'f') + " = '" + std::string(1024, 'v') +
                              "' AND id >= -1 ORDER BY id ASC LIMIT 10 OFFSET 0;"));
}

TYPED_TEST(paged_query, expressions_over_the_own_table_are_filters) {
    start<TypeParam>();
    for (int number = 1; number <= 3; ++number) insert_sample<TypeParam>(number);
    const std::string own = "(SELECT max(id) FROM " + this->name + ")";
    const std::pair<std::string, const char*> cases[] = {
        {"upper(username)", "USERNAME 2"},
        {"CAST(length(username) + id AS TEXT)", "12"},
        {"CASE id WHEN 2 THEN username ELSE id END", "username 2"},
        {"rowid", "2"},
        {own + " - id = 1 AND username", "username 2"},
    };
    for (const auto& [expression, value] : cases) {
        const page<TypeParam> result({.field = expression, .value = value});
        EXPECT_EQ(result.ids(), std::vector<int64_t>{2}) << expression;
    }
    EXPECT_EQ(log_messages(), silence);
}

// --- The visible range --------------------------------------------------------------------------

TYPED_TEST(paged_query, sees_the_newest_100000_rows_only) {
    start<TypeParam>();
    seed<TypeParam>(100050);
    const page<TypeParam> oldest({.start = 0, .count = 1});
    EXPECT_EQ(oldest.ids(), std::vector<int64_t>{51});
    EXPECT_EQ(oldest.total(), 100000U);
    EXPECT_EQ(log_messages(), texts{"WARN total_count 100050 > maxium 100000, set total_count = "
                                    "100000\n"});
    EXPECT_EQ(read_log()[0].function, "select_" + this->name);
    EXPECT_EQ(page<TypeParam>({.start = 99999}).ids(), std::vector<int64_t>{100050});
    EXPECT_EQ(page<TypeParam>({.start = 100000}).count(), 0U);
    EXPECT_EQ(page<TypeParam>({.field = "time", .value = "50"}).count(), 0U);
    EXPECT_EQ(page<TypeParam>({.field = "time", .value = "51"}).count(), 1U);
}

TYPED_TEST(paged_query, total_of_100000_is_not_capped) {
    start<TypeParam>();
    seed<TypeParam>(100000);
    EXPECT_EQ(page<TypeParam>({.count = 0}).total(), 100000U);
    EXPECT_EQ(log_messages(), silence);
}

TEST(large_page, of_100001_rows_delivers_100000) {
    start<conn_client_log>();
    seed<conn_client_log>(100050);
    const page<conn_client_log> result({.count = 100001});
    ASSERT_EQ(result.count(), 100000U);
    EXPECT_EQ(result.rows().front().id, 51);
    EXPECT_EQ(result.rows().back().id, 100050);
    EXPECT_EQ(result.rows().back().time, 100050U);
}

// Ids above 2^31 are narrowed, so the lower bound is negative and the range is the whole table.
TEST(large_page, without_limit_and_with_a_narrowed_bound_delivers_the_whole_table) {
    start<server_list>();
    ASSERT_EQ(sql_trace::run(db(), "INSERT INTO server_list (id) VALUES (2147483648)"), SQLITE_OK);
    seed<server_list>(100049);
    const page<server_list> result({.count = -2});
    EXPECT_EQ(result.count(), 100050U);
    EXPECT_EQ(result.total(), 100000U);
    EXPECT_EQ(log_messages().size(), 1U) << "the total's line";
}

TEST(large_page, of_a_filter_that_cuts_off_the_limit_ends_at_100000_rows) {
    start<server_list>();
    seed<server_list>(400);
    const page<server_list> result(
        {.field = "id = 0 UNION ALL SELECT a.* FROM server_list AS a, server_list AS b --",
         .value = "x"});
    EXPECT_EQ(result.count(), 100000U);
    EXPECT_EQ(result.rows().back().id, 250);
    const texts log = log_messages();
    EXPECT_NE(std::find(log.begin(), log.end(), "ERROR RET = 4\n"), log.end()) << "aborted";
}

// --- The fence around a filter ------------------------------------------------------------------
//
// What it refuses stands in filter_injection_test.cpp.

class filter_fence : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(conn_client_log::create(), 0);
        insert_sample<conn_client_log>(1);
        start<conn_server_log>();
        for (int number = 1; number <= 3; ++number) insert_sample<conn_server_log>(number);
        before = state();
        sql_trace::statements.clear();
    }
    // What nobody may change by a filter.
    static std::string state() {
        return sql_trace::value_in_file(
            "SELECT (SELECT group_concat(name || sql) FROM sqlite_master) || "
            "(SELECT group_concat(id || username || action) FROM conn_server_log) || "
            "(SELECT user_version FROM pragma_user_version)");
    }
    // The result code that a query with this filter logs first; 0 without a failure.
    static int code_of(const std::string& field) {
        forget_log();
        const page<conn_server_log> result({.field = field, .value = "x"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.total(), 3U) << "the next statement works again";
        EXPECT_TRUE(result.count() == 0 || result.data() != nullptr);
        const std::string ending = "ERROR RET = ";
        const texts log = log_messages();
        if (log.size() < 3 || !log[2].starts_with(ending)) return 0;
        return std::stoi(log[2].substr(ending.size()));
    }

    std::string before;
};

TEST_F(filter_fence, denial_is_logged_like_any_failure) {
    sqlite3* const handle = db();
    const page<conn_server_log> result(
        {.field = "1; DROP TABLE conn_server_log; --", .value = "x"});
    EXPECT_EQ(log_messages(), failure(sql_trace::statements[1], "not authorized", 23, handle));
    EXPECT_EQ(read_log()[0].function, "select_conn_server_log");
    EXPECT_EQ(sql_trace::statements[1],
              "SELECT * FROM conn_server_log WHERE 1; DROP TABLE conn_server_log; -- = 'x' AND id "
              ">= 1 ORDER BY id ASC LIMIT 100000 OFFSET 0;");
}

TEST_F(filter_fence, same_name_in_the_file_is_not_the_temporary_table) {
    ASSERT_EQ(server_list::create(), 0);
    ASSERT_EQ(sql_trace::run(db(), "CREATE TABLE main.server_list (secret)"), SQLITE_OK);
    insert_sample<server_list>(1);
    const page<server_list> own({.field = "username", .value = "username 1"});
    EXPECT_EQ(own.count(), 1U);
    const page<server_list> other(
        {.field = "(SELECT count(secret) FROM main.server_list)", .value = "x"});
    EXPECT_EQ(log_messages()[2], "ERROR RET = 23\n");
}

TEST_F(filter_fence, filter_that_takes_more_than_two_seconds_is_interrupted) {
    clock_step = [] { return std::chrono::milliseconds(10); };
    const nanoseconds start = clock_now;
    EXPECT_EQ(
        code_of("(SELECT count(*) FROM conn_server_log a, conn_server_log b, "
                "conn_server_log c, conn_server_log d, conn_server_log e, conn_server_log f, "
                "conn_server_log g, conn_server_log h, conn_server_log i, conn_server_log j, "
                "conn_server_log k, conn_server_log l, conn_server_log m, conn_server_log n, "
                "conn_server_log o, conn_server_log p, conn_server_log q, conn_server_log r, "
                "conn_server_log s, conn_server_log t, conn_server_log u, conn_server_log v)"),
        SQLITE_INTERRUPT);
    clock_step = nullptr;
    EXPECT_GE(clock_now - start, std::chrono::seconds(2));
    EXPECT_LE(clock_now - start, std::chrono::milliseconds(2100));
    EXPECT_NE(log_messages()[0].find("err = interrupted\n"), std::string::npos);
}

TEST_F(filter_fence, filter_that_takes_less_is_left_alone) {
    for (const auto& [lead, code] :
         {std::pair(std::chrono::milliseconds(1900), SQLITE_OK),
          std::pair(std::chrono::milliseconds(2100), SQLITE_INTERRUPT)}) {
        int reads = 0;
        clock_step = [&reads, lead = lead] { return ++reads == 2 ? lead : nanoseconds(0); };
        EXPECT_EQ(code_of("(SELECT count(*) FROM conn_server_log a, conn_server_log b, "
                          "conn_server_log c, conn_server_log d, conn_server_log e)"),
                  code);
        EXPECT_GE(reads, 2);
        clock_step = nullptr;
    }
}

std::chrono::duration<double> processor_time() {
    return std::chrono::duration<double>(static_cast<double>(clock()) / CLOCKS_PER_SEC);
}

// SQLite never looks at the clock inside a function, and not between those of one expression, so it
// is their sizes and their number that keep this one short.
TEST_F(filter_fence, filter_of_slow_functions_ends_soon) {
    const auto likes = [](int count) {
        std::string field = "(SELECT x LIKE y";
        for (int n = 1; n < count; ++n) field += "+(x LIKE y)";
        return field + " FROM(SELECT hex(zeroblob(8000))x,\"%\"||hex(zeroblob(540))y))";
    };
    const auto start = processor_time();
    EXPECT_EQ(code_of(likes(12)), SQLITE_OK);
    EXPECT_LT((processor_time() - start).count(), 4);
    EXPECT_EQ(code_of(likes(13)), SQLITE_ERROR) << "with the other four more than sixteen";
    // hex() wants room for a NUL as well.
    EXPECT_EQ(code_of("length(hex(zeroblob(8191)))"), SQLITE_OK);
    EXPECT_EQ(code_of("length(hex(zeroblob(8192)))"), SQLITE_TOOBIG);
    EXPECT_EQ(code_of("(username LIKE hex(zeroblob(550)))"), SQLITE_OK);
    EXPECT_EQ(code_of("(username LIKE hex(zeroblob(551)))"), SQLITE_ERROR);
}

// Whether the connection is as free as before: it reads, writes, takes its time and holds large
// values.
void expect_no_fence() {
    EXPECT_EQ(sql_trace::run(db(), "CREATE TABLE later (a)"), SQLITE_OK);
    EXPECT_EQ(sql_trace::run(db(), "DROP TABLE later"), SQLITE_OK);
    EXPECT_EQ(sqlite3_limit(db(), SQLITE_LIMIT_LENGTH, -1), 1000000000);
    EXPECT_EQ(sqlite3_limit(db(), SQLITE_LIMIT_LIKE_PATTERN_LENGTH, -1), 50000);
    clock_now += std::chrono::hours(1);
    EXPECT_EQ(sql_trace::value(db(),
                               "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM "
                               "n WHERE i < 5000) SELECT count(*) FROM n"),
              "5000");
}

TEST_F(filter_fence, is_gone_after_the_page) {
    EXPECT_EQ(code_of("username"), 0);
    EXPECT_EQ(sql_trace::opened.size(), 2U) << "still the connection of the create";
    expect_no_fence();
    insert_sample<conn_server_log>(4);
    EXPECT_EQ(remove_row<conn_server_log>(1), 0);
    EXPECT_EQ(page<conn_server_log>().ids(), (std::vector<int64_t>{2, 3, 4}));
    EXPECT_EQ(log_messages(), silence);
}

TEST_F(filter_fence, is_gone_with_the_connection_of_a_denied_page) {
    EXPECT_EQ(code_of("1; DELETE FROM conn_server_log; --"), SQLITE_AUTH);
    EXPECT_EQ(sql_trace::opened.size(), 3U);
    expect_no_fence();
    forget_log();
    insert_sample<conn_server_log>(4);
    EXPECT_EQ(page<conn_server_log>().count(), 4U);
    EXPECT_EQ(log_messages(), silence);
}

TEST_F(filter_fence, stands_on_a_reopened_connection_too) {
    drop_connection<conn_server_log>();
    EXPECT_EQ(code_of("1; DELETE FROM conn_server_log; --"), SQLITE_AUTH);
    fail_statement("SELECT id FROM (");
    const page<conn_server_log> result(
        {.field = "1; DELETE FROM conn_server_log; --", .value = "x"});
    EXPECT_EQ(log_messages().back(), "ERROR RET = 23\n");
    EXPECT_EQ(state(), before);
}

TEST_F(filter_fence, page_without_filter_takes_its_time) {
    clock_step = [] { return std::chrono::hours(1); };
    EXPECT_EQ(page<conn_server_log>({.field = "username"}).count(), 3U);
    clock_step = nullptr;
    EXPECT_EQ(log_messages(), silence);
}

}  // namespace
