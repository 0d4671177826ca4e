// The fields of the daemon's records as data: where a field lies, what fits into it, how it looks.
#include "fields.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <limits>
#include <optional>
#include <span>

#include "failure.h"
#include "global_options.h"
#include "text.h"
#include "time_words.h"

namespace {

// The database keeps signed numbers of 64 bits. A larger one would be rounded when it is stored, so
// the upper half of an unsigned field's range is left out.
constexpr uint64_t largest_unsigned = std::numeric_limits<int64_t>::max();

struct named_number {
    const char* name;
    int64_t number;
};

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
std::optional<std::string> to_iso_time(int64_t seconds, bool is_utc) {
    const time_t time = seconds;
    tm fields = {};
    if ((is_utc ? gmtime_r : localtime_r)(&time, &fields) == nullptr) return std::nullopt;
    if (fields.tm_year + 1900 < 1000 || fields.tm_year + 1900 > 9999) return std::nullopt;
    char text[32];
    const std::string_view iso(text,
                               strftime(text, sizeof text, is_utc ? "%FT%TZ" : "%FT%T%z", &fields));
    if (is_utc) return std::string(iso);
    const size_t minutes = iso.size() - 2;  // of the offset
    return fmt::format("{}:{}", iso.substr(0, minutes), iso.substr(minutes));
}

std::optional<int64_t> to_seconds(const std::string& text) {
    if (const auto seconds = to_number(text)) return seconds;
    return parse_time_words(text, time(nullptr));
}

constexpr named_number vpn_types[] = {
    {"pptp", ravo::PPTP_SERVER_TYPE},    {"l2tp", ravo::L2TP_SERVER_TYPE},
    {"openvpn", ravo::OVPN_SERVER_TYPE}, {"tessel", ravo::TESSEL_SERVER_TYPE},
    {"pptp", ravo::PPTP_CLIENT_TYPE},    {"l2tp", ravo::L2TP_CLIENT_TYPE},
    {"openvpn", ravo::OVPN_CLIENT_TYPE}, {"tessel", ravo::TESSEL_CLIENT_TYPE}};
constexpr named_number actions[] = {{"connected", 1}, {"disconnected", 2}, {"lost", 3}};

std::span<const named_number> known_names(meaning is) {
    if (is == meaning::vpn_type) return vpn_types;
    if (is == meaning::action) return actions;
    return {};
}

std::optional<int64_t> to_named_number(const field& f, const std::string& text) {
    for (const auto& [name, number] : known_names(f.is)) {
        if (text == name) return number;
    }
    return to_number(text);
}

int64_t parse_number(const field& f, const std::string& text) {
    const auto number = f.is == meaning::time ? to_seconds(text) : to_named_number(f, text);
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

std::string bytes_text(double bytes) {
    static constexpr std::array units = {"B", "kB", "MB", "GB", "TB", "PB", "EB"};
    size_t unit = 0;
    while (bytes >= 999.5 && unit + 1 < units.size()) {
        bytes /= 1000;
        ++unit;
    }
    return fmt::format("{:.{}f} {}", bytes, unit == 0 || bytes >= 99.5 ? 0 : 1, units[unit]);
}

std::string cell_text(const field& f, const value& v, const cell_style& style) {
    if (const auto* number = std::get_if<uint64_t>(&v)) {
        if (f.is == meaning::duration) return to_hours(*number);
        if (f.is == meaning::time && *number <= largest_unsigned) {
            if (auto text = to_iso_time(static_cast<int64_t>(*number), style.is_utc)) return *text;
        }
    }
    if (const auto* number = std::get_if<int64_t>(&v)) {
        if (f.is == meaning::bytes && !style.is_exact && *number >= 0) {
            return bytes_text(static_cast<double>(*number));
        }
        for (const auto& [name, named] : known_names(f.is)) {
            if (*number == named) return name;
        }
    }
    return escaped(plain_text(v));
}

std::string description(const field& f) {
    if (f.from == origin::computed) return "for show only";
    if (f.kind == value_kind::text) return fmt::format("text, at most {} bytes", f.size - 1);
    const limits range = limits_of(f.kind);
    const std::string numbers = fmt::format("{} to {}", range.smallest, range.largest);
    if (f.is == meaning::time) {
        return fmt::format("seconds since the epoch, {}; {}", numbers, time_words_help);
    }
    if (f.is == meaning::vpn_type)
        return fmt::format("pptp, l2tp, openvpn, tessel or a number, {}", numbers);
    if (f.is == meaning::action)
        return fmt::format("connected, disconnected, lost or a number, {}", numbers);
    return fmt::format("a whole number, {}", numbers);
}

std::string names_of(std::span<const field> fields) {
    std::string names;
    for (const field& f : fields) names += (names.empty() ? "" : ", ") + std::string(f.name);
    return names;
}
