// Sessions of this device's VPN server, put together from the rows that were recorded of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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
};

// Puts rows together, which come in the order of their recording: a disconnect, or a loss, ends the
// connect of the same user, source and start, or, when none has that start, the latest one of the
// user and source before it. A connect without an end is open, an end without a connect a session
// by itself, and so is a row of any other action. In the order of their starts.
std::vector<session> to_sessions(const std::vector<session_row>& rows);

// Reads all rows that the daemon shows, in the order of their recording. Throws failure when that
// cannot be done.
std::vector<session_row> read_session_rows();
