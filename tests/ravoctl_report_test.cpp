// The units of ravoctl: points of time in words, sessions, the page of them, rows and failures.
#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "bus.h"
#include "pages.h"
#include "report.h"
#include "sessions.h"
#include "sparkline.h"
#include "text.h"
#include "time_words.h"

namespace {

constexpr int64_t now = 1795222858;  // 2026-11-21T01:00:58Z, a Saturday

void set_time_zone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

}  // namespace

// ---- Points of time ----------------------------------------------------------------------------

TEST(time_words, are_understood) {
    set_time_zone("XST-2");  // two hours east, without a summer time
    const std::pair<const char*, int64_t> cases[] = {
        {"now", now},
        {"today", 1795212000},
        {"yesterday", 1795125600},
        {"tomorrow", 1795298400},
        {"2026-11-21", 1795212000},
        {"2026-11-21 03:00", 1795222800},
        {"2026-11-21 03:00:58", now},
        {"2026-11-21T03:00:58", now},
        {"2026-11-21T01:00:58Z", now},
        {"03:00", 1795222800},
        {"03:00:58", now},
        {"@1795222858", now},
        {"1795222858", now},
        {"0", 0},
        {"-90", now - 90},
        {"-2h", now - 7200},
        {"+1d", now + 86400},
        {"3d ago", now - 3 * 86400},
        {"1h 30min ago", now - 5400},
        {"1h30min ago", now - 5400},
        {"2 weeks ago", now - 14 * 86400},
    };
    for (const auto& [text, seconds] : cases) {
        EXPECT_EQ(parse_time_words(text, now), seconds) << text;
    }
}

TEST(time_words, others_are_refused) {
    for (const char* text : {"",
                             " ",
                             "soon",
                             "ago",
                             " ago",
                             "h ago",
                             "-",
                             "+",
                             "-h",
                             "2026-02-30",
                             "2026-13-01",
                             "2026-11-21 25:00",
                             "2026-11-21x",
                             "24:61",
                             "-5 lightyears",
                             "12 13 ago x",
                             "@",
                             "99999999999999999999",
                             "-99999999999999999999s",
                             "9223372036854775807w ago"}) {
        EXPECT_EQ(parse_time_words(text, now), std::nullopt) << text;
    }
}

TEST(time_words, midnight_is_the_zones_also_on_the_day_of_a_change) {
    set_time_zone("CET-1CEST,M3.5.0,M10.5.0/3");
    // 2026-10-25, a day of 25 hours: noon, and midnight before it.
    EXPECT_EQ(parse_time_words("today", 1792926000), 1792879200);
    EXPECT_EQ(parse_time_words("tomorrow", 1792926000), 1792879200 + 25 * 3600);
}

// ---- Sessions ----------------------------------------------------------------------------------

namespace {

session_row row(int32_t action, const char* user, const char* source, int64_t time,
                int64_t uptime = 0) {
    return {.user = user, .source = source, .time = time, .uptime = uptime, .action = action};
}

// "user start-end state" of each.
std::string told(const std::vector<session_row>& rows) {
    static constexpr const char* states[] = {"open", "ended", "lost"};
    std::string text;
    for (const session& s : to_sessions(rows)) {
        text += s.user + " " + std::to_string(s.start) + "-" + std::to_string(s.end) + " " +
                states[static_cast<size_t>(s.state)] + "\n";
    }
    return text;
}

}  // namespace

TEST(sessions, end_ends_the_connect_of_its_start) {
    EXPECT_EQ(told({row(1, "a", "x", 100), row(2, "a", "x", 160, 60)}), "a 100-160 ended\n");
    EXPECT_EQ(told({row(1, "a", "x", 100), row(3, "a", "x", 160, 60)}), "a 100-160 lost\n");
    EXPECT_EQ(told({row(1, "a", "x", 100), row(1, "a", "x", 120), row(2, "a", "x", 160, 60)}),
              "a 100-160 ended\na 120-120 open\n");
}

