// The login-attempt limiter's settings: shown as the daemon gets them, and changed in their file.
#pragma once

#include <optional>
#include <string>

#include "block_settings.h"
#include "command_line.h"
#include "json_ptr.h"

struct limiter_state {
    block_settings settings;
    std::optional<int64_t> limit;   // as the file has it, also while the limiter is off
    std::optional<double> minutes;  // the same
    std::string reason;             // why the settings are not available
};

limiter_state look_at_limiter();

// "on: 3 failed logins block a user for 5 minutes", ...
std::string describe(const limiter_state& limiter);

// Throws std::bad_alloc.
json_ptr to_json(const limiter_state& limiter);

void declare_limiter(command_line& line);
