// The login-attempt limiter: what it counts, whom it blocks and for how long, what it tells, which
// statements it runs in which order, and what happens when settings or database fail.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/limiter.h"
#include "support/sql_trace.h"

namespace {
bool calloc_fails = false;
}

// The store's growth of a listing (the linker puts this in its place).
extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __wrap_calloc(size_t count, size_t size) {
    return calloc_fails ? nullptr : __real_calloc(count, size);
}

namespace {

using namespace limiter_world;
using texts = std::vector<std::string>;

const texts no_texts;
const texts transaction_end = {"SELECT Count(*) FROM privilege_user_block;", "END TRANSACTION;"};
const texts whole_table_gone = {"DELETE FROM privilege_user_block;", "PRAGMA optimize;",
                                "PRAGMA shrink_memory;"};

std::string start_plus(time_t seconds) { return std::to_string(start_time + seconds); }

class limiter : public testing::Test {
  protected:
    void SetUp() override {
        install_notifier();
        reply = settings_on("3", "5");
        ASSERT_EQ(create_privilege_user_block_db(), 0);
        create_events = events();
        forget_events();
    }
    void TearDown() override { EXPECT_EQ(finish_privilege_user_block_db(), 0); }

    // Fails a login so many times.
    static void fail_times(const std::string& user, int times) {
        for (int n = 0; n < times; ++n) fail(user);
    }

