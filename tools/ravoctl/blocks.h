// The login-attempt limiter: who is blocked, one failure more, and blocks lifted.
#pragma once

#include "command_line.h"
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

// The list of the counters, and the commands that check, count and lift.
void declare_blocks(command_line& line);
