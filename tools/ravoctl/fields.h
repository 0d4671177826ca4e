// The fields of the daemon's records as data: where a field lies, what fits into it, how it looks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

#include "record_field.h"

enum class meaning {
    plain,
    time,      // seconds since the epoch
    duration,  // seconds
};

enum class origin {
    given_by_user,
    given_by_table,  // shown, but not for the user to set
    computed,        // by ravoctl, for show only: no column of the table
};

// Whether a table shows the column always, or only when asked for all.
enum class shown { always, in_wide_table };

struct field {
    const char* name;  // of the table's column, unless the field is computed
    size_t offset;
    size_t size;
    value_kind kind;
    shown visibility = shown::in_wide_table;
    meaning is = meaning::plain;
    origin from = origin::given_by_user;
};

// What a computed uint64 field holds when it has no value.
inline constexpr uint64_t no_number = UINT64_MAX;

// A field's value; both narrow and wide signed numbers are int64_t here. Empty for no_number.
using value = std::variant<std::monostate, std::string, int64_t, uint64_t>;

// Reads what the user wrote. A time may be seconds since the epoch, "2026-11-21T01:00:58Z" or
// "now". Throws usage_error, which names the field and what fits into it.
value parse_value(const field& f, const std::string& text);

// Reads a field of a row. A text ends at its array's end, whatever the array holds.
value read_value(const field& f, const char* row);

// Writes a value that parse_value returned for the same field. The row was zero before.
void write_value(const field& f, const value& v, char* row);

// The value as SQL compares it: a text as it is, a number in decimal digits. Empty for none.
std::string plain_text(const value& v);

// The value for a table's cell: texts escaped, times as ISO 8601 in UTC, durations as
// hours:minutes:seconds.
std::string cell_text(const field& f, const value& v);

// What fits into the field, for help and error messages: "text, at most 1024 bytes".
std::string description(const field& f);
