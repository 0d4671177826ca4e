// What ravoctl foretells of deletes, writes as metrics, reads of exports, and tells of counters.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "daemon_life.h"
#include "export_lines.h"
#include "fields.h"
#include "metrics.h"
#include "watch.h"

// ---- What a delete or a clean does -------------------------------------------------------------

TEST(daemon_life, effects_follow_the_first_deed) {
    const table_history fresh = {};
    const table_history deleted = after(fresh, deed::deletes, 1);
    const table_history cleaned = after(fresh, deed::clean, 1);
    const table_history cleaned_and_deleted = after(cleaned, deed::deletes, 1);
    const table_history deleted_and_cleaned = after(deleted, deed::clean, 1);
    constexpr bool lasting = false;
    constexpr bool temporary = true;
    const struct {
        table_history history;
        bool is_temporary;
        deed what;
        uint64_t count;
        effect expected;
    } cases[] = {
        {fresh, lasting, deed::deletes, 5, effect::as_asked},
        {fresh, lasting, deed::clean, 1, effect::as_asked},
        {deleted, lasting, deed::deletes, 5, effect::as_asked},
        {deleted, lasting, deed::clean, 1, effect::nothing},
        {deleted_and_cleaned, lasting, deed::clean, 1, effect::nothing},
        {deleted_and_cleaned, lasting, deed::deletes, 1, effect::as_asked},
        {cleaned, lasting, deed::clean, 1, effect::as_asked},
        {cleaned, lasting, deed::deletes, 1, effect::empties},
        {cleaned_and_deleted, lasting, deed::clean, 1, effect::as_asked},
        {cleaned_and_deleted, lasting, deed::deletes, 1, effect::empties},
        {fresh, temporary, deed::deletes, 1, effect::as_asked},
        {fresh, temporary, deed::deletes, 2, effect::loses_table},
        {deleted, temporary, deed::deletes, 1, effect::loses_table},
        {deleted, temporary, deed::clean, 1, effect::loses_table},
        {fresh, temporary, deed::clean, 1, effect::as_asked},
        {cleaned, temporary, deed::clean, 1, effect::as_asked},
        {cleaned, temporary, deed::deletes, 1, effect::loses_table},
    };
    for (const auto& [history, is_temporary, what, count, expected] : cases) {
        EXPECT_EQ(forecast(history, is_temporary, what, count), expected)
            << history.deletes << ' ' << history.cleans << ' ' << is_temporary << ' ' << count;
    }
}

// ---- Metrics -----------------------------------------------------------------------------------

TEST(metrics_text, leaves_out_what_is_not_known) {
    daemon_metrics metrics;
    const std::string down = to_metrics_text(metrics);
    EXPECT_NE(down.find("\nravod_up 0\n"), std::string::npos);
    EXPECT_EQ(down.find("ravod_rows"), std::string::npos);
    EXPECT_NE(down.find("\nravod_limiter_settings_available 0\n"), std::string::npos);
    EXPECT_EQ(down.find("ravod_limiter_enabled"), std::string::npos);
    metrics.settings = {.available = true, .enabled = true, .limit = 3, .block_seconds = 300};
    EXPECT_NE(to_metrics_text(metrics).find("\nravod_limiter_block_seconds 300\n"),
              std::string::npos);
}

// ---- Exports -----------------------------------------------------------------------------------

namespace {

// The record that a row's line makes.
std::vector<char> read_row(const std::string& line) {
    export_reader reader;
    (void)reader.take(export_head(1));
    return reader.take(line)->record;
}

// What is wrong with lines; empty: nothing.
std::string complaint(const std::vector<std::string>& lines) {
    export_reader reader;
    try {
        for (const std::string& line : lines) (void)reader.take(line);
        reader.finish();
    } catch (const bad_line& error) {
        return error.what();
    }
    return "";
}

}  // namespace

TEST(export_lines, bring_every_byte_and_number_back) {
    const record_kind& kind = kind_of("sessions");
    db_conn_server_log row = {};
    for (int byte = 1; byte < 256; ++byte) row.username[byte - 1] = static_cast<char>(byte);
    strcpy(row.outgoing, "zo\xc3\xab \"\\/\t\x7f");
    row.id = 7;
    row.vpn_type = -4;
    row.uptime = INT64_MAX;
    row.tx_total = INT64_MIN;
    const std::string line = export_row(kind, reinterpret_cast<const char*>(&row));
    row.id = 0;
    const char* expected = reinterpret_cast<const char*>(&row);
    EXPECT_EQ(read_row(line), std::vector<char>(expected, expected + sizeof row));
}

