// Where notifications go besides the system log and the notifications file.
#include "notify_settings.h"

#include <algorithm>

#include "settings_lines.h"

namespace {

bool set_path(std::string& path, const std::string& text) {
    if (!text.starts_with('/')) return false;
    path = text;
    return true;
}

// An address that is neither an option to a program nor more than one address to a mail header.
bool is_address(const std::string& text) {
    return !text.starts_with('-') && std::ranges::all_of(text, [](char c) {
        return c > 0x20 && c < 0x7f &&
               std::string_view(",;:<>()[]\"\\").find(c) == std::string::npos;
    });
}

// Any other word than these is a level of 0.
int rank_of(std::string_view level) {
    if (level == "warn") return 1;
    if (level == "error") return 2;
    return 0;
}

bool set_level(std::string& level, const std::string& text) {
    if (rank_of(text) == 0 && text != "info") return false;
    level = text;
    return true;
}

bool set(notify_settings& settings, const words& line) {
    if (line.size() != 2) return false;
    const std::string& name = line[0];
    const std::string& value = line[1];
    if (name == "mail-to" && is_address(value)) {
        settings.mail_to.push_back(value);
        return true;
    }
    if (name == "mail-from" && is_address(value)) {
        settings.mail_from = value;
        return true;
    }
    if (name == "sendmail") return set_path(settings.sendmail, value);
    if (name == "apprise-config") return set_path(settings.apprise_config, value);
    if (name == "apprise") return set_path(settings.apprise, value);
    if (name == "directory") return set_path(settings.directory, value);
    if (name == "level") return set_level(settings.least_level, value);
    if (name == "retry-seconds") return set_number(settings.retry_seconds, value, 1, 3600);
    if (name == "give-up-hours") return set_number(settings.give_up_hours, value, 1, 10000);
    return false;
}

}  // namespace

notify_settings parse_notify_settings(std::string_view text) {
    notify_settings settings;
    settings.unknown_lines =
        read_settings_lines(text, [&](const words& line) { return set(settings, line); });
    return settings;
}

notify_settings read_notify_settings() {
    return parse_notify_settings(read_settings_file(notify_settings_path));
}

bool are_delivered(const notify_settings& settings, std::string_view level) {
    const bool is_anywhere = !settings.mail_to.empty() || !settings.apprise_config.empty() ||
                             !settings.directory.empty();
    return is_anywhere && rank_of(level) >= rank_of(settings.least_level);
}
