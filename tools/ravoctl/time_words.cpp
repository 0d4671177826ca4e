// Points of time as people write them on a command line.
#include "time_words.h"

#include <charconv>
#include <ctime>
#include <string_view>
#include <utility>

namespace {

std::optional<int64_t> to_number(std::string_view text) {
    int64_t number = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || stop != text.data() + text.size()) return std::nullopt;
    return number;
}

// ---- Days and times of day ---------------------------------------------------------------------

int64_t midnight(int64_t now, int days_later) {
    const time_t time = now;
    tm day = {};
    (void)localtime_r(&time, &day);
    day.tm_hour = day.tm_min = day.tm_sec = 0;
    day.tm_mday += days_later;
    day.tm_isdst = -1;
    return mktime(&day);
}

// Empty when the calendar, or the clock, would have moved it: February 30 is no day.
std::optional<int64_t> to_seconds(const tm& fields, bool is_utc) {
    tm moved = fields;
    moved.tm_isdst = is_utc ? 0 : -1;
    const time_t seconds = is_utc ? timegm(&moved) : mktime(&moved);
    if (moved.tm_mday != fields.tm_mday || moved.tm_mon != fields.tm_mon ||
        moved.tm_year != fields.tm_year || seconds < 0)
        return std::nullopt;
    return seconds;
}

std::optional<int64_t> at_offset(tm fields, const char* offset) {
    const char* end = strptime(offset, "%z", &fields);
    if (end == nullptr || *end != '\0') return std::nullopt;
    const auto seconds = to_seconds(fields, true);
    if (seconds) return *seconds - fields.tm_gmtoff;
    return std::nullopt;
}

std::optional<int64_t> parse_date(std::string text) {
    const bool is_utc = text.ends_with('Z');
    if (is_utc) text.pop_back();
    for (const char* form : {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M",
                             "%Y-%m-%dT%H:%M:%S"}) {
        tm fields = {};
        const char* end = strptime(text.c_str(), form, &fields);
        if (end != nullptr && *end == '\0') return to_seconds(fields, is_utc);
        if (end == nullptr || is_utc) continue;
        if (const auto seconds = at_offset(fields, end)) return seconds;
    }
    return std::nullopt;
}

std::optional<int64_t> parse_time_of_day(const std::string& text, int64_t now) {
    const time_t time = now;
    for (const char* form : {"%H:%M", "%H:%M:%S"}) {
        tm fields = {};
        (void)localtime_r(&time, &fields);
        fields.tm_sec = 0;
        const char* end = strptime(text.c_str(), form, &fields);
        if (end != nullptr && *end == '\0') return to_seconds(fields, false);
    }
    return std::nullopt;
}

// ---- Spans of time -----------------------------------------------------------------------------

std::optional<int64_t> unit_seconds(std::string_view unit) {
    static constexpr std::pair<std::string_view, int64_t> units[] = {
        {"", 1},         {"s", 1},       {"sec", 1},       {"second", 1},    {"seconds", 1},
        {"m", 60},       {"min", 60},    {"minute", 60},   {"minutes", 60},  {"h", 3600},
        {"hr", 3600},    {"hour", 3600}, {"hours", 3600},  {"d", 86400},     {"day", 86400},
        {"days", 86400}, {"w", 604800},  {"week", 604800}, {"weeks", 604800}};
    for (const auto& [name, seconds] : units) {
        if (unit == name) return seconds;
    }
    return std::nullopt;
}

std::string_view without_spaces(std::string_view text) {
    while (text.starts_with(' ')) text.remove_prefix(1);
    while (text.ends_with(' ')) text.remove_suffix(1);
    return text;
}

// "1h 30min", "90", ...: at least one number, each with its unit.
std::optional<int64_t> parse_span(std::string_view text) {
    constexpr std::string_view digits = "0123456789";
    int64_t total = 0;
    text = without_spaces(text);
    if (text.empty()) return std::nullopt;
    while (!text.empty()) {
        const size_t unit_at = text.find_first_not_of(digits);
        const auto number = to_number(text.substr(0, unit_at));
        text.remove_prefix(std::min(unit_at, text.size()));
        const size_t unit_end = text.find_first_of(digits);
        const auto unit = unit_seconds(without_spaces(text.substr(0, unit_end)));
        text.remove_prefix(std::min(unit_end, text.size()));
        int64_t part = 0;
        if (!number || !unit || __builtin_mul_overflow(*number, *unit, &part) ||
            __builtin_add_overflow(total, part, &total))
            return std::nullopt;
    }
    return total;
}

std::optional<int64_t> from_now(int64_t now, std::string_view span, int sign) {
    const auto seconds = parse_span(span);
    int64_t time = 0;
    if (!seconds || __builtin_add_overflow(now, sign * *seconds, &time)) return std::nullopt;
    return time;
}

}  // namespace

std::optional<int64_t> parse_time_words(const std::string& text, int64_t now) {
    constexpr std::string_view ago = " ago";
    const std::string_view view = text;
    if (text == "now") return now;
    if (text == "today") return midnight(now, 0);
    if (text == "yesterday") return midnight(now, -1);
    if (text == "tomorrow") return midnight(now, 1);
    if (view.starts_with('@')) return to_number(view.substr(1));
    if (view.starts_with('-')) return from_now(now, view.substr(1), -1);
    if (view.starts_with('+')) return from_now(now, view.substr(1), 1);
    if (view.ends_with(ago)) return from_now(now, view.substr(0, view.size() - ago.size()), -1);
    if (const auto seconds = to_number(view)) return seconds;
    if (const auto seconds = parse_date(text)) return seconds;
    return parse_time_of_day(text, now);
}
