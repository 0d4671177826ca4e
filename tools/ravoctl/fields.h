// The fields of the daemon's records as data: where a field lies, what fits into it, how it looks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <variant>

enum class value_kind { text, int32, int64, uint64 };

enum class meaning {
    plain,
    given_by_table,  // shown, but not for the user to set
    time,            // seconds since the epoch
};

// Whether a table shows the column always, or only when asked for all.
enum class shown { always, in_wide_table };

struct field {
    const char* name;
    value_kind kind;
    size_t offset;
    size_t size;
    shown visibility = shown::in_wide_table;
    meaning is = meaning::plain;
};

template <class Member>
constexpr value_kind kind_of() {
    if constexpr (std::is_array_v<Member>) return value_kind::text;
    if constexpr (std::is_same_v<Member, int32_t>) return value_kind::int32;
    if constexpr (std::is_same_v<Member, int64_t>) return value_kind::int64;
    if constexpr (std::is_same_v<Member, uint64_t>) return value_kind::uint64;
}

// The first four members of a field. A macro because only that can name a member.
#define FIELD(record, member) \
#member, kind_of < decltype(record::member)>(), offsetof(record, member), sizeof(record::member)

// A field's value; both narrow and wide signed numbers are int64_t here.
using value = std::variant<std::string, int64_t, uint64_t>;

// Reads what the user wrote. A time may be seconds since the epoch, "2026-11-21T01:00:58Z" or
// "now". Throws usage_error, which names the field and what fits into it.
value parse_value(const field& f, const std::string& text);

// Reads a field of a row. A text ends at its array's end, whatever the array holds.
value read_value(const field& f, const char* row);

// Writes a value that parse_value returned for the same field. The row was zero before.
void write_value(const field& f, const value& v, char* row);

// The value as SQL compares it: a text as it is, a number in decimal digits.
std::string plain_text(const value& v);

// The value for a table's cell: texts escaped, times as ISO 8601 in UTC.
std::string cell_text(const field& f, const value& v);

// What fits into the field, for help and error messages: "text, at most 1024 bytes".
std::string description(const field& f);
