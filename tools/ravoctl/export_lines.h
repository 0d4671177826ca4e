// The lines of an export: JSON objects, the first of which names the format, and the last of which
// tells how many rows there are, so that a file that was cut is known.
//
//     {"ravo_export": 1, "time": 1795222858}
//     {"kind": "sessions", "id": 7, "username": "alice", ...}
//     {"end": {"sessions": 1}}
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "records.h"

inline constexpr int export_version = 1;

// The rows of each kind, by the name of its command.
using row_counts = std::map<std::string, uint64_t>;

std::string export_head(int64_t now);
std::string export_row(const record_kind& kind, const char* row);
std::string export_end(const row_counts& counts);

struct bad_line : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Reads an export line by line. All throw bad_line, whose words tell what is wrong.
class export_reader {
  public:
    struct row {
        const record_kind& kind;
        std::vector<char> record;  // what the table gives is 0 or empty
    };

    // A row, or nothing for the first line and the last one.
    std::optional<row> take(std::string_view line);

    // To be called behind the last line.
    void finish() const;

    const row_counts& counts() const { return seen; }

  private:
    void take_head(std::string_view line);

    bool has_head = false;
    bool has_end = false;
    row_counts seen;
};
