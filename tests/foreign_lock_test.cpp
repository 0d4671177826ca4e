// Another program's lock on the database file. The store waits by sleeping; sleeps and the steady
// clock are replaced in this program, so that time passes in sleeps only and they take none, and
// the test can act between them.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "ravod_db_event_handler.h"
#include "support/files.h"
#include "support/sql_trace.h"
#include "support/store.h"

namespace {
using std::chrono::microseconds;

microseconds slept{0};
std::function<void()> during_sleep;

void sleep_for(microseconds time) {
    slept += time;
    if (during_sleep) during_sleep();
}
}  // namespace

// The linker puts this in the steady clock's place.
using steady_point = std::chrono::steady_clock::time_point;
steady_point sleeping_now() __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
steady_point sleeping_now() { return steady_point(slept); }

extern "C" {
__attribute__((visibility("default"))) int nanosleep(const timespec* time, timespec* /*left*/) {
    sleep_for(microseconds(time->tv_sec * 1000000 + time->tv_nsec / 1000));
    return 0;
}
}

namespace {

constexpr microseconds patience = std::chrono::seconds(2);

// A connection of another program that holds a lock until it is released.
class foreign_lock {
  public:
    explicit foreign_lock(const std::string& statements) {
        EXPECT_EQ(sqlite3_open_v2(db_path, &other, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
        EXPECT_EQ(sql_trace::run(other, statements), SQLITE_OK);
    }
    ~foreign_lock() { release(); }
    foreign_lock(const foreign_lock&) = delete;
    foreign_lock& operator=(const foreign_lock&) = delete;
    void release() {
        sqlite3_close(other);
        other = nullptr;
    }

  private:
    sqlite3* other = nullptr;
};

const std::string reading = "BEGIN; SELECT count(*) FROM sqlite_master";
const std::string writing = "BEGIN EXCLUSIVE";

template <class Table>
class locked_database : public testing::Test {
  protected:
    void SetUp() override {
        start<Table>();
        slept = microseconds(0);
    }
    const std::string count_rows = std::string("SELECT count(*) FROM ") + Table::name;
};
TYPED_TEST_SUITE(locked_database, persistent_tables, number_only);

TYPED_TEST(locked_database, short_reader_costs_no_row) {
    foreign_lock reader(reading);
    int sleeps = 0;
    during_sleep = [&] {
        if (++sleeps == 3) reader.release();
    };
    insert_sample<TypeParam>(1);
    EXPECT_EQ(sleeps, 3);
    EXPECT_EQ(sql_trace::value_in_file(this->count_rows), "1");
    EXPECT_TRUE(log_messages().empty());
}

TYPED_TEST(locked_database, short_writer_costs_no_row) {
    foreign_lock writer(writing);
    int sleeps = 0;
    during_sleep = [&] {
        if (++sleeps == 3) writer.release();
    };
    insert_sample<TypeParam>(1);
    EXPECT_EQ(sql_trace::value_in_file(this->count_rows), "1");
    EXPECT_TRUE(log_messages().empty());
}

TYPED_TEST(locked_database, longer_lock_fails_the_statements_after_two_seconds) {
    sqlite3* const first = db();
    foreign_lock writer(writing);
    insert_sample<TypeParam>(1);
    const std::string text = insert_text<TypeParam>(sample<TypeParam>(1));
    const texts log = log_messages();
    ASSERT_EQ(log.size(), 9U);
    EXPECT_EQ(texts(log.begin(), log.begin() + 3), failure(text, "database is locked", 5, first));
    EXPECT_EQ(log[5], "ERROR RET = 5\n") << "the count, on a reopened connection";
    EXPECT_EQ(slept, patience) << "all of them together";
}

TYPED_TEST(locked_database, row_that_met_a_longer_lock_is_lost_and_the_next_is_not) {
    {
        foreign_lock writer(writing);
        insert_sample<TypeParam>(1);
    }
    forget_log();
    insert_sample<TypeParam>(2);
    EXPECT_EQ(page<TypeParam>().count(), 1U);
    EXPECT_TRUE(log_messages().empty());
}

TYPED_TEST(locked_database, each_operation_has_the_whole_patience) {
    foreign_lock writer(writing);
    insert_sample<TypeParam>(1);
    TypeParam::clean();
    remove_row<TypeParam>(1);
    (void)page<TypeParam>(page_request{});
    EXPECT_EQ(slept, 4 * patience);
}

// The last look is at the end of the patience.
TYPED_TEST(locked_database, lock_as_long_as_the_patience_costs_no_row) {
    foreign_lock reader(reading);
    during_sleep = [&] {
        if (slept == patience) reader.release();
    };
    insert_sample<TypeParam>(1);
    EXPECT_EQ(sql_trace::value_in_file(this->count_rows), "1");
    EXPECT_TRUE(log_messages().empty());
}

TYPED_TEST(locked_database, reopened_connection_waits_too) {
    drop_connection<TypeParam>();
    foreign_lock writer(writing);
    during_sleep = [&] { writer.release(); };
    insert_sample<TypeParam>(1);
    EXPECT_EQ(sql_trace::value_in_file(this->count_rows), "1");
    EXPECT_TRUE(log_messages().empty());
}

TYPED_TEST(locked_database, query_waits_and_then_has_no_rows) {
    insert_sample<TypeParam>(1);
    foreign_lock writer(writing);
    slept = microseconds(0);
    const page<TypeParam> result({.field = "username", .value = "x"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.count(), 0U);
    EXPECT_EQ(result.total(), UINT64_MAX);
    EXPECT_EQ(slept, patience) << "all three statements together";
}

TEST(foreign_lock, create_waits_and_then_fails) {
    ASSERT_EQ(conn_client_log::create(), 0);
    foreign_lock writer(writing);
    slept = microseconds(0);
    EXPECT_EQ(conn_server_log::create(), -1);
    EXPECT_EQ(log_messages(),
              (texts{"ERROR create db failed: database is locked\n", closing(db())}));
    EXPECT_EQ(slept, patience);
}

TEST(foreign_lock, event_query_waits_too) {
    ASSERT_EQ(create_event_db(), 0);
    foreign_lock writer(writing);
    during_sleep = [&] { writer.release(); };
    db_query_cond cond = condition({});
    db_event_query result = {};
    db_event_query* pointer = &result;
    EXPECT_EQ(select_event_data(&cond, &pointer), 0);
    EXPECT_GT(slept.count(), 0);
    EXPECT_TRUE(log_messages().empty());
}

TEST(foreign_lock, modules_wait_for_each_other) {
    ASSERT_EQ(conn_server_log::create(), 0);
    ASSERT_EQ(conn_client_log::create(), 0);
    for (int number = 1; number <= 10; ++number) {
        insert_sample<conn_server_log>(number);
        insert_sample<conn_client_log>(number);
    }
    EXPECT_EQ(sql_trace::value_in_file("SELECT (SELECT count(*) FROM conn_server_log) + (SELECT "
                                       "count(*) FROM conn_client_log)"),
              "20");
    EXPECT_TRUE(log_messages().empty());
}

}  // namespace
