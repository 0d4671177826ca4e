// The commands about sessions: the list, and one of them.
#include "session_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <ctime>
#include <memory>

#include "list.h"
#include "pages.h"
#include "removal.h"
#include "terminal.h"
#include "text.h"

namespace {

using enum shown;
using enum meaning;
using enum origin;

constexpr char noun[] = "sessions";

constexpr field text_field(const char* name, shown visibility, origin from) {
    return {name, 0, RAVO_TEXT_SIZE, value_kind::text, visibility, plain, from};
}
constexpr field number_field(const char* name, shown visibility, meaning is) {
    return {name, 0, sizeof(uint64_t), value_kind::uint64, visibility, is, computed};
}
constexpr field signed_field(const char* name, shown visibility, meaning is, value_kind kind,
                             origin from) {
    return {name, 0, sizeof(int64_t), kind, visibility, is, from};
}

// What is not computed is the same in all rows of a session, so the daemon can look for it.
constexpr field fields[] = {
    signed_field("id", always, plain, value_kind::int64, computed),
    text_field("username", always, given_by_user),
    signed_field("vpn_type", in_wide_table, vpn_type, value_kind::int32, given_by_user),
    text_field("source_ip", always, given_by_user),
    text_field("vpn_ip", always, computed),
    text_field("device_info", in_wide_table, computed),
    text_field("outgoing", in_wide_table, computed),
    number_field("start", always, time),
    number_field("end", in_wide_table, time),
    number_field("duration", always, duration),
    signed_field("received", always, bytes, value_kind::int64, computed),
    signed_field("sent", always, bytes, value_kind::int64, computed),
    text_field("state", always, computed),
};

const char* name_of(session_state state) {
    switch (state) {
        case session_state::open:
            return "open";
        case session_state::lost:
            return "lost";
        case session_state::ended:
            break;
    }
    return "ended";
}

session_row to_session_row(const char* stored) {
    db_conn_server_log row;
    memcpy(&row, stored, sizeof row);
    return to_session_row(row);
}

// --- Reading ------------------------------------------------------------------------------------

std::vector<session> matching(std::vector<session_row> newest_first, const selection& wanted,
                              int64_t now) {
    std::reverse(newest_first.begin(), newest_first.end());
    std::vector<session> sessions = to_sessions(newest_first);
    std::erase_if(sessions, [&](const session& s) { return !wanted.matches(values_of(s, now)); });
    return sessions;
}

// After the first page and each time that there are twice as many, so that all looks together cost
// no more than the last one does twice.
bool is_time_to_look(size_t rows) {
    return rows % page_rows == 0 && std::has_single_bit(rows / page_rows);
}

// Whether no older row can belong to the sessions that are wanted.
bool is_enough(const std::vector<session_row>& newest_first, const selection& wanted, int64_t now) {
    if (!wanted.count() || !wanted.is_in_usual_order()) return false;
    const int64_t oldest = newest_first.back().time;
    const std::vector<session> known = matching(newest_first, wanted, now);
    const auto newer = std::count_if(known.begin(), known.end(),
                                     [oldest](const session& s) { return s.start > oldest; });
    return static_cast<uint64_t>(newer) > *wanted.count();
}

// --- The list -----------------------------------------------------------------------------------

struct sessions_request {
    list_request list;
    bool rows = false;
    bool open = false;
};

row_list to_list(const std::vector<session>& sessions, const selection& wanted, int64_t now) {
    std::vector<row_values> rows;
    rows.reserve(sessions.size());
    for (const session& s : sessions) rows.push_back(values_of(s, now));
    std::reverse(rows.begin(), rows.end());
    return wanted.arrange(std::move(rows));
}

// Every row is a session that has begun or ended.
[[noreturn]] void follow_sessions(const selection& wanted, uint32_t last_id, row_printer& printer) {
    (void)fflush(stdout);
    follow_rows(kind_of(noun), wanted.server_filter(), last_id,
                [&](const std::vector<const char*>& stored) {
                    std::vector<row_values> rows;
                    for (const char* each : stored) {
                        const session s = to_session(to_session_row(each));
                        row_values row = values_of(s, ::time(nullptr));
                        if (wanted.matches(row)) rows.push_back(std::move(row));
                    }
                    printer.print_more(rows);
                });
}

exit_status list_sessions(const sessions_request& request) {
    if (request.rows) return list_records(kind_of(noun), request.list, "session_rows");
    check_followed(request.list);
    const int64_t now = ::time(nullptr);
    selection_request which = request.list.which;
    if (request.open) {
        which.filters.emplace_back("state=open");
        if (which.count.empty()) which.count = "all";
    }
    const selection wanted(which, noun, fields, session_options);
    row_printer printer(noun, fields, request.list.output);
    const uint32_t newest = request.list.follow ? newest_id(kind_of(noun)) : 0;
    const row_list list = to_list(read_sessions(wanted, now), wanted, now);
    printer.print(list, request.list.follow ? "" : wanted.describe(list, "session"));
    if (request.list.follow) follow_sessions(wanted, last_listed(newest, list), printer);
    return done;
}

// --- One of them --------------------------------------------------------------------------------

struct show_request {
    int64_t id = 0;
    output_options output;
};

// The user of the row with this id, so that only the user's rows have to be read.
row_filter rows_of_user(int64_t id) {
    row_filter filter;
    const auto take = [&filter](const char* row) {
        const std::string user = to_session_row(row).user;
        if (!user.empty()) filter = {"username", user};
        return false;
    };
    (void)for_each_row(kind_of(noun), {"id", fmt::format("{}", id)}, take, 1);
    return filter;
}

session find_session(int64_t id) {
    std::vector<session_row> rows;
    (void)for_each_row(kind_of(noun), rows_of_user(id), [&rows](const char* row) {
        rows.push_back(to_session_row(row));
        return true;
    });
    std::reverse(rows.begin(), rows.end());
    for (const session& s : to_sessions(rows)) {
        if (s.begin_id == id || s.end_id == id) return s;
    }
    throw failure(no, fmt::format("there is no session with a row of id {}", id));
}

void print_fields(const row_values& row, const output_options& output) {
    for (size_t i = 0; i < std::size(fields); ++i) {
        fmt::print("{:<12} {}\n", fields[i].name,
                   cell_text(fields[i], row[i], {.is_utc = output.is_utc}));
    }
}

exit_status show_session(const show_request& request) {
    const row_values row = values_of(find_session(request.id), ::time(nullptr));
    if (request.output.format == output_format::table && request.output.columns.empty()) {
        print_fields(row, request.output);
    } else {
        row_printer(noun, fields, request.output).print({{row}}, "");
    }
    return done;
}

void declare_show(command_line& line, cli_command sessions) {
    const auto request = std::make_shared<show_request>();
    const cli_command show =
        sessions.add_subcommand("show", "Show all that is known of one session");
    show.add_option("id", request->id, "Id of the session, or of one of its rows").required();
    declare_output_options(show, request->output);
    show.footer("");
    line.runs(show, [request] { return show_session(*request); });
}

}  // namespace

