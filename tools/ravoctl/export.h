// All rows written to a file as lines of JSON, for keeping and for import.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "command_line.h"
#include "records.h"

struct stored_row {
    int64_t id;
    uint64_t time;        // of a row that has one, seconds since the epoch
    std::string summary;  // what a table shows of it, in one line
    std::string line;     // of an export
};

// All rows that the daemon shows, in the order of their ids, with progress on a terminal. Throws
// failure when it does not tell them all.
std::vector<stored_row> read_stored_rows(const record_kind& kind);

// Writes an export of one kind's rows beside the others of its kind in the folder for such exports,
// which is made if it is missing, and returns its path. Throws std::system_error.
std::string save_rows(const record_kind& kind, const std::vector<stored_row>& rows);

void declare_export(command_line& line);
