// The kinds of records that ravoctl lists and adds. A further kind is a list of its fields and one
// row of the table in records.cpp.
#pragma once

#include <cstdlib>
#include <memory>
#include <span>

#include "fields.h"
#include "ravo_api.h"

struct free_deleter {
    void operator()(char* block) const { free(block); }
};

// What a list call read. was_read is false when the call left its header alone: nobody answered, or
// the daemon refused the query.
struct page {
    bool was_read;
    uint64_t count;
    uint64_t total;
    std::unique_ptr<char, free_deleter> rows;  // count records, one after another
};

// The daemon stores this total when it could not count the rows.
inline constexpr uint64_t count_failed = UINT64_MAX;

struct record_kind {
    const char* command;   // name of the subcommand
    const char* what;      // its rows, for help texts
    const char* singular;  // one of them
    size_t size;
    std::span<const field> fields;  // in the order of the table's columns, id first
    page (*list)(db_query_cond cond);
    int (*add)(char* record);  // result of the bus
};

std::span<const record_kind> record_kinds();