std::span<const field> session_fields() { return fields; }

const option_fields session_options = {"username", "source_ip", "vpn_type",
                                       "start",    "end",       "start"};

row_values values_of(const session& s, int64_t now) {
    const bool is_open = s.state == session_state::open;
    const auto unsigned_number = [](int64_t number) {
        return value(static_cast<uint64_t>(std::max<int64_t>(number, 0)));
    };
    // A connect's row knows no bytes yet.
    const auto traffic = [is_open](int64_t number) {
        return is_open && number == 0 ? value() : value(number);
    };
    return {s.id(),
            s.user,
            int64_t{s.vpn_type},
            s.source,
            s.vpn_address,
            s.device,
            s.outgoing,
            unsigned_number(s.start),
            is_open ? value() : unsigned_number(s.end),
            unsigned_number((is_open ? now : s.end) - s.start),
            traffic(s.received),
            traffic(s.sent),
            std::string(name_of(s.state))};
}

std::vector<session> read_sessions(const selection& wanted, int64_t now) {
    std::vector<session_row> rows;
    (void)for_each_row(kind_of(noun), wanted.server_filter(), [&](const char* row) {
        rows.push_back(to_session_row(row));
        return !is_time_to_look(rows.size()) || !is_enough(rows, wanted, now);
    });
    return matching(std::move(rows), wanted, now);
}

void declare_sessions(command_line& line) {
    const record_kind& kind = kind_of(noun);
    const auto request = std::make_shared<sessions_request>();
    const cli_command sessions = line.add_subcommand(
        noun, "List sessions of this device's VPN server, put together from its records");
    declare_list_options(sessions, request->list, kind);
    const cli_option open =
        sessions.add_flag("--open", request->open, "Only sessions that are open now, all of them");
    sessions.add_flag("--rows", request->rows, "List the records as they are").excludes(open);
    sessions.footer(
        fmt::format("Fields: {}.\nOf --rows: {}.\n", names_of(fields), names_of(kind.fields)));
    line.runs(sessions, [request] { return list_sessions(*request); });
    declare_show(line, sessions);
    declare_top(line, sessions);
    declare_adder(line, sessions, kind);
    declare_removal(line, sessions, kind);
}
