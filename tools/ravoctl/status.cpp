// What there is at a glance: the daemon, its tables, who is connected, the limiter.
#include "status.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "blocks.h"
#include "bus.h"
#include "json_ptr.h"
#include "limiter.h"
#include "output.h"
#include "pages.h"
#include "sessions.h"
#include "sparkline.h"

namespace {

constexpr int64_t hours = 24;
constexpr int64_t hour_seconds = 3600;

// What stands where, as the daemon is built.
constexpr std::pair<const char*, const char*> paths[] = {
    {"endpoint", daemon_endpoint},
    {"database", "/etc/config/ravo/ravo.db"},
    {"log", "/var/log/network/RAVO.log"},
    {"settings", block_settings_path},
};

struct system_status {
    std::vector<std::pair<const char*, uint64_t>> rows;  // of each table
    uint64_t open_sessions = 0;
    uint64_t blocked_users = 0;
    std::vector<double> logins = std::vector<double>(hours, 0);  // of each hour, the last one last
    limiter_state limiter;

    uint64_t all_logins() const {
        double sum = 0;
        for (const double count : logins) sum += count;
        return static_cast<uint64_t>(sum);
    }
};

void count_sessions(system_status& status, int64_t now) {
    for (const session& s : to_sessions(read_session_rows())) {
        if (s.state == session_state::open) ++status.open_sessions;
        const int64_t ago = (now - s.start) / hour_seconds;
        if (s.start <= now && ago < hours) ++status.logins[static_cast<size_t>(hours - 1 - ago)];
    }
}

uint64_t count_blocked_users() {
    uint64_t count = 0;
    (void)for_each_row(kind_of(blocks_command), {}, [&count](const char* stored) {
        block_row row;
        memcpy(&row, stored, sizeof row);
        if (strcmp(row.state, blocked_state) == 0) ++count;
        return true;
    });
    return count;
}

system_status look() {
    system_status status;
    for (const record_kind& kind : record_kinds()) {
        status.rows.emplace_back(kind.command, count_rows(kind));
    }
    count_sessions(status, time(nullptr));
    status.limiter = look_at_limiter();
    if (status.limiter.settings.available) status.blocked_users = count_blocked_users();
    return status;
}

// --- Output -------------------------------------------------------------------------------------

void print_line(const char* name, const std::string& text) {
    fmt::print("{:<10} {}\n", name, text);
}

std::string table_text(const system_status& status, const char* table, uint64_t rows) {
    std::string text = fmt::format("{} {}", rows, rows == 1 ? "row" : "rows");
    if (table == std::string_view("sessions")) {
        return fmt::format("{}, {} open now", text, status.open_sessions);
    }
    if (table == std::string_view(blocks_command) && status.limiter.settings.available) {
        return fmt::format("{}, {} blocked now", text, status.blocked_users);
    }
    return text;
}

void print_text(const system_status& status) {
    print_line("ravod", "answers");
    for (const auto& [table, rows] : status.rows) {
        print_line(table, table_text(status, table, rows));
    }
    print_line("logins", fmt::format("{} in the last {} hours  {}", status.all_logins(), hours,
                                     sparkline(status.logins)));
    print_line("limiter", describe(status.limiter));
    for (const auto& [name, path] : paths) print_line(name, path);
}

void print_json(const system_status& status) {
    json_ptr object(json_object());
    json_ptr rows(json_object());
    json_ptr logins(json_array());
    for (const auto& [table, count] : status.rows) {
        set_member(rows.get(), table, json_integer(static_cast<json_int_t>(count)));
    }
    for (const double count : status.logins) {
        if (json_array_append_new(logins.get(), json_integer(static_cast<json_int_t>(count))) != 0)
            throw std::bad_alloc();
    }
    set_member(object.get(), "schema", json_string(schema_name("status").c_str()));
    set_member(object.get(), "rows", rows.release());
    set_member(object.get(), "open_sessions",
               json_integer(static_cast<json_int_t>(status.open_sessions)));
    set_member(object.get(), "blocked_users",
               status.limiter.settings.available
                   ? json_integer(static_cast<json_int_t>(status.blocked_users))
                   : json_null());
    set_member(object.get(), "logins_by_hour", logins.release());
    set_member(object.get(), "limiter", to_json(status.limiter).release());
    dump_to_stdout(object.get());
    fmt::print("\n");
}

exit_status show_status(bool as_json) {
    (as_json ? print_json : print_text)(look());
    return done;
}

}  // namespace

void declare_status(command_line& line) {
    const auto as_json = std::make_shared<bool>(false);
    const cli_command status = line.add_subcommand(
        "status", "Tell at a glance what the daemon has, who is connected, and how the limiter is");
    status.add_flag("--json", *as_json, "Print a JSON object");
    line.runs(status, [as_json] { return show_status(*as_json); });
}
