// The fields of the daemon's records as data: where a field lies, what fits into it, how it looks.
#include "fields.h"

#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <limits>
#include <optional>

#include "failure.h"
#include "text.h"

namespace {

constexpr char time_format[] = "%Y-%m-%dT%H:%M:%SZ";

// The database keeps signed numbers of 64 bits. A larger one would be rounded when it is stored, so
// the upper half of an unsigned field's range is left out.
constexpr uint64_t largest_unsigned = std::numeric_limits<int64_t>::max();

struct limits {
    int64_t smallest;
    int64_t largest;
};

limits limits_of(value_kind kind) {
    switch (kind) {
        case value_kind::int32:
            return {std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()};
        case value_kind::uint64:
            return {0, static_cast<int64_t>(largest_unsigned)};
        default:
            return {std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()};
    }
}

[[noreturn]] void refuse(const field& f, const std::string& what) {
    throw usage_error(fmt::format("{}: {}; it takes {}", f.name, what, description(f)));
}

std::string parse_text(const field& f, const std::string& text) {
    if (text.size() >= f.size) refuse(f, fmt::format("the text has {} bytes", text.size()));
    return text;
}

std::optional<int64_t> to_number(const std::string& text) {
    int64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end) return std::nullopt;
    return number;
}

// Years below 1000 and above 9999 do not have four digits, so they are no ISO 8601.
std::optional<std::string> to_iso_time(int64_t seconds) {
    const time_t time = seconds;
    tm fields = {};
    if (gmtime_r(&time, &fields) == nullptr) return std::nullopt;
    if (fields.tm_year + 1900 < 1000 || fields.tm_year + 1900 > 9999) return std::nullopt;
    char text[32];
    return std::string(text, strftime(text, sizeof text, time_format, &fields));
}

std::optional<int64_t> from_iso_time(const std::string& text) {
    tm fields = {};
    const char* end = strptime(text.c_str(), time_format, &fields);
    if (end == nullptr || *end != '\0') return std::nullopt;
    const int64_t seconds = timegm(&fields);
    // A day that does not exist, such as February 30, would have become another one.
    if (to_iso_time(seconds) != text) return std::nullopt;
    return seconds;
}

std::optional<int64_t> to_seconds(const std::string& text) {
    if (text == "now") return time(nullptr);
    if (const auto seconds = to_number(text)) return seconds;
    return from_iso_time(text);
}

int64_t parse_number(const field& f, const std::string& text) {
    const auto number = f.is == meaning::time ? to_seconds(text) : to_number(text);
    const limits range = limits_of(f.kind);
    if (!number || *number < range.smallest || *number > range.largest) {
        refuse(f, fmt::format("\"{}\" does not fit", escaped(text)));
    }
    return *number;
}

std::string to_hours(uint64_t seconds) {
    return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

template <class Number>
Number load(const field& f, const char* row) {
    Number number;
    memcpy(&number, row + f.offset, sizeof number);
    return number;
}

template <class Number>
void store(const field& f, Number number, char* row) {
    memcpy(row + f.offset, &number, sizeof number);
}

}  // namespace

value parse_value(const field& f, const std::string& text) {
    if (f.kind == value_kind::text) return parse_text(f, text);
    const int64_t number = parse_number(f, text);
    if (f.kind == value_kind::uint64) return static_cast<uint64_t>(number);
    return number;
}

value read_value(const field& f, const char* row) {
    switch (f.kind) {
        case value_kind::text:
            return std::string(row + f.offset, strnlen(row + f.offset, f.size));
        case value_kind::int32:
            return int64_t{load<int32_t>(f, row)};
        case value_kind::int64:
            return load<int64_t>(f, row);
        case value_kind::text_pointer:  // no record that crosses the bus has one
            return std::monostate();
        case value_kind::uint64:
            break;
    }
    const auto number = load<uint64_t>(f, row);
    if (f.from == origin::computed && number == no_number) return std::monostate();
    return number;
}

void write_value(const field& f, const value& v, char* row) {
    switch (f.kind) {
        case value_kind::text: {
            const auto& text = std::get<std::string>(v);
            memcpy(row + f.offset, text.c_str(), text.size() + 1);
            break;
        }
        case value_kind::int32:
            store(f, static_cast<int32_t>(std::get<int64_t>(v)), row);
            break;
        case value_kind::int64:
            store(f, std::get<int64_t>(v), row);
            break;
        case value_kind::uint64:
            store(f, std::get<uint64_t>(v), row);
            break;
        case value_kind::text_pointer:
            break;
    }
}

std::string plain_text(const value& v) {
    if (std::holds_alternative<std::monostate>(v)) return {};
    if (const auto* text = std::get_if<std::string>(&v)) return *text;
    if (const auto* number = std::get_if<int64_t>(&v)) return fmt::format("{}", *number);
    return fmt::format("{}", std::get<uint64_t>(v));
}

std::string cell_text(const field& f, const value& v) {
    const auto* number = std::get_if<uint64_t>(&v);
    if (number != nullptr && f.is == meaning::duration) return to_hours(*number);
    if (number != nullptr && f.is == meaning::time && *number <= largest_unsigned) {
        if (auto text = to_iso_time(static_cast<int64_t>(*number))) return *text;
    }
    return escaped(plain_text(v));
}

std::string description(const field& f) {
    if (f.from == origin::computed) return "for show only";
    if (f.kind == value_kind::text) return fmt::format("text, at most {} bytes", f.size - 1);
    const limits range = limits_of(f.kind);
    const std::string numbers = fmt::format("{} to {}", range.smallest, range.largest);
    if (f.is == meaning::time) {
        return fmt::format("seconds since the epoch, {}, or 2026-11-21T01:00:58Z, or \"now\"",
                           numbers);
    }
    return fmt::format("a whole number, {}", numbers);
}
