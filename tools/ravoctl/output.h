// Rows on standard output: as a table, as JSON, as CSV.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "command_line.h"
#include "fields.h"
#include "json_ptr.h"

enum class output_format { table, wide, json, jsonl, csv };

struct output_options {
    output_format format = output_format::table;
    std::string columns;  // "name,name"; empty: those of the format
    bool is_utc = false;
};

// Declares -o, --json, --wide, -c, --utc and --no-pager.
void declare_output_options(cli_command app, output_options& options);

// In the order of the list's fields.
using row_values = std::vector<value>;

// Rows, and what stands around them. Their first field is the id where they can be followed.
struct row_list {
    std::vector<row_values> rows;
    bool has_more = false;               // than these
    std::optional<uint64_t> total = {};  // rows of the whole table, when that is known
};

class row_printer {
  public:
    // The name goes into the schema. Throws usage_error for a column that is not there. All must
    // live as long as this.
    row_printer(const char* name, std::span<const field> fields, const output_options& options);

    // Prints all of it, and the last line of a table; on a terminal through the pager.
    //
    // Table: aligned columns. Texts are escaped; unless the table is wide, it has the most
    // important columns only, long texts are cut, and bytes are rounded. JSON: one object with
    // "schema", "rows" (an array of objects with a member for each field), "count", "more" and
    // "total". Times and durations are seconds. What has no value is null. A text that is not UTF-8
    // has U+FFFD in place of its bad bytes, and a member FIELD_hex beside it with all bytes. JSON
    // lines: a line for each row, such an object with the schema in it. CSV: a heading and a line
    // for each row, numbers as in JSON. Texts are escaped as in a table, and ' stands before one
    // that a spreadsheet would run as a formula.
    void print(const row_list& list, const std::string& last_line);

    // Prints further rows below, as they come. JSON cannot be continued: usage_error.
    void print_more(const std::vector<row_values>& rows);

  private:
    bool is_table() const;
    void print_table(const std::vector<row_values>& rows, bool with_headings);
    void print_json(const row_list& list) const;
    void print_json_lines(const std::vector<row_values>& rows) const;
    void print_csv(const std::vector<row_values>& rows) const;
    void print_csv_headings() const;
    json_ptr to_object(const row_values& row, bool with_schema) const;
    std::string cell(size_t index, const row_values& row) const;

    std::string schema_;
    std::span<const field> fields_;
    const output_options& options_;
    std::vector<size_t> shown_;   // indexes of the fields
    std::vector<size_t> widths_;  // of the table's columns so far
};

// A row with all fields, as it is printed as JSON.
json_ptr to_object(std::span<const field> fields, const row_values& row);

// Prints a value in ASCII, so that no control character, of whatever range, reaches a terminal as
// it is. Throws std::bad_alloc.
void dump_to_stdout(const json_t* json);

// Takes over the member. Throws std::bad_alloc, also for a null one, which there was no memory for.
void set_member(json_t* object, const std::string& name, json_t* member);

// "ravoctl.NAME/1"
std::string schema_name(const char* name);
