// Rows deleted, and tables emptied, with a look at what has become of them.
#pragma once

#include <cstdint>
#include <vector>

#include "command_line.h"
#include "daemon_life.h"
#include "export.h"
#include "records.h"

struct removal_request {
    const record_kind& kind;
    deed what;
    std::vector<int64_t> ids = {};  // of a delete
    bool no_save = false;           // else an export of the whole table is written first
    bool force = false;             // also when the daemon would do something else
};

// Saves the rows, deletes those that are meant, and tells which of them have vanished. Throws
// failure: with the status no and nothing changed, when the daemon would do something else or a row
// is not there; with not_kept when afterwards others have vanished, or some have not.
exit_status remove_rows(const removal_request& request, const std::vector<stored_row>& rows);

// "--no-save" and "--force".
void declare_removal_options(CLI::App& command, removal_request& request);

// "delete" and "clean" below a kind's own command.
void declare_removal(command_line& line, CLI::App& list, const record_kind& kind);
