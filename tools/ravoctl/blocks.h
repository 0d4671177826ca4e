// The login-attempt limiter: who is blocked, one failure more, and blocks lifted.
#pragma once

#include <string>
#include <vector>

#include "failure.h"
#include "records.h"

inline constexpr char blocks_command[] = "blocks";

// A counter as it is listed: the daemon's record, and what the settings make of it now.
struct block_row {
    db_privilege_user_block_data stored;
    char state[24];  // "counting", "blocked", "run out", "limiter off" or "settings unknown"
    uint64_t until;  // seconds since the epoch; no_number while counting or without settings
    uint64_t left;   // seconds; 0 when the block has run out, no_number as above
};

// Turns a page of the daemon's records into one of block_row.
page with_states(page counters);

// Asks whether the user is blocked and prints the answer: done for no, user_blocked for yes.
exit_status check_user(const std::string& user);

exit_status count_failure(const std::string& user);

// Stops at the first one that fails.
exit_status lift_users(const std::vector<std::string>& users);

exit_status lift_all();
