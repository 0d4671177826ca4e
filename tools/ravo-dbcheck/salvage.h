// Rows out of a damaged database.
#ifndef DBCHECK_SALVAGE_H
#define DBCHECK_SALVAGE_H

#include <cstdint>

#include "deadline.h"
#include "page_file.h"
#include "replacement.h"

struct salvage_result {
    int code = 0;                // SQLite's, of the new file; whatever the damage is, 0
    uint64_t broken_rows = 0;    // rows of a kept table, as far as that can be told, not readable
    uint64_t missing_pages = 0;  // pages of a table's tree that are no such pages
    bool is_unfinished = false;  // the time was over; the rest was not read
};

// Saves every row of the new file's tables that stands whole in the damaged file, each id once, and
// finishes the new file.
//
// First each table's tree is walked from its root. Then every leaf page of the file that no tree
// has led to gives its rows to the table that they fit: a tree that was cut while it was changed
// leaves such pages behind. A row in both places is taken from the tree.
salvage_result salvage(const page_file& damaged, replacement& into, deadline end);

#endif  // DBCHECK_SALVAGE_H
