// The lines of an export: JSON objects, the first of which names the format, and the last of which
// tells how many rows there are, so that a file that was cut is known.
#include "export_lines.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <new>

#include "failure.h"
#include "json_ptr.h"
#include "output.h"
#include "text.h"

namespace {

// --- Writing ------------------------------------------------------------------------------------

std::string to_line(const json_ptr& object) {
    const json_text text(json_dumps(object.get(), JSON_ENSURE_ASCII | JSON_COMPACT));
    if (text == nullptr) throw std::bad_alloc();
    return std::string(text.get()) + "\n";
}

json_ptr to_json(const row_counts& counts) {
    json_ptr object(json_object());
    for (const auto& [kind, count] : counts) {
        json_t* number = json_integer(static_cast<json_int_t>(count));
        if (json_object_set_new(object.get(), kind.c_str(), number) != 0) throw std::bad_alloc();
    }
    return object;
}

// --- Reading ------------------------------------------------------------------------------------

// A table without rows is counted as well.
bool are_counts(const json_t* end, row_counts seen) {
    for (const record_kind& kind : record_kinds()) {
        if (json_object_get(end, kind.command) != nullptr) seen.try_emplace(kind.command, 0);
    }
    return json_equal(end, to_json(seen).get()) != 0;
}

json_ptr parse_object(std::string_view line) {
    json_error_t error;
    json_ptr object(json_loadb(line.data(), line.size(), JSON_REJECT_DUPLICATES, &error));
    if (object == nullptr) throw bad_line(fmt::format("no JSON: {}", escaped(error.text)));
    if (!json_is_object(object.get())) throw bad_line("no JSON object");
    return object;
}

const record_kind& find_kind(const json_t* object) {
    const char* name = json_string_value(json_object_get(object, "kind"));
    if (name == nullptr) throw bad_line("no kind of record");
    for (const record_kind& kind : record_kinds()) {
        if (std::string_view(name) == kind.command) return kind;
    }
    throw bad_line(fmt::format("\"{}\" is no kind of record", escaped(name)));
}

std::string from_hex(const char* name, std::string_view digits) {
    const auto digit = [](char c) {
        constexpr std::string_view all = "0123456789abcdef";
        return all.find(c);
    };
    std::string bytes;
    for (size_t n = 0; n + 1 < digits.size(); n += 2) {
        bytes += static_cast<char>(digit(digits[n]) * 16 + digit(digits[n + 1]));
    }
    if (to_hex(bytes) != digits) throw bad_line(fmt::format("{}_hex: no hexadecimal digits", name));
    return bytes;
}

// The value as a user would write it, so that it is checked like one; null: there is none.
std::optional<std::string> find_text(const json_t* object, const field& f) {
    const json_t* member = json_object_get(object, f.name);
    const json_t* hex = json_object_get(object, fmt::format("{}_hex", f.name).c_str());
    if (json_is_string(hex)) return from_hex(f.name, json_string_value(hex));
    if (member == nullptr) return std::nullopt;
    if (f.kind == value_kind::text && json_is_string(member)) return json_string_value(member);
    if (f.kind != value_kind::text && json_is_integer(member)) {
        return fmt::format("{}", json_integer_value(member));
    }
    throw bad_line(fmt::format("{}: neither missing nor {}", f.name, description(f)));
}

void set_field(const json_t* object, const field& f, std::vector<char>& record) {
    if (f.from != origin::given_by_user) return;
    const std::optional<std::string> text = find_text(object, f);
    try {
        if (text) write_value(f, parse_value(f, *text), record.data());
    } catch (const usage_error& error) {
        throw bad_line(error.what());
    }
}

void check_members(json_t* object, const record_kind& kind) {
    const char* name = nullptr;
    json_t* member = nullptr;
    json_object_foreach(object, name, member) {
        std::string_view known = name;
        if (known.ends_with("_hex")) known.remove_suffix(4);
        const auto is_known = [known](const field& f) { return known == f.name; };
        if (known != "kind" && std::ranges::none_of(kind.fields, is_known)) {
            throw bad_line(fmt::format("{} have no field \"{}\"", kind.command, escaped(name)));
        }
    }
}

void check_required(const record_kind& kind, const std::vector<char>& record) {
    for (const field& f : kind.fields) {
        const bool is_required =
            kind.adder.required != nullptr && std::string_view(kind.adder.required) == f.name;
        if (is_required && record[f.offset] == '\0') {
            throw bad_line(fmt::format("{}: a {} needs one", f.name, kind.singular));
        }
    }
}

}  // namespace

std::string export_head(int64_t now) {
    return fmt::format("{{\"ravo_export\":{},\"time\":{}}}\n", export_version, now);
}

std::string export_row(const record_kind& kind, const char* row) {
    row_values values;
    for (const field& f : kind.fields) values.push_back(read_value(f, row));
    const json_ptr object = to_object(kind.fields, values);
    if (json_object_set_new(object.get(), "kind", json_string(kind.command)) != 0) {
        throw std::bad_alloc();
    }
    return to_line(object);
}

std::string export_end(const row_counts& counts) {
    const json_ptr end(json_object());
    if (json_object_set(end.get(), "end", to_json(counts).get()) != 0) throw std::bad_alloc();
    return to_line(end);
}

void export_reader::take_head(std::string_view line) {
    const json_ptr head = parse_object(line);
    const json_t* version = json_object_get(head.get(), "ravo_export");
    if (!json_is_integer(version)) throw bad_line("no export of ravoctl begins so");
    if (json_integer_value(version) != export_version) {
        throw bad_line(fmt::format("the export has version {}; this ravoctl reads {}",
                                   json_integer_value(version), export_version));
    }
    has_head = true;
}

std::optional<export_reader::row> export_reader::take(std::string_view line) {
    if (has_end) throw bad_line("there is more behind the end");
    if (!has_head) {
        take_head(line);
        return std::nullopt;
    }
    const json_ptr object = parse_object(line);
    if (const json_t* end = json_object_get(object.get(), "end")) {
        if (!are_counts(end, seen)) {
            throw bad_line("the end counts other rows than there are");
        }
        has_end = true;
        return std::nullopt;
    }
    const record_kind& kind = find_kind(object.get());
    check_members(object.get(), kind);
    row found = {kind, std::vector<char>(kind.size, '\0')};
    for (const field& f : kind.fields) set_field(object.get(), f, found.record);
    check_required(kind, found.record);
    ++seen[kind.command];
    return found;
}

void export_reader::finish() const {
    if (!has_head) throw bad_line("the file is empty");
    if (!has_end) throw bad_line("the end is missing: the file was cut");
}
