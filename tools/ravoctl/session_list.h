// The commands about sessions: the list, one of them, and the users with most traffic.
#pragma once

#include <span>
#include <vector>

#include "command_line.h"
#include "output.h"
#include "selection.h"
#include "sessions.h"

// A session as it is listed, in the order of the fields.
std::span<const field> session_fields();
extern const option_fields session_options;
row_values values_of(const session& s, int64_t now);

// The sessions that match, in the order of their starts. Reads all rows, since a session that was
// begun long ago may be open still, unless the newest rows have the newest sessions that are
// enough.
std::vector<session> read_sessions(const selection& wanted, int64_t now);

void declare_sessions(command_line& line);

// The command below it that ranks users.
void declare_top(command_line& line, cli_command sessions);
