// Points of time as people write them on a command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

// Seconds since the epoch. Takes
//   now, today, yesterday, tomorrow      the last three at midnight
//   2026-11-21, 2026-11-21 01:00[:58]    also with a T between; local time, or with Z or +01:00
//   behind 01:00[:58]                           today -2h, +90min, 3d ago                  from
//   now; s, min, h, d, w, several of them joined
//   @1795222858, 1795222858              seconds since the epoch
// with times and midnights of the time zone of the environment (TZ). Empty: none of these, or a day
// that does not exist.
std::optional<int64_t> parse_time_words(const std::string& text, int64_t now);

// What they are, for help and error messages.
inline constexpr char time_words_help[] =
    "now, today, yesterday, 2026-11-21, \"2026-11-21 01:00\", -2h, 3d ago or @SECONDS";
