// The whole of a run: look at a database and, when it is damaged, put a sound one in its place.
#ifndef DBCHECK_REPAIR_H
#define DBCHECK_REPAIR_H

#include <chrono>
#include <optional>
#include <string>

enum class exit_status {
    may_start = 0,
    usage = 1,
    no_access = 2,    // not a file, or one that may not be read and written
    in_use = 3,       // another program has it locked, or another run is at work
    not_repaired = 4  // no space, or a failed write; everything lies where it was
};

struct outcome {
    exit_status status;
    std::string line;  // what was found, saved and not saved, without a line end
};

// A budget is for each of check and salvage; without one they have their own.
outcome check_and_repair(const std::string& path,
                         std::optional<std::chrono::milliseconds> budget = {});

#endif  // DBCHECK_REPAIR_H
