// The kinds of records that ravoctl lists and adds. A further kind is a list of its fields and one
// row of the table in records.cpp.
#pragma once

#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

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

// What came of adding a record.
struct added {
    int result;                         // of the bus
    std::optional<std::string> answer;  // where the daemon gives one; empty when it stored nothing
};

// How records are added. A kind whose records only the daemon makes has none of it.
struct record_adder {
    const char* command = nullptr;  // name of the subcommand; null: there is none
    added (*add)(char* record) = nullptr;
    const char* required = nullptr;  // name of a field that must have a text; null: none must
};

// How records are deleted. Blocks are lifted instead.
struct record_remover {
    int (*remove)(db_delete_cond* row) = nullptr;  // null: there is no such command
    int (*clean)() = nullptr;
    bool is_temporary = false;  // the table is gone when a statement on it fails
};

struct record_kind {
    const char* command;   // name of the subcommand
    const char* what;      // its rows, for help texts
    const char* singular;  // one of them
    size_t size;
    std::span<const field> fields;  // in the order of the table's columns, id first; computed last
    page (*list)(db_query_cond cond);
    record_adder adder = {};
    record_remover remover = {};
};

std::span<const record_kind> record_kinds();

// The kind whose subcommand has this name, which must exist.
const record_kind& kind_of(std::string_view command);
