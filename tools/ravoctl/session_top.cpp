// The users with most traffic.
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <limits>
#include <map>
#include <memory>

#include "session_list.h"
#include "sparkline.h"

namespace {

using enum shown;
using enum meaning;

constexpr size_t slots = 24;  // of the time that the sparkline tells

constexpr field number_field(const char* name, meaning is, shown visibility = always) {
    return {name, 0, sizeof(int64_t), value_kind::int64, visibility, is, origin::computed};
}
constexpr field text_field(const char* name, shown visibility) {
    return {name, 0, RAVO_TEXT_SIZE, value_kind::text, visibility, plain, origin::computed};
}

constexpr field fields[] = {
    text_field("username", always),
    number_field("sessions", plain),
    number_field("open", plain),
    {"connected", 0, sizeof(uint64_t), value_kind::uint64, always, duration, origin::computed},
    number_field("received", bytes),
    number_field("sent", bytes),
    number_field("total", bytes),
    text_field("connected_when", in_tables_only),
};

struct top_request {
    selection_request which;
    output_options output;
};

// Two counts as large as they can be stay as large as that.
int64_t sum_of(int64_t one, int64_t other) {
    int64_t sum = 0;
    return __builtin_add_overflow(one, other, &sum) ? std::numeric_limits<int64_t>::max() : sum;
}

struct user_sum {
    int64_t sessions = 0;
    int64_t open = 0;
    int64_t connected = 0;  // seconds
    int64_t received = 0;   // bytes
    int64_t sent = 0;
    std::vector<double> when = std::vector<double>(slots, 0);  // seconds in each slot

    int64_t total() const { return sum_of(received, sent); }
};

void add(user_sum& sum, const session& s, int64_t since, int64_t until) {
    const bool is_open = s.state == session_state::open;
    const int64_t begin = std::max(s.start, since);
    const int64_t end = std::min(is_open ? until : s.end, until);
    sum.sessions += 1;
    sum.open += is_open ? 1 : 0;
    sum.connected += std::max<int64_t>(end - begin, 0);
    sum.received = sum_of(sum.received, std::max<int64_t>(s.received, 0));
    sum.sent = sum_of(sum.sent, std::max<int64_t>(s.sent, 0));
    add_to_slots(sum.when, begin - since, end - since, until - since);
}

row_values to_row(const std::string& user, const user_sum& sum) {
    return {user,         sum.sessions, sum.open,    static_cast<uint64_t>(sum.connected),
            sum.received, sum.sent,     sum.total(), sparkline(sum.when)};
}

exit_status show_top(const top_request& request) {
    const int64_t now = ::time(nullptr);
    selection_request which = request.which;
    which.count = "all";
    which.sort.clear();
    const selection wanted(which, "sessions", session_fields(), session_options);
    const std::vector<session> sessions = read_sessions(wanted, now);
    const int64_t until = std::min(wanted.span().until.value_or(now), now);
    const int64_t first = sessions.empty() ? now : sessions.front().start;
    const int64_t since = wanted.span().since.value_or(first);
    std::map<std::string, user_sum> sums;
    for (const session& s : sessions) add(sums[s.user], s, since, until);
    const selection order({.count = request.which.count,
                           .sort = request.which.sort,
                           .reverse = !request.which.reverse},
                          "sessions top", fields,
                          {.begin = "total", .end = "total", .order = "total"});
    row_printer printer("top", fields, request.output);
    std::vector<row_values> rows;
    rows.reserve(sums.size());
    for (const auto& [user, sum] : sums) rows.push_back(to_row(user, sum));
    const row_list list = order.arrange(std::move(rows));
    printer.print(list, order.describe(list, "user"));
    return done;
}

}  // namespace

void declare_top(command_line& line, cli_command sessions) {
    const auto request = std::make_shared<top_request>();
    const cli_command top =
        sessions.add_subcommand("top", "Rank the users by bytes received and sent");
    declare_filter_options(top, request->which, session_options);
    declare_order_options(top, request->which);
    declare_output_options(top, request->output);
    top.footer("Fields: " + names_of(fields) + ".\n");
    line.runs(top, [request] { return show_top(*request); });
}
