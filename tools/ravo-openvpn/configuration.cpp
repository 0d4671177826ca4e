// The settings of the hooks: /etc/ravo-openvpn.conf, one setting in each line.
#include "configuration.h"

#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>

namespace {

using words = std::vector<std::string>;

words words_of(const std::string& line) {
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

bool set_number(unsigned& number, const words& values, unsigned least, unsigned most) {
    if (values.size() != 2) return false;
    const std::string& text = values[1];
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return false;
    if (value < least || value > most) return false;
    number = value;
    return true;
}

bool set(configuration& settings, const words& line) {
    if (line[0] == "verifier" && line.size() > 1 && line[1].starts_with('/')) {
        settings.verifier.assign(line.begin() + 1, line.end());
        return true;
    }
    if (line[0] == "verifier-seconds") return set_number(settings.verifier_seconds, line, 1, 300);
    if (line[0] == "waiting-events") return set_number(settings.waiting_events, line, 1, 100000);
    if (line == words{"without-limiter", "open"} || line == words{"without-limiter", "closed"}) {
        settings.is_open_without_limiter = line[1] == "open";
        return true;
    }
    return false;
}

}  // namespace

configuration parse_configuration(std::string_view text) {
    configuration settings;
    std::istringstream in{std::string(text)};
    for (std::string line; std::getline(in, line);) {
        const words parts = words_of(line);
        if (parts.empty() || parts[0].starts_with('#')) continue;
        if (!set(settings, parts)) settings.unknown_lines.push_back(line);
    }
    return settings;
}

configuration read_configuration() {
    std::ifstream in(configuration_path);
    return parse_configuration(std::string{std::istreambuf_iterator<char>(in), {}});
}
