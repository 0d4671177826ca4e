// Connections, failed logins and blocks, told as they come.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "command_line.h"

// A user's counter, as the list of blocks has it.
struct watched_counter {
    int64_t failures = 0;
    bool is_blocked = false;
};
using watched_counters = std::map<std::string, watched_counter>;

// What has happened between two looks at the counters, in words.
std::vector<std::string> counter_events(const watched_counters& before,
                                        const watched_counters& now);

void declare_watch(command_line& line);
