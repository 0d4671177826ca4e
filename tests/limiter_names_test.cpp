// User names that are more than names: those with a '%', which the UPDATE reads as a format, over-
// long ones, and every byte but NUL. Whatever a name does to its own row, the daemon lives on and
// the counts of others are right.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "support/limiter.h"
#include "support/sql_trace.h"

namespace {

using namespace limiter_world;
using texts = std::vector<std::string>;

constexpr char now_text[] = "1795222858";

class limiter_names : public testing::Test {
  protected:
    void SetUp() override {
        install_notifier();
        reply = settings_on("1000", "5");
        ASSERT_EQ(create_privilege_user_block_db(), 0);
    }
    void TearDown() override { EXPECT_EQ(finish_privilege_user_block_db(), 0); }

    // The statement of a user's second failure.
    static std::string second_failure(const std::string& user) {
        fail(user);
        forget_events();
        fail(user);
        const texts done = events();
        return done.size() > 3 ? done[3] : "(none)";
    }
};

struct format_case {
    const char* name;
    const char* set;    // what the statement makes the name, in its quotes
    const char* where;  // the id of the statement; the row's is 1
};

TEST_F(limiter_names, are_a_format_with_the_id_as_its_argument) {
    static constexpr format_case cases[] = {
        {"alice", "alice", "1"},
        {"a%%b", "a%b", "1"},
        {"%%", "%", "1"},
        {"%%%%", "%%", "1"},
        {"%d", "1", "0"},
        {"%d%d%d", "100", "0"},
        {"%lu", "1", "0"},
        {"%s", "1", "0"},
        {"%s%s", "1", "0"},
        {"%z", "1", "0"},
        {"%n", "", "1"},
        {"%n%n%n%n", "", "1"},
        {"%x", "1", "0"},
        {"%f", "1.000000", "0"},
        {"%5d|", "    1|", "0"},
        {"%-5d|", "1    |", "0"},
        {"%05d", "00001", "0"},
        {"%*d", "0", "0"},
        {"%c", "1", "0"},
        {"%.3c", "111", "0"},
        {"%q", "1", "0"},
        {"%w", "1", "0"},
        {"%r", "1st", "0"},
        {"5% discount", "5 1iscount", "0"},
        {"%c, limit_count=0 --", "1, limit_count=0 --", "0"},
        {"it's %%", "it''s %", "1"},
    };
    for (const format_case& c : cases) {
        SCOPED_TRACE(c.name);
        drop_rows();
        EXPECT_EQ(second_failure(c.name),
                  std::string("UPDATE privilege_user_block SET username = '") + c.set +
                      "', limit_count = 2, timestamp = " + now_text + " WHERE id = " + c.where +
                      ";");
    }
}

TEST_F(limiter_names, doubled_percent_sign_renames_the_row) {
    fail("a%%b");
    fail("a%%b");
    EXPECT_EQ(rows(), texts{std::string("1|a%b|2|") + now_text});
    fail("a%%b");
    EXPECT_EQ(rows(),
              (texts{std::string("1|a%b|2|") + now_text, std::string("2|a%%b|1|") + now_text}));
}

TEST_F(limiter_names, unknown_conversion_ends_the_statement) {
    for (const char* name : {"100%", "%", "%'", "%y%d", "%-"}) {
        SCOPED_TRACE(name);
        drop_rows();
        forget_log();
        fail(name);
        fail(name);
        fail(name);
        EXPECT_EQ(rows().size(), 1U);
        EXPECT_EQ(count_of_user(name), "1");
        const texts lines = log_lines();
        ASSERT_EQ(lines.size(), 6U);
        EXPECT_NE(lines[0].find("err = unrecognized token: "), std::string::npos) << lines[0];
        EXPECT_NE(lines[2].find("insert_privilege_user_block:RET = 1"), std::string::npos);
    }
}

TEST_F(limiter_names, unknown_conversion_leaves_what_stands_before_it) {
    fail("100%");
    fail("100%");
    EXPECT_EQ(events().back(), "(settings)");
    EXPECT_EQ(log_lines()[0],
              "ERROR ravod_db_privilege_user_block_handler.cpp insert_privilege_user_block:sql = "
              "UPDATE privilege_user_block SET username = '100, err = unrecognized token: "
              "\"'100\"");
}

TEST_F(limiter_names, conversion_never_counts_above_1) {
    for (const char* name : {"%d", "%s", "%z", "%c, limit_count=0 --", "%x%x%x", "%Q", "%c%c"}) {
        SCOPED_TRACE(name);
        drop_rows();
        for (int n = 0; n < 5; ++n) fail(name);
        EXPECT_EQ(count_of_user(name), "1");
        EXPECT_EQ(rows().size(), 1U);
    }
}

// "%Q" brings quotes of its own, so what stands between them is outside of the name's literal.
TEST_F(limiter_names, quoting_conversions_do_not_break_out) {
    for (const char* name : {"%Q", "%Q, limit_count=0 --", "%.0Q, limit_count=0 --", "%d%Q", "%Q%c",
                             "%.0Q%.0Q", "%Q%Q", "%.1Q, limit_count=0 WHERE 1 --",
                             "%d%c', limit_count=0 --", "%5Q", "%-5Q, id=9"}) {
        SCOPED_TRACE(name);
        drop_rows();
        put_row("7", "'alice'", "2", now_text);
        for (int n = 0; n < 4; ++n) fail(name);
        EXPECT_EQ(rows().size(), 2U);
        EXPECT_EQ(rows()[0], std::string("7|alice|2|") + now_text);
    }
}

TEST_F(limiter_names, result_without_an_end_is_a_failed_statement) {
    for (const char* name : {"%999999999d", "%2147483647d", "%99999999999999999999d",
                             "%.999999999d", "%999999999s", "%70000%", "%.70000c"}) {
        SCOPED_TRACE(name);
        drop_rows();
        forget_log();
        (void)sqlite3_memory_highwater(1);
        const sqlite3_int64 before = sqlite3_memory_used();
        fail(name);
        fail(name);
        EXPECT_LT(sqlite3_memory_highwater(0) - before, 1 << 20);
        EXPECT_EQ(count_of_user(name), "1");
        EXPECT_EQ(log_lines(), (texts{"ERROR ravod_db_privilege_user_block_handler.cpp "
                                      "insert_privilege_user_block:sql = (null), err = (null)",
                                      "WARN ravod_db_privilege_user_block_handler.cpp "
                                      "insert_privilege_user_block:close db ADDRESS",
                                      "ERROR ravod_db_privilege_user_block_handler.cpp "
                                      "insert_privilege_user_block:RET = 7"}));
    }
}

// SQLite would count such a character's repetitions one by one.
TEST_F(limiter_names, repeated_character_keeps_nobody_waiting) {
    const auto start = std::chrono::steady_clock::now();
    for (const char* name : {"%.2147483647c", "x%%%-5.2000000000c", "%5.1999999999lc",
                             "%.2147483647llc", "%n%.2147483647c"}) {
        SCOPED_TRACE(name);
        drop_rows();
        forget_log();
        fail(name);
        fail(name);
        EXPECT_EQ(count_of_user(name), "1");
        ASSERT_EQ(log_lines().size(), 3U);
        EXPECT_NE(log_lines()[0].find("sql = (null), err = (null)"), std::string::npos);
    }
    // One of them alone takes SQLite longer than that.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
}

// What only looks like one is what it was.
TEST_F(limiter_names, number_that_repeats_nothing_is_no_matter) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"v.2147483647c", "v.2147483647c"},
        {"%%.2147483647c", "%.2147483647c"},
        {"%d.2147483647c", "1.2147483647c"},
        {"%.2147483647s", "1"},
        {"%.2147483647sc", "1c"},
        {"%.3lc", "111"},
        {"%.2147483648c", "1"},
        {"%5%.2147483647c", "    %.2147483647c"},
    };
    for (const auto& [name, set] : cases) {
        SCOPED_TRACE(name);
        drop_rows();
        const std::string expected =
            "UPDATE privilege_user_block SET username = '" + set + "', limit_count = 2";
        EXPECT_EQ(second_failure(name).substr(0, expected.size()), expected);
    }
}

