// The new database that rows are saved into. The daemon's own table modules build it, so that it
// has their CREATE texts and PRAGMAs whatever these are, and the columns are read back from it.
#ifndef DBCHECK_REPLACEMENT_H
#define DBCHECK_REPLACEMENT_H

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "handles.h"
#include "record.h"

// One of the tables that the daemon keeps.
struct kept_table {
    std::string name;
    std::vector<column_kind> columns;  // the id's included
    statement_handle insert{};
    uint64_t saved = 0;
};

// A module tells its failures only in the daemon's log.
inline constexpr int module_failure = -1;

class replacement {
  public:
    // Each operation returns SQLite's code, or module_failure.

    // Makes the file, which must not exist, with empty tables.
    int create(const std::string& path);
    // Saves a row with its id, or without one with the next. A row whose id is taken already is
    // left out, and is no failure.
    int save(kept_table& table, std::optional<int64_t> id, std::span<const value> values);
    // New ids go on behind the last one that a table ever gave.
    int raise_last_ids(const std::map<std::string, int64_t>& last_ids);
    // Writes everything down.
    int finish();

    std::vector<kept_table> tables;

  private:
    int read_tables();
    int read_columns(kept_table& table);
    int execute(const char* text);

    db_handle db;
};

// What went wrong, for a person.
std::string words_of(int code);

#endif  // DBCHECK_REPLACEMENT_H
