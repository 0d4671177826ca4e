// Text from outside, made fit for a line of a log or a terminal.
#include "plain_text.h"

#include <cstdio>

bool is_control(std::string_view text, size_t at) {
    const auto byte = [&](size_t n) { return static_cast<unsigned char>(text[n]); };
    const auto is_second = [](unsigned char value) { return value >= 0x80 && value <= 0x9f; };
    if (byte(at) < 0x20 || byte(at) == 0x7f) return true;
    if (byte(at) == 0xc2) return at + 1 < text.size() && is_second(byte(at + 1));
    return at > 0 && byte(at - 1) == 0xc2 && is_second(byte(at));
}

bool is_not_ascii(std::string_view text, size_t at) {
    return static_cast<unsigned char>(text[at]) >= 0x80;
}

std::string escape(std::string_view text, bool (*is_escaped)(std::string_view, size_t)) {
    std::string line;
    for (size_t at = 0; at < text.size(); ++at) {
        if (!is_escaped(text, at)) {
            line += text[at];
            continue;
        }
        char hex[5];
        (void)snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(text[at]));
        line += hex;
    }
    return line;
}
