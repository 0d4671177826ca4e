// A row's payload taken apart, and what the columns of a table can hold.
//
// A payload is the size of its head (a varint, itself included), a serial type for each column
// (varints), and the values' bytes one after the other:
//
//   0 NULL    1 to 6 integers of 1, 2, 3, 4, 6, 8 bytes    7 a double    8, 9 the numbers 0 and 1
//   even from 12 on: a blob of (type - 12) / 2 bytes       odd from 13 on: a text of (type - 13) /
//   2
#ifndef DBCHECK_RECORD_H
#define DBCHECK_RECORD_H

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "page_file.h"

struct value {
    enum class type { null, integer, real, text, blob };
    type kind = type::null;
    int64_t integer = 0;
    double real = 0;
    std::string_view text{};  // in the payload
};

// Takes a payload apart. False: it is no whole record.
bool parse_record(byte_view payload, std::vector<value>& values);

// What a column is declared to hold. A row's id stands outside of its record, which has NULL there.
enum class column_kind { row_id, integer, text };

// Whether the values can be a row of such columns. A number above 63 bits is stored as a real;
// texts of the store never have a NUL inside.
bool fits(std::span<const value> values, std::span<const column_kind> columns);

#endif  // DBCHECK_RECORD_H
