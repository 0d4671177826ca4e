// Rows on standard output: as a table, as JSON, as CSV.
#include "output.h"

#include <fmt/format.h>
#include <libsmartcols.h>

#include <algorithm>
#include <limits>
#include <map>
#include <memory>
#include <new>

#include "failure.h"
#include "terminal.h"
#include "text.h"

namespace {

constexpr int schema_version = 1;

// Terminal columns of a text in a table that is not wide; a device's UUID fits.
constexpr size_t narrow_cell = 35;

// --- Columns ------------------------------------------------------------------------------------

bool is_shown_by_itself(const field& f, output_format format) {
    switch (f.visibility) {
        case shown::always:
            return true;
        case shown::in_wide_table:
            return format != output_format::table;
        case shown::in_tables_only:
            break;
    }
    return format == output_format::table || format == output_format::wide;
}

size_t index_of(std::span<const field> fields, const std::string& name) {
    const auto named = [&name](const field& f) { return name == f.name; };
    const auto found = std::find_if(fields.begin(), fields.end(), named);
    if (found != fields.end()) return static_cast<size_t>(found - fields.begin());
    throw usage_error(fmt::format("-c: there is no column \"{}\"; the columns are {}",
                                  escaped(name), names_of(fields)));
}

std::vector<size_t> chosen_columns(std::span<const field> fields, const output_options& options) {
    std::vector<size_t> chosen;
    if (options.columns.empty()) {
        for (size_t i = 0; i < fields.size(); ++i) {
            if (is_shown_by_itself(fields[i], options.format)) chosen.push_back(i);
        }
        return chosen;
    }
    size_t begin = 0;
    while (begin <= options.columns.size()) {
        const size_t end = std::min(options.columns.find(',', begin), options.columns.size());
        chosen.push_back(index_of(fields, options.columns.substr(begin, end - begin)));
        begin = end + 1;
    }
    return chosen;
}

// --- Table --------------------------------------------------------------------------------------

struct table_deleter {
    void operator()(libscols_table* table) const { scols_unref_table(table); }
};
using table_owner = std::unique_ptr<libscols_table, table_deleter>;

template <class Pointer>
Pointer* needed(Pointer* pointer) {
    if (pointer == nullptr) throw std::bad_alloc();
    return pointer;
}

void check_memory(int result) {
    if (result != 0) throw std::bad_alloc();
}

// The cells are escaped before, more strictly than the library would do it.
table_owner make_table(bool with_headings) {
    table_owner table(needed(scols_new_table()));
    check_memory(scols_table_set_column_separator(table.get(), "  "));
    check_memory(scols_table_enable_noencoding(table.get(), 1));
    check_memory(scols_table_enable_minout(table.get(), 1));
    check_memory(scols_table_set_termforce(table.get(), SCOLS_TERMFORCE_NEVER));
    check_memory(scols_table_enable_noheadings(table.get(), with_headings ? 0 : 1));
    check_memory(scols_table_enable_colors(table.get(), wants_colours() ? 1 : 0));
    return table;
}

bool is_left_aligned(const field& f) {
    return f.kind == value_kind::text || f.is == meaning::time || f.is == meaning::vpn_type ||
           f.is == meaning::action;
}

const char* colour_of(const std::string& state) {
    static const std::map<std::string, const char*> colours = {
        {"open", "green"},  {"connected", "green"},    {"lost", "yellow"},
        {"blocked", "red"}, {"limiter off", "yellow"}, {"settings unknown", "yellow"}};
    const auto found = colours.find(state);
    return found == colours.end() ? nullptr : found->second;
}

bool has_colour(const field& f) {
    return f.is == meaning::action || std::string_view(f.name) == "state";
}

// --- JSON ---------------------------------------------------------------------------------------

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

void set_value(const json_ptr& object, const char* name, const value& v) {
    const auto convert = [](const auto& content) { return to_json(content); };
    set_member(object.get(), name, std::visit(convert, v));
    const auto* text = std::get_if<std::string>(&v);
    if (text != nullptr && !is_utf8(*text)) {
        set_member(object.get(), std::string(name) + "_hex", to_json(to_hex(*text)));
    }
}

// --- CSV ----------------------------------------------------------------------------------------

std::string quoted(const std::string& text) {
    if (text.find_first_of(",\"") == std::string::npos) return text;
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"') out += '"';
        out += c;
    }
    return out + '"';
}

// Names come from strangers, and a spreadsheet runs a text that begins so.
std::string csv_cell(const value& v) {
    if (!std::holds_alternative<std::string>(v)) return plain_text(v);
    const std::string text = escaped(std::get<std::string>(v));
    const bool is_formula =
        !text.empty() && std::string_view("=+-@").find(text.front()) != std::string_view::npos;
    return quoted(is_formula ? "'" + text : text);
}

output_format format_named(const std::string& name) {
    static const std::map<std::string, output_format> formats = {{"table", output_format::table},
                                                                 {"wide", output_format::wide},
                                                                 {"json", output_format::json},
                                                                 {"jsonl", output_format::jsonl},
                                                                 {"csv", output_format::csv}};
    const auto found = formats.find(name);
    if (found != formats.end()) return found->second;
    throw usage_error(
        fmt::format("-o: \"{}\" is not table, wide, json, jsonl or csv", escaped(name)));
}

}  // namespace

std::string schema_name(const char* name) {
    return fmt::format("ravoctl.{}/{}", name, schema_version);
}

