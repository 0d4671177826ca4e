// The fields of the daemon's records as data: where a field lies, what fits into it, how it looks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <variant>

#include "record_field.h"

enum class meaning {
    plain,
    time,      // seconds since the epoch
    duration,  // seconds
    bytes,
    vpn_type,
    action,  // of a connection: a connection_action
};

enum class origin {
    given_by_user,
    given_by_table,  // shown, but not for the user to set
    computed,        // by ravoctl, for show only: no column of the table
};

// Whether a table shows the column always, or only when asked for all. Some are for people only.
enum class shown { always, in_wide_table, in_tables_only };

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

// Reads what the user wrote. A time may be seconds since the epoch or what time_words.h tells, a
// type of VPN and an action may be a name. Throws usage_error, which names the field and what fits
// into it.
value parse_value(const field& f, const std::string& text);

// Reads a field of a row. A text ends at its array's end, whatever the array holds.
value read_value(const field& f, const char* row);

// Writes a value that parse_value returned for the same field. The row was zero before.
void write_value(const field& f, const value& v, char* row);

// The value as SQL compares it: a text as it is, a number in decimal digits. Empty for none.
std::string plain_text(const value& v);

struct cell_style {
    bool is_utc = false;    // otherwise times are local
    bool is_exact = false;  // otherwise bytes are rounded
};

// The value for a table's cell: texts escaped, times as ISO 8601, durations as
// hours:minutes:seconds, bytes with a unit, types of VPN and actions by their names.
std::string cell_text(const field& f, const value& v, const cell_style& style = {});

// Bytes as people read them: "1.2 MB".
std::string bytes_text(double bytes);

// What fits into the field, for help and error messages: "text, at most 1024 bytes".
std::string description(const field& f);

// Their names with commas between them, for error messages.
std::string names_of(std::span<const field> fields);
