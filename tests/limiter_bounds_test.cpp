// The login-attempt limiter with 100000 users: what it sees of a full table, and that its decisions
// take no memory for the rows that they look at.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "support/limiter.h"
#include "support/sql_trace.h"

// --- The memory of this program, SQLite's apart --------------------------------------------------

namespace {

size_t used = 0;     // bytes in blocks that the limiter holds
size_t highest = 0;  // since last set

void* took(void* block) {
    used += malloc_usable_size(block);
    highest = std::max(highest, used);
    return block;
}

// Blocks from elsewhere (Jansson's texts) come here as well.
void gave(void* block) { used -= std::min(used, malloc_usable_size(block)); }

}  // namespace

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
void* __real_reallocarray(void* block, size_t count, size_t size);
void __real_free(void* block);

void* __wrap_malloc(size_t size) { return took(__real_malloc(size)); }
void* __wrap_calloc(size_t count, size_t size) { return took(__real_calloc(count, size)); }
void* __wrap_realloc(void* block, size_t size) {
    gave(block);
    return took(__real_realloc(block, size));
}
void* __wrap_reallocarray(void* block, size_t count, size_t size) {
    gave(block);
    return took(__real_reallocarray(block, count, size));
}
void __wrap_free(void* block) {
    gave(block);
    __real_free(block);
}
}

void* operator new(size_t size) {
    void* block = malloc(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept { return malloc(size); }
void operator delete(void* block) noexcept { free(block); }
void operator delete(void* block, size_t) noexcept { free(block); }

namespace {

using namespace limiter_world;
using texts = std::vector<std::string>;

constexpr sqlite3_int64 mebibyte = 1 << 20;

int ignore_row(void* /*arg*/, int /*columns*/, char** /*values*/, char** /*names*/) { return 0; }

class limiter_bounds : public testing::Test {
  protected:
    void SetUp() override {
        install_notifier();
        reply = settings_on("3", "5");
        ASSERT_EQ(create_privilege_user_block_db(), 0);
        db = sql_trace::opened.back();
    }
    void TearDown() override { EXPECT_EQ(finish_privilege_user_block_db(), 0); }

    // Rows with the names "user1" and so on, one failure each.
    void fill(int rows_wanted) const {
        ASSERT_EQ(sql_trace::run(db,
                                 "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM "
                                 "n WHERE i < " +
                                     std::to_string(rows_wanted) +
                                     ") INSERT INTO privilege_user_block (username, "
                                     "limit_count, timestamp) SELECT 'user' || i, 1, "
                                     "1795222858 FROM n;"),
                  SQLITE_OK);
    }
    std::string value(const std::string& text) const { return sql_trace::value(db, text); }
    std::string row_count() const { return value("SELECT Count(*) FROM privilege_user_block;"); }

    sqlite3* db = nullptr;
};

// The most memory that the work takes on top of what there is, SQLite's included.
template <class Work>
sqlite3_int64 peak_of(Work work) {
    (void)sqlite3_memory_highwater(1);
    highest = used;
    const auto before = static_cast<sqlite3_int64>(used) + sqlite3_memory_used();
    work();
    return static_cast<sqlite3_int64>(highest) + sqlite3_memory_highwater(0) - before;
}

TEST_F(limiter_bounds, decisions_take_less_than_1_MiB_more_than_their_statements) {
    fill(100000);
    const auto statements = [this] {
        for (const std::string& text : look("1")) {
            EXPECT_EQ(sqlite3_exec(db, text.c_str(), ignore_row, nullptr, nullptr), SQLITE_OK);
        }
    };
    statements();  // fills SQLite's page cache
    const sqlite3_int64 least = peak_of(statements);
    EXPECT_LT(peak_of([] { EXPECT_EQ(check("user99999"), 0); }), least + mebibyte);
    EXPECT_LT(peak_of([] { EXPECT_EQ(check("nobody"), 0); }), least + mebibyte);
    EXPECT_LT(peak_of([] { fail("user50000"); }), least + mebibyte);
    EXPECT_LT(peak_of([] { fail("somebody new"); }), least + mebibyte);
    EXPECT_LT(peak_of([] { lift("user77777"); }), least + mebibyte);
    EXPECT_LT(peak_of([] { clean(); }), least + mebibyte);
    EXPECT_EQ(row_count(), "0");
}

// What the measure is worth: a listing of the same rows takes 100 times as much.
TEST_F(limiter_bounds, listing_takes_memory_for_its_rows) {
    fill(100000);
    db_query_cond cond = {};
    cond.count = -1;
    db_privilege_user_block_query header = {};
    db_privilege_user_block_query* result = &header;
    EXPECT_GT(peak_of([&] { EXPECT_EQ(select_privilege_user_block(&cond, &result), 0); }),
              100 * mebibyte);
    EXPECT_EQ(header.count, 100000U);
    EXPECT_EQ(header.total, 100000U);
    free(header.data);
}

TEST_F(limiter_bounds, clean_keeps_only_the_names_that_it_tells) {
    fill(100000);
    ASSERT_EQ(sql_trace::run(db,
                             "UPDATE privilege_user_block SET limit_count = 3 WHERE id IN (7, "
                             "50000, 100000);"),
              SQLITE_OK);
    EXPECT_LT(peak_of([] { clean(); }), 2 * mebibyte);
    EXPECT_EQ(notifications(),
              (texts{unblocked("user7"), unblocked("user50000"), unblocked("user100000")}));
}

TEST_F(limiter_bounds, new_user_at_the_cap_costs_the_2000_oldest) {
    fill(101998);
    fail("one");
    EXPECT_EQ(row_count(), "101999");
    forget_events();
    fail("two");
    EXPECT_EQ(row_count(), "100000");
    EXPECT_EQ(value("SELECT min(id) FROM privilege_user_block;"), "2001");
    const std::string insert =
        "INSERT OR REPLACE INTO privilege_user_block (username, limit_count, timestamp) VALUES "
        "('two', 1, 1795222858);";
    const std::string trim =
        "DELETE from privilege_user_block WHERE id IN (SELECT id from privilege_user_block LIMIT "
        "2000);";
    EXPECT_EQ(events(),
              sequence({look("2000"),
                        {"BEGIN TRANSACTION;", insert, "SELECT Count(*) FROM privilege_user_block;",
                         trim, "END TRANSACTION;", "(settings)"}}));
}

TEST_F(limiter_bounds, another_failure_at_the_cap_costs_nobody_anything) {
    fill(101999);
    fail("user101999");
    EXPECT_EQ(row_count(), "101999");
    EXPECT_EQ(count_of_user("user101999"), "2");
}

// Rows beyond the newest 100000 are there and not seen: such a user is unknown, so is counted anew.
TEST_F(limiter_bounds, users_beyond_the_newest_100000_are_unknown) {
    fill(100050);
    ASSERT_EQ(sql_trace::run(db, "UPDATE privilege_user_block SET limit_count = 3;"), SQLITE_OK);
    EXPECT_EQ(check("user50"), 0);
    EXPECT_EQ(check("user51"), 1);
    EXPECT_EQ(log_lines(),
              texts(2,
                    "WARN ravod_db_privilege_user_block_handler.cpp "
                    "select_privilege_user_block:total_count 100050 > maxium 100000, set "
                    "total_count = 100000"));
    fail("user50");
    EXPECT_EQ(value("SELECT Count(*) FROM privilege_user_block WHERE username = 'user50';"), "2");
}

}  // namespace
