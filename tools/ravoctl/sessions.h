// Sessions of this device's VPN server, put together from the rows that were recorded of them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ravo_records.h"

enum class session_state { open, ended, lost };

struct session {
    std::string user = {};
    std::string source = {};
    std::string vpn_address = {};
    std::string device = {};
    int64_t start = 0;     // seconds since the epoch
    int64_t end = 0;       // of one that is open: its start
    int64_t received = 0;  // bytes; of one that is open: what its row says
    int64_t sent = 0;
    session_state state = session_state::open;
    int32_t vpn_type = 0;
    std::string outgoing = {};
    std::optional<int64_t> begin_id = {};  // of the row of its connect
    std::optional<int64_t> end_id = {};    // of the row of its end

    // The same however many rows are known, and another one when the session has ended.
    int64_t id() const { return end_id ? *end_id : begin_id.value_or(0); }
};

// What the programs that record connections put into a row's action.
enum connection_action { connected = 1, disconnected = 2, lost = 3 };

// A row of the table, as far as sessions are made of it.
struct session_row {
    std::string user = {};
    std::string source = {};
    std::string vpn_address = {};
    std::string device = {};
    int64_t time = 0;
    int64_t uptime = 0;
    int64_t received = 0;
    int64_t sent = 0;
    int32_t action = 0;
    int32_t vpn_type = 0;
    std::string outgoing = {};
    int64_t id = 0;
};

session_row to_session_row(const db_conn_server_log& stored);

// Of the row of a connect, or of that of an end.
session to_session(const session_row& row);

// Puts rows together, which come in the order of their recording: a disconnect, or a loss, ends the
// connect of the same user, source and start, or, when none has that start, the latest one of the
// user and source before it. A connect without an end is open, an end without a connect a session
// by itself, and so is a row of any other action. In the order of their starts.
std::vector<session> to_sessions(const std::vector<session_row>& rows);

// Reads all rows that the daemon shows, in the order of their recording. Throws failure when that
// cannot be done.
std::vector<session_row> read_session_rows();