TEST_F(limiter_names, result_below_64_KiB_is_run) {
    EXPECT_GT(second_failure("%65000d").size(), 65000U);
    EXPECT_EQ(count_of_user("%65000d"), "1");
}

// The width of a conversion that takes no argument makes the row's name long. It is read cut.
TEST_F(limiter_names, padded_percent_sign_stores_up_to_64_KiB) {
    fail("%60000%");
    fail("%60000%");
    EXPECT_EQ(sql_trace::value_in_file("SELECT length(username) FROM privilege_user_block"),
              "60000");
    fail(std::string(1024, ' '));
    EXPECT_EQ(sql_trace::value_in_file("SELECT length(username) || ' ' || limit_count FROM "
                                       "privilege_user_block"),
              "1024 3");
}

TEST_F(limiter_names, do_not_touch_the_counts_of_others) {
    fail("alice");
    fail("alice");
    fail("bob");
    const texts hostile = {"%s",
                           "%n",
                           "%z",
                           "%999999999d",
                           "%c, limit_count=0 --",
                           "', limit_count=0 --",
                           "'; DELETE FROM privilege_user_block; --",
                           "\\', limit_count=0 --",
                           "%s%s%s%s%s%s%s%s%s%s%n%n%n%n",
                           "%*.*s",
                           "%lln",
                           "%100$d",
                           "100%",
                           std::string(2000, '\''),
                           std::string(5000, 'x'),
                           std::string(2500, '%'),
                           "\xff\xfe\x80",
                           "a\nb\tc\x1b[2J",
                           ""};
    for (const std::string& name : hostile) {
        SCOPED_TRACE(name.substr(0, 40));
        for (int n = 0; n < 4; ++n) fail(name);
        EXPECT_EQ(check(name), 0);
        EXPECT_EQ(count_of_user("alice"), "2");
        EXPECT_EQ(count_of_user("bob"), "1");
    }
    fail("alice");
    EXPECT_EQ(count_of_user("alice"), "3");
    for (const std::string& name : hostile) lift(name);
    EXPECT_EQ(count_of_user("alice"), "3");
    EXPECT_EQ(count_of_user("bob"), "1");
    EXPECT_EQ(forks, 0);
}

