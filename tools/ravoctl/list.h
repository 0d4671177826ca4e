// Listing and adding records: the same for every kind of record.
#pragma once

#include "command_line.h"
#include "records.h"

inline constexpr int64_t largest_page = 100000;  // rows that the daemon shows at all
inline constexpr int64_t default_page = 20;

// The commands that list records of the kind and add one, if the kind has an adder. Returns the
// one that lists.
CLI::App* declare_records(command_line& line, const record_kind& kind);

// Those of all kinds that have no unit of their own.
void declare_tables(command_line& line);
