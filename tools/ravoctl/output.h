// A page of records on standard output, as a table or as JSON.
#pragma once

#include "json_ptr.h"
#include "records.h"

struct listing {
    const record_kind& kind;
    const page& rows;
    uint64_t start;  // rows of the table, or of the filtered ones, before the first of these
    bool is_filtered;
};

// Prints aligned columns and a last line that tells which rows these are. Texts are escaped; unless
// the table is wide, it has the most important columns only and long texts are cut.
void print_table(const listing& list, bool wide);

// Prints one object: "start", "rows" (an array of objects with a member for each field), "count"
// and "total" (null when the daemon could not count). Numbers are plain, times and durations are
// seconds; a computed one that there is not is null. A text that is not UTF-8 has U+FFFD in place
// of its bad bytes, and a member FIELD_hex beside it with all bytes.
void print_json(const listing& list);

// A row as print_json() writes it.
json_ptr row_to_json(const record_kind& kind, const char* row);

// Prints a value in ASCII, so that no control character, of whatever range, reaches a terminal as
// it is. Throws std::bad_alloc.
void dump_to_stdout(const json_t* json);