    texts create_events;
};

// --- Counting and blocking -----------------------------------------------------------------------

TEST_F(limiter, third_failure_of_three_blocks_and_notifies) {
    fail_times("alice", 2);
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(notifications(), no_texts);
    fail("alice");
    EXPECT_EQ(notifications(), texts{blocked("alice")});
    EXPECT_EQ(check("alice"), 1);
    EXPECT_EQ(check("bob"), 0);
}

TEST_F(limiter, failure_past_the_limit_restarts_the_block_and_sends_nothing) {
    fail_times("alice", 3);
    now += 299;
    fail("alice");
    EXPECT_EQ(rows(), texts{"1|alice|4|" + start_plus(299)});
    now += 299;
    EXPECT_EQ(check("alice"), 1);
    fail_times("alice", 5);
    EXPECT_EQ(notifications(), texts{blocked("alice")});
}

TEST_F(limiter, block_ends_exactly_after_its_time) {
    fail_times("alice", 4);
    now += 299;
    EXPECT_EQ(check("alice"), 1);
    now += 1;
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(rows(), no_texts);
    EXPECT_EQ(notifications(), (texts{blocked("alice"), unblocked("alice")}));
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(forks, 2);
}

TEST_F(limiter, failure_after_a_block_counts_from_one) {
    fail_times("alice", 3);
    now += 300;
    EXPECT_EQ(check("alice"), 0);
    fail("alice");
    EXPECT_EQ(rows(), texts{"2|alice|1|" + start_plus(300)});
}

TEST_F(limiter, failure_after_a_block_that_nobody_checked_counts_on) {
    fail_times("alice", 3);
    now += 100000;
    fail("alice");
    EXPECT_EQ(rows(), texts{"1|alice|4|" + start_plus(100000)});
    EXPECT_EQ(check("alice"), 1);
}

TEST_F(limiter, counts_below_the_limit_never_run_out) {
    fail_times("alice", 2);
    now += 1000000000;
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(rows(), texts{"1|alice|2|" + start_plus(0)});
    fail("alice");
    EXPECT_EQ(check("alice"), 1);
}

TEST_F(limiter, first_failure_blocks_at_a_limit_of_one) {
    reply = settings_on("1", "5");
    fail("alice");
    EXPECT_EQ(notifications(), texts{blocked("alice")});
    EXPECT_EQ(check("alice"), 1);
}

TEST_F(limiter, clock_set_back_keeps_a_block) {
    fail_times("alice", 3);
    now = start_time - 1;
    EXPECT_EQ(check("alice"), 1);
    now = 0;
    EXPECT_EQ(check("alice"), 1);
    reply = settings_on("3", "0");
    EXPECT_EQ(check("alice"), 1);
    EXPECT_EQ(notifications().size(), 1U);
}

TEST_F(limiter, settings_of_the_moment_decide) {
    fail_times("alice", 2);
    now += 60;
    reply = settings_on("2", "5");
    EXPECT_EQ(check("alice"), 1);
    reply = settings_on("3", "5");
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(rows().size(), 1U);
    reply = settings_on("2", "1");
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(rows(), no_texts);
    EXPECT_EQ(notifications(), texts{unblocked("alice")});
}

TEST_F(limiter, limit_lowered_below_a_count_blocks_without_a_notice) {
    fail_times("alice", 2);
    reply = settings_on("2", "5");
    fail("alice");
    EXPECT_EQ(check("alice"), 1);
    EXPECT_EQ(notifications(), no_texts);
}

TEST_F(limiter, failures_count_while_switched_off) {
    reply = settings(R"("enable": false, "limit": 1, "time": 5)");
    fail_times("alice", 3);
    EXPECT_EQ(notifications(), no_texts);
    reply = settings_on("3", "5");
    EXPECT_EQ(check("alice"), 1);
}

TEST_F(limiter, block_time_is_read_before_the_clock) {
    fail_times("alice", 3);
    during_call = [] { now = start_time + 300; };
    EXPECT_EQ(check("alice"), 0);
}

TEST_F(limiter, clock_is_read_after_the_rows) {
    sql_trace::before_exec = [](const std::string& text) {
        if (text.find("Count(*)") != std::string::npos) now = start_time + 7;
        return SQLITE_OK;
    };
    fail("alice");
    EXPECT_EQ(rows(), texts{"1|alice|1|" + start_plus(7)});
    reply = settings_on("1", "1");
    sql_trace::before_exec = [](const std::string& text) {
        if (text.find("Count(*)") != std::string::npos) now = start_time + 67;
        return SQLITE_OK;
    };
    EXPECT_EQ(check("alice"), 0);
    sql_trace::before_exec = nullptr;
}

TEST_F(limiter, failure_is_dated_before_the_settings_are_read) {
    during_call = [] { now = start_time + 5; };
    fail("alice");
    EXPECT_EQ(rows(), texts{"1|alice|1|" + start_plus(0)});
}

TEST_F(limiter, users_are_apart_byte_for_byte) {
    fail_times("alice", 3);
    fail("Alice");
    fail("alice ");
    fail("");
    EXPECT_EQ(check("alice"), 1);
    EXPECT_EQ(check("Alice"), 0);
    EXPECT_EQ(count_of_user("Alice"), "1");
    EXPECT_EQ(count_of_user("alice "), "1");
    EXPECT_EQ(count_of_user(""), "1");
    lift("ALICE");
    EXPECT_EQ(rows().size(), 4U);
}

TEST_F(limiter, first_row_of_a_user_is_the_user) {
    put_row("5", "'alice'", "1", "1");
    put_row("6", "'alice'", "9", "9");
    fail("alice");
    EXPECT_EQ(rows(), (texts{"5|alice|2|" + start_plus(0), "6|alice|9|9"}));
    EXPECT_EQ(check("alice"), 0);
    lift("alice");
    EXPECT_EQ(rows(), texts{"6|alice|9|9"});
}

// --- Settings ------------------------------------------------------------------------------------

TEST_F(limiter, settings_are_asked_for_as_agreed) {
    fail("alice");
    (void)check("alice");
    lift("alice");
    clean();
    EXPECT_EQ(calls, texts(4, R"(vpncaas read_json 5 -1 {"path": "/etc/config/vpn_block.conf"})"));
}

TEST_F(limiter, only_true_switches_on) {
    for (const char* value : {"1", "\"true\"", "\"1\"", "null", "{}", "[true]", "false", "1.0"}) {
        SCOPED_TRACE(value);
        reply = settings(std::string(R"("limit": 1, "time": 5, "enable": )") + value);
        fail("alice");
        fail("bob");
        EXPECT_EQ(rows().size(), 2U);
        EXPECT_EQ(check("carol"), 0);
        EXPECT_EQ(rows(), no_texts);
    }
    EXPECT_EQ(forks, 0);
}

TEST_F(limiter, missing_members_switch_off) {
    for (const char* text :
         {R"({"error": 0})", R"({"error": 0, "data": []})", R"({"error": 0, "data": 1})",
          R"({"error": 0, "data": {"global": []}})", R"({"error": 0, "data": {"global": {}}})",
          R"({"error": 0, "data": {"enable": true, "limit": 1, "time": 5}})",
          R"({"error": 0, "global": {"enable": true, "limit": 1, "time": 5}})"}) {
        SCOPED_TRACE(text);
        reply = text;
        fail("alice");
        EXPECT_EQ(check("alice"), 0);
        EXPECT_EQ(rows(), no_texts);
    }
    EXPECT_EQ(forks, 0);
}

struct limit_case {
    const char* members;  // after "enable"
    int least_blocked;    // the smallest count that is blocked; 0: none
    int notices;          // of two failures
};

TEST_F(limiter, limit_is_a_whole_number_or_0) {
    static constexpr limit_case cases[] = {
        {R"("time": 5, "limit": 2)", 2, 1},
        {R"("time": 5, "limit": "2")", 1, 0},
        {R"("time": 5, "limit": 2.0)", 1, 0},
        {R"("time": 5, "limit": true)", 1, 0},
        {R"("time": 5, "limit": null)", 1, 0},
        {R"("time": 5, "limit": [2])", 1, 0},
        {R"("time": 5, "limit": 0)", 1, 0},
        {R"("time": 5)", 1, 0},
        {R"("time": 5, "limit": -1)", 1, 0},
        {R"("time": 5, "limit": -9223372036854775808)", 1, 0},
        {R"("time": 5, "limit": 4294967297)", 0, 0},  // 1 in the low 32 bits
        {R"("time": 5, "limit": 9223372036854775807)", 0, 0},
    };
    int notices = 0;
    for (const limit_case& c : cases) {
        SCOPED_TRACE(c.members);
        drop_rows();
        reply = settings(std::string(R"("enable": true, )") + c.members);
        for (int count = 1; count <= 2; ++count) {
            fail("alice");
            EXPECT_EQ(check("alice"), c.least_blocked > 0 && count >= c.least_blocked ? 1 : 0);
        }
        notices += c.notices;
        EXPECT_EQ(forks, notices);
    }
}

struct time_case {
    const char* members;  // after "enable" and "limit"
    time_t seconds;       // of the block
};

TEST_F(limiter, block_time_is_minutes_toward_whole_seconds) {
    static constexpr time_case cases[] = {
        {R"(, "time": 5)", 300},        {R"(, "time": 5.0)", 300},  {R"(, "time": 2.5)", 150},
        {R"(, "time": 0.99)", 59},      {R"(, "time": 0.016)", 0},  {R"(, "time": 0)", 0},
        {R"(, "time": -5)", 0},         {R"(, "time": -1e300)", 0}, {"", 0},
        {R"(, "time": "5")", 0},        {R"(, "time": true)", 0},   {R"(, "time": null)", 0},
        {R"(, "time": [5])", 0},        {R"(, "time": 1e-300)", 0}, {R"(, "time": 1)", 60},
        {R"(, "time": 1e6)", 60000000},
    };
    for (const time_case& c : cases) {
        SCOPED_TRACE(c.members);
        drop_rows();
        now = start_time;
        reply = settings(std::string(R"("enable": true, "limit": 1)") + c.members);
        fail("alice");
        if (c.seconds > 0) {
            now = start_time + c.seconds - 1;
            EXPECT_EQ(check("alice"), 1);
        }
        now = start_time + c.seconds;
        EXPECT_EQ(check("alice"), 0);
        EXPECT_EQ(rows(), no_texts);
    }
}

TEST_F(limiter, block_time_beyond_64_bits_never_ends) {
    for (const char* minutes :
         {"1e300", "9223372036854775807", "307445734561825861", "1e19", "153722867280912931"}) {
        SCOPED_TRACE(minutes);
        drop_rows();
        now = start_time;
        reply = settings_on("1", minutes);
        fail("alice");
        EXPECT_EQ(check("alice"), 1);
        now = INT64_MAX;
        EXPECT_EQ(check("alice"), 1);
    }
}

TEST_F(limiter, user_at_the_limit_is_released_at_once_without_a_block_time) {
    for (const char* members : {R"("limit": 2, "time": 0)", R"("limit": 2)"}) {
        reply = settings(std::string(R"("enable": true, )") + members);
        fail_times("alice", 2);
        EXPECT_EQ(check("alice"), 0);
        EXPECT_EQ(rows(), no_texts);
    }
    EXPECT_EQ(notifications(),
              (texts{blocked("alice"), unblocked("alice"), blocked("alice"), unblocked("alice")}));
}

TEST_F(limiter, limit_0_blocks_anybody_with_a_row_and_never_tells) {
    reply = settings_on("0", "5");
    fail("alice");
    EXPECT_EQ(check("alice"), 1);
    EXPECT_EQ(check("bob"), 0);
    lift("bob");
    EXPECT_EQ(notifications(), no_texts);
}

// --- Lifting -------------------------------------------------------------------------------------

TEST_F(limiter, lift_notifies_at_the_limit_only) {
    fail_times("below", 2);
    fail_times("at", 3);
    fail_times("past", 4);
    for (const char* user : {"below", "past", "nobody", "at"}) lift(user);
    EXPECT_EQ(rows(), no_texts);
    EXPECT_EQ(notifications(), (texts{blocked("at"), blocked("past"), unblocked("at")}));
}

TEST_F(limiter, lift_looks_at_the_limit_of_the_moment) {
    fail_times("alice", 2);
    reply = settings_on("2", "5");
    lift("alice");
    EXPECT_EQ(notifications(), texts{unblocked("alice")});
}

TEST_F(limiter, clean_notifies_for_those_at_the_limit_in_order) {
    for (const char* user : {"carol", "past", "alice", "below", "bob"}) fail_times(user, 2);
    for (const char* user : {"past", "bob", "alice", "carol", "past"}) fail(user);
    const size_t before = notifications().size();
    clean();
    EXPECT_EQ(rows(), no_texts);
    texts sent = notifications();
    sent.erase(sent.begin(), sent.begin() + static_cast<long>(before));
    EXPECT_EQ(sent, (texts{unblocked("carol"), unblocked("alice"), unblocked("bob")}));
}

TEST_F(limiter, nobody_is_notified_while_switched_off) {
    fail_times("alice", 3);
    reply = settings(R"("enable": false, "limit": 3, "time": 5)");
    lift("alice");
    fail_times("bob", 3);
    clean();
    EXPECT_EQ(notifications(), texts{blocked("alice")});
    EXPECT_EQ(rows(), no_texts);
}

TEST_F(limiter, switched_on_again_while_a_check_cleans_notifies) {
    fail_times("alice", 3);
    reply = settings(R"("enable": false)");
    during_call = [] {
        if (calls.size() == 5) reply = settings_on("3", "5");
    };
    EXPECT_EQ(check("bob"), 0);
    EXPECT_EQ(calls.size(), 5U);
    EXPECT_EQ(rows(), no_texts);
    EXPECT_EQ(notifications(), (texts{blocked("alice"), unblocked("alice")}));
}

// --- Notifications -------------------------------------------------------------------------------

TEST_F(limiter, a_name_is_one_word_of_the_notifier) {
    reply = settings_on("1", "0");
    const texts names = {"a b", "it's \"x\"", "line\nbreak",         "{0}{1}", "$(id)", "-A", "--",
                         "",    "\xff\xfe",   std::string(1024, 'x')};
    texts expected;
    for (const std::string& name : names) {
        fail(name);
        (void)check(name);
        expected.push_back(blocked(name));
        expected.push_back(unblocked(name));
    }
    EXPECT_EQ(notifications(), expected);
}

TEST_F(limiter, a_missing_notifier_changes_nothing_and_leaves_no_zombie) {
    std::filesystem::remove("/usr/local/sbin/notify");
    sql_trace::before_exec = nullptr;
    reply = settings_on("1", "5");
    fail("alice");
    EXPECT_EQ(forks, 1);
    EXPECT_EQ(check("alice"), 1);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(log_lines(), no_texts);
}

TEST_F(limiter, a_notification_leaves_no_child_behind) {
    reply = settings_on("1", "0");
    for (const char* user : {"a", "b", "c"}) {
        fail(user);
        (void)check(user);
    }
    EXPECT_EQ(forks, 6);
    EXPECT_EQ(notifications().size(), 6U);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

// --- Statements ----------------------------------------------------------------------------------

TEST_F(limiter, create_makes_the_table_and_no_index) {
    const std::string create =
        "CREATE  TABLE IF NOT EXISTS privilege_user_block (id INTEGER PRIMARY KEY AUTOINCREMENT "
        "UNIQUE, username TEXT, limit_count INTEGER, timestamp INTEGER);";
    EXPECT_EQ(create_events,
              (texts{"PRAGMA page_size = 2048;", "PRAGMA synchronous = ON;",
                     "PRAGMA auto_vacuum = FULL;", "PRAGMA journal_mode = OFF;",
                     "PRAGMA default_cache_size = 10000;", "PRAGMA cache_size = 10000;", create}));
    EXPECT_EQ(sql_trace::value_in_file("SELECT Count(*) FROM sqlite_master WHERE type = 'index' "
                                       "AND sql IS NOT NULL"),
              "0");
}

TEST_F(limiter, first_failure_inserts_in_a_transaction) {
    fail("it's");
    EXPECT_EQ(events(),
              sequence({look("-1"),
                        {"BEGIN TRANSACTION;",
                         "INSERT OR REPLACE INTO privilege_user_block (username, limit_count, "
                         "timestamp) VALUES ('it''s', 1, 1795222858);"},
                        transaction_end,
                        {"(settings)"}}));
}

TEST_F(limiter, further_failures_update_outside_of_one) {
    fail_times("it's", 2);
    forget_events();
    now += 1;
    fail("it's");
    EXPECT_EQ(events(), sequence({look("1"),
                                  {"UPDATE privilege_user_block SET username = 'it''s', "
                                   "limit_count = 3, timestamp = 1795222859 WHERE id = 1;",
                                   "(settings)", "(notifier)"}}));
}

TEST_F(limiter, check_asks_and_looks) {
    fail_times("alice", 3);
    forget_events();
    EXPECT_EQ(check("alice"), 1);
    EXPECT_EQ(events(), sequence({{"(settings)"}, look("1")}));
    forget_events();
    EXPECT_EQ(check("bob"), 0);
    EXPECT_EQ(events(), sequence({{"(settings)"}, look("1")}));
}

TEST_F(limiter, check_deletes_a_block_that_has_run_out_before_it_tells) {
    fail("bob");
    fail_times("alice", 3);
    now += 300;
    forget_events();
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(events(),
              sequence({{"(settings)"},
                        look("1"),
                        {"DELETE FROM privilege_user_block WHERE id = 2;", "(notifier)"}}));
}

TEST_F(limiter, check_while_switched_off_asks_twice_and_empties_the_table) {
    fail("alice");
    reply = settings(R"("enable": false)");
    forget_events();
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(events(), sequence({{"(settings)", "(settings)"}, whole_table_gone}));
}

TEST_F(limiter, lift_deletes_before_it_asks) {
    fail_times("alice", 3);
    forget_events();
    lift("alice");
    EXPECT_EQ(
        events(),
        sequence({look("1"),
                  {"DELETE FROM privilege_user_block WHERE id = 1;", "(settings)", "(notifier)"}}));
    forget_events();
    lift("alice");
    EXPECT_EQ(events(), sequence({look("-1"), {"(settings)"}}));
}

TEST_F(limiter, clean_tells_before_it_deletes) {
    fail_times("alice", 3);
    forget_events();
    clean();
    EXPECT_EQ(events(), sequence({{"(settings)"}, look("1"), {"(notifier)"}, whole_table_gone}));
}

TEST_F(limiter, clean_while_switched_off_does_not_look) {
    reply = settings("");
    clean();
    EXPECT_EQ(events(), sequence({{"(settings)"}, whole_table_gone}));
}

TEST_F(limiter, deletes_and_cleans_do_not_accumulate) {
    for (int round = 0; round < 3; ++round) {
        fail("alice");
        fail("bob");
        fail("carol");
        lift("alice");
        lift("bob");
        EXPECT_EQ(rows().size(), 1U);
        clean();
        EXPECT_EQ(rows(), no_texts);
    }
    EXPECT_EQ(log_lines(), no_texts);
}

TEST_F(limiter, optimize_needs_an_open_connection) {
    EXPECT_EQ(optimize_privilege_user_block_db(), 0);
    EXPECT_EQ(events(), (texts{"PRAGMA optimize;", "PRAGMA shrink_memory;"}));
    EXPECT_EQ(finish_privilege_user_block_db(), 0);
    forget_events();
    EXPECT_EQ(optimize_privilege_user_block_db(), 0);
    EXPECT_EQ(events(), no_texts);
}

TEST_F(limiter, finish_runs_its_odd_statement_and_tells_that_it_closes) {
    EXPECT_EQ(finish_privilege_user_block_db(), 0);
    EXPECT_EQ(events(), texts{"VACCUM privilege_user_block"});
    EXPECT_EQ(log_lines(), texts{"WARN ravod_db_privilege_user_block_handler.cpp "
                                 "finish_privilege_user_block_db:close db ADDRESS"});
}

TEST_F(limiter, listing_delivers_what_the_table_holds) {
    fail_times("alice", 2);
    now += 9;
    fail("bob");
    db_query_cond cond = {};
    cond.count = 10;
    cond.order_by = 1;
    cond.order_style = 1;
    db_privilege_user_block_query header = {};
    db_privilege_user_block_query* result = &header;
    ASSERT_EQ(select_privilege_user_block(&cond, &result), 0);
    ASSERT_EQ(header.count, 2U);
    EXPECT_EQ(header.total, 2U);
    EXPECT_STREQ(header.data[0].username, "bob");
    EXPECT_EQ(header.data[0].id, 2);
    EXPECT_EQ(header.data[0].limit, 1);
    EXPECT_EQ(header.data[0].timestamp, static_cast<uint64_t>(start_time + 9));
    EXPECT_STREQ(header.data[1].username, "alice");
    EXPECT_EQ(header.data[1].limit, 2);
    free(header.data);
}

TEST_F(limiter, listing_knows_four_columns) {
    for (const int64_t column : {-1, 4}) {
        db_query_cond cond = {};
        cond.order_by = column;
        db_privilege_user_block_query header = {};
        db_privilege_user_block_query* result = &header;
        EXPECT_EQ(select_privilege_user_block(&cond, &result), -1);
        EXPECT_EQ(header.data, nullptr);
    }
    EXPECT_EQ(events(), no_texts);
}

// --- Odd rows, put into the file by others -------------------------------------------------------

TEST_F(limiter, count_stays_at_its_maximum) {
    put_row("1", "'alice'", "2147483646", "1");
    for (int n = 0; n < 3; ++n) {
        now += 1;
        fail("alice");
    }
    EXPECT_EQ(rows(), texts{"1|alice|2147483647|" + start_plus(3)});
    EXPECT_EQ(check("alice"), 1);
}

TEST_F(limiter, null_name_reads_as_NULL) {
    put_row("1", "NULL", "3", start_plus(0));
    EXPECT_EQ(check("NULL"), 1);
    EXPECT_EQ(check(""), 0);
    lift("NULL");
    EXPECT_EQ(rows(), no_texts);
    EXPECT_EQ(notifications(), texts{unblocked("NULL")});
}

TEST_F(limiter, row_of_a_table_without_names_is_that_of_NULL) {
    keep_ids_only();
    put_row("7");
    EXPECT_EQ(check("alice"), 0);
    reply = settings_on("-1", "5");
    now = 1;
    EXPECT_EQ(check("NULL"), 1);
}

TEST_F(limiter, null_count_reads_as_minus_1) {
    put_row("1", "'alice'", "NULL", "1");
    reply = settings_on("0", "5");
    EXPECT_EQ(check("alice"), 0);
    fail("alice");
    EXPECT_EQ(rows(), texts{"1|alice|0|" + start_plus(0)});
    EXPECT_EQ(notifications(), texts{blocked("alice")});
}

TEST_F(limiter, null_time_reads_as_minus_1) {
    put_row("1", "'alice'", "3", "NULL");
    now = 298;
    EXPECT_EQ(check("alice"), 1);
    now = 299;
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(rows(), no_texts);
}

// The row's id is 0 in 32 bits. Its first visible id is 0 as well.
TEST_F(limiter, row_that_seems_to_have_no_id_is_not_counted_on) {
    put_row("4294967296", "'alice'", "3", start_plus(0));
    fail("alice");
    EXPECT_EQ(rows(), (texts{"4294967296|alice|3|" + start_plus(0),
                             "4294967297|alice|1|" + start_plus(0)}));
}

TEST_F(limiter, row_that_seems_to_have_no_id_is_not_lifted) {
    put_row("4294967296", "'alice'", "3", start_plus(0));
    forget_events();
    lift("alice");
    EXPECT_EQ(events(), sequence({look("0"), {"(settings)"}}));
    EXPECT_EQ(rows().size(), 1U);
    EXPECT_EQ(notifications(), no_texts);
}

TEST_F(limiter, row_that_seems_to_have_no_id_blocks_and_runs_out) {
    put_row("4294967296", "'alice'", "3", start_plus(0));
    EXPECT_EQ(check("alice"), 1);
    now += 300;
    forget_events();
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(events(),
              sequence({{"(settings)"},
                        look("0"),
                        {"DELETE FROM privilege_user_block WHERE id = 0;", "(notifier)"}}));
    EXPECT_EQ(rows().size(), 1U);
}

// --- Failing settings ----------------------------------------------------------------------------

struct broken_settings {
    int result;
    const char* reply;
    const char* line;  // behind "ERROR global_options.cpp easy_zb_call:easy_zb_call: "
};

constexpr broken_settings broken[] = {
    {-3, "", R"(zb_call vpncaas.read_json {"path": "/etc/config/vpn_block.conf"} failed)"},
    {-7, "", R"(zb_call vpncaas.read_json {"path": "/etc/config/vpn_block.conf"} failed)"},
    {1, "", R"(zb_call vpncaas.read_json {"path": "/etc/config/vpn_block.conf"} failed)"},
    {0, "", "root isn't an object."},
    {0, "nonsense", "root isn't an object."},
    {0, R"([{"error": 0}])", "root isn't an object."},
    {0, "{}", "val isn't an integer."},
    {0, R"({"error": "0", "data": {"global": {"enable": true}}})", "val isn't an integer."},
    {0, R"({"error": 0.0, "data": {"global": {"enable": true}}})", "val isn't an integer."},
    {0, R"({"error": 3, "data": {"global": {"enable": true, "limit": 4, "time": 5}}})",
     R"(vpncaas.read_json {"path": "/etc/config/vpn_block.conf"} failed)"},
};

class failing_settings : public limiter {
  protected:
    // Every way to fail, with a user at the limit of 3 and one below, nothing told so far.
    static void for_each(void (*test)()) {
        for (const broken_settings& way : broken) {
            SCOPED_TRACE(std::string(way.reply) + " " + std::to_string(way.result));
            drop_rows();
            put_row("1", "'alice'", "3", start_plus(0));
            put_row("2", "'bob'", "2", start_plus(0));
            reply = way.reply;
            call_result = way.result;
            forget_log();
            current_line =
                std::string("ERROR global_options.cpp easy_zb_call:easy_zb_call: ") + way.line;
            test();
            EXPECT_EQ(forks, 0);
        }
    }
    static std::string current_line;
};
std::string failing_settings::current_line;

TEST_F(failing_settings, check_answers_minus_1_and_does_nothing_else) {
    for_each([] {
        forget_events();
        EXPECT_EQ(check("alice"), -1);
        EXPECT_EQ(events(), texts{"(settings)"});
        EXPECT_EQ(rows().size(), 2U);
        EXPECT_EQ(log_lines(),
                  (texts{current_line,
                         "ERROR ravod_db_privilege_user_block_handler.cpp "
                         "check_privilege_user_block:check_privilege_user_block: zb failed. zbsh "
                         "vpncaas.read_json path=/etc/config/vpn_block.conf"}));
    });
}

TEST_F(failing_settings, failure_still_counts) {
    for_each([] {
        fail("bob");
        EXPECT_EQ(count_of_user("bob"), "3");
        EXPECT_EQ(log_lines(), texts{current_line});
    });
}

TEST_F(failing_settings, lift_still_deletes) {
    for_each([] {
        lift("alice");
        EXPECT_EQ(rows(), texts{"2|bob|2|" + start_plus(0)});
        EXPECT_EQ(log_lines(), texts{current_line});
    });
}

TEST_F(failing_settings, clean_still_deletes_all) {
    for_each([] {
        forget_events();
        clean();
        EXPECT_EQ(events(), sequence({{"(settings)"}, whole_table_gone}));
        EXPECT_EQ(rows(), no_texts);
        EXPECT_EQ(log_lines(), texts{current_line});
    });
}

TEST_F(failing_settings, clean_of_a_check_deletes_all) {
    fail("alice");
    reply = settings(R"("enable": false)");
    during_call = [] { call_result = calls.size() == 3 ? -7 : 0; };
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(calls.size(), 3U);
    EXPECT_EQ(rows(), no_texts);
}

TEST_F(failing_settings, count_is_in_the_file_while_the_service_is_asked) {
    texts seen;
    during_call = [&seen] { seen.push_back(count_of_user("alice")); };
    fail("alice");
    fail("alice");
    EXPECT_EQ(seen, (texts{"1", "2"}));
    lift("alice");
    EXPECT_EQ(seen.back(), "(no row)");
}

// --- Failing statements --------------------------------------------------------------------------

constexpr char unit[] = "ravod_db_privilege_user_block_handler.cpp ";

// What a statement leaves in the log that fails without an error text.
texts failed_lines(const std::string& function, const std::string& statement) {
    return {std::string("ERROR ") + unit + function + ":sql = " + statement + ", err = (null)",
            std::string("WARN ") + unit + function + ":close db ADDRESS",
            std::string("ERROR ") + unit + function + ":RET = 10"};
}

class failing_statements : public limiter {
  protected:
    void TearDown() override {
        sql_trace::before_exec = nullptr;
        limiter::TearDown();
    }
    // Makes the statements that begin so fail.
    static void break_statements(const std::string& start) {
        sql_trace::before_exec = [start](const std::string& text) {
            return text.starts_with(start) ? SQLITE_IOERR : SQLITE_OK;
        };
    }
};

TEST_F(failing_statements, select_makes_everybody_unknown) {
    fail_times("alice", 3);
    break_statements("SELECT * FROM");
    EXPECT_EQ(check("alice"), 0);
    lift("alice");
    EXPECT_EQ(rows(), texts{"1|alice|3|" + start_plus(0)});
    fail("alice");
    EXPECT_EQ(rows(), (texts{"1|alice|3|" + start_plus(0), "2|alice|1|" + start_plus(0)}));
    EXPECT_EQ(notifications(), texts{blocked("alice")});
}

TEST_F(failing_statements, select_is_logged_in_the_name_of_the_listing) {
    fail("alice");
    break_statements("SELECT * FROM");
    const texts expected = failed_lines("select_privilege_user_block", look("1")[1]);
    (void)check("alice");
    EXPECT_EQ(log_lines(), expected);
    forget_log();
    lift("alice");
    EXPECT_EQ(log_lines(), expected);
    forget_log();
    clean();
    EXPECT_EQ(log_lines(), expected);
}

TEST_F(failing_statements, update_is_logged_and_the_notice_sent) {
    fail_times("alice", 2);
    break_statements("UPDATE");
    fail("alice");
    EXPECT_EQ(count_of_user("alice"), "2");
    EXPECT_EQ(notifications(), texts{blocked("alice")});
    EXPECT_EQ(log_lines(),
              failed_lines("insert_privilege_user_block",
                           "UPDATE privilege_user_block SET username = 'alice', limit_count = 3, "
                           "timestamp = 1795222858 WHERE id = 1;"));
    sql_trace::before_exec = nullptr;
    fail("alice");
    EXPECT_EQ(count_of_user("alice"), "3");
}

TEST_F(failing_statements, insert_is_logged_and_the_notice_sent) {
    reply = settings_on("1", "5");
    break_statements("INSERT");
    fail("alice");
    EXPECT_EQ(rows(), no_texts);
    EXPECT_EQ(notifications(), texts{blocked("alice")});
    const texts lines = log_lines();
    ASSERT_EQ(lines.size(), 6U);  // the END of the lost transaction fails, too
    EXPECT_EQ(texts(lines.begin(), lines.begin() + 3),
              failed_lines("insert_privilege_user_block",
                           "INSERT OR REPLACE INTO privilege_user_block (username, limit_count, "
                           "timestamp) VALUES ('alice', 1, 1795222858);"));
}

TEST_F(failing_statements, failed_delete_of_a_check_is_told_all_the_same) {
    fail_times("alice", 3);
    now += 300;
    break_statements("DELETE");
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(rows().size(), 1U);
    EXPECT_EQ(notifications(), (texts{blocked("alice"), unblocked("alice")}));
    EXPECT_EQ(log_lines(), failed_lines("check_privilege_user_block",
                                        "DELETE FROM privilege_user_block WHERE id = 1;"));
}

TEST_F(failing_statements, failed_lift_is_told_all_the_same) {
    fail_times("alice", 3);
    break_statements("DELETE");
    lift("alice");
    EXPECT_EQ(rows().size(), 1U);
    EXPECT_EQ(notifications(), (texts{blocked("alice"), unblocked("alice")}));
    EXPECT_EQ(log_lines(), failed_lines("delete_privilege_user_block",
                                        "DELETE FROM privilege_user_block WHERE id = 1;"));
}

TEST_F(failing_statements, failed_clean_is_logged_in_its_own_name) {
    fail("alice");
    break_statements("DELETE");
    clean();
    EXPECT_EQ(rows().size(), 1U);
    const texts expected =
        failed_lines("clean_privilege_user_block", "DELETE FROM privilege_user_block;");
    EXPECT_EQ(log_lines(), expected);
    forget_log();
    reply = settings("");
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(log_lines(), expected);
}

TEST_F(failing_statements, no_database_makes_everybody_unknown) {
    fail_times("alice", 3);
    break_statements("SELECT id FROM");
    sql_trace::before_open = [](const std::string&) { return SQLITE_CANTOPEN; };
    EXPECT_EQ(check("alice"), 0);
    EXPECT_EQ(log_lines()[3].find(std::string("ERROR ") + unit +
                                  "select_privilege_user_block:open db failed, "),
              0U);
    sql_trace::before_exec = nullptr;
    sql_trace::before_open = nullptr;
    EXPECT_EQ(check("alice"), 1);
}

// --- No memory -----------------------------------------------------------------------------------

TEST_F(limiter, listing_without_memory_tells_of_each_row) {
    fail("alice");
    fail("bob");
    db_query_cond cond = {};
    cond.count = -1;
    db_privilege_user_block_query header = {};
    db_privilege_user_block_query* result = &header;
    calloc_fails = true;
    EXPECT_EQ(select_privilege_user_block(&cond, &result), 0);
    calloc_fails = false;
    EXPECT_EQ(header.count, 0U);
    EXPECT_EQ(header.total, 2U);
    EXPECT_EQ(header.data, nullptr);
    EXPECT_EQ(log_lines(),
              texts(2, std::string("ERROR ") + unit + "select_privilege_user_block:realloc fail"));
}

TEST_F(limiter, decisions_need_no_memory_for_rows) {
    fail_times("alice", 2);
    calloc_fails = true;
    fail("alice");
    EXPECT_EQ(check("alice"), 1);
    lift("alice");
    calloc_fails = false;
    EXPECT_EQ(notifications(), (texts{blocked("alice"), unblocked("alice")}));
    EXPECT_EQ(log_lines(), no_texts);
}

}  // namespace