TEST(sessions, end_without_its_start_ends_the_latest_before_it) {
    EXPECT_EQ(told({row(1, "a", "x", 100), row(1, "a", "x", 120), row(2, "a", "x", 160, 7)}),
              "a 100-100 open\na 153-160 ended\n");
    EXPECT_EQ(told({row(1, "a", "x", 200), row(2, "a", "x", 160, 7)}),
              "a 153-160 ended\na 200-200 open\n");
}

TEST(sessions, others_of_user_or_source_are_not_ended) {
    EXPECT_EQ(told({row(1, "a", "x", 100), row(2, "a", "y", 160, 60), row(2, "b", "x", 160, 60)}),
              "a 100-160 ended\nb 100-160 ended\na 100-100 open\n");
}

TEST(sessions, end_without_a_connect_and_other_actions_stand_by_themselves) {
    EXPECT_EQ(told({row(2, "a", "x", 160, 60), row(9, "b", "x", 50, 100), row(0, "c", "", 7)}),
              "b 0-50 ended\nc 7-7 ended\na 100-160 ended\n");
}

// ---- The page ----------------------------------------------------------------------------------

namespace {

session made(const std::string& user, int64_t start, int64_t end,
             session_state state = session_state::ended) {
    return {.user = user,
            .source = "203.0.113.11",
            .vpn_address = "10.88.0.2",
            .device = "",
            .start = start,
            .end = end,
            .received = 5'000'000,
            .sent = 70'000'000,
            .state = state};
}

std::string page_of(std::vector<session> sessions, std::vector<failed_logins> failures = {}) {
    set_time_zone("UTC0");
    EXPECT_TRUE(use_utf8());
    return to_html({.sessions = std::move(sessions),
                    .failures = std::move(failures),
                    .since = now - 86400,
                    .until = now,
                    .now = now});
}

size_t count_of(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

}  // namespace

TEST(report_page, bar_lies_where_its_session_does) {
    // Half of the day's width of 850 from the middle on.
    const std::string page = page_of({made("a", now - 43200, now - 21600)});
    EXPECT_EQ(count_of(page, "<path d=\"M575.0 8h212.5v12h-212.5z\">"), 1U);
    EXPECT_EQ(count_of(page, "6:00 h, 5.0 MB in, 70.0 MB out"), 1U);
}

TEST(report_page, kinds_of_sessions_look_different) {
    const std::string page = page_of({made("a", now - 500, now - 400, session_state::lost),
                                      made("b", now - 300, now - 300, session_state::open)});
    EXPECT_EQ(count_of(page, "<path class=\"l\""), 1U);
    EXPECT_EQ(count_of(page, "<path class=\"o\""), 1U);
    EXPECT_EQ(count_of(page, "<dt>lost</dt><dd>1</dd>"), 1U);
    EXPECT_EQ(count_of(page, "<dt>open now</dt><dd>1</dd>"), 1U);
}

TEST(report_page, overlapping_sessions_of_a_user_stand_below_each_other) {
    const std::string page = page_of({made("a", now - 5000, now - 100),
                                      made("a", now - 4000, now - 50), made("a", now - 40, now)});
    EXPECT_EQ(count_of(page, " 8h"), 2U);
    EXPECT_EQ(count_of(page, " 23h"), 1U);
}

TEST(report_page, sessions_outside_are_left_out_and_others_cut) {
    const std::string page =
        page_of({made("before", now - 200000, now - 90000),
                 made("across", now - 90000, now - 43200), made("behind", now + 5, now + 10)});
    EXPECT_EQ(count_of(page, "before"), 0U);
    EXPECT_EQ(count_of(page, "behind"), 0U);
    EXPECT_EQ(count_of(page, "<path d=\"M150.0 8h425.0v12h-425.0z\">"), 1U);
}

TEST(report_page, failures_and_blocks_are_marked) {
    const std::string page =
        page_of({}, {{"mallory", 5, now - 43200, now - 21600}, {"bob", 2, now - 60, 0}});
    EXPECT_EQ(count_of(page, "<path class=\"k\" d=\"M575.0 "), 1U);
    EXPECT_EQ(count_of(page, "failed logins, the last"), 2U);
    EXPECT_EQ(count_of(page, "<td>not blocked</td>"), 1U);
    EXPECT_EQ(count_of(page, "No session was recorded"), 1U);
}

TEST(report_page, texts_are_escaped_wherever_they_stand) {
    const std::string hostile[] = {"<script>alert(1)</script>",
                                   "\"><img src=x onerror=y>",
                                   "a&amp;b",
                                   "</title></svg>",
                                   "\x1b[31m\n\xe2\x80\xae",
                                   "\xff\xfe",
                                   std::string(1024, '<')};
    for (const std::string& name : hostile) {
        const std::string page =
            page_of({made(name, now - 500, now - 400)}, {{name, 1, now - 9, 0}});
        EXPECT_EQ(count_of(page, "<script"), 0U) << name;
        EXPECT_EQ(count_of(page, "<img"), 0U) << name;
        EXPECT_EQ(count_of(page, "</svg>"), count_of(page, "<svg")) << name;
        EXPECT_EQ(count_of(page, "</title>"), count_of(page, "<title>")) << name;
        for (const char byte : page) {
            ASSERT_TRUE(byte == '\n' || (static_cast<unsigned char>(byte) >= 0x20 && byte != 0x7f))
                << name;
        }
    }
    EXPECT_EQ(count_of(page_of({made("a&amp;b", now - 500, now - 400)}), "a&amp;amp;b"), 2U);
}

TEST(report_page, loads_nothing) {
    const std::string page = page_of({made("a", now - 500, now - 400)});
    for (const char* part : {"http", "src=", "href=", "url(", "@import", "<link"}) {
        const size_t allowed = std::string(part) == "url(" ? 1 : 0;  // the page's own hatching
        EXPECT_EQ(count_of(page, part), allowed) << part;
    }
    EXPECT_EQ(count_of(page, "url(#h)"), 1U);
}

TEST(report_page, thousand_sessions_stay_small) {
    std::vector<session> sessions;
    for (int n = 0; n < 1000; ++n) {
        const int64_t start = now - 86000 + n * 80;
        sessions.push_back(made("user number " + std::to_string(n % 100), start, start + 3000));
    }
    EXPECT_LT(page_of(sessions).size(), 150'000U);
}

TEST(report_page, extreme_numbers_are_survived) {
    constexpr int64_t large = INT64_MAX / 2;
    session s = made("a", 0, large);
    s.received = INT64_MIN;
    s.sent = INT64_MAX;
    const std::string page =
        page_of({s}, {{"b", INT64_MAX, INT64_MAX, INT64_MAX}, {"c", -1, INT64_MIN, 0}});
    EXPECT_EQ(count_of(page, "<path d=\"M150.0 8h850.0v12h-850.0z\">"), 1U);
}

// ---- Small bars --------------------------------------------------------------------------------

TEST(sparkline, bars_are_as_high_as_their_numbers) {
    EXPECT_EQ(sparkline({}), "");
    EXPECT_EQ(sparkline({0, 0}), "··");
    EXPECT_EQ(sparkline({0, 1, 4, 8}), "·▂▅█");
    EXPECT_EQ(sparkline({0.001, 1000}), "▁█");
}

TEST(sparkline, seconds_are_divided_among_the_slots_that_they_lie_in) {
    std::vector<double> slots(4, 0);
    add_to_slots(slots, 5, 25, 40);
    EXPECT_EQ(slots, (std::vector<double>{5, 10, 5, 0}));
    add_to_slots(slots, -10, 100, 40);
    EXPECT_EQ(slots, (std::vector<double>{15, 20, 15, 10}));
    add_to_slots(slots, 7, 3, 40);
    add_to_slots(slots, 0, 10, 0);
    EXPECT_EQ(slots, (std::vector<double>{15, 20, 15, 10}));
}

// ---- Failures ----------------------------------------------------------------------------------

TEST(call_failure, status_tells_who_has_failed) {
    const std::pair<int, exit_status> cases[] = {
        {ZB_ERROR_UNREACHABLE, unreachable}, {ZB_ERROR_UNTRUSTED, unreachable},
        {ZB_ERROR_DENIED, not_permitted},    {ZB_ERROR_TIMEOUT, timed_out},
        {ZB_ERROR_MEMORY, failed_here},      {ZB_ERROR_SYSTEM, failed_here},
        {ZB_ERROR_ARGUMENT, failed_here},    {ZB_ERROR_NO_REPLY, unanswered},
        {ZB_ERROR_BROKEN, unanswered},       {ZB_ERROR_BUSY, unanswered},
        {ZB_ERROR_TOO_LARGE, unanswered},    {ZB_ERROR_PROTOCOL, unanswered},
    };
    for (const auto& [result, status] : cases) {
        const failure told = call_failure("@/x", result);
        EXPECT_EQ(told.status, status) << result;
        EXPECT_NE(std::string(told.what()).find(zb_strerror(result)), std::string::npos);
    }
}

// ---- Rows page by page -------------------------------------------------------------------------

namespace {

struct numbered_row {
    int64_t id;
};
constexpr field numbered_fields[] = {{"id", FIELD(numbered_row, id)}};

int64_t newest = 0;         // the table's rows are numbered from 1
int64_t added_by_page = 0;  // rows that are recorded while a page is read
bool is_counted = true;
bool is_read = true;

page list_numbers(db_query_cond query) {
    auto* rows =
        static_cast<numbered_row*>(calloc(static_cast<size_t>(query.count), sizeof(numbered_row)));
    page result = {is_read, 0, is_counted ? static_cast<uint64_t>(newest) : count_failed,
                   std::unique_ptr<char, free_deleter>(reinterpret_cast<char*>(rows))};
    for (int64_t id = newest - query.start;
         id > 0 && result.count < static_cast<uint64_t>(query.count); --id) {
        rows[result.count++].id = static_cast<int32_t>(id);
    }
    newest += added_by_page;
    return result;
}

constexpr record_kind numbers = {"numbers",       "",          "", sizeof(numbered_row),
                                 numbered_fields, list_numbers};

class for_each_row_test : public testing::Test {
  protected:
    void SetUp() override {
        newest = 10;
        added_by_page = 0;
        is_counted = is_read = true;
    }
    std::vector<int64_t> seen(int64_t rows_on_page, size_t wanted = 100) {
        std::vector<int64_t> ids;
        for_each_row(
            numbers, {},
            [&ids, wanted](const char* row) {
                ids.push_back(reinterpret_cast<const numbered_row*>(row)->id);
                return ids.size() < wanted;
            },
            rows_on_page);
        return ids;
    }
    const std::vector<int64_t> all = {10, 9, 8, 7, 6, 5, 4, 3, 2, 1};
};

exit_status status_of_reading() {
    try {
        for_each_row(numbers, {}, [](const char*) { return true; });
    } catch (const failure& error) {
        return error.status;
    }
    return done;
}

}  // namespace

TEST_F(for_each_row_test, hands_over_every_row_once_the_newest_first) {
    for (const int64_t rows_on_page : {1, 3, 5, 10, 11}) EXPECT_EQ(seen(rows_on_page), all);
}

TEST_F(for_each_row_test, is_not_disturbed_by_rows_that_come_meanwhile) {
    added_by_page = 2;
    EXPECT_EQ(seen(3), all);
}

TEST_F(for_each_row_test, knows_the_order_of_ids_that_were_narrowed) {
    newest = int64_t{1} << 31U;
    EXPECT_EQ(seen(2, 3), (std::vector<int64_t>{-2147483648, 2147483647, 2147483646}));
}

TEST_F(for_each_row_test, stops_when_told) {
    EXPECT_EQ(seen(4, 6), (std::vector<int64_t>{10, 9, 8, 7, 6, 5}));
}

TEST_F(for_each_row_test, tells_failures_from_a_table_without_rows) {
    newest = 0;
    EXPECT_EQ(status_of_reading(), done);
    is_counted = false;
    EXPECT_EQ(status_of_reading(), unanswered);
    is_read = false;
    EXPECT_EQ(status_of_reading(), unreachable);
}