void declare_output_options(cli_command app, output_options& options) {
    const cli_option format =
        app.add_option(
               "-o,--output",
               [&options](const std::string& name) { options.format = format_named(name); },
               "How to print: table, wide (all fields, and texts in full length), json, jsonl (an "
               "object on each line) or csv")
            .type_name("{table,wide,json,jsonl,csv}");
    const cli_option json = app.add_flag(
        "--json", [&options] { options.format = output_format::json; }, "The same as -o json");
    const cli_option wide = app.add_flag(
        "--wide", [&options] { options.format = output_format::wide; }, "The same as -o wide");
    json.excludes(wide).excludes(format);
    wide.excludes(format);
    app.add_option("-c,--columns", options.columns, "Only these fields, in this order")
        .type_name("FIELD,...");
    app.add_flag("--utc", options.is_utc, "Show times in UTC, not in local time");
    declare_pager_option(app);
}

row_printer::row_printer(const char* name, std::span<const field> fields,
                         const output_options& options)
    : schema_(schema_name(name)),
      fields_(fields),
      options_(options),
      shown_(chosen_columns(fields, options)),
      widths_(shown_.size(), 0) {}

void row_printer::print(const row_list& list, const std::string& last_line) {
    start_pager();
    switch (options_.format) {
        case output_format::json:
            print_json(list);
            break;
        case output_format::jsonl:
            print_json_lines(list.rows);
            break;
        case output_format::csv:
            print_csv_headings();
            print_csv(list.rows);
            break;
        default:
            print_table(list.rows, true);
            if (!last_line.empty()) fmt::print("{}\n", last_line);
    }
}

void row_printer::print_more(const std::vector<row_values>& rows) {
    if (is_table()) print_table(rows, false);
    if (options_.format == output_format::jsonl) print_json_lines(rows);
    if (options_.format == output_format::csv) print_csv(rows);
    (void)fflush(stdout);
}

bool row_printer::is_table() const {
    return options_.format == output_format::table || options_.format == output_format::wide;
}

std::string row_printer::cell(size_t index, const row_values& row) const {
    const bool is_wide = options_.format == output_format::wide;
    const std::string text =
        cell_text(fields_[index], row[index], {.is_utc = options_.is_utc, .is_exact = is_wide});
    return is_wide ? text : cut_to_width(text, narrow_cell);
}

void row_printer::print_table(const std::vector<row_values>& rows, bool with_headings) {
    if (rows.empty()) return;
    const table_owner table = make_table(with_headings);
    std::vector<libscols_column*> columns;
    for (size_t i = 0; i < shown_.size(); ++i) {
        const field& f = fields_[shown_[i]];
        const int flags = is_left_aligned(f) ? 0 : SCOLS_FL_RIGHT;
        columns.push_back(needed(
            scols_table_new_column(table.get(), f.name, static_cast<double>(widths_[i]), flags)));
    }
    for (const row_values& row : rows) {
        libscols_line* line = needed(scols_table_new_line(table.get(), nullptr));
        for (size_t i = 0; i < shown_.size(); ++i) {
            const std::string text = cell(shown_[i], row);
            check_memory(scols_line_set_data(line, i, text.c_str()));
            if (!has_colour(fields_[shown_[i]])) continue;
            check_memory(scols_cell_set_color(scols_line_get_cell(line, i), colour_of(text)));
        }
    }
    check_memory(scols_print_table(table.get()));
    for (size_t i = 0; i < columns.size(); ++i) widths_[i] = scols_column_get_width(columns[i]);
}

json_ptr row_printer::to_object(const row_values& row, bool with_schema) const {
    json_ptr object(json_object());
    if (with_schema) set_member(object.get(), "schema", to_json(schema_));
    for (const size_t index : shown_) set_value(object, fields_[index].name, row[index]);
    return object;
}

// Row by row, so that a large list needs no second copy of itself as a tree.
void row_printer::print_json(const row_list& list) const {
    fmt::print("{{\"schema\": \"{}\", \"rows\": [", schema_);
    const char* separator = "\n";
    for (const row_values& row : list.rows) {
        fmt::print("{}", separator);
        dump_to_stdout(to_object(row, false).get());
        separator = ",\n";
    }
    fmt::print("], \"count\": {}, \"more\": {}, \"total\": {}}}\n", list.rows.size(), list.has_more,
               list.total ? fmt::format("{}", *list.total) : "null");
}

void row_printer::print_json_lines(const std::vector<row_values>& rows) const {
    for (const row_values& row : rows) {
        dump_to_stdout(to_object(row, true).get());
        fmt::print("\n");
    }
}

void row_printer::print_csv_headings() const {
    std::string line;
    for (const size_t index : shown_) {
        line += fmt::format("{}{}", line.empty() ? "" : ",", fields_[index].name);
    }
    fmt::print("{}\r\n", line);
}

void row_printer::print_csv(const std::vector<row_values>& rows) const {
    for (const row_values& row : rows) {
        const char* separator = "";
        for (const size_t index : shown_) {
            fmt::print("{}{}", separator, csv_cell(row[index]));
            separator = ",";
        }
        fmt::print("\r\n");
    }
}

void set_member(json_t* object, const std::string& name, json_t* member) {
    if (json_object_set_new(object, name.c_str(), member) != 0) throw std::bad_alloc();
}

// Jansson leaves only DEL to do.
json_ptr to_object(std::span<const field> fields, const row_values& row) {
    json_ptr object(json_object());
    for (size_t i = 0; i < fields.size(); ++i) set_value(object, fields[i].name, row[i]);
    return object;
}

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