TEST_F(limiter_names, count_with_every_byte_but_NUL) {
    for (int byte = 1; byte < 256; ++byte) {
        if (byte == '%') continue;
        SCOPED_TRACE(byte);
        const std::string name = std::string("x") + static_cast<char>(byte) + "y";
        drop_rows();
        for (int n = 0; n < 3; ++n) fail(name);
        EXPECT_EQ(rows(), texts{"1|" + name + "|3|" + now_text});
        lift(name);
        EXPECT_EQ(rows(), texts{});
    }
}

TEST_F(limiter_names, over_long_ones_count_by_their_first_1024_bytes) {
    reply = settings_on("3", "5");
    const std::string whole(5000, 'x');
    const std::string kept(1024, 'x');
    fail(whole);
    fail(kept);
    fail(kept + "something else");
    EXPECT_EQ(rows(), texts{"1|" + kept + "|3|" + now_text});
    EXPECT_EQ(check(whole), 1);
    EXPECT_EQ(check(kept + "y"), 1);
    EXPECT_EQ(check(std::string(1023, 'x')), 0);
    EXPECT_EQ(notifications(), texts{blocked(kept)});
    lift(whole + "z");
    EXPECT_EQ(rows(), texts{});
    EXPECT_EQ(notifications(), (texts{blocked(kept), unblocked(kept)}));
}

TEST_F(limiter_names, of_quotes_alone_fit_the_update) {
    const std::string quotes(1024, '\'');
    for (int n = 0; n < 3; ++n) fail(std::string(2000, '\''));
    EXPECT_EQ(rows(), texts{"1|" + quotes + "|3|" + now_text});
    EXPECT_EQ(events().back(), "(settings)");
    lift(std::string(3000, '\''));
    EXPECT_EQ(rows(), texts{});
}

// Rows of others may hold longer names. They are read cut, and so counted.
TEST_F(limiter_names, over_long_ones_of_the_file_are_read_cut) {
    std::string literal = "'";
    literal.append(3000, 'x').append("'");
    put_row("1", literal, "5", now_text);
    fail(std::string(1024, 'x'));
    EXPECT_EQ(rows(), texts{"1|" + std::string(1024, 'x') + "|6|" + now_text});
}

}  // namespace
