// The settings of the hooks: /etc/ravo-openvpn.conf, one setting in each line.
#include "configuration.h"

#include "settings_lines.h"

namespace {

bool set_bounded(unsigned& number, const words& line, unsigned least, unsigned most) {
    return line.size() == 2 && set_number(number, line[1], least, most);
}

bool set(configuration& settings, const words& line) {
    if (line[0] == "verifier" && line.size() > 1 && line[1].starts_with('/')) {
        settings.verifier.assign(line.begin() + 1, line.end());
        return true;
    }
    if (line[0] == "verifier-seconds") return set_bounded(settings.verifier_seconds, line, 1, 300);
    if (line[0] == "waiting-events") return set_bounded(settings.waiting_events, line, 1, 100000);
    if (line == words{"without-limiter", "open"} || line == words{"without-limiter", "closed"}) {
        settings.is_open_without_limiter = line[1] == "open";
        return true;
    }
    return false;
}

}  // namespace

configuration parse_configuration(std::string_view text) {
    configuration settings;
    settings.unknown_lines =
        read_settings_lines(text, [&](const words& line) { return set(settings, line); });
    return settings;
}

configuration read_configuration() {
    return parse_configuration(read_settings_file(configuration_path));
}