TEST(export_lines, others_are_refused) {
    const std::string head = export_head(1);
    const std::string end = export_end({});
    const auto row = [](const std::string& members) {
        return R"({"kind": "sessions")" + members + "}";
    };
    EXPECT_EQ(complaint({head, end}), "");
    EXPECT_EQ(complaint({head, row(""), export_end({{"sessions", 1}})}), "");
    const struct {
        std::vector<std::string> lines;
        const char* words;
    } cases[] = {
        {{}, "empty"},
        {{head}, "cut"},
        {{head, row("")}, "cut"},
        {{head, row(""), end}, "counts other rows"},
        {{head, end, row("")}, "behind the end"},
        {{R"({"ravo_export": 2})"}, "version 2"},
        {{row("")}, "begins so"},
        {{"nix"}, "no JSON"},
        {{head, "[]"}, "no JSON object"},
        {{head, "{}"}, "no kind"},
        {{head, R"({"kind": "nix"})"}, "\"nix\" is no kind"},
        {{head, row(R"(, "nix": 1)")}, "no field \"nix\""},
        {{head, row(R"(, "username": 1)")}, "username"},
        {{head, row(R"(, "username": "a", "username": "b")")}, "duplicate"},
        {{head, row(R"(, "username_hex": "6")")}, "username_hex"},
        {{head, row(R"(, "username_hex": "zz")")}, "username_hex"},
        {{head, row(R"(, "username": ")" + std::string(1025, 'x') + "\"")}, "1024"},
        {{head, row(R"(, "username": "a\u0000b")")}, "no JSON"},
        {{head, row(R"(, "action": 2147483648)")}, "2147483647"},
        {{head, row(R"(, "action": "1")")}, "action"},
        {{head, row(R"(, "uptime": -1)")}, "uptime"},
        {{head, row(R"(, "uptime": 1.5)")}, "uptime"},
        {{head, R"({"kind": "devices", "ip": "10.0.0.1"})"}, "mac"},
    };
    for (const auto& [lines, words] : cases) {
        EXPECT_NE(complaint(lines).find(words), std::string::npos)
            << words << ": " << complaint(lines);
    }
}

// ---- Events ------------------------------------------------------------------------------------

TEST(counter_events, are_the_differences_of_two_looks) {
    const watched_counters quiet = {{"bob", {2, false}}};
    const struct {
        watched_counters before;
        watched_counters now;
        std::vector<std::string> events;
    } cases[] = {
        {quiet, quiet, {}},
        {{}, quiet, {"bob failed to log in, 2 failures"}},
        {quiet, {{"bob", {3, true}}}, {"bob failed to log in, 3 failures", "bob is blocked"}},
        {quiet, {{"bob", {2, true}}}, {"bob is blocked"}},
        {{{"bob", {3, true}}}, {{"bob", {3, false}}}, {"bob is not blocked any more"}},
        {{{"bob", {3, true}}}, {}, {"bob is not blocked any more"}},
        {quiet, {}, {"bob is forgiven"}},
    };
    for (const auto& [before, now, events] : cases) EXPECT_EQ(counter_events(before, now), events);
}

// ---- Values ------------------------------------------------------------------------------------

TEST(vpn_types, are_called_by_their_names) {
    const field type = {.name = "vpn_type",
                        .offset = 0,
                        .size = sizeof(int32_t),
                        .kind = value_kind::int32,
                        .is = meaning::vpn_type};
    const std::pair<int64_t, const char*> names[] = {
        {1, "pptp"},   {2, "l2tp"},   {4, "openvpn"},    {16, "tessel"},
        {256, "pptp"}, {512, "l2tp"}, {1024, "openvpn"}, {4096, "tessel"},
        {0, "0"},      {8, "8"},      {2048, "2048"},
    };
    for (const auto& [number, name] : names) EXPECT_EQ(cell_text(type, number), name);
}
