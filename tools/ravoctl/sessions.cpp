// Sessions of this device's VPN server, put together from the rows that were recorded of them.
#include "sessions.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <utility>

#include "pages.h"

namespace {

constexpr int64_t clock_slack = 1;  // seconds by which time less uptime may miss the start

template <size_t size>
std::string to_string(const char (&array)[size]) {
    return std::string(array, strnlen(array, size));
}

int64_t to_signed(uint64_t number) {
    return static_cast<int64_t>(
        std::min<uint64_t>(number, std::numeric_limits<int64_t>::max() / 2));
}

session_row to_row(const db_conn_server_log& stored) {
    return {.user = to_string(stored.username),
            .source = to_string(stored.source_ip),
            .vpn_address = to_string(stored.vpn_ip),
            .device = to_string(stored.device_info),
            .time = to_signed(stored.time),
            .uptime = to_signed(stored.uptime),
            .received = stored.rx_total,
            .sent = stored.tx_total,
            .action = stored.action};
}

int64_t start_of(const session_row& row) {
    return row.action == connected ? row.time : std::max<int64_t>(row.time - row.uptime, 0);
}

session to_session(const session_row& row, session_state state) {
    return {.user = row.user,
            .source = row.source,
            .vpn_address = row.vpn_address,
            .device = row.device,
            .start = start_of(row),
            .end = row.time,
            .received = row.received,
            .sent = row.sent,
            .state = state};
}

// The connects that have no end yet, by user and source.
using open_connects = std::map<std::pair<std::string, std::string>, std::vector<session>>;

// Takes out the connect that a row ends, if there is one.
void take_connect(open_connects& open, const session_row& row) {
    const auto found = open.find({row.user, row.source});
    if (found == open.end()) return;
    std::vector<session>& connects = found->second;
    const auto same_start = [&row](const session& s) {
        return std::abs(s.start - start_of(row)) <= clock_slack;
    };
    auto connect = std::find_if(connects.begin(), connects.end(), same_start);
    if (connect == connects.end()) {
        const auto by_start = [&row](const session& a, const session& b) {
            const auto rank = [&row](const session& s) {
                return s.start > row.time ? -1 : s.start;
            };
            return rank(a) < rank(b);
        };
        connect = std::max_element(connects.begin(), connects.end(), by_start);
        if (connect == connects.end() || connect->start > row.time) return;
    }
    connects.erase(connect);
}

}  // namespace

std::vector<session> to_sessions(const std::vector<session_row>& rows) {
    std::vector<session> sessions;
    open_connects open;
    for (const session_row& row : rows) {
        if (row.action == connected) {
            open[{row.user, row.source}].push_back(to_session(row, session_state::open));
            continue;
        }
        take_connect(open, row);
        sessions.push_back(
            to_session(row, row.action == lost ? session_state::lost : session_state::ended));
    }
    for (auto& [key, connects] : open) {
        std::move(connects.begin(), connects.end(), std::back_inserter(sessions));
    }
    std::stable_sort(sessions.begin(), sessions.end(),
                     [](const session& a, const session& b) { return a.start < b.start; });
    return sessions;
}

std::vector<session_row> read_session_rows() {
    std::vector<session_row> rows;
    for_each_row(kind_of("sessions"), {}, [&rows](const char* row) {
        db_conn_server_log stored;
        memcpy(&stored, row, sizeof stored);
        rows.push_back(to_row(stored));
        return true;
    });
    std::reverse(rows.begin(), rows.end());
    return rows;
}
