// Where notifications go besides the system log and the notifications file: /etc/ravod/notify.conf,
// one setting in each line.
#ifndef NEIGHBOURS_NOTIFY_SETTINGS_H
#define NEIGHBOURS_NOTIFY_SETTINGS_H

#include <string>
#include <string_view>
#include <vector>

inline constexpr char notify_settings_path[] = "/etc/ravod/notify.conf";

struct notify_settings {
    std::vector<std::string> mail_to;  // none: no mail
    std::string mail_from = "root";
    std::string sendmail = "/usr/sbin/sendmail";
    std::string apprise_config;  // empty: no apprise
    std::string apprise = "/usr/bin/apprise";
    std::string directory;  // of executables; empty: none
    std::string least_level = "info";
    unsigned retry_seconds = 10;  // after the first failure; longer after each further one
    unsigned give_up_hours = 72;
    std::vector<std::string> unknown_lines;  // to be told to the log
};

// The settings of a text. What is not said, or cannot be understood, is as above.
notify_settings parse_notify_settings(std::string_view text);

// The settings of the file; those above when there is none.
notify_settings read_notify_settings();

// Whether a notification of that level goes anywhere.
bool are_delivered(const notify_settings& settings, std::string_view level);

#endif  // NEIGHBOURS_NOTIFY_SETTINGS_H
