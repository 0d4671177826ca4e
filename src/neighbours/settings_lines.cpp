// The reading of settings files of lines of words.
#include "settings_lines.h"

#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>

std::vector<std::string> read_settings_lines(std::string_view text,
                                             const std::function<bool(const words&)>& set) {
    std::vector<std::string> unknown;
    std::istringstream in{std::string(text)};
    for (std::string line; std::getline(in, line);) {
        std::istringstream rest(line);
        const words parts{std::istream_iterator<std::string>(rest), {}};
        if (parts.empty() || parts[0].starts_with('#')) continue;
        if (!set(parts)) unknown.push_back(line);
    }
    return unknown;
}

std::string read_settings_file(const char* path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

bool set_number(unsigned& number, std::string_view text, unsigned least, unsigned most) {
    unsigned value = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stopped != end || value < least || value > most) return false;
    number = value;
    return true;
}
