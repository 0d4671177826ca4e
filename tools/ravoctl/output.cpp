// A page of records on standard output, as a table or as JSON.
#include "output.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <new>
#include <vector>

#include "json_ptr.h"
#include "text.h"

namespace {

// Terminal columns of a text in a table that is not wide; a device's UUID fits.
constexpr size_t narrow_cell = 35;

const char* row_at(const listing& list, uint64_t index) {
    return list.rows.rows.get() + index * list.kind.size;
}

// --- Table --------------------------------------------------------------------------------------

struct table_column {
    bool is_text;
    size_t width;
    std::vector<std::string> cells;  // the heading first
};

table_column make_column(const listing& list, const field& f, bool wide) {
    table_column column = {f.kind == value_kind::text, 0, {f.name}};
    for (uint64_t i = 0; i < list.rows.count; ++i) {
        const std::string text = cell_text(f, read_value(f, row_at(list, i)));
        column.cells.push_back(wide ? text : cut_to_width(text, narrow_cell));
    }
    for (const std::string& cell : column.cells) {
        column.width = std::max(column.width, display_width(cell));
    }
    return column;
}

// Texts stand on the left and numbers on the right. fmt's own padding would count some characters
// differently than display_width does.
std::string padded(const table_column& column, const std::string& cell) {
    const std::string space(column.width - display_width(cell), ' ');
    return column.is_text ? cell + space : space + cell;
}

void print_line(const std::vector<table_column>& columns, size_t index) {
    std::string line;
    for (const table_column& column : columns) {
        if (!line.empty()) line += "  ";
        line += padded(column, column.cells[index]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    fmt::print("{}\n", line);
}

void print_footer(const listing& list) {
    const page& rows = list.rows;
    const std::string total =
        rows.total == count_failed ? "an unknown number" : fmt::format("{}", rows.total);
    // The total counts the whole table, so next to a filter it must not look like the matches.
    const std::string of = list.is_filtered ? " that match; the table has " : " of ";
    if (rows.count == 0) {
        fmt::print("no rows{}{}\n", list.is_filtered ? of : "; the table has ", total);
    } else {
        fmt::print("rows {}-{}{}{}\n", list.start + 1, list.start + rows.count, of, total);
    }
}

// --- JSON ---------------------------------------------------------------------------------------

// Takes over the value, also when it is null because there was no memory for it.
void set_member(const json_ptr& object, const std::string& name, json_t* member) {
    if (json_object_set_new(object.get(), name.c_str(), member) != 0) throw std::bad_alloc();
}

// JSON's integers end where signed ones of 64 bits do; what is larger goes out as a real number.
json_t* to_json(uint64_t number) {
    if (number <= std::numeric_limits<json_int_t>::max()) {
        return json_integer(static_cast<json_int_t>(number));
    }
    return json_real(static_cast<double>(number));
}
json_t* to_json(std::monostate /*none*/) { return json_null(); }
json_t* to_json(int64_t number) { return json_integer(number); }
json_t* to_json(const std::string& text) {
    const std::string valid = with_replacements(text);
    return json_stringn(valid.data(), valid.size());
}

}  // namespace

json_ptr row_to_json(const record_kind& kind, const char* row) {
    json_ptr object(json_object());
    for (const field& f : kind.fields) {
        const value v = read_value(f, row);
        const auto convert = [](const auto& content) { return to_json(content); };
        set_member(object, f.name, std::visit(convert, v));
        const auto* text = std::get_if<std::string>(&v);
        if (text != nullptr && !is_utf8(*text)) {
            set_member(object, std::string(f.name) + "_hex", to_json(to_hex(*text)));
        }
    }
    return object;
}

void print_table(const listing& list, bool wide) {
    std::vector<table_column> columns;
    for (const field& f : list.kind.fields) {
        if (wide || f.visibility == shown::always) columns.push_back(make_column(list, f, wide));
    }
    const uint64_t lines = list.rows.count == 0 ? 0 : list.rows.count + 1;
    for (uint64_t i = 0; i < lines; ++i) print_line(columns, i);
    print_footer(list);
}

// Row by row, so that a large page needs no second copy of itself as a tree.
void print_json(const listing& list) {
    fmt::print("{{\"start\": {}, \"rows\": [", list.start);
    for (uint64_t i = 0; i < list.rows.count; ++i) {
        fmt::print("{}\n", i == 0 ? "" : ",");
        dump_to_stdout(row_to_json(list.kind, row_at(list, i)).get());
    }
    const bool is_counted = list.rows.total != count_failed;
    fmt::print("], \"count\": {}, \"total\": {}}}\n", list.rows.count,
               is_counted ? fmt::format("{}", list.rows.total) : "null");
}

// Jansson leaves only DEL to do.
void dump_to_stdout(const json_t* json) {
    const json_text text(json_dumps(json, JSON_ENSURE_ASCII));
    if (text == nullptr) throw std::bad_alloc();
    for (const char* c = text.get(); *c != '\0'; ++c) {
        if (*c == 0x7f) {
            fmt::print("\\u007f");
        } else {
            (void)fputc(*c, stdout);
        }
    }
}
