// A page for a browser: sessions on a time line, the hours of the day, the users with most traffic.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "command_line.h"
#include "sessions.h"

// A user's failed logins, as the limiter counts them.
struct failed_logins {
    std::string user;
    int64_t count = 0;
    int64_t last = 0;           // seconds since the epoch
    int64_t blocked_until = 0;  // 0: was not blocked by these
};

struct report_content {
    std::vector<session> sessions;  // in the order of their starts
    std::vector<failed_logins> failures;
    int64_t since = 0;  // seconds since the epoch; what lies outside is left out or cut
    int64_t until = 0;
    int64_t now = 0;  // where sessions that are open end
};

// One HTML document with its styles and drawings in it, which loads nothing. Every text of a record
// is escaped. Times are those of the environment's time zone (TZ).
std::string to_html(const report_content& content);

// The command that writes the page of what the daemon knows now. An existing file is replaced when
// the new one is complete.
void declare_report(command_line& line);
